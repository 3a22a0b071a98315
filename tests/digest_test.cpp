// CZulCryptMDContext: the vectors of tests/data/digest.vec (whole, split, after
// a reset and after a direct restart) and the traces, states and every failure
// of tests/data/digest_scripts.vec.
#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptmdcontext.h>
#include <vkl_testing.h>

#include "script.h"
#include "test_support.h"

namespace {

using Texts = std::vector<std::string>;

class DigestTest : public zultest::ContextTest {};

// The calls of tests/data/digest*.vec on one digest object.
zultest::Calls DigestCalls(CZulCryptContext& context) {
    auto md = std::make_shared<CZulCryptMDContext>(context);
    // The data a call hashes stays here, so that its address in a trace is known.
    auto data = std::make_shared<std::vector<unsigned char>>(4096);
    std::ostringstream address;
    address << static_cast<void*>(data->data());
    zultest::Vars()["$data"] = address.str();
    using zultest::Args;
    return {
        {"SetType", [=](const Args& a) { return zultest::Ok(md->SetType(a[0].IsNull() ? nullptr : a[0].Text().c_str())); }},
        {"AddData",
         [=](const Args& a) {
             if (a[0].IsNull()) return zultest::Ok(md->AddData(nullptr, 0));
             const auto bytes = a[0].Bytes();
             std::copy(bytes.begin(), bytes.end(), data->begin());
             return zultest::Ok(md->AddData(data->data(), static_cast<unsigned int>(bytes.size())));
         }},
        // Final [- for a null buffer] [- for a null length]
        {"Final",
         [=](const Args& a) {
             unsigned char out[64];
             unsigned int length = 0;
             const bool ok = md->GetMessageDigest(a.size() > 0 && a[0].IsNull() ? nullptr : out,
                                                  a.size() > 1 && a[1].IsNull() ? nullptr : &length);
             return zultest::Bytes(ok, out, length);
         }},
        // Hash data [piece sizes, cycling]: AddData in pieces, then GetMessageDigest.
        {"Hash",
         [=](const Args& a) {
             const auto bytes = a[0].Bytes();
             std::vector<size_t> pieces;
             for (size_t i = 1; i < a.size(); ++i) pieces.push_back(static_cast<size_t>(a[i].Number()));
             if (pieces.empty()) pieces.push_back(SIZE_MAX);
             bool ok = bytes.empty() ? md->AddData(data->data(), 0) : true;
             zultest::InPieces(bytes, pieces, [&](const unsigned char* piece, size_t length) {
                 ok = md->AddData(const_cast<unsigned char*>(piece), static_cast<unsigned int>(length)) && ok;
             });
             unsigned char out[64];
             unsigned int length = 0;
             ok = md->GetMessageDigest(out, &length) && ok;
             return zultest::Bytes(ok, out, length);
         }},
        {"Reset", [=](const Args&) { md->ResetMessageDigest(); return zultest::Ok(true); }},
        {"Initialise", [=](const Args&) { md->Initialise(); return zultest::Ok(true); }},
        {"Type", [=](const Args&) { return zultest::Text(md->GetType()); }},
        {"Size", [=](const Args&) { return zultest::Number(md->GetDigestSize()); }},
        {"Block", [=](const Args&) { return zultest::Number(md->GetDigestBlockSize()); }},
        {"Status", [=](const Args&) { return zultest::Ok(md->GetStatus()); }},
    };
}

TEST_F(DigestTest, Scripts) {
    for (const char* file : {"digest.vec", "digest_scripts.vec"}) {
        zultest::RunScripts(file, DigestCalls);
    }
}

TEST_F(DigestTest, FailedReleaseIsReported) {
    auto* md = new CZulCryptMDContext(*context);
    // The digest context's holder is the second field after the vtable pointer
    // and the context reference; the test frees what the failed release left.
    VKL_EVP_MD_CTX_t* raw = reinterpret_cast<C_VKL_EVP_MD_CTX_Wrap**>(md)[2]->m_pMDCtx;
    VKLTest_FailCall("VKL_EVP_MD_CTX_free", 0, 1, 0);
    delete md;
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptmdcontext"), Texts{"VKL_EVP_MD_CTX_free: injected failure"});
    EXPECT_EQ(VKL_EVP_MD_CTX_free(context->GetContext()->m_pCtx, raw), 1);
}

}  // namespace
