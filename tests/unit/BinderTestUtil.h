// Shared by the binder runtime's and the binder transport's tests: a registry
// private to the test process, parcels written as hex, and binder_aidl_peer
// run as the other process.
#pragma once

#include <binder/Parcel.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <memory>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "e2e_util.h"

// Services of this test process stay invisible to every other test process.
inline const bool kPrivateRegistry = [] {
    setenv("HOST_BINDER_REGISTRY", ("binder_test_" + std::to_string(getpid())).c_str(), 1);
    return true;
}();

// The bytes of `text`, two hex digits each; anything else is skipped.
inline std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text) {
        if (isxdigit(static_cast<unsigned char>(c))) digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

inline std::unique_ptr<android::Parcel> parcelOf(const std::string& text) {
    const std::vector<uint8_t> bytes = hex(text);
    auto p = std::make_unique<android::Parcel>();
    p->setData(bytes.data(), bytes.size());
    return p;
}

// binder_aidl_peer run with `args`; saw() waits for one whole line of its output.
struct Peer {
    explicit Peer(std::vector<std::string> args)
        : child((args.insert(args.begin(), BINDER_AIDL_PEER_BIN), args), dir.file("out"),
                dir.file("err")) {}
    bool saw(const std::string& line) {
        return zem_e2e::eventually(
                [&] { return zem_e2e::count("\n" + child.out(), "\n" + line + "\n") > 0; });
    }
    zem_test::TempDir dir;
    zem_e2e::Child child;
};
