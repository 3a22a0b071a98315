// RSA keys and raw RSA: the known answers of tests/vectors/rsa_raw.vec and rsa_composite.vec, and
// what a caller sees of generation, the copying rules and failures.
#include <gtest/gtest.h>

#include <czulcryptrsacalculator.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;
using zultest::Hex;
using zultest::VectorCase;
using C = CZulCryptRSACalculator;
using Op = decltype(&C::RSAPublicEncrypt);
const Op kPubEnc = &C::RSAPublicEncrypt, kPubDec = &C::RSAPublicDecrypt, kPrivEnc = &C::RSAPrivateEncrypt,
         kPrivDec = &C::RSAPrivateDecrypt;

VectorCase One(const char* name, const char* hex) {
    VectorCase v;
    v.fields[name] = hex;
    return v;
}

class RsaTest : public zultest::ContextTest {
protected:
    // A VKL record of those of n e d p q dmp1 dmq1 iqmp that v has.
    std::shared_ptr<VKL_RSA_t> Record(const VectorCase& v) {
        std::shared_ptr<VKL_RSA_t> r(VKL_RSA_new(vkl), [this](VKL_RSA_t* p) { VKL_RSA_free(vkl, p); });
        VKL_BIGNUM_t** fields[] = {&r->n, &r->e, &r->d, &r->p, &r->q, &r->dmp1, &r->dmq1, &r->iqmp};
        const char* names[] = {"N", "E", "D", "P", "Q", "DP", "DQ", "QINV"};
        for (int i = 0; i < 8; ++i)
            if (v.Has(names[i])) *fields[i] = VKL_BN_bin2bn(vkl, v.Bytes(names[i]).data(), v.Bytes(names[i]).size(), 0);
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
    std::string Run(Op op, const CZulCryptRSAKey& key, const Bytes& in, unsigned int length = 0) {
        unsigned char out[2100];
        const int r = (C(*context).*op)(in.data(), length ? length : in.size(), key, out);
        return r < 0 ? std::to_string(r) : Hex(out, r);
    }
    // Bits of n e d p q dmp1 dmq1 iqmp in a record whose p was 1 before the key was built into it.
    // With check, VKL's check of that record follows.
    std::string Fields(const CZulCryptRSAKey& key, bool check = false) {
        const auto r = Record(One("P", "01"));
        C_VKL_RSA_Wrap wrap(r.get());
        key.BuildKeyStruct(&wrap);
        std::string text;
        for (VKL_BIGNUM_t* f : {r->n, r->e, r->d, r->p, r->q, r->dmp1, r->dmq1, r->iqmp})
            text += (f != nullptr ? std::to_string(VKL_BN_num_bits(vkl, f)) : "-") + " ";
        return check ? text + std::to_string(VKL_RSA_check_key(vkl, r.get())) : text;
    }
    Texts Errors(const char* file) { return diagnostics->TakeErrors(file); }
    void Fail(const char* function, int times = 1, unsigned skip = 0) { VKLTest_FailCall(function, skip, times, 0); }
    // The 2048-bit key of rsa_raw.vec, complete.
    const VectorCase k = zultest::ReadVectors("rsa_raw.vec").at(2);
};

TEST_F(RsaTest, Vectors) {
    for (const VectorCase& v : zultest::ReadVectors("rsa_raw.vec")) {
        SCOPED_TRACE(v.Where());
        const auto c = Key(v, 'c'), nd = Key(v, 'd');
        const Bytes msg = v.Has("Msg") ? v.Bytes("Msg") : Bytes();
        const std::string m = Hex(msg);
        const bool refused = v.Has("Refusal");
        for (const CZulCryptRSAKey* key : {nd.get(), c.get()}) {
            if (v.Has("Signed")) { EXPECT_EQ(Run(kPrivEnc, *key, msg), Hex(v.Bytes("Signed"))); }
            if (v.Has("Sealed")) { EXPECT_EQ(Run(kPrivDec, *key, v.Bytes("Sealed")), refused ? "-1" : m); }
        }
        if (v.Has("E") && !refused) {
            const auto ne = Key(v, 'e');
            for (const CZulCryptRSAKey* key : {ne.get(), c.get()}) {
                if (v.Has("Signed")) { EXPECT_EQ(Run(kPubDec, *key, v.Bytes("Signed")), m); }
                const Bytes sealed = zultest::FromHex(Run(kPubEnc, *key, msg));
                EXPECT_EQ(Run(kPrivDec, key == c.get() ? *c : *nd, sealed), m);
            }
        }
        EXPECT_EQ(Errors("czulcryptrsacalculator"), Texts(refused * 2, refused ? v.Text("Refusal") : ""));
    }
}

// Every use of a key given as (n, d) gives m^d mod n: before the prime tests of its factors (on its
// 64th use) and after them, and also for good when a factor is composite and fails them.
TEST_F(RsaTest, CompositeFactor) {
    auto cases = zultest::ReadVectors("rsa_composite.vec");
    cases.push_back(k);
    for (const VectorCase& v : cases) {
        const auto nd = Key(v, 'd');
        const bool raw = v.Has("Msg");
        VKLTest_Reset();
        for (int i = 0; i < 70; ++i) {
            EXPECT_EQ(Run(kPrivEnc, *nd, v.Bytes(raw ? "Msg" : "In")), Hex(v.Bytes(raw ? "Signed" : "Out"))) << i;
        }
    }
}


// A key of the size asked (not a whole number of bytes too) that VKL finds consistent; eleven failed
// attempts, of either kind, each reported and then given up on; after a few failures, a key.
TEST_F(RsaTest, Generation) {
    CZulCryptRSAKey key(*context);
    key.GenerateKey(1025, 3);
    EXPECT_EQ(key.KeySize(), 129u);
    EXPECT_EQ(Fields(key, true).back(), '1');
    Fail("VKL_RSA_generate_key", 10);
    Fail("VKL_RSA_check_key");
    key.GenerateKey(512, 65537);
    EXPECT_EQ(key.KeySize(), 0u);
    const std::string g = "VKL_RSA_generate_key: injected failure";
    Texts failed(10, g);
    failed.insert(failed.end(), {"VKL_RSA_check_key: injected failure", "Exceeded max attempts to produce RSAKey: "});
    EXPECT_EQ(Errors("czulcryptrsakey"), failed);
    Fail("VKL_RSA_generate_key", 3);
    key.GenerateKey(512, 65537);
    EXPECT_EQ(key.KeySize(), 64u);
    EXPECT_EQ(Errors("czulcryptrsakey"), Texts(3, g));
}

// What each way of filling a key replaces: a pair clears a key holding either of its numbers, a
// record only the components it has. A record built from a key keeps its own numbers where the key
// has none, and keeps none of them where VKL could not make or fill the key's number.
TEST_F(RsaTest, Components) {
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
    EXPECT_EQ(Fields(key), "24 - - 1 - - - - ");
    key.ClearKey();
    EXPECT_EQ(Fields(key), "- - - 1 - - - - ");
    Fill(key, One("E", "03"), 'c');
    Fill(key, k, 'd');
    EXPECT_EQ(Fields(key), "2048 2 2047 1 - - - - ");
    Fill(key, k, 'c');
    Fail("VKL_BN_new", 1, 1);
    EXPECT_EQ(Fields(key), "2048 17 2047 - 1024 1024 1023 1019 ");
    // e, after the record's p and the key's n, p and q
    Fail("VKL_BN_bin2bn", 1, 4);
    EXPECT_EQ(Fields(key), "2048 - 2047 1024 1024 1024 1023 1019 ");
    key.SetKey(nullptr);
    EXPECT_EQ(Errors("czulcryptrsakey"),
              (Texts{"VKL_BN_new: injected failure", "Tried to set the CZulCryptRSAKey with a NULL RSA structure."}));
}

// A key without the exponent an operation needs, a record VKL cannot make (the next call works), the
// longest length VKL takes (more than the key holds), a d longer than n, an e not below n: -1 with the cause.
TEST_F(RsaTest, Failures) {
    VectorCase x = k;
    const auto ne = Key(k, 'e');
    const Bytes zero(1, 0);
    EXPECT_EQ(Run(kPrivEnc, *ne, zero), "-1");
    Fail("VKL_RSA_new");
    EXPECT_EQ(Run(kPubEnc, *ne, zero), "-1");
    EXPECT_EQ(Run(kPubEnc, *ne, zero).size(), 512u);
    EXPECT_EQ(Run(kPubEnc, *ne, zero, 2147483647), "-1");
    x.fields["E"] = x.fields["N"];
    x.fields["D"] = "55*257";
    EXPECT_EQ(Run(kPrivEnc, *Key(x, 'd'), zero), "-1");
    EXPECT_EQ(Run(kPubEnc, *Key(x, 'e'), zero), "-1");
    EXPECT_EQ(Errors("czulcryptrsacalculator"),
              (Texts{"VKL_RSA_private_encrypt: the key has no private exponent", "VKL_RSA_new: injected failure",
                     "error:0200006E:rsa routines::data too large for key size",
                     "VKL_RSA_private_encrypt: the private exponent has 2055 bits, more than the modulus's 2048",
                     "error:02000065:rsa routines::bad e value"}));
}

}  // namespace
