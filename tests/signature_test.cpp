// CZulCryptSignature: the signatures of tests/data/rsa_signature.vec (made by the openssl
// command line, or refused as it refuses them); set-up, queries, traces and every failure are
// the scripts of tests/data/signature_scripts.vec.
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include <czulcryptsignature.h>
#include <vkl_testing.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;

class SignatureTest : public zultest::ContextTest {};

// The calls of tests/data/signature_scripts.vec on one object. "Set digest n exponent
// [n length] [exponent length]" (- for null); the data of Sign, Verify and VklSign is kept at
// $at; Sign [alloc | - for a null buffer] gives the length it leaves (7 when untouched).
// $N, $E and $D stand for the first key of rsa_signature.vec.
zultest::Calls SignatureCalls(CZulCryptContext& context) {
    auto signature = std::make_shared<CZulCryptSignature>(context);
    CZulCryptContext* on = &context;
    auto data = std::make_shared<Bytes>(4096);
    std::ostringstream address;
    address << static_cast<void*>(data->data());
    zultest::Vars()["$at"] = address.str();
    const zultest::VectorCase key = zultest::ReadVectors("rsa_signature.vec").at(0);
    for (const char* name : {"N", "E", "D"}) zultest::Vars()[std::string("$") + name] = key.fields.at(name);
    using zultest::Args;
    auto bytes = [](const zultest::Arg& arg) { return arg.IsNull() ? Bytes() : arg.Bytes(); };
    auto size = [=](const zultest::Arg& arg) { return static_cast<unsigned int>(bytes(arg).size()); };
    auto in = [=](const zultest::Arg& arg) -> void* {
        const Bytes given = bytes(arg);
        std::copy(given.begin(), given.end(), data->begin());
        return arg.IsNull() ? nullptr : data->data();
    };
    return {
        {"Set",
         [=](const Args& a) {
             const Bytes n = bytes(a[1]), x = bytes(a[2]);
             const unsigned int nLength = a.size() > 3 ? static_cast<unsigned int>(a[3].Number()) : size(a[1]);
             const unsigned int xLength = a.size() > 4 ? static_cast<unsigned int>(a[4].Number()) : size(a[2]);
             return zultest::Ok(signature->SetHashAndKey(a[0].IsNull() ? nullptr : a[0].Text().c_str(),
                                                         a[1].IsNull() ? nullptr : n.data(), nLength, x.data(),
                                                         xLength));
         }},
        {"Sign",
         [=](const Args& a) {
             unsigned char buffer[512];
             unsigned char* out = a.size() > 1 && a[1].IsNull() ? nullptr : buffer;
             unsigned int written = 7;
             const bool alloc = a.size() > 1 && a[1].raw == "alloc";
             const bool ok = alloc ? signature->GetSignature(in(a[0]), size(a[0]), &out, &written)
                                   : signature->GetSignature(in(a[0]), size(a[0]), out, &written);
             EXPECT_TRUE(!alloc || (out == nullptr) == !ok) << "the allocating form gives a buffer when it signs";
             zultest::Outcome outcome = zultest::Bytes(ok, out, written);
             outcome.number = written;
             if (alloc && ok) delete[] out;
             return outcome;
         }},
        {"Verify",
         [=](const Args& a) {
             Bytes given = bytes(a[1]);
             return zultest::Ok(signature->VerifySignature(in(a[0]), size(a[0]), a[1].IsNull() ? nullptr : given.data(),
                                                           size(a[1])));
         }},
        // "VklSign digest n e d data": VKL signing with a record that holds e goes through
        // OpenSSL's RSA, a way the library (which signs with n and d only) never takes.
        {"VklSign",
         [=](const Args& a) {
             VKL_t* vkl = on->GetContext()->m_pCtx;
             VKL_RSA_t* rsa = VKL_RSA_new(vkl);
             for (auto field : {std::make_pair(&rsa->n, 1), std::make_pair(&rsa->e, 2), std::make_pair(&rsa->d, 3)}) {
                 const Bytes number = a[field.second].Bytes();
                 *field.first = VKL_BN_bin2bn(vkl, number.data(), static_cast<int>(number.size()), nullptr);
             }
             VKL_EVP_PKEY_t* pkey = VKL_EVP_PKEY_new(vkl);
             EXPECT_EQ(VKL_EVP_PKEY_set1_RSA(vkl, pkey, rsa), 1);
             VKL_RSA_free(vkl, rsa);
             VKL_EVP_MD_CTX_t* ctx = VKL_EVP_MD_CTX_new(vkl);
             EXPECT_EQ(VKL_EVP_DigestInit(vkl, ctx, VKL_EVP_get_digestbyname(vkl, a[0].Text().c_str())), 1);
             EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, in(a[4]), size(a[4])), 1);
             unsigned char out[512];
             unsigned int length = 0;
             const bool ok = VKL_EVP_SignFinal(vkl, ctx, out, &length, pkey) == 1;
             VKL_EVP_MD_CTX_free(vkl, ctx);
             VKL_EVP_PKEY_free(vkl, pkey);
             return zultest::Bytes(ok, out, length);
         }},
        {"Reset", [=](const Args&) { signature->ResetMessageDigest(); return zultest::Ok(true); }},
        {"Initialise", [=](const Args&) { signature->Initialise(); return zultest::Ok(true); }},
        {"Type", [=](const Args&) { return zultest::Text(signature->GetType()); }},
        {"Size", [=](const Args&) { return zultest::Number(signature->GetSignatureSize()); }},
        {"DigestSize", [=](const Args&) { return zultest::Number(signature->GetDigestSize()); }},
        {"Block", [=](const Args&) { return zultest::Number(signature->GetDigestBlockSize()); }},
        {"Status", [=](const Args&) { return zultest::Ok(signature->GetStatus()); }},
    };
}

// Through one object for every row, so that each row also checks its reuse. Valid = 1: both
// signing forms, and VKL with e, give Out, which verifies. Valid = 0: Out does not verify, with
// the report Error (a mismatch if none); SignError: signing fails so, in VKL too.
TEST_F(SignatureTest, Vectors) {
    zultest::Calls calls = SignatureCalls(*context);
    for (const zultest::VectorCase& v : zultest::ReadVectors("rsa_signature.vec")) {
        SCOPED_TRACE(v.Where());
        auto call = [&](const char* name, const std::vector<const char*>& fields, const char* more = nullptr) {
            zultest::Args args;
            for (const char* field : fields) args.push_back({v.fields.at(field)});
            if (more != nullptr) args.push_back({more});
            return calls.at(name)(args);
        };
        const bool valid = v.Number("Valid") == 1;
        const std::string expected = valid ? zultest::Hex(v.Bytes("Out")) : "";
        const std::string mismatch = "VKL_EVP_VerifyFinal: the signature does not match";
        Texts reports(valid ? 0 : 1, v.Has("Error") ? v.Text("Error") : mismatch);
        if (valid || v.Has("SignError")) {
            // VKL forgets the keys it completed: the first signature pads by VKL's own table, the
            // second by OpenSSL.
            VKLTest_Reset();
            call("Reset", {});
            ASSERT_TRUE(call("Set", {"Digest", "N", "D"}).ok);
            EXPECT_EQ(zultest::Hex(call("Sign", {"In"}).out), expected);
            EXPECT_EQ(VKLTest_CallCount("VKL_RSA/recover"), valid ? 1u : 0u);
            EXPECT_EQ(zultest::Hex(call("Sign", {"In"}, "alloc").out), expected);
            EXPECT_EQ(zultest::Hex(call("VklSign", {"Digest", "N", "E", "D", "In"}).out), expected);
            EXPECT_EQ(zultest::TakeQueue(vkl), valid ? Texts{} : Texts{v.Text("SignError")});
            if (!valid) reports.insert(reports.begin(), 2, v.Text("SignError"));
        }
        ASSERT_TRUE(call("Set", {"Digest", "N", "E"}).ok);
        EXPECT_EQ(call("Size", {}).number, static_cast<long>(v.Bytes("N").size()));
        EXPECT_EQ(call("Verify", {"In", "Out"}).ok, valid);
        EXPECT_EQ(diagnostics->TakeErrors("czulcryptsignature"), reports);
    }
}

TEST_F(SignatureTest, Scripts) { zultest::RunScripts("signature_scripts.vec", SignatureCalls); }

// A VKL free forced to fail does none of its work: the digest context leaks on purpose
// (tests/valgrind.supp names this test).
TEST_F(SignatureTest, DigestContextFailures) {
#if defined(__SANITIZE_ADDRESS__)
    __lsan::ScopedDisabler leaks;
#endif
    zultest::RunScripts("signature_leak.vec", SignatureCalls);
    liveObjects += 1;
}

}  // namespace
