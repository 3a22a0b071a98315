// RSA signatures: OpenSSL's own signatures of a fixed key, set-up and
// queries, and every failure driven through the platform's fault injection.
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>

#include <czulcryptcontext.h>
#include <czulcryptsignature.h>
#include <vkl.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "test_support.h"
#include "vector_file.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
struct IgnoreLeaks {
    IgnoreLeaks() { __lsan_disable(); }
    ~IgnoreLeaks() { __lsan_enable(); }
};
#else
struct IgnoreLeaks {};
#endif

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SignatureTest : public zultest::ContextTest {
protected:
    void SetUp() override {
        ContextTest::SetUp();
        const std::vector<zultest::VectorCase> vectors = zultest::ReadVectors("rsa_signature.vec");
        ASSERT_FALSE(vectors.empty());
        n = vectors[0].Bytes("N");
        e = vectors[0].Bytes("E");
        d = vectors[0].Bytes("D");
    }

    bool Configure(CZulCryptSignature& signature, const char* digest, const std::vector<unsigned char>& exponent) {
        return signature.SetHashAndKey(digest, n.data(), static_cast<unsigned int>(n.size()), exponent.data(),
                                       static_cast<unsigned int>(exponent.size()));
    }

    std::vector<unsigned char> n, e, d;
    std::vector<unsigned char> message = std::vector<unsigned char>(100, 0x5A);
};

// One signer and one verifier serve every case, so each case also checks reuse;
// the signer is reset and configured afresh between cases.
TEST_F(SignatureTest, MatchesOpenSslSignaturesOfAFixedKey) {
    CZulCryptSignature signer(*context);
    CZulCryptSignature verifier(*context);
    int valid = 0, invalid = 0;
    for (const zultest::VectorCase& vector : zultest::ReadVectors("rsa_signature.vec")) {
        SCOPED_TRACE(vector.Where());
        const std::string digest = vector.Text("Digest");
        std::vector<unsigned char> in = vector.Bytes("In");
        std::vector<unsigned char> expected = vector.Bytes("Out");
        diagnostics->Clear();
        ASSERT_TRUE(Configure(verifier, digest.c_str(), e));
        EXPECT_EQ(verifier.GetSignatureSize(), 256);
        const bool verified = verifier.VerifySignature(in.data(), static_cast<unsigned int>(in.size()),
                                                       expected.data(), static_cast<unsigned int>(expected.size()));
        if (vector.Number("Valid") == 0) {
            ++invalid;
            EXPECT_FALSE(verified);
            EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_EVP_VerifyFinal: the signature does not match"));
            EXPECT_EQ(diagnostics->errors[0].file, "czulcryptsignature");
            continue;
        }
        ++valid;
        EXPECT_TRUE(verified);

        signer.ResetMessageDigest();
        ASSERT_TRUE(Configure(signer, digest.c_str(), d));
        std::vector<unsigned char> out(256, 0);
        unsigned int length = 0;
        ASSERT_TRUE(signer.GetSignature(in.data(), static_cast<unsigned int>(in.size()), out.data(), &length));
        EXPECT_EQ(zultest::Hex(out.data(), length), zultest::Hex(expected));

        unsigned char* allocated = nullptr;
        unsigned int allocatedLength = 0;
        ASSERT_TRUE(signer.GetSignature(in.data(), static_cast<unsigned int>(in.size()), &allocated, &allocatedLength));
        EXPECT_EQ(zultest::Hex(allocated, allocatedLength), zultest::Hex(expected));
        delete[] allocated;
        EXPECT_THAT(diagnostics->errors, IsEmpty());
    }
    EXPECT_EQ(valid, 8);
    EXPECT_EQ(invalid, 3);
}

// The stand-in signs through OpenSSL's RSA when the record has e and by hand
// when it has only n and d: both must give OpenSSL's bytes.
TEST_F(SignatureTest, VklSignsAlikeWithAndWithoutPublicExponent) {
    const zultest::VectorCase vector = zultest::ReadVectors("rsa_signature.vec")[3];
    ASSERT_EQ(vector.Text("Digest"), "SHA1");
    VKL_t* vkl = context->GetContext()->m_pCtx;
    for (bool withE : {true, false}) {
        SCOPED_TRACE(withE);
        VKL_RSA_t* rsa = VKL_RSA_new(vkl);
        ASSERT_NE(rsa, nullptr);
        rsa->n = VKL_BN_bin2bn(vkl, n.data(), static_cast<int>(n.size()), nullptr);
        rsa->d = VKL_BN_bin2bn(vkl, d.data(), static_cast<int>(d.size()), nullptr);
        if (withE) rsa->e = VKL_BN_bin2bn(vkl, e.data(), static_cast<int>(e.size()), nullptr);
        VKL_EVP_PKEY_t* pkey = VKL_EVP_PKEY_new(vkl);
        ASSERT_EQ(VKL_EVP_PKEY_set1_RSA(vkl, pkey, rsa), 1);
        VKL_RSA_free(vkl, rsa);  // the container's reference keeps it alive
        VKL_EVP_MD_CTX_t* ctx = VKL_EVP_MD_CTX_new(vkl);
        const std::vector<unsigned char> in = vector.Bytes("In");
        ASSERT_EQ(VKL_EVP_DigestInit(vkl, ctx, VKL_EVP_get_digestbyname(vkl, "SHA1")), 1);
        ASSERT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, in.data(), in.size()), 1);
        unsigned char out[256];
        unsigned int length = 0;
        EXPECT_EQ(VKL_EVP_SignFinal(vkl, ctx, out, &length, pkey), 1);
        EXPECT_EQ(zultest::Hex(out, length), zultest::Hex(vector.Bytes("Out")));
        // The hash is finished: signing again needs a new init.
        EXPECT_EQ(VKL_EVP_SignFinal(vkl, ctx, out, &length, pkey), 0);
        EXPECT_EQ(VKL_ERR_get_error(vkl) != 0, true);
        EXPECT_EQ(VKL_EVP_MD_CTX_free(vkl, ctx), 1);
        VKL_EVP_PKEY_free(vkl, pkey);
    }
}

// OpenSSL itself, in a library context of its own with the providers VKL loads: the
// signature `openssl pkeyutl -sign -pkeyopt digest:<name>` makes of <name>(message)
// with the fixed key. Empty when OpenSSL will not sign with the digest.
class OpenSslSigner {
public:
    OpenSslSigner(const std::vector<unsigned char>& n, const std::vector<unsigned char>& e,
                  const std::vector<unsigned char>& d)
        : m_libctx(OSSL_LIB_CTX_new()),
          m_default(OSSL_PROVIDER_load(m_libctx, "default")),
          m_legacy(OSSL_PROVIDER_load(m_libctx, "legacy")) {
        OSSL_PARAM_BLD* bld = OSSL_PARAM_BLD_new();
        BIGNUM* numbers[3] = {BN_bin2bn(n.data(), static_cast<int>(n.size()), nullptr),
                              BN_bin2bn(e.data(), static_cast<int>(e.size()), nullptr),
                              BN_bin2bn(d.data(), static_cast<int>(d.size()), nullptr)};
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_N, numbers[0]);
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_E, numbers[1]);
        OSSL_PARAM_BLD_push_BN(bld, OSSL_PKEY_PARAM_RSA_D, numbers[2]);
        OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(bld);
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(m_libctx, "RSA", nullptr);
        if (ctx == nullptr || EVP_PKEY_fromdata_init(ctx) != 1 ||
            EVP_PKEY_fromdata(ctx, &m_key, EVP_PKEY_KEYPAIR, params) != 1) {
            m_key = nullptr;
        }
        EVP_PKEY_CTX_free(ctx);
        OSSL_PARAM_free(params);
        for (BIGNUM* number : numbers) BN_clear_free(number);
        OSSL_PARAM_BLD_free(bld);
    }
    ~OpenSslSigner() {
        EVP_PKEY_free(m_key);
        OSSL_PROVIDER_unload(m_legacy);
        OSSL_PROVIDER_unload(m_default);
        OSSL_LIB_CTX_free(m_libctx);
    }
    OpenSslSigner(const OpenSslSigner&) = delete;
    OpenSslSigner& operator=(const OpenSslSigner&) = delete;

    bool Ready() const { return m_key != nullptr; }

    std::vector<unsigned char> Sign(const char* digest, const std::vector<unsigned char>& message) {
        std::vector<unsigned char> signature;
        EVP_MD* md = EVP_MD_fetch(m_libctx, digest, nullptr);
        unsigned char hash[EVP_MAX_MD_SIZE];
        unsigned int hashLength = 0;
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_pkey(m_libctx, m_key, nullptr);
        size_t length = static_cast<size_t>(EVP_PKEY_get_size(m_key));
        signature.resize(length);
        if (md == nullptr || EVP_Digest(message.data(), message.size(), hash, &hashLength, md, nullptr) != 1 ||
            ctx == nullptr || EVP_PKEY_sign_init(ctx) != 1 ||
            EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) != 1 || EVP_PKEY_CTX_set_signature_md(ctx, md) != 1 ||
            EVP_PKEY_sign(ctx, signature.data(), &length, hash, hashLength) != 1) {
            length = 0;
        }
        signature.resize(length);
        EVP_PKEY_CTX_free(ctx);
        EVP_MD_free(md);
        ERR_clear_error();
        return signature;
    }

private:
    OSSL_LIB_CTX* m_libctx;
    OSSL_PROVIDER* m_default;
    OSSL_PROVIDER* m_legacy;
    EVP_PKEY* m_key = nullptr;
};

struct DigestRow {
    const char* digest;
    // Empty: signed as OpenSSL signs and verified; else the refusal of signing and verifying.
    const char* refusal;
};

// Every digest VKL knows is either signed exactly as OpenSSL signs it (MD4 with OpenSSL's
// own DigestInfo) and verified, or refused for signing and verifying alike with a clear
// text, as OpenSSL refuses it.
TEST_F(SignatureTest, EveryDigestSignsAsOpenSslOrIsRefused) {
    const std::vector<DigestRow> rows = {
        {"MD4", ""},
        {"MD5", ""},
        {"MD5-SHA1", ""},
        {"RIPEMD160", ""},
        {"SHA1", ""},
        {"SHA224", ""},
        {"SHA256", ""},
        {"SHA384", ""},
        {"SHA512", ""},
        {"SHA512-224", ""},
        {"SHA512-256", ""},
        {"SHA3-224", ""},
        {"SHA3-256", ""},
        {"SHA3-384", ""},
        {"SHA3-512", ""},
        {"BLAKE2b512", "digest BLAKE2b512 cannot be used in a PKCS #1 v1.5 signature"},
        {"BLAKE2s256", "digest BLAKE2s256 cannot be used in a PKCS #1 v1.5 signature"},
        {"SHAKE128", "digest SHAKE128 cannot be used in a PKCS #1 v1.5 signature"},
        {"SHAKE256", "digest SHAKE256 cannot be used in a PKCS #1 v1.5 signature"},
        {"SM3", "digest SM3 cannot be used in a PKCS #1 v1.5 signature"},
        {"whirlpool", "digest whirlpool cannot be used in a PKCS #1 v1.5 signature"},
    };
    OpenSslSigner openssl(n, e, d);
    ASSERT_TRUE(openssl.Ready());
    VKL_t* vkl = context->GetContext()->m_pCtx;
    for (const DigestRow& row : rows) {
        SCOPED_TRACE(row.digest);
        diagnostics->Clear();
        const std::vector<unsigned char> expected = openssl.Sign(row.digest, message);
        const std::string refusal = row.refusal;
        EXPECT_EQ(expected.empty(), !refusal.empty()) << "OpenSSL signs exactly the digests VKL signs";

        CZulCryptSignature signer(*context);
        CZulCryptSignature verifier(*context);
        ASSERT_TRUE(Configure(signer, row.digest, d));
        ASSERT_TRUE(Configure(verifier, row.digest, e));
        std::vector<unsigned char> signature(256, 0);
        unsigned int length = 1234;
        const bool signedOk = signer.GetSignature(message.data(), 100, signature.data(), &length);
        if (refusal.empty()) {
            ASSERT_TRUE(signedOk);
            EXPECT_EQ(zultest::Hex(signature.data(), length), zultest::Hex(expected));
            EXPECT_TRUE(verifier.VerifySignature(message.data(), 100, signature.data(), length));
            EXPECT_THAT(diagnostics->errors, IsEmpty());
        } else {
            EXPECT_FALSE(signedOk);
            EXPECT_EQ(length, 1234u);
            // Any signature at all: the digest is refused before it is looked at.
            EXPECT_FALSE(verifier.VerifySignature(message.data(), 100, signature.data(), 256));
            EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_EVP_SignFinal: " + refusal,
                                                               "VKL_EVP_VerifyFinal: " + refusal));
        }

        // VKL's other way of signing, through OpenSSL's RSA when the record holds e, agrees.
        VKL_RSA_t* rsa = VKL_RSA_new(vkl);
        ASSERT_NE(rsa, nullptr);
        rsa->n = VKL_BN_bin2bn(vkl, n.data(), static_cast<int>(n.size()), nullptr);
        rsa->e = VKL_BN_bin2bn(vkl, e.data(), static_cast<int>(e.size()), nullptr);
        rsa->d = VKL_BN_bin2bn(vkl, d.data(), static_cast<int>(d.size()), nullptr);
        VKL_EVP_PKEY_t* pkey = VKL_EVP_PKEY_new(vkl);
        ASSERT_EQ(VKL_EVP_PKEY_set1_RSA(vkl, pkey, rsa), 1);
        VKL_RSA_free(vkl, rsa);
        VKL_EVP_MD_CTX_t* ctx = VKL_EVP_MD_CTX_new(vkl);
        ASSERT_EQ(VKL_EVP_DigestInit(vkl, ctx, VKL_EVP_get_digestbyname(vkl, row.digest)), 1);
        ASSERT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, message.data(), message.size()), 1);
        unsigned char out[256];
        length = 0;
        const int withE = VKL_EVP_SignFinal(vkl, ctx, out, &length, pkey);
        if (refusal.empty()) {
            EXPECT_EQ(withE, 1);
            EXPECT_EQ(zultest::Hex(out, length), zultest::Hex(expected));
            EXPECT_THAT(zultest::TakeQueue(vkl), IsEmpty());
        } else {
            EXPECT_EQ(withE, 0);
            EXPECT_THAT(zultest::TakeQueue(vkl), ElementsAre("VKL_EVP_SignFinal: " + refusal));
        }
        EXPECT_EQ(VKL_EVP_MD_CTX_free(vkl, ctx), 1);
        VKL_EVP_PKEY_free(vkl, pkey);
    }
}

// Imported public keys are kept per context: a verifier must still use the key it holds
// when several keys take turns, more of them than are kept.
TEST_F(SignatureTest, KeysTakingTurnsVerifyOnlyTheirOwnSignatures) {
    struct Pair {
        std::vector<unsigned char> n, e, signature;
    };
    std::vector<Pair> pairs;
    VKL_t* vkl = context->GetContext()->m_pCtx;
    for (int i = 0; i < 10; ++i) {
        VKL_RSA_t* rsa = VKL_RSA_generate_key(vkl, 512, 65537, nullptr, nullptr);
        ASSERT_NE(rsa, nullptr);
        Pair pair;
        for (auto field : {std::make_pair(rsa->n, &pair.n), std::make_pair(rsa->e, &pair.e)}) {
            field.second->resize(64);
            field.second->resize(static_cast<size_t>(VKL_BN_bn2bin(vkl, field.first, field.second->data())));
        }
        std::vector<unsigned char> d(64);
        d.resize(static_cast<size_t>(VKL_BN_bn2bin(vkl, rsa->d, d.data())));
        VKL_RSA_free(vkl, rsa);
        CZulCryptSignature signer(*context);
        ASSERT_TRUE(signer.SetHashAndKey("SHA1", pair.n.data(), static_cast<unsigned int>(pair.n.size()), d.data(),
                                         static_cast<unsigned int>(d.size())));
        pair.signature.resize(64);
        unsigned int length = 0;
        ASSERT_TRUE(signer.GetSignature(message.data(), 100, pair.signature.data(), &length));
        pairs.push_back(pair);
    }
    CZulCryptSignature verifier(*context);
    for (int round = 0; round < 2; ++round) {
        for (size_t i = 0; i < pairs.size(); ++i) {
            const Pair& key = pairs[i];
            const Pair& other = pairs[(i + 1) % pairs.size()];
            ASSERT_TRUE(verifier.SetHashAndKey("SHA1", key.n.data(), static_cast<unsigned int>(key.n.size()),
                                               key.e.data(), static_cast<unsigned int>(key.e.size())));
            EXPECT_TRUE(verifier.VerifySignature(message.data(), 100, const_cast<unsigned char*>(key.signature.data()),
                                                 64)) << i;
            EXPECT_FALSE(verifier.VerifySignature(message.data(), 100,
                                                  const_cast<unsigned char*>(other.signature.data()), 64)) << i;
        }
    }
    EXPECT_EQ(diagnostics->errors.size(), 2 * pairs.size());
}

TEST_F(SignatureTest, FreshObjectQueries) {
    CZulCryptContext::SetLogLevel(4);
    CZulCryptSignature signature(*context);
    EXPECT_TRUE(signature.GetStatus());
    EXPECT_EQ(signature.GetType(), nullptr);
    EXPECT_EQ(signature.GetDigestSize(), -1);
    EXPECT_EQ(signature.GetDigestBlockSize(), -1);
    EXPECT_EQ(signature.GetSignatureSize(), -1);
    std::ostringstream constructed;
    constructed << "CZulCryptSignature::CZulCryptSignature(" << static_cast<const void*>(context.get()) << ")\n";
    EXPECT_THAT(diagnostics->TracesAt(3), ElementsAre(constructed.str(), "CZulCryptSignature::Initialise()\n"));
    EXPECT_THAT(diagnostics->TracesAt(4),
                ElementsAre("CZulCryptSignature::GetStatus() returning TRUE\n",
                            "CZulCryptSignature::GetType() returning NULL\n",
                            "CZulCryptSignature::GetDigestSize() returning -1\n",
                            "CZulCryptSignature::GetDigestBlockSize() returning -1\n",
                            "CZulCryptSignature::GetSignatureSize() returning -1\n"));
}

TEST_F(SignatureTest, ConfiguredQueriesAndReset) {
    CZulCryptSignature signature(*context);
    ASSERT_TRUE(signature.SetHashAndKey("RSA-SHA1", n.data(), 128, d.data(), 128));
    EXPECT_EQ(signature.GetDigestSize(), 20);
    EXPECT_EQ(signature.GetDigestBlockSize(), 64);
    EXPECT_EQ(signature.GetSignatureSize(), 128);
    EXPECT_STREQ(signature.GetType(), "SHA1");
    ASSERT_TRUE(Configure(signature, "SHA256", e));
    EXPECT_EQ(signature.GetSignatureSize(), 256);
    EXPECT_EQ(signature.GetDigestSize(), 32);

    signature.ResetMessageDigest();
    EXPECT_EQ(signature.GetType(), nullptr);
    EXPECT_EQ(signature.GetDigestSize(), -1);
    EXPECT_EQ(signature.GetDigestBlockSize(), -1);
    EXPECT_EQ(signature.GetSignatureSize(), 256);
    EXPECT_TRUE(signature.GetStatus());
    EXPECT_THAT(diagnostics->errors, IsEmpty());
}

TEST_F(SignatureTest, RefusedNumbersAndNames) {
    CZulCryptContext::SetLogLevel(4);
    CZulCryptSignature signature(*context);
    diagnostics->Clear();
    EXPECT_FALSE(signature.SetHashAndKey(nullptr, n.data(), 256, e.data(), 3));
    EXPECT_THAT(diagnostics->errors, IsEmpty());
    EXPECT_THAT(diagnostics->TracesAt(4), ElementsAre("CZulCryptSignature::SetHashAndKey(NULL)\n"));

    EXPECT_FALSE(signature.SetHashAndKey("SHA1", nullptr, 256, e.data(), 3));
    EXPECT_EQ(signature.GetSignatureSize(), 0);
    EXPECT_FALSE(signature.SetHashAndKey("SHA1", n.data(), 256, e.data(), 0));
    EXPECT_EQ(signature.GetSignatureSize(), 256);
    EXPECT_THAT(diagnostics->errors, IsEmpty());

    // An unknown name disables the object for good.
    EXPECT_FALSE(signature.SetHashAndKey("NO-SUCH-DIGEST", n.data(), 256, e.data(), 3));
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_EVP_get_digestbyname: unknown digest NO-SUCH-DIGEST"));
    EXPECT_FALSE(signature.GetStatus());
    EXPECT_EQ(signature.GetSignatureSize(), -1);
    diagnostics->Clear();
    EXPECT_FALSE(Configure(signature, "SHA1", e));
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL Context in an invalid state"));
}

TEST_F(SignatureTest, DisabledOrUndigestedObjectsCallNoVkl) {
    CZulCryptSignature signature(*context);
    unsigned char out[256];
    unsigned int length = 77;
    // No digest chosen yet.
    VKLTest_Reset();
    EXPECT_FALSE(signature.GetSignature(message.data(), 100, out, &length));
    EXPECT_FALSE(signature.VerifySignature(message.data(), 100, out, 256));
    EXPECT_THAT(diagnostics->ErrorTexts(),
                ElementsAre("No message digest chosen: SetHashAndKey has not succeeded since construction or reset",
                            "No message digest chosen: SetHashAndKey has not succeeded since construction or reset"));
    EXPECT_EQ(length, 77u);
    EXPECT_THAT(zultest::CallLog(), IsEmpty());

    ASSERT_TRUE(Configure(signature, "SHA1", d));
    EXPECT_FALSE(signature.SetHashAndKey("BAD", n.data(), 256, d.data(), 256));
    diagnostics->Clear();
    VKLTest_Reset();
    EXPECT_FALSE(signature.GetSignature(message.data(), 100, out, &length));
    EXPECT_FALSE(signature.VerifySignature(message.data(), 100, out, 256));
    unsigned char* allocated = out;
    EXPECT_FALSE(signature.GetSignature(message.data(), 100, &allocated, &length));
    EXPECT_EQ(allocated, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL Context in an invalid state",
                                                       "VKL Context in an invalid state",
                                                       "VKL Context in an invalid state"));
    EXPECT_THAT(zultest::CallLog(), IsEmpty());
}

// A key whose modulus or exponent is missing or zero would "sign" every message as 00...01.
TEST_F(SignatureTest, MissingOrZeroKeyNumbersAreRefused) {
    const std::vector<unsigned char> empty, zero{0x00}, zeros{0x00, 0x00};
    struct Row {
        const char* what;
        const std::vector<unsigned char>& modulus;
        const std::vector<unsigned char>& exponent;
    };
    const Row rows[] = {{"exponent refused", n, empty}, {"exponent 00", n, zero}, {"exponent 00 00", n, zeros},
                        {"modulus refused", empty, d},  {"modulus 00", zero, d}};
    const std::string refused = "No usable RSA key: the modulus or the exponent is missing or zero";
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        CZulCryptSignature signature(*context);
        (void)signature.SetHashAndKey("SHA1", row.modulus.data(), static_cast<unsigned int>(row.modulus.size()),
                                      row.exponent.data(), static_cast<unsigned int>(row.exponent.size()));
        diagnostics->Clear();
        VKLTest_Reset();
        unsigned char out[256];
        unsigned int length = 7;
        EXPECT_FALSE(signature.GetSignature(message.data(), 100, out, &length));
        EXPECT_EQ(length, 7u);
        EXPECT_FALSE(signature.VerifySignature(message.data(), 100, out, 256));
        EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre(refused, refused));
        for (const zultest::ErrorReport& report : diagnostics->errors) EXPECT_EQ(report.file, "czulcryptsignature");
        EXPECT_THAT(zultest::CallLog(), IsEmpty());
    }
}

struct FailureRow {
    const char* function;
    long result;
    bool sign;
    // Calls that must not happen after the failure.
    std::vector<const char*> skipped;
};

// Each row fails one step; every call still releases exactly the container and
// the record it made, and reports VKL's cause once.
TEST_F(SignatureTest, EachFailingStepReportsAndReleases) {
    const std::vector<FailureRow> rows = {
        {"VKL_EVP_PKEY_set1_RSA", 0, true, {"VKL_EVP_DigestInit", "VKL_EVP_SignFinal"}},
        {"VKL_EVP_DigestInit", -2, true, {"VKL_EVP_DigestUpdate", "VKL_EVP_SignFinal"}},
        {"VKL_EVP_DigestUpdate", -2, true, {"VKL_EVP_SignFinal"}},
        {"VKL_EVP_SignFinal", 0, true, {}},
        {"VKL_EVP_PKEY_set1_RSA", 0, false, {"VKL_EVP_DigestInit", "VKL_EVP_VerifyFinal"}},
        {"VKL_EVP_DigestInit", -2, false, {"VKL_EVP_DigestUpdate", "VKL_EVP_VerifyFinal"}},
        {"VKL_EVP_DigestUpdate", -2, false, {"VKL_EVP_VerifyFinal"}},
        {"VKL_EVP_VerifyFinal", -1, false, {}},
    };
    CZulCryptSignature signer(*context);
    ASSERT_TRUE(Configure(signer, "SHA256", d));
    CZulCryptSignature verifier(*context);
    ASSERT_TRUE(Configure(verifier, "SHA256", e));
    std::vector<unsigned char> good(256);
    unsigned int goodLength = 0;
    ASSERT_TRUE(signer.GetSignature(message.data(), 100, good.data(), &goodLength));

    for (const FailureRow& row : rows) {
        SCOPED_TRACE(std::string(row.function) + (row.sign ? " signing" : " verifying"));
        VKLTest_Reset();
        diagnostics->Clear();
        VKLTest_FailCall(row.function, 0, 1, row.result);
        unsigned char out[256];
        unsigned int length = 1234;
        if (row.sign) {
            EXPECT_FALSE(signer.GetSignature(message.data(), 100, out, &length));
            EXPECT_EQ(length, 1234u);
        } else {
            EXPECT_FALSE(verifier.VerifySignature(message.data(), 100, good.data(), goodLength));
        }
        EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre(std::string(row.function) + ": injected failure"));
        EXPECT_EQ(diagnostics->errors[0].file, "czulcryptsignature");
        EXPECT_FALSE(diagnostics->errors[0].fatal);
        for (const char* made : {"VKL_EVP_PKEY_new", "VKL_EVP_PKEY_free", "VKL_RSA_new", "VKL_RSA_free"}) {
            EXPECT_EQ(VKLTest_CallCount(made), 1u) << made;
        }
        for (const char* skipped : row.skipped) EXPECT_EQ(VKLTest_CallCount(skipped), 0u) << skipped;

        // Nothing of the failure lingers into the next call.
        diagnostics->Clear();
        if (row.sign) {
            EXPECT_TRUE(signer.GetSignature(message.data(), 100, out, &length));
            EXPECT_EQ(zultest::Hex(out, length), zultest::Hex(good.data(), goodLength));
        } else {
            EXPECT_TRUE(verifier.VerifySignature(message.data(), 100, good.data(), goodLength));
        }
        EXPECT_THAT(diagnostics->errors, IsEmpty());
    }
}

TEST_F(SignatureTest, FailedAllocationsOfKeyObjects) {
    CZulCryptSignature signer(*context);
    ASSERT_TRUE(Configure(signer, "SHA1", d));
    for (const char* function : {"VKL_EVP_PKEY_new", "VKL_RSA_new"}) {
        SCOPED_TRACE(function);
        VKLTest_Reset();
        diagnostics->Clear();
        VKLTest_FailCall(function, 0, 1, 0);
        unsigned char* out = nullptr;
        unsigned int length = 99;
        EXPECT_FALSE(signer.GetSignature(message.data(), 100, &out, &length));
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(length, 0u);
        EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre(std::string(function) + ": injected failure"));
        const bool containerMade = std::string(function) == "VKL_RSA_new";
        EXPECT_EQ(VKLTest_CallCount("VKL_EVP_PKEY_free"), containerMade ? 1u : 0u);
        EXPECT_EQ(VKLTest_CallCount("VKL_RSA_new"), containerMade ? 1u : 0u);
        EXPECT_EQ(VKLTest_CallCount("VKL_RSA_free"), 0u);
        EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestInit"), 0u);
    }
}

// The allocating form traces, sizes its buffer, then signs through the buffer form.
TEST_F(SignatureTest, TracesOfSigningAndVerifying) {
    CZulCryptContext::SetLogLevel(4);
    CZulCryptSignature signature(*context);
    ASSERT_TRUE(Configure(signature, "SHA1", d));
    diagnostics->Clear();
    unsigned char* out = nullptr;
    unsigned int length = 0;
    ASSERT_TRUE(signature.GetSignature(nullptr, 0, &out, &length));
    EXPECT_EQ(length, 256u);
    EXPECT_NE(zultest::Hex(out, length), std::string(512, '0'));
    ASSERT_TRUE(Configure(signature, "SHA1", e));
    // Any pointer with length 0 is the empty message that was signed.
    EXPECT_TRUE(signature.VerifySignature(out, 0, out, length));
    std::ostringstream pointer;
    pointer << static_cast<const void*>(out);
    std::vector<std::string> traces;
    for (const std::string& trace : diagnostics->TracesAt(4)) {
        if (trace.rfind("CZulCryptSignature::", 0) == 0) traces.push_back(trace);
    }
    EXPECT_THAT(traces, ElementsAre("CZulCryptSignature::GetSignature(NULL : 0)\n",
                                    "CZulCryptSignature::GetSignatureSize() returning 256\n",
                                    "CZulCryptSignature::GetSignature(NULL : 0)\n",
                                    "CZulCryptSignature::SetHashAndKey(SHA1)\n",
                                    "CZulCryptSignature::VerifySignature(" + pointer.str() + " : 0)\n"));
    delete[] out;
}

TEST_F(SignatureTest, PolicyRefusalChangesNothing) {
    CZulCryptSignature signature(*context);
    ASSERT_TRUE(Configure(signature, "SHA256", e));
    WEXTest_SetSystemFips(1);
    context->SetIsNonFIPSAllowedInFIPS(false);
    diagnostics->Clear();
    VKLTest_Reset();
    EXPECT_FALSE(signature.SetHashAndKey("MD4", n.data(), 128, e.data(), 3));
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("Non FIPS algorithm MD4 called in a FIPS context.\n"));
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_get_digestbyname"), 0u);
    EXPECT_EQ(signature.GetSignatureSize(), 256);
    EXPECT_EQ(signature.GetDigestSize(), 32);
    EXPECT_TRUE(signature.GetStatus());
}

TEST_F(SignatureTest, DigestContextFailures) {
    VKLTest_FailCall("VKL_EVP_MD_CTX_new", 0, 1, 0);
    {
        CZulCryptSignature unusable(*context);
        EXPECT_FALSE(unusable.GetStatus());
        EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_EVP_MD_CTX_new: injected failure"));
        diagnostics->Clear();
        VKLTest_Reset();
    }
    EXPECT_THAT(zultest::CallLog(), IsEmpty());

    CZulCryptSignature signature(*context);
    ASSERT_TRUE(Configure(signature, "SHA1", d));
    VKLTest_FailCall("VKL_EVP_MD_CTX_cleanup", 0, 1, 0);
    signature.ResetMessageDigest();
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_EVP_MD_CTX_cleanup: injected failure"));
    EXPECT_FALSE(signature.GetStatus());
    EXPECT_EQ(signature.GetType(), nullptr);

    // The failed free does none of its work, so this digest context leaks by design.
    [[maybe_unused]] IgnoreLeaks ignore;
    auto* other = new CZulCryptSignature(*context);
    diagnostics->Clear();
    VKLTest_FailCall("VKL_EVP_MD_CTX_free", 0, 1, 0);
    delete other;
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_EVP_MD_CTX_free: injected failure"));
}

TEST_F(SignatureTest, NoVklContextMeansNoTraceAndNoCall) {
    WEXTest_SetGetContextResult(0);
    CZulCryptContext empty;
    CZulCryptContext::SetLogLevel(4);
    diagnostics->Clear();
    VKLTest_Reset();
    {
        CZulCryptSignature signature(empty);
        EXPECT_FALSE(signature.GetStatus());
    }
    std::ostringstream constructed;
    constructed << "CZulCryptSignature::CZulCryptSignature(" << static_cast<const void*>(&empty) << ")\n";
    EXPECT_THAT(diagnostics->TracesAt(3), ElementsAre(constructed.str()));
    EXPECT_THAT(zultest::CallLog(), IsEmpty());
}

}  // namespace
