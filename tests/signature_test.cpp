// CZulCryptSignature: the signatures of tests/vectors/rsa_signature.vec (made by the openssl command
// line or Python), and what a caller sees of its states, traces and failures.
#include <sstream>

#include <gtest/gtest.h>

#include <czulcryptsignature.h>
#include <vkl_testing.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;
using zultest::Hex;

class SignatureTest : public zultest::ContextTest {
protected:
    void Make() { s = std::make_unique<CZulCryptSignature>(*context); }
    Texts Errors() { return diagnostics->TakeErrors("czulcryptsignature"); }
    void Fail(const char* function, int times = 1) { VKLTest_FailCall(function, 0, times, 0); }
    void TearDown() override {
        s.reset();
        ContextTest::TearDown();
    }
    bool Set(const char* digest, const Bytes& n, const Bytes& x) {
        return s->SetHashAndKey(digest, n.data(), n.size(), x.data(), x.size());
    }
    // The signature's hex; on failure what the call left of the length (7 untouched), after "null "
    // when the allocating form gave no buffer.
    std::string Sign(bool alloc = false, Bytes in = {'a', 'b', 'c'}) {
        unsigned char buffer[512], *out = buffer;
        unsigned int length = 7;
        const bool ok = alloc ? s->GetSignature(in.data(), in.size(), &out, &length)
                              : s->GetSignature(in.data(), in.size(), out, &length);
        const std::string result = ok ? Hex(out, length) : (out ? "" : "null ") + std::to_string(length);
        if (alloc && ok) delete[] out;
        return result;
    }
    bool Verify(Bytes signature, Bytes in = {'a', 'b', 'c'}) {
        return s->VerifySignature(in.data(), in.size(), signature.data(), signature.size());
    }
    std::unique_ptr<CZulCryptSignature> s;
    // A SHA-256 signature of "abc" with its key's N, E and D.
    const zultest::VectorCase key = zultest::RsaSha256Signature();
    const Bytes n = key.Bytes("N"), e = key.Bytes("E"), d = key.Bytes("D"), signature = key.Bytes("Out");
};

// Through one object for every row; the data file says what its fields mean.
TEST_F(SignatureTest, Vectors) {
    Make();
    for (const zultest::VectorCase& v : zultest::ReadVectors("rsa_signature.vec")) {
        SCOPED_TRACE(v.Where());
        const std::string digest = v.Text("Digest");
        const std::string why = v.Has("NoDigestInfo") ? "digest " + digest + " cannot be used in a PKCS #1 v1.5 signature"
                                                      : "the signature does not match";
        const bool valid = v.Number("Valid") == 1;
        Texts reports;
        if (valid || v.Has("NoDigestInfo") || v.Has("OpensslRefuses")) {
            ASSERT_TRUE(Set(digest.c_str(), v.Bytes("N"), v.Bytes("D")));
            EXPECT_EQ(Sign(false, v.Bytes("In")), valid ? Hex(v.Bytes("Out")) : "7");
            if (!valid) reports.push_back(v.Has("OpensslRefuses") ? v.Text("OpensslRefuses") : "VKL_EVP_SignFinal: " + why);
        }
        if (v.Has("E")) {
            ASSERT_TRUE(Set(digest.c_str(), v.Bytes("N"), v.Bytes("E")));
            EXPECT_EQ(Verify(v.Bytes("Out"), v.Bytes("In")), valid);
            if (!valid) reports.push_back("VKL_EVP_VerifyFinal: " + why);
        }
        EXPECT_EQ(Errors(), reports);
    }
}

// A fresh object traces its life and queries, and signs nothing before a digest is chosen.
TEST_F(SignatureTest, Traces) {
    CZulCryptContext::SetLogLevel(4);
    Make();
    // Its result shows in the trace.
    s->GetStatus();
    EXPECT_EQ(Sign(true, {}), "null 0");
    EXPECT_FALSE(Set(nullptr, n, e));
    s.reset();
    std::ostringstream at;
    at << context.get();
    const std::string c = "CZulCryptSignature::";
    EXPECT_EQ(diagnostics->TracesAt(3), (Texts{c + "CZulCryptSignature(" + at.str() + ")\n", c + "Initialise()\n",
                                               c + "~CZulCryptSignature()\n"}));
    EXPECT_EQ(diagnostics->TracesAt(4),
              (Texts{c + "GetStatus() returning TRUE\n",
                     c + "GetSignature(NULL : 0)\n", c + "GetSignatureSize() returning -1\n",
                     c + "GetSignature(NULL : 0)\n", c + "SetHashAndKey(NULL)\n",
                     c + "ResetMessageDigest()\n"}));
    EXPECT_EQ(Errors(),
              Texts{"No message digest chosen: SetHashAndKey has not succeeded since construction or reset"});
}

// Queries follow the digest and the modulus; a reset forgets the digest, not the key; numbers that
// cannot be taken fail the set-up, a zero exponent the signing; an unknown digest disables the object.
TEST_F(SignatureTest, States) {
    Make();
    ASSERT_TRUE(Set("RSA-SHA1", n, d));
    EXPECT_STREQ(s->GetType(), "SHA1");
    Fail("VKL_OBJ_nid2sn");
    EXPECT_EQ(s->GetType(), nullptr);
    EXPECT_EQ(s->GetDigestSize(), 20);
    EXPECT_EQ(s->GetDigestBlockSize(), 64);
    s->ResetMessageDigest();
    EXPECT_EQ(s->GetType(), nullptr);
    EXPECT_EQ(s->GetDigestSize() + s->GetDigestBlockSize(), -2);
    EXPECT_FALSE(Set("SHA256", Bytes(), e));
    EXPECT_FALSE(Set("SHA256", n, Bytes()));
    EXPECT_EQ(s->GetSignatureSize(), 62);
    ASSERT_TRUE(Set("SHA256", n, {0, 0}));
    EXPECT_EQ(Sign(), "7");
    EXPECT_FALSE(Set("NO-SUCH-DIGEST", n, e));
    EXPECT_EQ(s->GetSignatureSize(), -1);
    EXPECT_FALSE(Set("SHA256", n, d));
    EXPECT_EQ(Sign(true), "null 0");
    EXPECT_FALSE(Verify(signature));
    const std::string invalid = "VKL Context in an invalid state";
    EXPECT_EQ(Errors(),
              (Texts{"No usable RSA key: the modulus or the exponent is missing or zero",
                     "VKL_EVP_get_digestbyname: unknown digest NO-SUCH-DIGEST", invalid, invalid, invalid}));
}

// A VKL step failing fails that call with VKL's cause and releases what it made; the next call works.
TEST_F(SignatureTest, Failures) {
    Make();
    ASSERT_TRUE(Set("SHA256", n, d));
    Fail("VKL_EVP_DigestInit");
    EXPECT_EQ(Sign(), "7");
    Fail("VKL_EVP_PKEY_new");
    EXPECT_EQ(Sign(true), "null 0");
    Fail("VKL_EVP_DigestUpdate");
    EXPECT_EQ(Sign(), "7");
    EXPECT_EQ(Sign(true), Hex(signature));
    EXPECT_EQ(Errors(), (Texts{"VKL_EVP_DigestInit: injected failure", "VKL_EVP_PKEY_new: injected failure",
                               "VKL_EVP_DigestUpdate: injected failure"}));
}

// The digest context: one VKL could not make leaves the object unusable, and destroyed without a call,
// until Initialise makes it (a second Initialise keeps it; a failed init changes nothing); a failed cleanup disables the object; a failed free is reported,
// and its context lost on purpose (tests/valgrind.supp names this test).
TEST_F(SignatureTest, DigestContextFailures) {
#if defined(__SANITIZE_ADDRESS__)
    __lsan::ScopedDisabler leaks;
#endif
    Fail("VKL_EVP_MD_CTX_new", 2);
    Make();
    Make();
    EXPECT_FALSE(Set("SHA256", n, e));
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_MD_CTX_free"), 0u);
    Fail("VKL_EVP_MD_CTX_init");
    s->Initialise();
    s->Initialise();
    ASSERT_TRUE(Set("SHA256", n, e));
    Fail("VKL_EVP_MD_CTX_cleanup");
    s->ResetMessageDigest();
    EXPECT_FALSE(s->GetStatus());
    {
        CZulCryptSignature lost(*context);
        Fail("VKL_EVP_MD_CTX_free");
    }
    liveObjects += 1;
    EXPECT_EQ(Errors(),
              (Texts{"VKL_EVP_MD_CTX_new: injected failure", "VKL_EVP_MD_CTX_new: injected failure",
                     "VKL Context in an invalid state",
                     "VKL_EVP_MD_CTX_cleanup: injected failure", "VKL_EVP_MD_CTX_free: injected failure"}));
}

}  // namespace
