// RSA keys and raw RSA: the vectors of tests/data/rsa_raw.vec with each key complete, as n
// and d and as n and e; generation, the copying rules, bounds, refusals and failures (of the
// big number and Diffie-Hellman classes too, on a context without VKL) as the scripts of
// tests/data/rsa_scripts.vec.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptdh.h>
#include <czulcryptrsacalculator.h>
#include <czulcryptrsakey.h>
#include <vkl.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
using zultest::Args;

class RsaTest : public zultest::ContextTest {};

// A VKL record of hex numbers n e d p q dmp1 dmq1 iqmp, - for none.
VKL_RSA_t* Record(VKL_t* vkl, const Args& numbers) {
    VKL_RSA_t* rsa = VKL_RSA_new(vkl);
    VKL_BIGNUM_t** fields[] = {&rsa->n, &rsa->e, &rsa->d, &rsa->p, &rsa->q, &rsa->dmp1, &rsa->dmq1, &rsa->iqmp};
    for (size_t i = 0; i < numbers.size(); ++i) {
        const Bytes bytes = numbers[i].IsNull() ? Bytes() : numbers[i].Bytes();
        if (!numbers[i].IsNull()) *fields[i] = VKL_BN_bin2bn(vkl, bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }
    return rsa;
}

// The calls of tests/data/rsa_scripts.vec. Keys are named, made on first use on the case's
// context (names starting "good": on a usable one). "Key name how ...": public, take (handing
// the numbers over) or private, with n and an exponent; record, from a VKL record of the numbers
// (none: a holder of no record); null; clear. PubEnc, PubDec, PrivEnc, PrivDec key data [length]
// run a calculator of the case's context (Good...: of a usable one). $N $E $D $P $Q and $CRT
// (dmp1 dmq1 iqmp) stand for the first key of rsa_raw.vec.
zultest::Calls RsaCalls(CZulCryptContext& context, CZulCryptContext& usable, VKL_t* vkl) {
    auto keys = std::make_shared<std::map<std::string, std::unique_ptr<CZulCryptRSAKey>>>();
    auto number = std::make_shared<CZulCryptBigNum>(context);
    CZulCryptContext *on = &context, *good = &usable;
    const zultest::VectorCase fixed = zultest::ReadVectors("rsa_raw.vec").at(0);
    for (const char* name : {"N", "E", "D", "P", "Q"}) zultest::Vars()[std::string("$") + name] = fixed.fields.at(name);
    zultest::Vars()["$CRT"] = fixed.fields.at("DP") + " " + fixed.fields.at("DQ") + " " + fixed.fields.at("QINV");
    auto key = [=](const zultest::Arg& name) -> CZulCryptRSAKey& {
        std::unique_ptr<CZulCryptRSAKey>& slot = (*keys)[name.raw];
        if (!slot) slot = std::make_unique<CZulCryptRSAKey>(name.raw.rfind("good", 0) == 0 ? *good : *on);
        return *slot;
    };
    auto big = [=](const zultest::Arg& arg) {
        std::unique_ptr<CZulCryptBigNum> made(arg.IsNull() ? nullptr : new CZulCryptBigNum(*on));
        const Bytes bytes = arg.IsNull() ? Bytes() : arg.Bytes();
        if (made) made->SetNumber(static_cast<unsigned int>(bytes.size()), bytes.data());
        return made;
    };
    // A record built from a key (p set to 1 before, when asked), released with the pointer.
    auto built = [=](const zultest::Arg& name, bool presetP) {
        std::shared_ptr<VKL_RSA_t> rsa(Record(vkl, presetP ? Args{{"-"}, {"-"}, {"-"}, {"01"}} : Args{}),
                                       [vkl](VKL_RSA_t* record) { VKL_RSA_free(vkl, record); });
        C_VKL_RSA_Wrap wrap(rsa.get());
        key(name).BuildKeyStruct(&wrap);
        return rsa;
    };
    using Operation = int (CZulCryptRSACalculator::*)(const unsigned char*, unsigned int, const CZulCryptRSAKey&,
                                                       unsigned char*);
    auto run = [=](CZulCryptContext* where, Operation operation) {
        return [=](const Args& a) {
            CZulCryptRSACalculator calculator(*where);
            const Bytes in = a[1].Bytes();
            Bytes out(2100);
            const long length = a.size() > 2 ? a[2].Number() : static_cast<long>(in.size());
            const int result = (calculator.*operation)(in.data(), static_cast<unsigned int>(length), key(a[0]), out.data());
            zultest::Outcome outcome = zultest::Bytes(result >= 0, out.data(), result > 0 ? result : 0);
            outcome.number = result;
            return outcome;
        };
    };
    zultest::Calls calls = {
        {"Key",
         [=](const Args& a) {
             CZulCryptRSAKey& made = key(a[0]);
             const std::string how = a[1].raw;
             if (how == "record") {
                 std::shared_ptr<VKL_RSA_t> rsa(a.size() > 2 ? Record(vkl, Args(a.begin() + 2, a.end())) : nullptr,
                                                [vkl](VKL_RSA_t* record) { VKL_RSA_free(vkl, record); });
                 C_VKL_RSA_Wrap wrap(rsa.get());
                 made.SetKey(&wrap);
             } else if (how == "null" || how == "clear") {
                 how == "null" ? made.SetKey(nullptr) : made.ClearKey();
             } else if (how == "take") {
                 CZulCryptBigNum *n = big(a[2]).release(), *x = big(a[3]).release();
                 made.PopulateWithPublic(&n, &x);
                 EXPECT_TRUE(n == nullptr && x == nullptr) << "the key takes the numbers it is given";
             } else {
                 const auto n = big(a[2]), x = big(a[3]);
                 how == "private" ? made.PopulateWithPrivate(n.get(), x.get()) : made.PopulateWithPublic(n.get(), x.get());
             }
             return zultest::Number(made.KeySize());
         }},
        {"Generate",
         [=](const Args& a) {
             key(a[0]).GenerateKey(static_cast<int>(a[1].Number()), static_cast<unsigned long>(a[2].Number()));
             return zultest::Number(key(a[0]).KeySize());
         }},
        // Bits of n e d p q dmp1 dmq1 iqmp in a record built from the key, - for none.
        {"Fields",
         [=](const Args& a) {
             std::shared_ptr<VKL_RSA_t> rsa = built(a[0], true);
             std::string text;
             for (VKL_BIGNUM_t* field : {rsa->n, rsa->e, rsa->d, rsa->p, rsa->q, rsa->dmp1, rsa->dmq1, rsa->iqmp}) {
                 text += (text.empty() ? "" : " ") + (field ? std::to_string(VKL_BN_num_bits(vkl, field)) : "-");
             }
             return zultest::Text(text.c_str());
         }},
        {"Check", [=](const Args& a) { return zultest::Ok(VKL_RSA_check_key(vkl, built(a[0], false).get()) == 1); }},
        // A big number and Diffie-Hellman on the case's context.
        {"Number", [=](const Args& a) { const Bytes bytes = a[0].Bytes();
             return zultest::Ok(number->SetNumber(static_cast<unsigned int>(bytes.size()), bytes.data())); }},
        {"NumberFromVkl",
         [=](const Args&) {
             C_VKL_BIGNUM_Wrap wrap(VKL_BN_new(vkl));
             const bool ok = number->SetNumber(&wrap);
             VKL_BN_free(vkl, wrap.m_pBigNum);
             return zultest::Ok(ok);
         }},
        {"NumberToVkl", [=](const Args&) { return zultest::Ok(number->BuildNumber() != nullptr); }},
        {"NumberIntoVkl",
         [=](const Args&) {
             C_VKL_BIGNUM_Wrap wrap(VKL_BN_new(vkl));
             const bool ok = number->PopulateNumber(&wrap);
             VKL_BN_free(vkl, wrap.m_pBigNum);
             return zultest::Ok(ok);
         }},
        {"NumberRandom",
         [=](const Args& a) {
             number->PopulateRandom(static_cast<unsigned int>(a[0].Number()));
             return zultest::Bytes(true, number->GetBigNumPacket(), number->GetLen());
         }},
        {"Dh",
         [=](const Args&) {
             CZulCryptDH dh(*on);
             zultest::Outcome outcome = zultest::Ok(dh.GetStatus() || dh.SetOakleyGroup2());
             outcome.number = dh.GetSize();
             return outcome;
         }},
        {"DhGenerated", [=](const Args&) { return zultest::Ok(CZulCryptDH(*on, 512, 2).GetStatus()); }},
        {"GoodDhWithNumber",
         [=](const Args&) {
             CZulCryptDH dh(*good);
             EXPECT_TRUE(dh.SetOakleyGroup2());
             dh.ComputeSharedSecret(number.get());
             return zultest::Ok(dh.GetStatus());
         }},
    };
    const std::pair<std::string, Operation> operations[] = {{"PubEnc", &CZulCryptRSACalculator::RSAPublicEncrypt},
                                                            {"PubDec", &CZulCryptRSACalculator::RSAPublicDecrypt},
                                                            {"PrivEnc", &CZulCryptRSACalculator::RSAPrivateEncrypt},
                                                            {"PrivDec", &CZulCryptRSACalculator::RSAPrivateDecrypt}};
    for (const auto& operation : operations) {
        calls[operation.first] = run(on, operation.second);
        calls["Good" + operation.first] = run(good, operation.second);
    }
    return calls;
}

// Type 1: private encryption of In gives Out with the complete key and with n and d, and public
// decryption gives In back with n and e and the complete key. Type 2: private decryption of Out
// gives In (or fails with Error) with both private forms; In encrypted with either public form
// decrypts back.
TEST_F(RsaTest, Vectors) {
    for (const zultest::VectorCase& v : zultest::ReadVectors("rsa_raw.vec")) {
        SCOPED_TRACE(v.Where());
        zultest::Calls calls = RsaCalls(*context, *context, vkl);
        auto call = [&](const std::string& name, const std::vector<std::string>& args) {
            Args a;
            for (const std::string& arg : args) a.push_back({arg});
            return zultest::Hex(calls.at(name)(a).out);
        };
        const std::map<std::string, std::string>& f = v.fields;
        call("Key", {"complete", "record", f.at("N"), f.at("E"), f.at("D"), f.at("P"), f.at("Q"), f.at("DP"),
                     f.at("DQ"), f.at("QINV")});
        call("Key", {"nd", "private", f.at("N"), f.at("D")});
        call("Key", {"ne", "public", f.at("N"), f.at("E")});
        const std::string in = v.Has("In") ? zultest::Hex(v.Bytes("In")) : "", out = zultest::Hex(v.Bytes("Out"));
        for (const char* key : {"nd", "complete"}) {
            if (v.Number("Type") == 1) {
                EXPECT_EQ(call("PrivEnc", {key, f.at("In")}), out) << key;
                EXPECT_EQ(call("PubDec", {key[0] == 'n' ? "ne" : key, f.at("Out")}), in) << key;
            } else {
                EXPECT_EQ(call("PrivDec", {key, f.at("Out")}), in) << key;
                for (const char* from : {"complete", "ne"}) {
                    if (v.Has("Error")) break;
                    EXPECT_EQ(call("PrivDec", {key, call("PubEnc", {from, f.at("In")})}), in) << from;
                }
            }
        }
        const std::vector<std::string> reports(v.Has("Error") ? 2 : 0, v.Has("Error") ? v.Text("Error") : "");
        EXPECT_EQ(diagnostics->TakeErrors("czulcryptrsacalculator"), reports);
    }
}

TEST_F(RsaTest, Scripts) {
    zultest::RunScripts("rsa_scripts.vec", [this](CZulCryptContext& on) { return RsaCalls(on, *context, vkl); });
}

}  // namespace
