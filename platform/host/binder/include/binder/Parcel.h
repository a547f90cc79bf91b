// Parcel: the byte container of a binder transaction, in libbinder's wire
// layout for the primitives used here.
//
// Layout (all little-endian, every item padded to 4 bytes):
//  - int32/uint32: 4 bytes; int64/uint64: 8 bytes; bool: an int32 0 or 1;
//  - String16 (also what writeUtf8AsUtf16 produces): int32 length in char16
//    units, then length+1 char16 (the last is 0), zero-padded to 4; a null
//    string is the int32 -1;
//  - byte vector: int32 length (-1 for null), the bytes, zero-padded to 4;
//  - interface token (Android 10 layout): int32 strict-mode policy with the
//    gather bit (0x80000000), int32 work source (-1 when unset), String16
//    descriptor;
//  - strong binder: a flat object (see HostWire.h) followed by an int32
//    stability level. Offsets of flat objects are kept beside the data, as
//    libbinder keeps its object table, so a reader only unflattens an object
//    where a writer put one.
// Every read is bounds-checked: a short or malformed parcel gives an error
// status, never a read outside the data.
//
// A parcel belongs to one thread at a time; it takes no lock.
#pragma once

#include <stdint.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <memory>
#include <string>
#include <vector>

namespace android {

class IBinder;
class IPCThreadState;

namespace hostbinder {
class HostRuntime;
}

class Parcel {
  public:
    Parcel();
    ~Parcel();

    const uint8_t* data() const { return mData.data(); }
    size_t dataSize() const { return mData.size(); }
    size_t dataAvail() const;
    size_t dataPosition() const { return mPos; }
    size_t dataCapacity() const { return mData.capacity(); }

    status_t setDataSize(size_t size);
    void setDataPosition(size_t pos) const;
    status_t setDataCapacity(size_t size);
    // Replaces the content with a copy of `buffer` (no objects) and rewinds.
    status_t setData(const uint8_t* buffer, size_t len);
    void freeData();

    size_t objectsCount() const { return mObjects.size(); }

    // Newer libbinder records which binder a parcel is meant for, to pick a
    // wire format; the host has one format, so this only checks that the
    // parcel is still empty.
    void markForBinder(const sp<IBinder>& binder);

    status_t writeInterfaceToken(const String16& interface);
    bool enforceInterface(const String16& interface, IPCThreadState* threadState = nullptr) const;
    bool checkInterface(IBinder* binder) const;

    status_t write(const void* data, size_t len);
    void* writeInplace(size_t len);
    status_t writeInt32(int32_t val);
    status_t writeUint32(uint32_t val);
    status_t writeInt64(int64_t val);
    status_t writeUint64(uint64_t val);
    status_t writeBool(bool val);
    status_t writeString16(const String16& str);
    status_t writeString16(const std::unique_ptr<String16>& str);
    status_t writeString16(const char16_t* str, size_t len);
    status_t writeUtf8AsUtf16(const std::string& str);
    status_t writeUtf8AsUtf16(const std::unique_ptr<std::string>& str);
    status_t writeByteVector(const std::vector<int8_t>& val);
    status_t writeByteVector(const std::vector<uint8_t>& val);
    status_t writeByteVector(const std::unique_ptr<std::vector<int8_t>>& val);
    status_t writeByteVector(const std::unique_ptr<std::vector<uint8_t>>& val);
    status_t writeStrongBinder(const sp<IBinder>& val);
    // Writes EX_NONE, as Java's writeNoException does.
    status_t writeNoException();

    status_t read(void* outData, size_t len) const;
    const void* readInplace(size_t len) const;
    int32_t readInt32() const;
    status_t readInt32(int32_t* pArg) const;
    uint32_t readUint32() const;
    status_t readUint32(uint32_t* pArg) const;
    int64_t readInt64() const;
    status_t readInt64(int64_t* pArg) const;
    uint64_t readUint64() const;
    status_t readUint64(uint64_t* pArg) const;
    bool readBool() const;
    status_t readBool(bool* pArg) const;
    String16 readString16() const;
    status_t readString16(String16* pArg) const;
    status_t readString16(std::unique_ptr<String16>* pArg) const;
    const char16_t* readString16Inplace(size_t* outLen) const;
    status_t readUtf8FromUtf16(std::string* str) const;
    status_t readUtf8FromUtf16(std::unique_ptr<std::string>* str) const;
    status_t readByteVector(std::vector<int8_t>* val) const;
    status_t readByteVector(std::vector<uint8_t>* val) const;
    status_t readByteVector(std::unique_ptr<std::vector<int8_t>>* val) const;
    status_t readByteVector(std::unique_ptr<std::vector<uint8_t>>* val) const;
    sp<IBinder> readStrongBinder() const;
    // UNEXPECTED_NULL for a null object.
    status_t readStrongBinder(sp<IBinder>* val) const;
    status_t readNullableStrongBinder(sp<IBinder>* val) const;
    // Reads a binder and converts it with INTERFACE::asInterface.
    template <typename T>
    status_t readStrongBinder(sp<T>* val) const;
    template <typename T>
    status_t readNullableStrongBinder(sp<T>* val) const;
    // The exception code of a reply written with writeNoException or
    // binder::Status; 0 when none.
    int32_t readExceptionCode() const;

  private:
    friend class hostbinder::HostRuntime;

    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;

    template <typename T>
    status_t writeAligned(T val);
    template <typename T>
    status_t readAligned(T* pArg) const;
    template <typename T>
    status_t readByteVectorInternal(std::vector<T>* val) const;
    status_t writeByteVectorInternal(const void* data, size_t len);
    status_t growTo(size_t size);

    std::vector<uint8_t> mData;
    mutable size_t mPos = 0;
    // Offsets in mData of the flat binder objects, ascending.
    std::vector<size_t> mObjects;
    // Binders flattened into this parcel, kept alive as long as it.
    std::vector<sp<IBinder>> mHeld;
};

template <typename T>
status_t Parcel::readStrongBinder(sp<T>* val) const {
    sp<IBinder> tmp;
    status_t ret = readStrongBinder(&tmp);
    if (ret == OK) {
        *val = T::asInterface(tmp);
        if (val->get() == nullptr && tmp.get() != nullptr) ret = UNKNOWN_ERROR;
    }
    return ret;
}

template <typename T>
status_t Parcel::readNullableStrongBinder(sp<T>* val) const {
    sp<IBinder> tmp;
    status_t ret = readNullableStrongBinder(&tmp);
    if (ret == OK) {
        *val = T::asInterface(tmp);
        if (val->get() == nullptr && tmp.get() != nullptr) ret = UNKNOWN_ERROR;
    }
    return ret;
}

}  // namespace android
