// What the hand-written binder interfaces IZEMManager and IZEMCallback share:
// the interface glue every such class carries (local object or proxy lookup,
// descriptor, default implementation) and the parcel steps common to their
// proxies and stubs.
//
//   class IFoo : public zem_binder::MetaInterface<IFoo, BpFoo> {
//     public:
//       static const android::String16& descriptor;
//       ...
//   };
//
// Nothing here locks; a default implementation is a plain global set before
// use. The same source builds against the platform's libbinder and the host
// binder runtime.
#pragma once

// Some libbinder releases use std::unique_ptr and std::numeric_limits in their
// headers without including them; the standard headers go first.
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>
// clang-format off
#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <binder/Status.h>
// clang-format on

namespace zem_binder {

// The part of an interface class that libbinder's DECLARE_META_INTERFACE and
// IMPLEMENT_META_INTERFACE would write. They cannot serve here: the
// platform's IMPLEMENT_META_INTERFACE refuses interface names outside
// libbinder's own list of hand-written interfaces, and its setDefaultImpl
// keeps the first default implementation where these interfaces replace it.
//
// `I` derives from this and declares `static const android::String16&
// descriptor`, never destroyed, since binder pool threads may still compare
// it while the process exits. `Bp` is I's proxy.
template <typename I, typename Bp>
class MetaInterface : public android::IInterface {
  public:
    // Null for a null binder; the local object when `obj` is one of this
    // process's I stubs; otherwise a new proxy on `obj`.
    static android::sp<I> asInterface(const android::sp<android::IBinder>& obj) {
        android::sp<I> intr;
        if (obj != nullptr) {
            intr = static_cast<I*>(obj->queryLocalInterface(I::descriptor).get());
            if (intr == nullptr) intr = new Bp(obj);
        }
        return intr;
    }

    virtual const android::String16& getInterfaceDescriptor() const { return I::descriptor; }

    // Replaces the implementation a proxy falls back to when the remote
    // object answers UNKNOWN_TRANSACTION, destroying the earlier one. Refuses
    // null (returns false).
    static bool setDefaultImpl(std::unique_ptr<I> impl) {
        if (!impl) return false;
        defaultImpl = std::move(impl);
        return true;
    }
    static const std::unique_ptr<I>& getDefaultImpl() { return defaultImpl; }

  private:
    static inline std::unique_ptr<I> defaultImpl;
};

// Newer libbinder wants each request parcel marked for the binder it goes
// to; older releases have no such call. Calls it exactly when it exists.
template <typename P, typename = void>
struct HasMarkForBinder : std::false_type {};
template <typename P>
struct HasMarkForBinder<P, std::void_t<decltype(std::declval<P&>().markForBinder(
                                   std::declval<const android::sp<android::IBinder>&>()))>>
    : std::true_type {};

template <typename P>
inline void markForBinder(P& parcel, const android::sp<android::IBinder>& binder) {
    if constexpr (HasMarkForBinder<P>::value) {
        parcel.markForBinder(binder);
    } else {
        (void)parcel;
        (void)binder;
    }
}

// Reads the status of a two-way reply and, for an ok status, the out value
// through `readOut` (returning a status_t). A read error becomes the result.
template <typename ReadOut>
android::binder::Status readReply(const android::Parcel& reply, ReadOut&& readOut) {
    android::binder::Status status;
    android::status_t err = status.readFromParcel(reply);
    if (err != android::OK) return android::binder::Status::fromStatusT(err);
    if (!status.isOk()) return status;
    err = readOut();
    if (err != android::OK) return android::binder::Status::fromStatusT(err);
    return status;
}

// One proxy call of interface I to `remote`, on transaction `code` with
// `flags`: the request holds I's interface token and whatever
// writeArgs(Parcel&) writes (the first failed write is the result). When the
// remote answers UNKNOWN_TRANSACTION and I has a default implementation, the
// result is fallback(I&) on it; any other transport error is the result. A
// one-way call ends there; a two-way call reads its reply with readReply and
// readOut(const Parcel&).
template <typename I, typename WriteArgs, typename Fallback, typename ReadOut>
android::binder::Status proxyCall(const android::sp<android::IBinder>& remote, uint32_t code,
                                  uint32_t flags, WriteArgs&& writeArgs, Fallback&& fallback,
                                  ReadOut&& readOut) {
    android::Parcel data;
    android::Parcel reply;
    markForBinder(data, remote);
    android::status_t err = data.writeInterfaceToken(I::descriptor);
    if (err == android::OK) err = writeArgs(data);
    if (err != android::OK) return android::binder::Status::fromStatusT(err);

    err = remote->transact(code, data, &reply, flags);
    if (err == android::UNKNOWN_TRANSACTION && I::getDefaultImpl()) {
        return fallback(*I::getDefaultImpl());
    }
    if (err != android::OK || (flags & android::IBinder::FLAG_ONEWAY) != 0) {
        return android::binder::Status::fromStatusT(err);
    }
    return readReply(reply, [&] { return readOut(reply); });
}

// Writes a stub's answer: the operation's status and, for an ok status, the
// out value through `writeOut` (returning a status_t). Returns the
// transaction's result.
template <typename WriteOut>
android::status_t writeReply(android::Parcel* reply, const android::binder::Status& status,
                             WriteOut&& writeOut) {
    const android::status_t err = status.writeToParcel(reply);
    if (err != android::OK || !status.isOk()) return err;
    return writeOut();
}

}  // namespace zem_binder
