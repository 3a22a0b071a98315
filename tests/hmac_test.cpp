// CZulCryptHMAC: the vectors of tests/data/hmac.vec through both GetHMAC forms
// and repeated use, then traces, refusals and every failure inside the class.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <czulcrypthmac.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

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

TEST_F(HmacTest, TracesOfALife) {
    std::ostringstream address;
    address << static_cast<const void*>(context.get());
    {
        CZulCryptHMAC hmac(*context, "SHA1", kAbc, 3);
        EXPECT_EQ(diagnostics->TracesAt(3), (Texts{"CZulCryptMDContext::Initialise()\n",
                                                   "CZulCryptHMAC::CZulCryptHMAC(" + address.str() + ")\n"}));
        diagnostics->Clear();
        EXPECT_NE(Mac(hmac, {'x'}), "");
        const Texts traces = diagnostics->TracesAt(4);
        ASSERT_FALSE(traces.empty());
        EXPECT_EQ(traces.front(), "CZulCryptHMAC::GetHMAC()\n");
        // One assembled buffer per hash, a re-arm after each.
        EXPECT_EQ(std::count(traces.begin(), traces.end(), "CZulCryptMDContext::SetType(SHA1)\n"), 2);
        EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestUpdate"), 2u);
        diagnostics->Clear();
    }
    const Texts traces3 = diagnostics->TracesAt(3);
    EXPECT_EQ(traces3, Texts{"CZulCryptHMAC::~CZulCryptHMAC()\n"});
    EXPECT_EQ(diagnostics->traces.front().text, "CZulCryptHMAC::~CZulCryptHMAC()\n");
}

TEST_F(HmacTest, NullDigestNameIsSilentlyNotSetUp) {
    CZulCryptHMAC hmac(*context, nullptr, kAbc, 3);
    EXPECT_EQ(diagnostics->TracesAt(3), Texts{"CZulCryptMDContext::Initialise()\n"});
    EXPECT_EQ(Mac(hmac, {'x'}), "");
    EXPECT_TRUE(hmac.GetStatus());
    EXPECT_EQ(hmac.GetDigestSize(), -1);
    EXPECT_EQ(hmac.GetDigestBlockSize(), -1);
    EXPECT_EQ(hmac.GetType(), nullptr);
    EXPECT_TRUE(diagnostics->errors.empty());
}

TEST_F(HmacTest, NullKeyWithALengthIsNotSetUp) {
    CZulCryptHMAC hmac(*context, "SHA256", nullptr, 16);
    EXPECT_EQ(Mac(hmac, {'x'}), "");
    EXPECT_TRUE(diagnostics->errors.empty());
    CZulCryptHMAC empty(*context, "SHA256", nullptr, 0);
    EXPECT_EQ(Mac(empty, {'x'}), Mac(empty, {'x'}));
    EXPECT_NE(Mac(empty, {'x'}), "");
}

TEST_F(HmacTest, RefusedArgumentsWriteNothing) {
    CZulCryptHMAC hmac(*context, "SHA256", kAbc, 3);
    unsigned char data[4] = {};
    unsigned char out[32];
    unsigned char* allocated = out;
    unsigned int length = 99;
    EXPECT_FALSE(hmac.GetHMAC(nullptr, 0, out, &length));
    EXPECT_FALSE(hmac.GetHMAC(data, 4, static_cast<unsigned char*>(nullptr), &length));
    EXPECT_FALSE(hmac.GetHMAC(nullptr, 0, &allocated, &length));
    EXPECT_FALSE(hmac.GetHMAC(data, 4, static_cast<unsigned char**>(nullptr), &length));
    EXPECT_EQ(length, 99u);
    EXPECT_EQ(allocated, out);

    // Lengths whose sum with the padded key passes 2^32 - 1 are refused before any allocation;
    // the data is not read.
    const unsigned int tooLong = std::numeric_limits<uint32_t>::max() - 64 + 1;
    EXPECT_FALSE(hmac.GetHMAC(data, tooLong, out, &length));
    EXPECT_EQ(length, 99u);
    EXPECT_FALSE(hmac.GetHMAC(data, tooLong, &allocated, &length));
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(allocated, out);
    EXPECT_TRUE(diagnostics->errors.empty());
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestUpdate"), 0u);
}

// Each step of GetHMAC failing in VKL: reported by the digest context, false,
// *hmacLength untouched (caller buffer) or 0 (allocated), and the next call right.
TEST_F(HmacTest, VklFailuresInsideGetHmac) {
    struct Fault {
        const char* function;
        unsigned skip;
        long result;
        const char* text;
        unsigned long updates;  // hashes attempted before giving up
        bool recovers;          // a failed hash is started afresh; a failed re-arm leaves no digest
    };
    for (const Fault& f : {Fault{"VKL_EVP_DigestUpdate", 0, -2, "VKL_EVP_DigestUpdate: injected failure", 1, true},
                           Fault{"VKL_EVP_DigestUpdate", 1, -2, "VKL_EVP_DigestUpdate: injected failure", 2, true},
                           Fault{"VKL_EVP_DigestFinal", 0, -2, "VKL_EVP_DigestFinal: injected failure", 1, true},
                           Fault{"VKL_EVP_DigestFinal", 1, -2, "VKL_EVP_DigestFinal: injected failure", 2, true},
                           Fault{"VKL_EVP_DigestInit", 0, -2, "VKL_EVP_DigestInit: injected failure", 1, false},
                           Fault{"VKL_EVP_DigestInit", 1, -2, "VKL_EVP_DigestInit: injected failure", 2, false}}) {
        SCOPED_TRACE(std::string(f.function) + " after " + std::to_string(f.skip));
        for (bool allocating : {false, true}) {
            CZulCryptHMAC hmac(*context, "SHA256", kAbc, 3);
            VKLTest_Reset();
            diagnostics->Clear();
            VKLTest_FailCall(f.function, f.skip, 1, f.result);
            unsigned char data[] = {1, 2, 3};
            unsigned char out[32];
            unsigned char* allocated = out;
            unsigned int length = 99;
            bool ok = allocating ? hmac.GetHMAC(data, 3, &allocated, &length) : hmac.GetHMAC(data, 3, out, &length);
            EXPECT_FALSE(ok);
            EXPECT_EQ(length, allocating ? 0u : 99u);
            EXPECT_EQ(allocated, out);
            EXPECT_EQ(diagnostics->ErrorTexts(), Texts{f.text});
            EXPECT_EQ(diagnostics->errors[0].file, "czulcryptmdcontext");
            EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestUpdate"), f.updates);
            // Nothing of the abandoned hash reaches the next call (Python's hmac module).
            EXPECT_EQ(Mac(hmac, {1, 2, 3}),
                      f.recovers ? "e43ab5aaa8ec7e8ba2be4b56f60f41d0d06501c567dcc6c1160ee4febbae5495" : "");
        }
    }
}

TEST_F(HmacTest, FailedRearmWhereNoDigestIsLeft) {
    CZulCryptHMAC hmac(*context, "SHA1", kAbc, 3);
    VKLTest_FailCall("VKL_EVP_get_digestbyname", 0, 1, 0);
    EXPECT_EQ(Mac(hmac, {'x'}), "");
    EXPECT_EQ(diagnostics->ErrorTexts(), Texts{"VKL_EVP_get_digestbyname: injected failure"});
    EXPECT_EQ(hmac.GetDigestSize(), -1);

    // Neither form sizes a buffer from -1: both refuse without hashing.
    diagnostics->Clear();
    VKLTest_Reset();
    unsigned char data[] = {1};
    unsigned char* allocated = nullptr;
    unsigned int length = 99;
    EXPECT_FALSE(hmac.GetHMAC(data, 1, &allocated, &length));
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(allocated, nullptr);
    EXPECT_EQ(Mac(hmac, {'x'}), "");
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestUpdate"), 0u);
    EXPECT_TRUE(diagnostics->errors.empty());
}

TEST_F(HmacTest, LongKeyHashingFailuresLeaveTheObjectNotSetUp) {
    const Bytes key(100, 0xaa);
    for (const char* function : {"VKL_EVP_DigestUpdate", "VKL_EVP_DigestFinal", "VKL_EVP_DigestInit"}) {
        SCOPED_TRACE(function);
        VKLTest_Reset();
        diagnostics->Clear();
        // The re-arm's init is the second one; the other steps fail on their first call.
        VKLTest_FailCall(function, std::string(function) == "VKL_EVP_DigestInit" ? 1 : 0, 1, -2);
        CZulCryptHMAC hmac(*context, "SHA1", key.data(), static_cast<unsigned int>(key.size()));
        EXPECT_EQ(diagnostics->ErrorTexts(), Texts{std::string(function) + ": injected failure"});
        diagnostics->Clear();
        EXPECT_EQ(Mac(hmac, {'x'}), "");
        EXPECT_TRUE(diagnostics->errors.empty()) << "a key that was not set up makes GetHMAC fail silently";
    }
}

TEST_F(HmacTest, FipsPolicyAtConstructionAndAtEveryRearm) {
    WEXTest_SetSystemFips(1);
    const std::string sha256Report = "Non FIPS algorithm SHA256 called in a FIPS context.\n";
    {
        CZulCryptHMAC hmac(*context, "SHA256", kAbc, 3);
        EXPECT_NE(Mac(hmac, {'x'}), "");
        EXPECT_EQ(diagnostics->ErrorTexts(), Texts(3, sha256Report));
    }
    // "RSA-MD5" is on the list, but the re-arm asks for VKL's short name, "MD5", which is not.
    context->SetIsNonFIPSAllowedInFIPS(false);
    diagnostics->Clear();
    CZulCryptHMAC hmac(*context, "RSA-MD5", kAbc, 3);
    EXPECT_TRUE(diagnostics->errors.empty());
    EXPECT_EQ(Mac(hmac, {'x'}), "");
    EXPECT_EQ(diagnostics->ErrorTexts(), Texts{"Non FIPS algorithm MD5 called in a FIPS context.\n"});
    EXPECT_EQ(hmac.GetDigestSize(), -1);
    EXPECT_EQ(Mac(hmac, {'x'}), "");

    CZulCryptHMAC refused(*context, "SHA512", kAbc, 3);
    EXPECT_EQ(refused.GetType(), nullptr);
    EXPECT_EQ(Mac(refused, {'x'}), "");
}

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
