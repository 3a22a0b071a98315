// CZulCryptHMAC: the known answers of tests/data/hmac.vec through both GetHMAC
// forms and repeated use, and the traces, refusals and every failure inside the
// class in tests/data/hmac_scripts.vec.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <czulcrypthmac.h>

#include "script.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<unsigned char>;

class HmacTest : public zultest::ContextTest {};

// The calls of tests/data/hmac*.vec. "New digest key [length]" makes the
// object (- for a null name or key); the MAC calls return the length they leave
// (99 when untouched) and fail the test if a failing call moves the output pointer.
zultest::Calls HmacCalls(CZulCryptContext& context) {
    auto hmac = std::make_shared<std::unique_ptr<CZulCryptHMAC>>();
    CZulCryptContext* on = &context;
    using zultest::Args;
    auto mac = [=](const Args& a, bool allocating) {
        unsigned char out[64];
        unsigned char* allocated = out;
        unsigned int length = 99;
        Bytes data = a[0].IsNull() ? Bytes() : a[0].Bytes();
        unsigned char none = 0;
        unsigned char* in = a[0].IsNull() ? nullptr : data.empty() ? &none : data.data();
        // Mac data [- for a null output | nolength for a null length pointer | out]
        //     [length given instead of the data's]
        const bool nullOut = a.size() > 1 && a[1].IsNull();
        unsigned int* lengthOut = a.size() > 1 && a[1].raw == "nolength" ? nullptr : &length;
        const unsigned int dataLength = a.size() > 2 ? static_cast<unsigned int>(std::stoul(a[2].raw))
                                                     : static_cast<unsigned int>(data.size());
        bool ok = allocating ? (*hmac)->GetHMAC(in, dataLength, nullOut ? nullptr : &allocated, lengthOut)
                             : (*hmac)->GetHMAC(in, dataLength, nullOut ? nullptr : out, lengthOut);
        zultest::Outcome outcome = zultest::Bytes(ok, allocated, length);
        outcome.number = length;
        if (allocating && ok) std::free(allocated);
        if (!ok) {
            EXPECT_EQ(allocated, out) << "a failing call moved the output pointer";
        }
        return outcome;
    };
    return {
        {"New",
         [=](const Args& a) {
             const Bytes key = a[1].IsNull() ? Bytes() : a[1].Bytes();
             const unsigned int length =
                 a.size() > 2 ? static_cast<unsigned int>(a[2].Number()) : static_cast<unsigned int>(key.size());
             hmac->reset();
             *hmac = std::make_unique<CZulCryptHMAC>(*on, a[0].IsNull() ? nullptr : a[0].Text().c_str(),
                                                     a[1].IsNull() ? nullptr : key.data(), length);
             return zultest::Ok(true);
         }},
        {"Mac", [=](const Args& a) { return mac(a, false); }},
        {"MacAlloc", [=](const Args& a) { return mac(a, true); }},
        {"Size", [=](const Args&) { return zultest::Number((*hmac)->GetDigestSize()); }},
        {"Block", [=](const Args&) { return zultest::Number((*hmac)->GetDigestBlockSize()); }},
        {"Type", [=](const Args&) { return zultest::Text((*hmac)->GetType()); }},
        {"Status", [=](const Args&) { return zultest::Ok((*hmac)->GetStatus()); }},
    };
}

TEST_F(HmacTest, Scripts) {
    for (const char* file : {"hmac.vec", "hmac_scripts.vec"}) {
        zultest::RunScripts(file, HmacCalls);
    }
}

// In a death test's child with the address space capped at 1 GiB, the inner input
// of a 3 GiB message cannot be allocated. The data is never read.
TEST_F(HmacTest, InsufficientMemoryEndsTheProcess) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory needs more address space than the limit leaves";
#else
    CZulCryptHMAC hmac(*context, "SHA1", reinterpret_cast<const unsigned char*>("abc"), 3);
    auto child = [&] {
        CZulCryptContext::SetErrorResponseFn(nullptr);
        const struct rlimit limit = {rlim_t{1} << 30, rlim_t{1} << 30};
        setrlimit(RLIMIT_AS, &limit);
        unsigned char data[1] = {}, out[20];
        unsigned int length = 0;
        hmac.GetHMAC(data, 3u << 30, out, &length);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(255), "FILE:czulcrypthmac LINE:[0-9]+ DESC:Insufficient memory");
#endif
}

}  // namespace
