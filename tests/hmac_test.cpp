// CZulCryptHMAC: the vectors of tests/data/hmac.vec through both GetHMAC forms
// and repeated use; traces, refusals and every failure inside the class are the
// scripts of tests/data/hmac_scripts.vec.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <czulcrypthmac.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Texts = std::vector<std::string>;
using Bytes = std::vector<unsigned char>;

class HmacTest : public zultest::ContextTest {};

// The caller-buffer form; "" when it fails.
std::string Mac(CZulCryptHMAC& hmac, Bytes data) {
    unsigned char out[64];
    unsigned int outLength = 0;
    unsigned char none = 0;
    if (!hmac.GetHMAC(data.empty() ? &none : data.data(), static_cast<unsigned int>(data.size()), out, &outLength))
        return "";
    return zultest::Hex(out, outLength);
}

const unsigned char kAbc[] = {'a', 'b', 'c'};

TEST_F(HmacTest, Vectors) {
    const auto cases = zultest::ReadVectors("hmac.vec");
    ASSERT_GT(cases.size(), 40u);
    for (const zultest::VectorCase& v : cases) {
        SCOPED_TRACE(v.Where());
        diagnostics->Clear();
        const Bytes key = v.Bytes("Key");
        Bytes data = v.Bytes("In");
        CZulCryptHMAC hmac(*context, v.Text("Digest").c_str(), key.data(), static_cast<unsigned int>(key.size()));
        if (v.Has("Error")) {
            EXPECT_EQ(Mac(hmac, data), "");
            EXPECT_EQ(diagnostics->ErrorTexts(), Texts{v.Text("Error")});
            continue;
        }
        std::string expected = zultest::Hex(v.Bytes("Out"));
        std::string first = Mac(hmac, data);
        ASSERT_EQ(first.size(), 2u * static_cast<size_t>(hmac.GetDigestSize()));
        EXPECT_EQ(first.substr(0, expected.size()), expected);
        if (!v.Has("Truncated")) {
            EXPECT_EQ(first, expected);
        }
        // The digest context is re-armed after every call.
        EXPECT_EQ(Mac(hmac, data), first);

        unsigned char* allocated = nullptr;
        unsigned int length = 0;
        unsigned char none = 0;
        ASSERT_TRUE(hmac.GetHMAC(data.empty() ? &none : data.data(), static_cast<unsigned int>(data.size()),
                                 &allocated, &length));
        EXPECT_EQ(zultest::Hex(allocated, length), first);
        std::free(allocated);
        EXPECT_TRUE(diagnostics->errors.empty());
    }
}

// The calls of tests/data/hmac_scripts.vec. "New digest key [length]" makes the
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
        // Mac data [- for a null output | out] [length given instead of the data's]
        const bool nullOut = a.size() > 1 && a[1].IsNull();
        const unsigned int dataLength = a.size() > 2 ? static_cast<unsigned int>(std::stoul(a[2].raw))
                                                     : static_cast<unsigned int>(data.size());
        bool ok = allocating ? (*hmac)->GetHMAC(in, dataLength, nullOut ? nullptr : &allocated, &length)
                             : (*hmac)->GetHMAC(in, dataLength, nullOut ? nullptr : out, &length);
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

TEST_F(HmacTest, Scripts) { zultest::RunScripts("hmac_scripts.vec", HmacCalls); }

#if !defined(__SANITIZE_ADDRESS__)
// Run in the child of a death test: with the address space capped at 1 GiB the
// inner input of a 3 GiB message cannot be allocated. The data is never read.
void HmacWithoutMemory(CZulCryptHMAC& hmac) {
    CZulCryptContext::SetErrorResponseFn(nullptr);
    struct rlimit limit = {};
    limit.rlim_cur = limit.rlim_max = rlim_t{1} << 30;
    setrlimit(RLIMIT_AS, &limit);
    unsigned char data[1] = {};
    unsigned char out[20];
    unsigned int length = 0;
    hmac.GetHMAC(data, 3u << 30, out, &length);
}
#endif

TEST_F(HmacTest, InsufficientMemoryEndsTheProcess) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory needs more address space than the limit leaves";
#else
    CZulCryptHMAC hmac(*context, "SHA1", kAbc, 3);
    EXPECT_EXIT(HmacWithoutMemory(hmac), ::testing::ExitedWithCode(255),
                "FILE:czulcrypthmac LINE:[0-9]+ DESC:Insufficient memory");
#endif
}

}  // namespace
