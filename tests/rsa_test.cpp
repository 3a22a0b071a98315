// RSA keys and raw RSA as the scripts of tests/data/rsa_raw.vec (known answers, with each key
// complete, as n and d and as n and e) and tests/data/rsa_scripts.vec (generation, the copying
// rules, bounds, refusals and failures, and every public key class on a context without VKL);
// tests/vectors/rsa_composite.vec, an (n, d) whose factor search meets a composite.
#include <gtest/gtest.h>

#include <czulcryptdh.h>
#include <czulcryptrsacalculator.h>
#include <vkl_testing.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
using zultest::Args;

class RsaTest : public zultest::ContextTest {};

// A VKL record of hex numbers n e d p q dmp1 dmq1 iqmp (- for none), released with the pointer.
std::shared_ptr<VKL_RSA_t> Record(VKL_t* vkl, const Args& numbers) {
    std::shared_ptr<VKL_RSA_t> rsa(VKL_RSA_new(vkl), [vkl](VKL_RSA_t* record) { VKL_RSA_free(vkl, record); });
    VKL_BIGNUM_t** fields[] = {&rsa->n, &rsa->e, &rsa->d, &rsa->p, &rsa->q, &rsa->dmp1, &rsa->dmq1, &rsa->iqmp};
    for (size_t i = 0; i < numbers.size(); ++i) {
        const Bytes bytes = numbers[i].IsNull() ? Bytes() : numbers[i].Bytes();
        if (!bytes.empty()) *fields[i] = VKL_BN_bin2bn(vkl, bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }
    return rsa;
}

// The calls of the scripts. Keys are named and made on first use; keys, calculators and
// Diffie-Hellman objects on the case's context, or after "On good" on a usable one.
// "Key name how ...": public, take (handing the numbers over) or private, with n and an
// exponent (- for none); record, from a VKL record of the numbers (none: a holder of no record);
// generate bits e; null; clear. PubEnc, PubDec, PrivEnc and PrivDec key data [length];
// RoundTrip encrypts with one key and decrypts with another. $N $E $D $P $Q and $CRT (dmp1 dmq1
// iqmp) stand for the first key of rsa_raw.vec.
zultest::Calls RsaCalls(CZulCryptContext& context, CZulCryptContext& usable, VKL_t* vkl) {
    auto keys = std::make_shared<std::map<std::string, std::unique_ptr<CZulCryptRSAKey>>>();
    auto number = std::make_shared<CZulCryptBigNum>(context);
    auto where = std::make_shared<CZulCryptContext*>(&context);
    CZulCryptContext *mine = &context, *good = &usable;
    const zultest::VectorCase fixed = zultest::ReadVectors("rsa_raw.vec").at(0);
    for (const char* name : {"N", "E", "D", "P", "Q"}) zultest::Vars()[std::string("$") + name] = fixed.fields.at(name);
    zultest::Vars()["$CRT"] = fixed.fields.at("DP") + " " + fixed.fields.at("DQ") + " " + fixed.fields.at("QINV");
    auto key = [=](const zultest::Arg& name) -> CZulCryptRSAKey& {
        std::unique_ptr<CZulCryptRSAKey>& slot = (*keys)[name.raw];
        if (!slot) slot = std::make_unique<CZulCryptRSAKey>(**where);
        return *slot;
    };
    auto big = [=](const zultest::Arg& arg) {
        std::unique_ptr<CZulCryptBigNum> made(arg.IsNull() ? nullptr : new CZulCryptBigNum(**where));
        if (made) made->SetNumber(static_cast<unsigned int>(arg.Bytes().size()), arg.Bytes().data());
        return made;
    };
    using Operation = int (CZulCryptRSACalculator::*)(const unsigned char*, unsigned int, const CZulCryptRSAKey&,
                                                       unsigned char*);
    auto run = [=](Operation operation) {
        return [=](const Args& a) {
            CZulCryptRSACalculator calculator(**where);
            const Bytes in = a[1].Bytes();
            Bytes out(2100);
            const long length = a.size() > 2 ? a[2].Number() : static_cast<long>(in.size());
            const int result =
                (calculator.*operation)(in.data(), static_cast<unsigned int>(length), key(a[0]), out.data());
            zultest::Outcome outcome = zultest::Bytes(result >= 0, out.data(), result > 0 ? result : 0);
            outcome.number = result;
            return outcome;
        };
    };
    zultest::Calls calls = {
        {"On", [=](const Args& a) { *where = a[0].raw == "good" ? good : mine; return zultest::Ok(true); }},
        {"Key",
         [=](const Args& a) {
             CZulCryptRSAKey& made = key(a[0]);
             const std::string how = a[1].raw;
             if (how == "record") {
                 const std::shared_ptr<VKL_RSA_t> rsa = Record(vkl, Args(a.begin() + 2, a.end()));
                 C_VKL_RSA_Wrap wrap(a.size() > 2 ? rsa.get() : nullptr);
                 made.SetKey(&wrap);
             } else if (how == "generate") {
                 made.GenerateKey(static_cast<int>(a[2].Number()), static_cast<unsigned long>(a[3].Number()));
             } else if (how == "null" || how == "clear") {
                 how == "null" ? made.SetKey(nullptr) : made.ClearKey();
             } else if (how == "take") {
                 CZulCryptBigNum *n = big(a[2]).release(), *x = big(a[3]).release();
                 made.PopulateWithPublic(&n, &x);
                 EXPECT_TRUE(n == nullptr && x == nullptr) << "the key takes the numbers it is given";
             } else {
                 const auto n = big(a[2]), x = big(a[3]);
                 if (how == "private") made.PopulateWithPrivate(n.get(), x.get());
                 if (how == "public") made.PopulateWithPublic(n.get(), x.get());
             }
             return zultest::Number(made.KeySize());
         }},
        // Bits of n e d p q dmp1 dmq1 iqmp in a record built from the key, whose p was set to 1
        // first; - for none. "Fields key check": Ok is VKL's own check of that record. "Fields key
        // none" builds into a holder of no record instead (and, as every Fields, into no holder).
        {"Fields",
         [=](const Args& a) {
             const std::string mode = a.size() > 1 ? a[1].raw : "";
             const std::shared_ptr<VKL_RSA_t> rsa = Record(vkl, {{"-"}, {"-"}, {"-"}, {"01"}});
             C_VKL_RSA_Wrap wrap(mode == "none" ? nullptr : rsa.get());
             key(a[0]).BuildKeyStruct(&wrap);
             key(a[0]).BuildKeyStruct(nullptr);
             std::string text;
             for (VKL_BIGNUM_t* field : {rsa->n, rsa->e, rsa->d, rsa->p, rsa->q, rsa->dmp1, rsa->dmq1, rsa->iqmp}) {
                 text += (text.empty() ? "" : " ") + (field ? std::to_string(VKL_BN_num_bits(vkl, field)) : "-");
             }
             zultest::Outcome outcome = zultest::Text(text.c_str());
             outcome.ok = mode == "check" && VKL_RSA_check_key(vkl, rsa.get()) == 1;
             return outcome;
         }},
        // Every operation of a big number 01 00 01 that needs VKL; Out is its value after them.
        {"NumberNeedingVkl",
         [=](const Args&) {
             const unsigned char value[] = {1, 0, 1};
             number->SetNumber(3, value);
             C_VKL_BIGNUM_Wrap wrap(VKL_BN_new(vkl));
             const bool refused =
                 !number->SetNumber(&wrap) & (number->BuildNumber() == nullptr) & !number->PopulateNumber(&wrap);
             number->PopulateRandom(64);
             VKL_BN_free(vkl, wrap.m_pBigNum);
             return zultest::Bytes(refused, number->GetBigNumPacket(), number->GetLen());
         }},
        // Diffie-Hellman: "Dh" (and Oakley group 2), "Dh 512" (a group generated), "Dh peer" (Oakley
        // group 2, with that big number as the peer's key).
        {"Dh",
         [=](const Args& a) {
             std::unique_ptr<CZulCryptDH> dh(a.empty() || a[0].raw == "peer" ? new CZulCryptDH(**where)
                                                                              : new CZulCryptDH(**where, 512, 2));
             if (!a.empty() && a[0].raw == "peer" && dh->SetOakleyGroup2()) dh->ComputeSharedSecret(number.get());
             zultest::Outcome outcome = zultest::Ok(dh->GetStatus() || (a.empty() && dh->SetOakleyGroup2()));
             outcome.number = dh->GetSize();
             return outcome;
         }},
    };
    const std::pair<const char*, Operation> operations[] = {{"PubEnc", &CZulCryptRSACalculator::RSAPublicEncrypt},
                                                            {"PubDec", &CZulCryptRSACalculator::RSAPublicDecrypt},
                                                            {"PrivEnc", &CZulCryptRSACalculator::RSAPrivateEncrypt},
                                                            {"PrivDec", &CZulCryptRSACalculator::RSAPrivateDecrypt}};
    for (const auto& operation : operations) calls[operation.first] = run(operation.second);
    calls["RoundTrip"] = [=](const Args& a) {
        const std::string sealed = zultest::Hex(run(&CZulCryptRSACalculator::RSAPublicEncrypt)({a[0], a[2]}).out);
        return run(&CZulCryptRSACalculator::RSAPrivateDecrypt)({a[1], {sealed}});
    };
    return calls;
}

TEST_F(RsaTest, Scripts) {
    for (const char* file : {"rsa_raw.vec", "rsa_scripts.vec"}) {
        zultest::RunScripts(file, [this](CZulCryptContext& on) { return RsaCalls(on, *context, vkl); });
    }
}

// A composite factor, the smaller or the larger, that passes a Fermat test for half of all bases:
// every fresh context, whatever bases it draws, gives m^d mod n.
TEST_F(RsaTest, CompositeFactor) {
    zultest::Calls calls = RsaCalls(*context, *context, vkl);
    for (const zultest::VectorCase& v : zultest::ReadVectors("rsa_composite.vec")) {
        calls.at("Key")({{"k"}, {"private"}, {v.fields.at("N")}, {v.fields.at("D")}});
        for (int i = 0; i < 20; ++i) {
            VKLTest_Reset();
            EXPECT_EQ(zultest::Hex(calls.at("PrivEnc")({{"k"}, {v.fields.at("In")}}).out), zultest::Hex(v.Bytes("Out")))
                << v.Where();
        }
    }
}

}  // namespace
