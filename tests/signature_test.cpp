// CZulCryptSignature: the signatures of tests/data/rsa_signature.vec (made by the openssl
// command line, or refused as it refuses them) through one signer and one verifier; set-up,
// queries, traces and every failure are the scripts of tests/data/signature_scripts.vec.
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptsignature.h>
#include <vkl.h>

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

bool Configure(CZulCryptSignature& signature, const zultest::VectorCase& v, const char* exponent) {
    const Bytes n = v.Bytes("N"), x = v.Bytes(exponent);
    return signature.SetHashAndKey(v.Text("Digest").c_str(), n.data(), static_cast<unsigned int>(n.size()), x.data(),
                                   static_cast<unsigned int>(x.size()));
}

// VKL signing with a record that holds e goes through OpenSSL's RSA, a way the library
// (which signs with n and d only) never takes. "" when it fails, its queue in `queue`.
std::string VklSignsWithE(VKL_t* vkl, const zultest::VectorCase& v, Texts& queue) {
    VKL_RSA_t* rsa = VKL_RSA_new(vkl);
    for (auto field : {std::make_pair(&rsa->n, "N"), std::make_pair(&rsa->e, "E"), std::make_pair(&rsa->d, "D")}) {
        const Bytes bytes = v.Bytes(field.second);
        *field.first = VKL_BN_bin2bn(vkl, bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }
    VKL_EVP_PKEY_t* pkey = VKL_EVP_PKEY_new(vkl);
    EXPECT_EQ(VKL_EVP_PKEY_set1_RSA(vkl, pkey, rsa), 1);
    VKL_RSA_free(vkl, rsa);
    VKL_EVP_MD_CTX_t* ctx = VKL_EVP_MD_CTX_new(vkl);
    const Bytes in = v.Bytes("In");
    EXPECT_EQ(VKL_EVP_DigestInit(vkl, ctx, VKL_EVP_get_digestbyname(vkl, v.Text("Digest").c_str())), 1);
    EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, in.data(), in.size()), 1);
    unsigned char out[512];
    unsigned int length = 0;
    const bool ok = VKL_EVP_SignFinal(vkl, ctx, out, &length, pkey) == 1;
    VKL_EVP_MD_CTX_free(vkl, ctx);
    VKL_EVP_PKEY_free(vkl, pkey);
    queue = zultest::TakeQueue(vkl);
    return ok ? zultest::Hex(out, length) : "";
}

// Valid = 1: both signing forms and VKL with e give Out, which verifies. Valid = 0: Out does not
// verify, with the report Error (a mismatch if not given); SignError: signing fails so.
TEST_F(SignatureTest, Vectors) {
    CZulCryptSignature signer(*context), verifier(*context);
    for (const zultest::VectorCase& v : zultest::ReadVectors("rsa_signature.vec")) {
        SCOPED_TRACE(v.Where());
        diagnostics->Clear();
        Bytes in = v.Bytes("In"), out = v.Bytes("Out");
        const unsigned int size = static_cast<unsigned int>(in.size());
        signer.ResetMessageDigest();
        ASSERT_TRUE(Configure(signer, v, "D") && Configure(verifier, v, "E"));
        EXPECT_EQ(verifier.GetSignatureSize(), static_cast<int>(v.Bytes("N").size()));
        const bool valid = v.Number("Valid") == 1;
        EXPECT_EQ(verifier.VerifySignature(in.data(), size, out.data(), static_cast<unsigned int>(out.size())), valid);
        Texts reports;
        if (!valid) reports.push_back(v.Has("Error") ? v.Text("Error") : "VKL_EVP_VerifyFinal: the signature does not match");
        if (valid || v.Has("SignError")) {
            const std::string expected = valid ? zultest::Hex(out) : "";
            Bytes signature(out.size(), 0);
            unsigned int length = 7;
            const bool signedOk = signer.GetSignature(in.data(), size, signature.data(), &length);
            EXPECT_EQ(signedOk ? zultest::Hex(signature.data(), length) : "", expected);
            unsigned char* allocated = nullptr;
            EXPECT_EQ(signer.GetSignature(in.data(), size, &allocated, &length) ? zultest::Hex(allocated, length) : "",
                      expected);
            delete[] allocated;
            Texts queue;
            EXPECT_EQ(VklSignsWithE(vkl, v, queue), expected);
            EXPECT_EQ(queue, valid ? Texts{} : Texts{v.Text("SignError")});
            if (!valid) reports.insert(reports.end(), 2, v.Text("SignError"));
        }
        EXPECT_EQ(diagnostics->TakeErrors("czulcryptsignature"), reports);
    }
}

// The calls of tests/data/signature_scripts.vec on one object. "Set digest n exponent
// [n length] [exponent length]" (- for null); the data of Sign, SignAlloc and Verify is kept
// at $at; Sign and SignAlloc give the length they leave (7 when untouched).
zultest::Calls SignatureCalls(CZulCryptContext& context) {
    auto signature = std::make_shared<CZulCryptSignature>(context);
    auto data = std::make_shared<Bytes>(4096);
    std::ostringstream address;
    address << static_cast<void*>(data->data());
    zultest::Vars()["$at"] = address.str();
    const zultest::VectorCase key = zultest::ReadVectors("rsa_signature.vec").at(0);
    for (const char* name : {"N", "E", "D"}) zultest::Vars()[std::string("$") + name] = key.fields.at(name);
    using zultest::Args;
    auto bytes = [](const zultest::Arg& arg) { return arg.IsNull() ? Bytes() : arg.Bytes(); };
    auto in = [=](const zultest::Arg& arg) -> void* {
        const Bytes given = bytes(arg);
        std::memcpy(data->data(), given.data(), given.size());
        return arg.IsNull() ? nullptr : data->data();
    };
    auto length = [=](const zultest::Arg& arg) { return static_cast<unsigned int>(bytes(arg).size()); };
    return {
        {"Set",
         [=](const Args& a) {
             const Bytes n = bytes(a[1]), x = bytes(a[2]);
             return zultest::Ok(signature->SetHashAndKey(
                 a[0].IsNull() ? nullptr : a[0].Text().c_str(), a[1].IsNull() ? nullptr : n.data(),
                 a.size() > 3 ? static_cast<unsigned int>(a[3].Number()) : static_cast<unsigned int>(n.size()),
                 x.data(), a.size() > 4 ? static_cast<unsigned int>(a[4].Number()) : static_cast<unsigned int>(x.size())));
         }},
        {"Sign",
         [=](const Args& a) {
             unsigned char out[512];
             unsigned int written = 7;
             const bool ok = signature->GetSignature(in(a[0]), length(a[0]), a.size() > 1 ? nullptr : out, &written);
             zultest::Outcome outcome = zultest::Bytes(ok, out, written);
             outcome.number = written;
             return outcome;
         }},
        {"SignAlloc",
         [=](const Args& a) {
             unsigned char* out = data->data();
             unsigned int written = 7;
             const bool ok = signature->GetSignature(in(a[0]), length(a[0]), &out, &written);
             EXPECT_EQ(out == nullptr, !ok);
             zultest::Outcome outcome = zultest::Bytes(ok, out, written);
             outcome.number = written;
             if (ok) delete[] out;
             return outcome;
         }},
        {"Verify",
         [=](const Args& a) {
             Bytes given = bytes(a[1]);
             return zultest::Ok(signature->VerifySignature(in(a[0]), length(a[0]), a[1].IsNull() ? nullptr : given.data(),
                                                           static_cast<unsigned int>(given.size())));
         }},
        {"Reset", [=](const Args&) { signature->ResetMessageDigest(); return zultest::Ok(true); }},
        {"Type", [=](const Args&) { return zultest::Text(signature->GetType()); }},
        {"Size", [=](const Args&) { return zultest::Number(signature->GetSignatureSize()); }},
        {"DigestSize", [=](const Args&) { return zultest::Number(signature->GetDigestSize()); }},
        {"Block", [=](const Args&) { return zultest::Number(signature->GetDigestBlockSize()); }},
        {"Status", [=](const Args&) { return zultest::Ok(signature->GetStatus()); }},
    };
}

TEST_F(SignatureTest, Scripts) { zultest::RunScripts("signature_scripts.vec", SignatureCalls); }

// A VKL free forced to fail does none of its work: the digest context leaks on purpose
// (tests/valgrind.supp names this test).
TEST_F(SignatureTest, DigestContextFailures) {
#if defined(__SANITIZE_ADDRESS__)
    __lsan_disable();
#endif
    zultest::RunScripts("signature_leak.vec", SignatureCalls);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_enable();
#endif
}

}  // namespace
