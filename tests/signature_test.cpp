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

class SignatureTest : public zultest::ContextTest {
protected:
    bool Set(CZulCryptSignature& s, const char* digest, const Bytes& n, const Bytes& x) {
        return s.SetHashAndKey(digest, n.data(), n.size(), x.data(), x.size());
    }
    // The signature's hex; on failure what the call left of the length (7 untouched), after "null "
    // when the allocating form gave no buffer.
    std::string Sign(CZulCryptSignature& s, Bytes in, bool alloc = false) {
        unsigned char buffer[512], *out = buffer;
        unsigned int length = 7;
        const bool ok = alloc ? s.GetSignature(in.data(), in.size(), &out, &length)
                              : s.GetSignature(in.data(), in.size(), out, &length);
        const std::string result = ok ? zultest::Hex(out, length) : (out ? "" : "null ") + std::to_string(length);
        if (alloc && ok) delete[] out;
        return result;
    }
    bool Verify(CZulCryptSignature& s, Bytes in, Bytes signature) {
        return s.VerifySignature(in.data(), in.size(), signature.data(), signature.size());
    }
    // A SHA-256 signature of "abc" with its key's N, E and D.
    const zultest::VectorCase key = zultest::RsaSha256Signature();
    const Bytes n = key.Bytes("N"), e = key.Bytes("E"), d = key.Bytes("D"), abc = key.Bytes("In");
    const Bytes signature = key.Bytes("Out");
};

// Through one object for every row. Valid = 1: both signing forms give Out, which verifies;
// Valid = 0: Out does not verify, with the report Unverifiable (a mismatch if none); Unsignable: signing
// In fails with that report.
TEST_F(SignatureTest, Vectors) {
    CZulCryptSignature s(*context);
    for (const zultest::VectorCase& v : zultest::ReadVectors("rsa_signature.vec")) {
        SCOPED_TRACE(v.Where());
        const std::string digest = v.Text("Digest");
        const bool valid = v.Number("Valid") == 1;
        Texts reports;
        if (valid || v.Has("Unsignable")) {
            ASSERT_TRUE(Set(s, digest.c_str(), v.Bytes("N"), v.Bytes("D")));
            for (bool alloc : {false, true})
                EXPECT_EQ(Sign(s, v.Bytes("In"), alloc), valid ? zultest::Hex(v.Bytes("Out")) : alloc ? "null 0" : "7");
            if (!valid) reports.assign(2, v.Text("Unsignable"));
        }
        if (v.Has("E")) {
            ASSERT_TRUE(Set(s, digest.c_str(), v.Bytes("N"), v.Bytes("E")));
            EXPECT_EQ(s.GetSignatureSize(), static_cast<int>(v.Bytes("N").size()));
            EXPECT_EQ(Verify(s, v.Bytes("In"), v.Bytes("Out")), valid);
            const char* mismatch = "VKL_EVP_VerifyFinal: the signature does not match";
            if (!valid) reports.push_back(v.Has("Unverifiable") ? v.Text("Unverifiable") : mismatch);
        }
        EXPECT_EQ(diagnostics->TakeErrors("czulcryptsignature"), reports);
    }
}

// A fresh object traces its life and queries, and signs nothing before a digest is chosen.
TEST_F(SignatureTest, Traces) {
    CZulCryptContext::SetLogLevel(4);
    auto s = std::make_unique<CZulCryptSignature>(*context);
    EXPECT_TRUE(s->GetStatus());
    EXPECT_EQ(s->GetType(), nullptr);
    EXPECT_EQ(s->GetDigestSize(), -1);
    EXPECT_EQ(s->GetSignatureSize(), -1);
    unsigned char out[8];
    unsigned int length = 7;
    EXPECT_FALSE(s->GetSignature(out, 3, out, &length));
    EXPECT_FALSE(s->SetHashAndKey(nullptr, n.data(), n.size(), e.data(), e.size()));
    s.reset();
    std::ostringstream at, data;
    at << context.get();
    data << static_cast<void*>(out);
    const std::string c = "CZulCryptSignature::";
    EXPECT_EQ(diagnostics->TracesAt(3), (Texts{c + "CZulCryptSignature(" + at.str() + ")\n", c + "Initialise()\n",
                                               c + "~CZulCryptSignature()\n"}));
    EXPECT_EQ(diagnostics->TracesAt(4),
              (Texts{c + "GetStatus() returning TRUE\n", c + "GetType() returning NULL\n",
                     c + "GetDigestSize() returning -1\n", c + "GetSignatureSize() returning -1\n",
                     c + "GetSignature(" + data.str() + " : 3)\n", c + "SetHashAndKey(NULL)\n",
                     c + "ResetMessageDigest()\n"}));
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptsignature"),
              Texts{"No message digest chosen: SetHashAndKey has not succeeded since construction or reset"});
}

// Queries follow the digest and the modulus; a reset forgets the digest, not the key; numbers that
// cannot be taken fail the set-up, a zero exponent the signing; an unknown digest disables the object.
TEST_F(SignatureTest, States) {
    CZulCryptSignature s(*context);
    ASSERT_TRUE(Set(s, "RSA-SHA1", n, d));
    EXPECT_STREQ(s.GetType(), "SHA1");
    EXPECT_EQ(s.GetDigestSize(), 20);
    EXPECT_EQ(s.GetDigestBlockSize(), 64);
    s.ResetMessageDigest();
    EXPECT_EQ(s.GetType(), nullptr);
    EXPECT_EQ(s.GetDigestSize() + s.GetDigestBlockSize(), -2);
    EXPECT_EQ(s.GetSignatureSize(), static_cast<int>(n.size()));
    EXPECT_FALSE(Verify(s, abc, signature));
    EXPECT_FALSE(Set(s, "SHA256", n, Bytes()));
    EXPECT_EQ(s.GetSignatureSize(), static_cast<int>(n.size()));
    EXPECT_FALSE(Set(s, "SHA256", Bytes(), e));
    EXPECT_EQ(s.GetSignatureSize(), 0);
    ASSERT_TRUE(Set(s, "SHA256", n, {0, 0}));
    EXPECT_EQ(Sign(s, abc), "7");
    EXPECT_FALSE(Set(s, "NO-SUCH-DIGEST", n, e));
    EXPECT_FALSE(s.GetStatus());
    EXPECT_EQ(s.GetSignatureSize(), -1);
    EXPECT_FALSE(Set(s, "SHA256", n, d));
    EXPECT_EQ(Sign(s, abc, true), "null 0");
    EXPECT_FALSE(Verify(s, abc, signature));
    const std::string invalid = "VKL Context in an invalid state";
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptsignature"),
              (Texts{"No message digest chosen: SetHashAndKey has not succeeded since construction or reset",
                     "No usable RSA key: the modulus or the exponent is missing or zero",
                     "VKL_EVP_get_digestbyname: unknown digest NO-SUCH-DIGEST", invalid, invalid, invalid}));
}

// A VKL step failing fails that call with VKL's cause and releases what it made; the next call works.
// Exponents out of bounds are refused.
TEST_F(SignatureTest, Failures) {
    CZulCryptSignature s(*context);
    ASSERT_TRUE(Set(s, "SHA256", n, d));
    VKLTest_Reset();
    VKLTest_FailCall("VKL_EVP_DigestInit", 0, 1, 0);
    EXPECT_EQ(Sign(s, abc), "7");
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestUpdate") + VKLTest_CallCount("VKL_EVP_SignFinal"), 0u);
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_PKEY_free") + VKLTest_CallCount("VKL_RSA_free"), 2u);
    VKLTest_FailCall("VKL_EVP_PKEY_new", 0, 1, 0);
    EXPECT_EQ(Sign(s, abc, true), "null 0");
    VKLTest_FailCall("VKL_RSA_new", 0, 1, 0);
    EXPECT_EQ(Sign(s, abc), "7");
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_PKEY_free"), 2u);
    EXPECT_EQ(Sign(s, abc, true), zultest::Hex(signature));
    ASSERT_TRUE(Set(s, "SHA256", n, Bytes(64, 0x55)));
    EXPECT_EQ(Sign(s, abc), "7");
    ASSERT_TRUE(Set(s, "SHA256", Bytes(512, 0xFF), Bytes(9, 1)));
    EXPECT_FALSE(Verify(s, abc, Bytes(512, 0)));
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptsignature"),
              (Texts{"VKL_EVP_DigestInit: injected failure", "VKL_EVP_PKEY_new: injected failure",
                     "VKL_RSA_new: injected failure",
                     "VKL_EVP_SignFinal: the private exponent has 511 bits, more than the modulus's 495",
                     "error:02000065:rsa routines::bad e value"}));
}

// The digest context: one VKL could not make leaves the object unusable until Initialise makes it
// (a second Initialise keeps it); a failed cleanup disables the object; a failed free is reported,
// and its context lost on purpose (tests/valgrind.supp names this test).
TEST_F(SignatureTest, DigestContextFailures) {
#if defined(__SANITIZE_ADDRESS__)
    __lsan::ScopedDisabler leaks;
#endif
    VKLTest_FailCall("VKL_EVP_MD_CTX_new", 0, 1, 0);
    CZulCryptSignature s(*context);
    EXPECT_FALSE(s.GetStatus());
    EXPECT_FALSE(Set(s, "SHA256", n, e));
    s.Initialise();
    s.Initialise();
    ASSERT_TRUE(Set(s, "SHA256", n, e));
    EXPECT_TRUE(Verify(s, abc, signature));
    VKLTest_FailCall("VKL_EVP_MD_CTX_cleanup", 0, 1, 0);
    s.ResetMessageDigest();
    EXPECT_FALSE(s.GetStatus());
    {
        CZulCryptSignature lost(*context);
        VKLTest_FailCall("VKL_EVP_MD_CTX_free", 0, 1, 0);
    }
    liveObjects += 1;
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptsignature"),
              (Texts{"VKL_EVP_MD_CTX_new: injected failure", "VKL Context in an invalid state",
                     "VKL_EVP_MD_CTX_cleanup: injected failure", "VKL_EVP_MD_CTX_free: injected failure"}));
}

}  // namespace
