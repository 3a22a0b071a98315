// RSA keys and raw RSA: the known answers of tests/vectors/rsa_raw.vec and rsa_composite.vec, and
// what a caller sees of generation, the copying rules and failures.
#include <gtest/gtest.h>

#include <czulcryptrsacalculator.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;
using zultest::VectorCase;
using Op = int (CZulCryptRSACalculator::*)(const unsigned char*, unsigned int, const CZulCryptRSAKey&,
                                           unsigned char*);
const Op kPubEnc = &CZulCryptRSACalculator::RSAPublicEncrypt, kPubDec = &CZulCryptRSACalculator::RSAPublicDecrypt,
         kPrivEnc = &CZulCryptRSACalculator::RSAPrivateEncrypt, kPrivDec = &CZulCryptRSACalculator::RSAPrivateDecrypt;

class RsaTest : public zultest::ContextTest {
protected:
    // A VKL record of those of n e d p q dmp1 dmq1 iqmp that v has.
    std::shared_ptr<VKL_RSA_t> Record(const VectorCase& v) {
        VKL_t* x = vkl;
        std::shared_ptr<VKL_RSA_t> r(VKL_RSA_new(x), [x](VKL_RSA_t* p) { VKL_RSA_free(x, p); });
        VKL_BIGNUM_t** fields[] = {&r->n, &r->e, &r->d, &r->p, &r->q, &r->dmp1, &r->dmq1, &r->iqmp};
        int i = 0;
        for (const char* name : {"N", "E", "D", "P", "Q", "DP", "DQ", "QINV"}) {
            const Bytes b = v.Has(name) ? v.Bytes(name) : Bytes();
            if (!b.empty()) *fields[i] = VKL_BN_bin2bn(x, b.data(), static_cast<int>(b.size()), nullptr);
            ++i;
        }
        return r;
    }
    // how: 'c' every number of v through a VKL record, 'd' n and d, 'e' n and e.
    void Fill(CZulCryptRSAKey& key, const VectorCase& v, char how) {
        if (how == 'c') {
            const auto r = Record(v);
            C_VKL_RSA_Wrap wrap(r.get());
            return key.SetKey(&wrap);
        }
        CZulCryptBigNum n(*context), x(*context);
        const Bytes bn = v.Bytes("N"), bx = v.Bytes(how == 'd' ? "D" : "E");
        n.SetNumber(bn.size(), bn.data());
        x.SetNumber(bx.size(), bx.data());
        how == 'd' ? key.PopulateWithPrivate(&n, &x) : key.PopulateWithPublic(&n, &x);
    }
    std::unique_ptr<CZulCryptRSAKey> Key(const VectorCase& v, char how) {
        auto key = std::make_unique<CZulCryptRSAKey>(*context);
        Fill(*key, v, how);
        return key;
    }
    // The output's hex, or the result when it is negative.
    std::string Run(Op op, const CZulCryptRSAKey& key, const Bytes& in, unsigned int length = ~0u) {
        CZulCryptRSACalculator calculator(*context);
        unsigned char out[2100];
        const int r = (calculator.*op)(in.data(), length == ~0u ? in.size() : length, key, out);
        return r < 0 ? std::to_string(r) : zultest::Hex(out, r);
    }
    // Bits of n e d p q dmp1 dmq1 iqmp in a record whose p was 1 before the key was built into it.
    std::string Fields(const CZulCryptRSAKey& key, int* check = nullptr) {
        VectorCase one;
        one.fields["P"] = "01";
        const auto r = Record(one);
        C_VKL_RSA_Wrap wrap(r.get());
        key.BuildKeyStruct(&wrap);
        std::string text;
        for (VKL_BIGNUM_t* f : {r->n, r->e, r->d, r->p, r->q, r->dmp1, r->dmq1, r->iqmp})
            text += (f != nullptr ? std::to_string(VKL_BN_num_bits(vkl, f)) : "-") + " ";
        if (check != nullptr) *check = VKL_RSA_check_key(vkl, r.get());
        return text;
    }
    // The 2048-bit key of rsa_raw.vec, complete.
    VectorCase Full() {
        for (const VectorCase& v : zultest::ReadVectors("rsa_raw.vec"))
            if (v.Has("QINV")) return v;
        return VectorCase();
    }
};

TEST_F(RsaTest, Vectors) {
    for (const VectorCase& v : zultest::ReadVectors("rsa_raw.vec")) {
        SCOPED_TRACE(v.Where());
        VKLTest_Reset();  // a key given as n and d is completed afresh
        const auto c = Key(v, 'c'), nd = Key(v, 'd');
        const Bytes msg = v.Has("Msg") ? v.Bytes("Msg") : Bytes();
        const bool refused = v.Has("Refusal");
        for (const CZulCryptRSAKey* k : {nd.get(), c.get()}) {
            if (v.Has("Signed")) { EXPECT_EQ(Run(kPrivEnc, *k, msg), zultest::Hex(v.Bytes("Signed"))); }
            if (v.Has("Sealed")) { EXPECT_EQ(Run(kPrivDec, *k, v.Bytes("Sealed")), refused ? "-1" : zultest::Hex(msg)); }
        }
        if (v.Has("E") && !refused) {
            const auto ne = Key(v, 'e');
            for (const CZulCryptRSAKey* k : {ne.get(), c.get()}) {
                if (v.Has("Signed")) { EXPECT_EQ(Run(kPubDec, *k, v.Bytes("Signed")), zultest::Hex(msg)); }
                const Bytes sealed = zultest::FromHex(Run(kPubEnc, *k, msg));
                EXPECT_EQ(Run(kPrivDec, k == c.get() ? *c : *nd, sealed), zultest::Hex(msg));
            }
        }
        EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsacalculator"), Texts(refused ? 2 : 0, refused ? v.Text("Refusal") : ""));
    }
}

// A composite factor, the smaller or the larger, that passes a Fermat test for half of all bases:
// every fresh context, whatever bases it draws, gives m^d mod n.
TEST_F(RsaTest, CompositeFactor) {
    for (const VectorCase& v : zultest::ReadVectors("rsa_composite.vec")) {
        const auto nd = Key(v, 'd');
        for (int i = 0; i < 20; ++i) {
            VKLTest_Reset();
            EXPECT_EQ(Run(kPrivEnc, *nd, v.Bytes("In")), zultest::Hex(v.Bytes("Out"))) << v.Where();
        }
    }
}

// A key of the size asked (not a whole number of bytes too) that VKL finds consistent; eleven failed
// attempts, of either kind, each reported and then given up on; after a few failures, a key.
TEST_F(RsaTest, Generation) {
    CZulCryptRSAKey key(*context);
    key.GenerateKey(1025, 3);
    EXPECT_EQ(key.KeySize(), 129u);
    int check = 0;
    Fields(key, &check);
    EXPECT_EQ(check, 1);
    VKLTest_Reset();
    VKLTest_FailCall("VKL_RSA_generate_key", 0, 10, 0);
    VKLTest_FailCall("VKL_RSA_check_key", 0, 1, 0);
    key.GenerateKey(512, 65537);
    EXPECT_EQ(key.KeySize(), 0u);
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_free"), 1u);
    Texts failed(10, "VKL_RSA_generate_key: injected failure");
    failed.push_back("VKL_RSA_check_key: injected failure");
    failed.push_back("Exceeded max attempts to produce RSAKey: ");
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsakey"), failed);
    VKLTest_FailCall("VKL_RSA_generate_key", 0, 3, 0);
    key.GenerateKey(512, 65537);
    EXPECT_EQ(key.KeySize(), 64u);
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsakey"), Texts(3, "VKL_RSA_generate_key: injected failure"));
}

// What each way of filling a key replaces: a pair clears a key holding either of its numbers, a
// record only the components it has. A record built from a key keeps its own numbers where the key
// has none, and keeps none of them where VKL could not make or fill the key's number.
TEST_F(RsaTest, Components) {
    const VectorCase k = Full();
    CZulCryptRSAKey key(*context);
    Fill(key, k, 'c');
    EXPECT_EQ(Fields(key), "2048 17 2047 1024 1024 1024 1023 1019 ");
    Fill(key, k, 'd');
    EXPECT_EQ(Fields(key), "2048 - 2047 1 - - - - ");
    Fill(key, k, 'e');
    EXPECT_EQ(Fields(key), "2048 17 - 1 - - - - ");
    Fill(key, k, 'd');
    EXPECT_EQ(Fields(key), "2048 - 2047 1 - - - - ");
    CZulCryptBigNum *n = new CZulCryptBigNum(*context), *none = nullptr;
    n->SetNumber(3, k.Bytes("N").data());
    key.PopulateWithPublic(&n, &none);
    EXPECT_EQ(n, nullptr);
    EXPECT_EQ(Fields(key), "24 - - 1 - - - - ");
    VectorCase three;
    three.fields["E"] = "03";
    Fill(key, three, 'c');
    EXPECT_EQ(Fields(key), "24 2 - 1 - - - - ");
    key.ClearKey();
    EXPECT_EQ(Fields(key), "- - - 1 - - - - ");
    Fill(key, k, 'c');
    VKLTest_FailCall("VKL_BN_new", 1, 1, 0);
    EXPECT_EQ(Fields(key), "2048 17 2047 - 1024 1024 1023 1019 ");
    VKLTest_FailCall("VKL_BN_bin2bn", 4, 1, 0);  // e, after the record's p and the key's n, p and q
    EXPECT_EQ(Fields(key), "2048 - 2047 1024 1024 1024 1023 1019 ");
    key.SetKey(nullptr);
    C_VKL_RSA_Wrap empty(nullptr);
    key.SetKey(&empty);
    EXPECT_EQ(key.KeySize(), 256u);
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsakey"),
              (Texts{"VKL_BN_new: injected failure", "Tried to set the CZulCryptRSAKey with a NULL RSA structure.",
                     "Tried to set the CZulCryptRSAKey with a NULL RSA structure."}));
}

// A key without the exponent an operation needs, a record VKL cannot make, an input longer than VKL's
// lengths, exponents out of bounds: -1 with the cause; the next call works.
TEST_F(RsaTest, Failures) {
    VectorCase k = Full();
    const auto ne = Key(k, 'e');
    const Bytes zero(1, 0);
    EXPECT_EQ(Run(kPrivEnc, *ne, zero), "-1");
    VKLTest_FailCall("VKL_RSA_new", 0, 1, 0);
    EXPECT_EQ(Run(kPubEnc, *ne, zero), "-1");
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_public_encrypt"), 0u);
    EXPECT_EQ(Run(kPubEnc, *ne, zero).size(), 512u);
    EXPECT_EQ(Run(kPubEnc, *ne, zero, 2147483648u), "-1");
    k.fields["E"] = k.fields["N"];
    k.fields["D"] = "55*257";
    EXPECT_EQ(Run(kPrivEnc, *Key(k, 'd'), zero), "-1");
    EXPECT_EQ(Run(kPubEnc, *Key(k, 'e'), zero), "-1");
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsacalculator"),
              (Texts{"VKL_RSA_private_encrypt: the key has no private exponent", "VKL_RSA_new: injected failure",
                     "VKL_RSA_public_encrypt: no context, input or output",
                     "VKL_RSA_private_encrypt: the private exponent has 2055 bits, more than the modulus's 2048",
                     "error:02000065:rsa routines::bad e value"}));
}

// On a context without VKL: refused with a report, and VKL is not called.
TEST_F(RsaTest, NoVkl) {
    WEXTest_SetGetContextResult(0);
    CZulCryptContext none;
    WEXTest_SetGetContextResult(-3);
    diagnostics->Clear();
    VKLTest_Reset();
    CZulCryptRSAKey key(none);
    key.GenerateKey(512, 65537);
    const Texts invalid = {"VKL Context in an invalid state"};
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsakey"), invalid);
    CZulCryptRSACalculator calculator(none);
    unsigned char out[256];
    EXPECT_EQ(calculator.RSAPublicEncrypt(out, 1, *Key(Full(), 'e'), out), -1);
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsacalculator"), invalid);
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA_generate_key") + VKLTest_CallCount("VKL_RSA_new"), 0u);
}

}  // namespace
