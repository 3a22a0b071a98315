// RSA keys and raw RSA: OpenSSL's block-type-1 vectors of a fixed key, round
// trips with complete keys and with n and d only, key generation and its
// retries, and the copying rules between keys and VKL records.
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <czulcryptbignum.h>
#include <czulcryptcontext.h>
#include <czulcryptdh.h>
#include <czulcryptrsacalculator.h>
#include <czulcryptrsakey.h>
#include <czulcryptsignature.h>
#include <vkl.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using ::testing::ElementsAre;
using ::testing::Each;
using ::testing::IsEmpty;

class RsaTest : public zultest::ContextTest {
protected:
    void SetUp() override {
        ContextTest::SetUp();
        vectors = zultest::ReadVectors("rsa_raw.vec");
        ASSERT_FALSE(vectors.empty());
    }

    CZulCryptBigNum* Number(const char* name) {
        auto* number = new CZulCryptBigNum(*context);
        const std::vector<unsigned char> bytes = vectors[0].Bytes(name);
        EXPECT_TRUE(number->SetNumber(static_cast<unsigned int>(bytes.size()), bytes.data()));
        return number;
    }

    // The complete fixed key, through a VKL record as an application would load it.
    void LoadComplete(CZulCryptRSAKey& key) {
        VKL_RSA_t* rsa = VKL_RSA_new(vkl);
        ASSERT_NE(rsa, nullptr);
        const std::pair<VKL_BIGNUM_t**, const char*> fields[] = {
            {&rsa->n, "N"}, {&rsa->e, "E"}, {&rsa->d, "D"}, {&rsa->p, "P"},
            {&rsa->q, "Q"}, {&rsa->dmp1, "DP"}, {&rsa->dmq1, "DQ"}, {&rsa->iqmp, "QINV"}};
        for (const auto& field : fields) {
            const std::vector<unsigned char> bytes = vectors[0].Bytes(field.second);
            *field.first = VKL_BN_bin2bn(vkl, bytes.data(), static_cast<int>(bytes.size()), nullptr);
        }
        ASSERT_EQ(VKL_RSA_check_key(vkl, rsa), 1);
        C_VKL_RSA_Wrap wrap(rsa);
        key.SetKey(&wrap);
        VKL_RSA_free(vkl, rsa);
    }

    void LoadPrivate(CZulCryptRSAKey& key) {
        CZulCryptBigNum* n = Number("N");
        CZulCryptBigNum* d = Number("D");
        key.PopulateWithPrivate(n, d);
        delete n;
        delete d;
    }

    void LoadPublic(CZulCryptRSAKey& key) {
        CZulCryptBigNum* n = Number("N");
        CZulCryptBigNum* e = Number("E");
        key.PopulateWithPublic(&n, &e);
        EXPECT_EQ(n, nullptr);
        EXPECT_EQ(e, nullptr);
    }

    // Which fields of a record built from the key are set.
    std::vector<bool> Fields(const CZulCryptRSAKey& key) {
        VKL_RSA_t* rsa = VKL_RSA_new(vkl);
        C_VKL_RSA_Wrap wrap(rsa);
        key.BuildKeyStruct(&wrap);
        std::vector<bool> set;
        for (VKL_BIGNUM_t* field : {rsa->n, rsa->e, rsa->d, rsa->p, rsa->q, rsa->dmp1, rsa->dmq1, rsa->iqmp}) {
            set.push_back(field != nullptr);
        }
        VKL_RSA_free(vkl, rsa);
        return set;
    }

    std::vector<zultest::VectorCase> vectors;
};

// Block type 1 is deterministic: both key forms must give OpenSSL's bytes, and
// the public key must give the input back. Every call makes and releases one record.
TEST_F(RsaTest, PrivateEncryptionMatchesOpenSsl) {
    CZulCryptRSAKey complete(*context), nAndD(*context), publicKey(*context);
    LoadComplete(complete);
    LoadPrivate(nAndD);
    LoadPublic(publicKey);
    CZulCryptRSACalculator calculator(*context);
    for (const zultest::VectorCase& vector : vectors) {
        SCOPED_TRACE(vector.Where());
        const std::vector<unsigned char> in = vector.Bytes("In");
        for (const CZulCryptRSAKey* key : {&complete, &nAndD}) {
            VKLTest_Reset();
            diagnostics->Clear();
            unsigned char out[256];
            const int written = calculator.RSAPrivateEncrypt(in.data(), static_cast<unsigned int>(in.size()), *key, out);
            EXPECT_EQ(VKLTest_CallCount("VKL_RSA_new"), 1u);
            EXPECT_EQ(VKLTest_CallCount("VKL_RSA_free"), 1u);
            if (vector.Has("Error")) {
                EXPECT_EQ(written, -1);
                EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre(vector.Text("Error")));
                continue;
            }
            ASSERT_EQ(written, 256);
            EXPECT_EQ(zultest::Hex(out, 256), zultest::Hex(vector.Bytes("Out")));
            EXPECT_EQ(VKLTest_LastLength("VKL_RSA_private_encrypt"), static_cast<long>(in.size()));

            unsigned char back[256];
            ASSERT_EQ(calculator.RSAPublicDecrypt(out, 256, publicKey, back), static_cast<int>(in.size()));
            EXPECT_EQ(zultest::Hex(back, in.size()), zultest::Hex(in));
            EXPECT_THAT(diagnostics->errors, IsEmpty());
        }
    }
}

TEST_F(RsaTest, PublicEncryptionRoundTrips) {
    CZulCryptRSAKey complete(*context), nAndD(*context), publicKey(*context);
    LoadComplete(complete);
    LoadPrivate(nAndD);
    LoadPublic(publicKey);
    CZulCryptRSACalculator calculator(*context);
    for (size_t length : {size_t{0}, size_t{1}, size_t{100}, size_t{245}}) {
        SCOPED_TRACE(length);
        const std::vector<unsigned char> in(length, static_cast<unsigned char>(length));
        for (const CZulCryptRSAKey* encrypting : {&complete, &publicKey}) {
            unsigned char out[256];
            ASSERT_EQ(calculator.RSAPublicEncrypt(in.data(), static_cast<unsigned int>(length), *encrypting, out), 256);
            for (const CZulCryptRSAKey* decrypting : {&complete, &nAndD}) {
                unsigned char back[256];
                ASSERT_EQ(calculator.RSAPrivateDecrypt(out, 256, *decrypting, back), static_cast<int>(length));
                EXPECT_EQ(zultest::Hex(back, length), zultest::Hex(in));
            }
        }
    }
    EXPECT_THAT(diagnostics->errors, IsEmpty());
}

// Both ways of holding the private key must fail bad padding alike.
TEST_F(RsaTest, FailuresGiveMinusOneAndOneReport) {
    CZulCryptRSAKey complete(*context), nAndD(*context), publicKey(*context);
    LoadComplete(complete);
    LoadPrivate(nAndD);
    LoadPublic(publicKey);
    CZulCryptRSACalculator calculator(*context);
    const std::vector<unsigned char> typeOne = vectors[1].Bytes("Out");
    const std::vector<unsigned char> tooLong(246, 1);
    unsigned char out[256];
    struct Case {
        const char* what;
        int result;
        std::string report;
    };
    const std::vector<Case> cases = {
        {"type 1 block decrypted as type 2, complete key",
         calculator.RSAPrivateDecrypt(typeOne.data(), 256, complete, out), ""},
        {"type 1 block decrypted as type 2, n and d",
         calculator.RSAPrivateDecrypt(typeOne.data(), 256, nAndD, out), ""},
        {"public key, private encryption", calculator.RSAPrivateEncrypt(tooLong.data(), 10, publicKey, out),
         "VKL_RSA_private_encrypt: the key has no private exponent"},
        {"public key, private decryption", calculator.RSAPrivateDecrypt(typeOne.data(), 256, publicKey, out),
         "VKL_RSA_private_decrypt: the key has no private exponent"},
        {"n and d, public encryption", calculator.RSAPublicEncrypt(tooLong.data(), 10, nAndD, out),
         "VKL_RSA_public_encrypt: the key has no public exponent"},
        {"input too long, complete key", calculator.RSAPublicEncrypt(tooLong.data(), 246, complete, out), ""},
        {"input too long, n and d", calculator.RSAPrivateEncrypt(tooLong.data(), 246, nAndD, out), ""},
    };
    ASSERT_EQ(diagnostics->errors.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(cases[i].what);
        EXPECT_EQ(cases[i].result, -1);
        EXPECT_EQ(diagnostics->errors[i].file, "czulcryptrsacalculator");
        if (!cases[i].report.empty()) {
            EXPECT_EQ(diagnostics->errors[i].text, cases[i].report);
        }
    }
    EXPECT_EQ(diagnostics->errors[0].text, "error:0200009F:rsa routines::pkcs decoding error");
    EXPECT_EQ(diagnostics->errors[1].text, diagnostics->errors[0].text);
    EXPECT_EQ(diagnostics->errors[5].text, "error:0200006E:rsa routines::data too large for key size");
    EXPECT_EQ(diagnostics->errors[6].text, diagnostics->errors[5].text);
    // Nothing left behind on the queue for the next caller.
    EXPECT_EQ(VKL_ERR_get_error(vkl), 0u);
}

TEST_F(RsaTest, FailedRecordAllocationBuildsNothing) {
    CZulCryptRSAKey complete(*context);
    LoadComplete(complete);
    CZulCryptRSACalculator calculator(*context);
    VKLTest_Reset();
    VKLTest_FailCall("VKL_RSA_new", 0, 1, 0);
    unsigned char out[256];
    EXPECT_EQ(calculator.RSAPublicEncrypt(out, 10, complete, out), -1);
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_RSA_new: injected failure"));
    EXPECT_EQ(VKLTest_CallCount("VKL_BN_new"), 0u);
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_public_encrypt"), 0u);
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_free"), 0u);

    // A number VKL cannot make leaves its field empty; the operation then says what is missing.
    diagnostics->Clear();
    VKLTest_FailCall("VKL_BN_new", 0, 1, 0);
    EXPECT_EQ(calculator.RSAPublicEncrypt(out, 10, complete, out), -1);
    EXPECT_THAT(diagnostics->ErrorTexts(),
                ElementsAre("VKL_BN_new: injected failure", "VKL_RSA_public_encrypt: the key has no modulus"));
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_free"), 1u);
}

TEST_F(RsaTest, GeneratedKeysHaveTheirSizeAndWork) {
    CZulCryptRSACalculator calculator(*context);
    for (int bits : {1024, 2048}) {
        SCOPED_TRACE(bits);
        CZulCryptRSAKey key(*context);
        key.GenerateKey(bits, 65537);
        ASSERT_EQ(key.KeySize(), static_cast<unsigned int>(bits / 8));
        EXPECT_THAT(Fields(key), Each(true));
        const unsigned char in[] = "generated";
        std::vector<unsigned char> out(key.KeySize()), back(key.KeySize());
        ASSERT_EQ(calculator.RSAPublicEncrypt(in, sizeof in, key, out.data()), bits / 8);
        ASSERT_EQ(calculator.RSAPrivateDecrypt(out.data(), key.KeySize(), key, back.data()), static_cast<int>(sizeof in));
        EXPECT_EQ(zultest::Hex(back.data(), sizeof in), zultest::Hex(in, sizeof in));
    }
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_generate_key"), 2u);
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_free"), VKLTest_CallCount("VKL_RSA_new") + 2);
    EXPECT_THAT(diagnostics->errors, IsEmpty());
    CZulCryptRSAKey empty(*context);
    EXPECT_EQ(empty.KeySize(), 0u);
}

TEST_F(RsaTest, GenerationGivesUpAfterElevenFailures) {
    for (const char* failing : {"VKL_RSA_generate_key", "VKL_RSA_check_key"}) {
        SCOPED_TRACE(failing);
        VKLTest_Reset();
        diagnostics->Clear();
        VKLTest_FailCall(failing, 0, -1, 0);
        CZulCryptRSAKey key(*context);
        LoadPrivate(key);
        key.GenerateKey(512, 65537);
        EXPECT_EQ(key.KeySize(), 0u);
        ASSERT_EQ(diagnostics->errors.size(), 12u);
        for (size_t i = 0; i < 11; ++i) {
            EXPECT_EQ(diagnostics->errors[i].text, std::string(failing) + ": injected failure");
        }
        EXPECT_EQ(diagnostics->errors[11].text, "Exceeded max attempts to produce RSAKey: ");
        EXPECT_EQ(diagnostics->errors[11].file, "czulcryptrsakey");
        EXPECT_EQ(VKLTest_CallCount("VKL_RSA_generate_key"), 11u);
        // Every record that was made is released.
        EXPECT_EQ(VKLTest_CallCount("VKL_RSA_free"), std::string(failing) == "VKL_RSA_check_key" ? 11u : 0u);
    }
    // A few failures, then success.
    VKLTest_Reset();
    diagnostics->Clear();
    VKLTest_FailCall("VKL_RSA_generate_key", 0, 3, 0);
    CZulCryptRSAKey key(*context);
    key.GenerateKey(1024, 3);
    EXPECT_EQ(key.KeySize(), 128u);
    EXPECT_EQ(diagnostics->errors.size(), 3u);
    EXPECT_EQ(CZulCryptRSAKey::ms_MaxKeyAttempts, 10);
}

TEST_F(RsaTest, PopulatingReplacesOnlyWhatTheRulesSay) {
    using Set = std::vector<bool>;
    //                   n     e      d      p      q      dmp1   dmq1   iqmp
    const Set publicSet{true, true, false, false, false, false, false, false};
    const Set privateSet{true, false, true, false, false, false, false, false};
    CZulCryptRSAKey key(*context);
    LoadComplete(key);
    EXPECT_THAT(Fields(key), Each(true));
    LoadPublic(key);
    EXPECT_EQ(Fields(key), publicSet);
    LoadPrivate(key);
    EXPECT_EQ(Fields(key), privateSet);
    LoadPublic(key);
    EXPECT_EQ(Fields(key), publicSet);

    CZulCryptBigNum* n = Number("N");
    key.PopulateWithPublic(n, nullptr);
    EXPECT_EQ(Fields(key), (Set{true, false, false, false, false, false, false, false}));
    EXPECT_EQ(key.KeySize(), 256u);
    delete n;

    // Components the key lacks leave the record's fields as the caller set them.
    VKL_RSA_t* rsa = VKL_RSA_new(vkl);
    VKL_BIGNUM_t* mine = VKL_BN_new(vkl);
    rsa->p = mine;
    C_VKL_RSA_Wrap wrap(rsa);
    LoadPrivate(key);
    key.BuildKeyStruct(&wrap);
    EXPECT_EQ(rsa->p, mine);
    EXPECT_EQ(rsa->e, nullptr);
    EXPECT_EQ(VKL_BN_num_bits(vkl, rsa->n), 2048);
    VKL_RSA_free(vkl, rsa);

    key.ClearKey();
    EXPECT_EQ(key.KeySize(), 0u);
    EXPECT_EQ(Fields(key), Set(8, false));
}

TEST_F(RsaTest, SetKeyFromNothingIsReportedAndKeepsTheKey) {
    CZulCryptRSAKey key(*context);
    LoadPrivate(key);
    C_VKL_RSA_Wrap empty(nullptr);
    key.SetKey(&empty);
    key.SetKey(nullptr);
    EXPECT_THAT(diagnostics->ErrorTexts(),
                ElementsAre("Tried to set the CZulCryptRSAKey with a NULL RSA structure.",
                            "Tried to set the CZulCryptRSAKey with a NULL RSA structure."));
    EXPECT_EQ(diagnostics->errors[0].file, "czulcryptrsakey");
    EXPECT_EQ(key.KeySize(), 256u);

    // A record holding only e replaces e and leaves n and d alone.
    VKL_RSA_t* rsa = VKL_RSA_new(vkl);
    const unsigned char three = 3;
    rsa->e = VKL_BN_bin2bn(vkl, &three, 1, nullptr);
    C_VKL_RSA_Wrap wrap(rsa);
    key.SetKey(&wrap);
    VKL_RSA_free(vkl, rsa);
    EXPECT_EQ(Fields(key), (std::vector<bool>{true, true, true, false, false, false, false, false}));
}

TEST_F(RsaTest, VklChecksKeyConsistency) {
    CZulCryptRSAKey key(*context);
    LoadComplete(key);
    for (bool breakD : {false, true}) {
        VKL_RSA_t* rsa = VKL_RSA_new(vkl);
        C_VKL_RSA_Wrap wrap(rsa);
        key.BuildKeyStruct(&wrap);
        if (breakD) {
            std::vector<unsigned char> d = vectors[0].Bytes("D");
            d.back() ^= 2;
            ASSERT_NE(VKL_BN_bin2bn(vkl, d.data(), static_cast<int>(d.size()), rsa->d), nullptr);
        }
        EXPECT_EQ(VKL_RSA_check_key(vkl, rsa), breakD ? 0 : 1);
        VKL_RSA_free(vkl, rsa);
    }
    std::string text;
    context->GetError(text);
    EXPECT_EQ(text, "error:0200007B:rsa routines::d e not congruent to 1");
    text.clear();
    context->GetError(text);
    EXPECT_EQ(text, "");

    VKL_RSA_t* publicOnly = VKL_RSA_new(vkl);
    CZulCryptRSAKey publicKey(*context);
    LoadPublic(publicKey);
    C_VKL_RSA_Wrap wrap(publicOnly);
    publicKey.BuildKeyStruct(&wrap);
    EXPECT_EQ(VKL_RSA_check_key(vkl, publicOnly), 0);
    context->GetError(text);
    EXPECT_EQ(text, "VKL_RSA_check_key: the key has no private exponent");
    VKL_RSA_free(vkl, publicOnly);
}

// A context whose VKL did not start: every class refuses what needs VKL with a report,
// also when one of its objects meets an object of a good context, and calls no VKL function
// on it. Each row returns whether the operation was refused.
TEST_F(RsaTest, ContextWithoutVklIsRefusedByEveryClass) {
    WEXTest_SetGetContextResult(0);
    CZulCryptContext none;
    WEXTest_SetGetContextResult(-3);
    const std::vector<unsigned char> n = vectors[0].Bytes("N"), e = vectors[0].Bytes("E");
    CZulCryptBigNum number(none);
    ASSERT_TRUE(number.SetNumber(static_cast<unsigned int>(e.size()), e.data()));
    CZulCryptRSAKey key(none);
    {
        std::unique_ptr<CZulCryptBigNum> goodN(Number("N")), goodE(Number("E"));
        key.PopulateWithPublic(goodN.get(), goodE.get());
    }
    CZulCryptRSAKey goodKey(*context);
    LoadPublic(goodKey);
    CZulCryptRSACalculator calculator(*context);
    C_VKL_BIGNUM_Wrap vklNumber(VKL_BN_new(vkl));
    VKL_RSA_t* rsa = VKL_RSA_new(vkl);
    const unsigned char five = 5;
    rsa->n = VKL_BN_bin2bn(vkl, &five, 1, nullptr);
    C_VKL_RSA_Wrap record(rsa);
    unsigned char out[256] = {};

    struct Row {
        const char* what;
        std::function<bool()> refused;
        std::vector<std::string> reports;  // "file: text"
        bool goodContextCallsVkl;
    };
    const auto invalid = [](const char* file) { return std::string(file) + ": VKL Context in an invalid state"; };
    const std::vector<Row> rows = {
        {"big number from VKL", [&] { return !number.SetNumber(&vklNumber); }, {invalid("czulcryptbignum")}, false},
        {"big number to VKL", [&] { return number.BuildNumber() == nullptr; }, {invalid("czulcryptbignum")}, false},
        {"big number into VKL", [&] { return !number.PopulateNumber(&vklNumber); }, {invalid("czulcryptbignum")},
         false},
        {"random big number",
         [&] {
             number.PopulateRandom(64);
             return zultest::Hex(number.GetBigNumPacket(), number.GetLen()) == zultest::Hex(e);
         },
         {invalid("czulcryptbignum")}, false},
        {"key from a record", [&] { key.SetKey(&record); return key.KeySize() == 256; }, {invalid("czulcryptrsakey")},
         false},
        {"key into a record", [&] { key.BuildKeyStruct(&record); return rsa->e == nullptr; },
         {invalid("czulcryptrsakey")}, false},
        {"key generation",
         [&] {
             CZulCryptRSAKey generated(none);
             generated.GenerateKey(512, 65537);
             return generated.KeySize() == 0;
         },
         {invalid("czulcryptrsakey")}, false},
        {"calculator", [&] { return CZulCryptRSACalculator(none).RSAPublicEncrypt(out, 10, goodKey, out) == -1; },
         {invalid("czulcryptrsacalculator")}, false},
        {"good calculator, key without VKL", [&] { return calculator.RSAPublicEncrypt(out, 10, key, out) == -1; },
         {invalid("czulcryptrsakey"), "czulcryptrsacalculator: VKL_RSA_public_encrypt: the key has no modulus"},
         true},
        {"signature",
         [&] {
             CZulCryptSignature signature(none);
             return !signature.SetHashAndKey("SHA1", n.data(), 256, e.data(), static_cast<unsigned int>(e.size()));
         },
         {invalid("czulcryptsignature")}, false},
        {"Diffie-Hellman",
         [&] {
             CZulCryptDH dh(none);
             return !dh.GetStatus() && !dh.SetOakleyGroup2() && dh.GetSize() == -1;
         },
         {invalid("czulcryptdh")}, false},
        {"Diffie-Hellman, generated group", [&] { return !CZulCryptDH(none, 512, 2).GetStatus(); },
         {invalid("czulcryptdh")}, false},
        {"good Diffie-Hellman, peer without VKL",
         [&] {
             CZulCryptDH dh(*context);
             EXPECT_TRUE(dh.SetOakleyGroup2());
             dh.ComputeSharedSecret(&number);
             return !dh.GetStatus();
         },
         // The peer has no VKL form: the DH object finds nothing queued, for the conversion and the result.
         {invalid("czulcryptbignum"), "czulcryptdh: ", "czulcryptdh: "}, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        diagnostics->Clear();
        VKLTest_Reset();
        EXPECT_TRUE(row.refused());
        std::vector<std::string> reports;
        for (const zultest::ErrorReport& report : diagnostics->errors) reports.push_back(report.file + ": " + report.text);
        EXPECT_EQ(reports, row.reports);
        if (!row.goodContextCallsVkl) {
            EXPECT_THAT(zultest::CallLog(), IsEmpty());
        }
    }
    VKL_BN_free(vkl, vklNumber.m_pBigNum);
    VKL_RSA_free(vkl, rsa);
}

// Sizes VKL does not work with are refused at once with a clear text: a modulus too short
// for PKCS #1 v1.5 padding (whose check once read past a one-byte modulus), one over
// 16384 bits on every path (the (n, e) path always refused it), and key generation of
// more bits (which never returned).
struct SizeRow {
    const char* what;
    std::function<int(CZulCryptContext&)> run;  // the library's result
    int result;
    std::string report;  // VKL's text, passed on by the library
};

TEST_F(RsaTest, SizesOutsideTheBoundsAreRefused) {
    const std::string tooShort = "the modulus has 8 bits, PKCS #1 v1.5 padding needs at least 88";
    const std::string tooLarge = "error:02000069:rsa routines::modulus too large";
    // Odd, so that the exponentiation itself would run: 187 = 11 * 17, and 16392 bits.
    const std::vector<unsigned char> tinyN{0xBB}, three{0x03}, seven{0x07};
    const std::vector<unsigned char> hugeN(2049, 0xFF), hugeD(2049, 0x55), e{0x01, 0x00, 0x01};
    auto key = [](CZulCryptContext& context, CZulCryptRSAKey& rsaKey, const std::vector<unsigned char>& n,
                  const std::vector<unsigned char>& exponent, bool isPrivate) {
        CZulCryptBigNum modulus(context), other(context);
        EXPECT_TRUE(modulus.SetNumber(static_cast<unsigned int>(n.size()), n.data()));
        EXPECT_TRUE(other.SetNumber(static_cast<unsigned int>(exponent.size()), exponent.data()));
        if (isPrivate) {
            rsaKey.PopulateWithPrivate(&modulus, &other);
        } else {
            rsaKey.PopulateWithPublic(&modulus, &other);
        }
    };
    using Operation = int (CZulCryptRSACalculator::*)(const unsigned char*, unsigned int, const CZulCryptRSAKey&,
                                                       unsigned char*);
    auto calculate = [&](Operation operation, const std::vector<unsigned char>& n,
                         const std::vector<unsigned char>& exponent, bool isPrivate, unsigned int length) {
        return [=](CZulCryptContext& context) {
            CZulCryptRSAKey rsaKey(context);
            key(context, rsaKey, n, exponent, isPrivate);
            CZulCryptRSACalculator calculator(context);
            const std::vector<unsigned char> in(length, 0x05);
            std::vector<unsigned char> out(n.size() + 16, 0);
            return (calculator.*operation)(in.data(), length, rsaKey, out.data());
        };
    };
    const std::vector<SizeRow> rows = {
        {"1-byte modulus, n and d, private decryption",
         calculate(&CZulCryptRSACalculator::RSAPrivateDecrypt, tinyN, seven, true, 1), -1,
         "VKL_RSA_private_decrypt: " + tooShort},
        {"1-byte modulus, n and d, private encryption",
         calculate(&CZulCryptRSACalculator::RSAPrivateEncrypt, tinyN, seven, true, 0), -1,
         "VKL_RSA_private_encrypt: " + tooShort},
        {"1-byte modulus, n and e, public encryption",
         calculate(&CZulCryptRSACalculator::RSAPublicEncrypt, tinyN, three, false, 0), -1,
         "VKL_RSA_public_encrypt: " + tooShort},
        {"1-byte modulus, n and e, public decryption",
         calculate(&CZulCryptRSACalculator::RSAPublicDecrypt, tinyN, three, false, 1), -1,
         "VKL_RSA_public_decrypt: " + tooShort},
        {"16392-bit modulus, n and d, private encryption",
         calculate(&CZulCryptRSACalculator::RSAPrivateEncrypt, hugeN, hugeD, true, 10), -1, tooLarge},
        {"16392-bit modulus, n and d, private decryption",
         calculate(&CZulCryptRSACalculator::RSAPrivateDecrypt, hugeN, hugeD, true, 2049), -1, tooLarge},
        {"16392-bit modulus, n and e, public encryption (as before)",
         calculate(&CZulCryptRSACalculator::RSAPublicEncrypt, hugeN, e, false, 10), -1, tooLarge},
        {"70000-bit key generation",
         [](CZulCryptContext& context) {
             CZulCryptRSAKey rsaKey(context);
             rsaKey.GenerateKey(70000, 65537);
             return static_cast<int>(rsaKey.KeySize());
         },
         0, "VKL_RSA_generate_key: 70000 bits asked, at most 16384 are supported"},
    };
    for (const SizeRow& row : rows) {
        SCOPED_TRACE(row.what);
        diagnostics->Clear();
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(row.run(*context), row.result);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5)) << "refused at once";
        // Generation tries again after a failure; each try is refused alike.
        std::vector<std::string> reports = diagnostics->ErrorTexts();
        ASSERT_FALSE(reports.empty());
        for (const std::string& report : reports) {
            if (report.rfind("Exceeded max attempts", 0) != 0) {
                EXPECT_EQ(report, row.report);
            }
        }
        EXPECT_EQ(VKL_ERR_get_error(vkl), 0u) << "nothing left on the queue";
    }
}

}  // namespace
