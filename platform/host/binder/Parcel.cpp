#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
#include <utils/Unicode.h>

#include <cstring>
#include <limits>

#include "HostRuntime.h"

namespace android {

namespace {

// libbinder sets this bit in the strict-mode word of every interface token.
constexpr int32_t kStrictModePenaltyGather = static_cast<int32_t>(0x80000000u);
constexpr int32_t kUnsetWorkSource = -1;

size_t padSize(size_t len) {
    return (len + 3) & ~size_t(3);
}

}  // namespace

Parcel::Parcel() = default;
Parcel::~Parcel() = default;

size_t Parcel::dataAvail() const {
    return mPos < mData.size() ? mData.size() - mPos : 0;
}

status_t Parcel::setDataSize(size_t size) {
    if (size > std::numeric_limits<int32_t>::max()) return BAD_VALUE;
    mData.resize(size);
    while (!mObjects.empty() && mObjects.back() + sizeof(hostbinder::FlatBinderHeader) > size) {
        mObjects.pop_back();
    }
    if (mPos > size) mPos = size;
    return OK;
}

void Parcel::setDataPosition(size_t pos) const {
    mPos = pos;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size > std::numeric_limits<int32_t>::max()) return BAD_VALUE;
    mData.reserve(size);
    return OK;
}

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
    if (len > std::numeric_limits<int32_t>::max()) return BAD_VALUE;
    freeData();
    if (len > 0) mData.assign(buffer, buffer + len);
    return OK;
}

void Parcel::freeData() {
    mData.clear();
    mObjects.clear();
    mHeld.clear();
    mPos = 0;
}

void Parcel::markForBinder(const sp<IBinder>& /*binder*/) {}

status_t Parcel::growTo(size_t size) {
    if (size > std::numeric_limits<int32_t>::max()) return NO_MEMORY;
    if (size > mData.size()) mData.resize(size);
    return OK;
}

void* Parcel::writeInplace(size_t len) {
    if (len > std::numeric_limits<int32_t>::max()) return nullptr;
    const size_t padded = padSize(len);
    if (growTo(mPos + padded) != OK) return nullptr;
    uint8_t* d = mData.data() + mPos;
    // Padding bytes are always zero, so equal content gives equal parcels.
    if (padded > len) memset(d + len, 0, padded - len);
    mPos += padded;
    return d;
}

status_t Parcel::write(const void* data, size_t len) {
    void* d = writeInplace(len);
    if (d == nullptr) return BAD_VALUE;
    if (len > 0) memcpy(d, data, len);
    return OK;
}

template <typename T>
status_t Parcel::writeAligned(T val) {
    static_assert(sizeof(T) % 4 == 0, "aligned writes are whole words");
    return write(&val, sizeof(T));
}

template <typename T>
status_t Parcel::readAligned(T* pArg) const {
    if (mPos > mData.size() || mData.size() - mPos < sizeof(T)) return NOT_ENOUGH_DATA;
    memcpy(pArg, mData.data() + mPos, sizeof(T));
    mPos += sizeof(T);
    return OK;
}

status_t Parcel::writeInt32(int32_t val) {
    return writeAligned(val);
}
status_t Parcel::writeUint32(uint32_t val) {
    return writeAligned(val);
}
status_t Parcel::writeInt64(int64_t val) {
    return writeAligned(val);
}
status_t Parcel::writeUint64(uint64_t val) {
    return writeAligned(val);
}
status_t Parcel::writeBool(bool val) {
    return writeInt32(val ? 1 : 0);
}

status_t Parcel::writeString16(const char16_t* str, size_t len) {
    if (str == nullptr) return writeInt32(-1);
    if (len >= static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != OK) return err;
    const size_t bytes = len * sizeof(char16_t);
    uint8_t* d = static_cast<uint8_t*>(writeInplace(bytes + sizeof(char16_t)));
    if (d == nullptr) return BAD_VALUE;
    if (bytes > 0) memcpy(d, str, bytes);
    memset(d + bytes, 0, sizeof(char16_t));
    return OK;
}

status_t Parcel::writeString16(const String16& str) {
    return writeString16(str.string(), str.size());
}

status_t Parcel::writeString16(const std::unique_ptr<String16>& str) {
    if (!str) return writeInt32(-1);
    return writeString16(*str);
}

status_t Parcel::writeUtf8AsUtf16(const std::string& str) {
    const uint8_t* src = reinterpret_cast<const uint8_t*>(str.data());
    const ssize_t utf16Len = utf8_to_utf16_length(src, str.size());
    if (utf16Len < 0 || utf16Len >= std::numeric_limits<int32_t>::max()) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(utf16Len));
    if (err != OK) return err;
    void* dst = writeInplace((static_cast<size_t>(utf16Len) + 1) * sizeof(char16_t));
    if (dst == nullptr) return NO_MEMORY;
    utf8_to_utf16(src, str.size(), static_cast<char16_t*>(dst), static_cast<size_t>(utf16Len) + 1);
    return OK;
}

status_t Parcel::writeUtf8AsUtf16(const std::unique_ptr<std::string>& str) {
    if (!str) return writeInt32(-1);
    return writeUtf8AsUtf16(*str);
}

status_t Parcel::writeByteVectorInternal(const void* data, size_t len) {
    if (len > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    if (err != OK) return err;
    return write(data, len);
}

status_t Parcel::writeByteVector(const std::vector<int8_t>& val) {
    return writeByteVectorInternal(val.data(), val.size());
}
status_t Parcel::writeByteVector(const std::vector<uint8_t>& val) {
    return writeByteVectorInternal(val.data(), val.size());
}
status_t Parcel::writeByteVector(const std::unique_ptr<std::vector<int8_t>>& val) {
    if (!val) return writeInt32(-1);
    return writeByteVector(*val);
}
status_t Parcel::writeByteVector(const std::unique_ptr<std::vector<uint8_t>>& val) {
    if (!val) return writeInt32(-1);
    return writeByteVector(*val);
}

status_t Parcel::writeStrongBinder(const sp<IBinder>& val) {
    return hostbinder::HostRuntime::get().flatten(this, val);
}

status_t Parcel::writeNoException() {
    return binder::Status::ok().writeToParcel(this);
}

status_t Parcel::writeInterfaceToken(const String16& interface) {
    status_t err = writeInt32(kStrictModePenaltyGather);
    if (err == OK) err = writeInt32(kUnsetWorkSource);
    if (err == OK) err = writeString16(interface);
    return err;
}

bool Parcel::enforceInterface(const String16& interface, IPCThreadState* /*threadState*/) const {
    int32_t strictPolicy = 0;
    int32_t workSource = 0;
    if (readInt32(&strictPolicy) != OK || readInt32(&workSource) != OK) return false;
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str == nullptr) return false;
    return len == interface.size() && memcmp(str, interface.string(), len * sizeof(char16_t)) == 0;
}

bool Parcel::checkInterface(IBinder* binder) const {
    return enforceInterface(binder->getInterfaceDescriptor());
}

status_t Parcel::read(void* outData, size_t len) const {
    const void* p = readInplace(len);
    if (p == nullptr) return NOT_ENOUGH_DATA;
    if (len > 0) memcpy(outData, p, len);
    return OK;
}

const void* Parcel::readInplace(size_t len) const {
    if (len > std::numeric_limits<int32_t>::max()) return nullptr;
    const size_t padded = padSize(len);
    if (mPos > mData.size() || mData.size() - mPos < padded) return nullptr;
    const void* p = mData.data() + mPos;
    mPos += padded;
    return p;
}

status_t Parcel::readInt32(int32_t* pArg) const {
    return readAligned(pArg);
}
int32_t Parcel::readInt32() const {
    int32_t v = 0;
    readAligned(&v);
    return v;
}
status_t Parcel::readUint32(uint32_t* pArg) const {
    return readAligned(pArg);
}
uint32_t Parcel::readUint32() const {
    uint32_t v = 0;
    readAligned(&v);
    return v;
}
status_t Parcel::readInt64(int64_t* pArg) const {
    return readAligned(pArg);
}
int64_t Parcel::readInt64() const {
    int64_t v = 0;
    readAligned(&v);
    return v;
}
status_t Parcel::readUint64(uint64_t* pArg) const {
    return readAligned(pArg);
}
uint64_t Parcel::readUint64() const {
    uint64_t v = 0;
    readAligned(&v);
    return v;
}

status_t Parcel::readBool(bool* pArg) const {
    int32_t tmp = 0;
    status_t ret = readInt32(&tmp);
    *pArg = (tmp != 0);
    return ret;
}
bool Parcel::readBool() const {
    return readInt32() != 0;
}

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
    int32_t size = 0;
    if (readInt32(&size) == OK && size >= 0 && size < std::numeric_limits<int32_t>::max()) {
        const size_t len = static_cast<size_t>(size);
        const void* p = readInplace((len + 1) * sizeof(char16_t));
        if (p != nullptr) {
            const char16_t* str = static_cast<const char16_t*>(p);
            char16_t last;
            memcpy(&last, str + len, sizeof(last));
            if (last == 0) {
                *outLen = len;
                return str;
            }
        }
    }
    *outLen = 0;
    return nullptr;
}

String16 Parcel::readString16() const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str != nullptr) return String16(str, len);
    return String16();
}

status_t Parcel::readString16(String16* pArg) const {
    size_t len = 0;
    const char16_t* str = readString16Inplace(&len);
    if (str != nullptr) {
        pArg->setTo(str, len);
        return OK;
    }
    *pArg = String16();
    return UNEXPECTED_NULL;
}

status_t Parcel::readString16(std::unique_ptr<String16>* pArg) const {
    const size_t start = mPos;
    int32_t size = 0;
    status_t err = readInt32(&size);
    pArg->reset();
    if (err != OK) return err;
    if (size < 0) return OK;
    mPos = start;
    pArg->reset(new String16());
    err = readString16(pArg->get());
    if (err != OK) pArg->reset();
    return err;
}

status_t Parcel::readUtf8FromUtf16(std::string* str) const {
    size_t utf16Size = 0;
    const char16_t* src = readString16Inplace(&utf16Size);
    if (src == nullptr) return UNEXPECTED_NULL;
    if (utf16Size == 0) {
        str->clear();
        return OK;
    }
    const ssize_t utf8Size = utf16_to_utf8_length(src, utf16Size) + 1;
    if (utf8Size < 1) return BAD_VALUE;
    str->resize(static_cast<size_t>(utf8Size));
    utf16_to_utf8(src, utf16Size, &(*str)[0], static_cast<size_t>(utf8Size));
    str->resize(static_cast<size_t>(utf8Size) - 1);
    return OK;
}

status_t Parcel::readUtf8FromUtf16(std::unique_ptr<std::string>* str) const {
    const size_t start = mPos;
    int32_t size = 0;
    status_t err = readInt32(&size);
    str->reset();
    if (err != OK) return err;
    if (size < 0) return OK;
    mPos = start;
    str->reset(new std::string());
    err = readUtf8FromUtf16(str->get());
    if (err != OK) str->reset();
    return err;
}

template <typename T>
status_t Parcel::readByteVectorInternal(std::vector<T>* val) const {
    int32_t size = 0;
    status_t err = readInt32(&size);
    if (err != OK) return err;
    if (size < 0) return UNEXPECTED_NULL;
    if (static_cast<size_t>(size) > dataAvail()) return BAD_VALUE;
    const T* data = static_cast<const T*>(readInplace(static_cast<size_t>(size)));
    if (data == nullptr) return BAD_VALUE;
    val->assign(data, data + size);
    return OK;
}

status_t Parcel::readByteVector(std::vector<int8_t>* val) const {
    return readByteVectorInternal(val);
}
status_t Parcel::readByteVector(std::vector<uint8_t>* val) const {
    return readByteVectorInternal(val);
}
status_t Parcel::readByteVector(std::unique_ptr<std::vector<int8_t>>* val) const {
    const size_t start = mPos;
    int32_t size = 0;
    status_t err = readInt32(&size);
    val->reset();
    if (err != OK || size < 0) return err;
    mPos = start;
    val->reset(new std::vector<int8_t>());
    err = readByteVectorInternal(val->get());
    if (err != OK) val->reset();
    return err;
}
status_t Parcel::readByteVector(std::unique_ptr<std::vector<uint8_t>>* val) const {
    const size_t start = mPos;
    int32_t size = 0;
    status_t err = readInt32(&size);
    val->reset();
    if (err != OK || size < 0) return err;
    mPos = start;
    val->reset(new std::vector<uint8_t>());
    err = readByteVectorInternal(val->get());
    if (err != OK) val->reset();
    return err;
}

status_t Parcel::readNullableStrongBinder(sp<IBinder>* val) const {
    return hostbinder::HostRuntime::get().unflatten(*this, val);
}

status_t Parcel::readStrongBinder(sp<IBinder>* val) const {
    status_t status = readNullableStrongBinder(val);
    if (status == OK && val->get() == nullptr) status = UNEXPECTED_NULL;
    return status;
}

sp<IBinder> Parcel::readStrongBinder() const {
    sp<IBinder> val;
    readNullableStrongBinder(&val);
    return val;
}

int32_t Parcel::readExceptionCode() const {
    binder::Status status;
    status.readFromParcel(*this);
    return status.exceptionCode();
}

}  // namespace android
