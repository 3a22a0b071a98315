// CZulCryptMDContext: the known answers of tests/vectors/digest.vec, and the
// cases of tests/data/digest_scripts.vec (traces, states, failures).
#include <czulcryptmdcontext.h>
#include <vkl_testing.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using zultest::Args;
class DigestTest : public zultest::ContextTest {};

// The digest of `in` fed in pieces of the given sizes (cycling).
std::vector<unsigned char> Hash(CZulCryptMDContext& md, const std::vector<unsigned char>& in, std::vector<size_t> pieces) {
    bool ok = md.AddData(const_cast<unsigned char*>(in.data()), 0);
    zultest::InPieces(in, pieces, [&](const unsigned char* p, size_t n) { ok = md.AddData(const_cast<unsigned char*>(p), n) && ok; });
    unsigned char out[64];
    unsigned int length = 0;
    ok = md.GetMessageDigest(out, &length) && ok;
    return ok ? std::vector<unsigned char>(out, out + length) : std::vector<unsigned char>();
}

// Each vector whole, then after a reset in pieces that straddle the block, then
// restarted by SetType over stale data.
TEST_F(DigestTest, Vectors) {
    CZulCryptMDContext md(*context);
    for (const auto& v : zultest::ReadVectors("digest.vec")) {
        SCOPED_TRACE(v.Where());
        const auto in = v.Bytes("In"), out = v.Bytes("Out");
        ASSERT_TRUE(md.SetType(v.Text("Digest").c_str()));
        EXPECT_EQ(md.GetDigestSize(), static_cast<int>(out.size()));
        EXPECT_EQ(Hash(md, in, {SIZE_MAX}), out);
        md.ResetMessageDigest();
        ASSERT_TRUE(md.SetType(v.Text("Digest").c_str()));
        EXPECT_EQ(Hash(md, in, {63, 1, 64, 65, 4097}), out);
        unsigned char stale[] = "stale";
        ASSERT_TRUE(md.SetType(v.Text("Digest").c_str()) && md.AddData(stale, 5) && md.SetType(v.Text("Digest").c_str()));
        EXPECT_EQ(Hash(md, in, {1, 135}), out);
    }
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptmdcontext"), std::vector<std::string>{});
}

zultest::Calls DigestCalls(CZulCryptContext& context) {
    auto md = std::make_shared<CZulCryptMDContext>(context);
    auto data = std::make_shared<std::vector<unsigned char>>(64);
    std::ostringstream address;
    address << static_cast<void*>(data->data());
    zultest::Vars()["$data"] = address.str();
    return {
        {"SetType", [=](const Args& a) { return zultest::Ok(md->SetType(a[0].IsNull() ? nullptr : a[0].Text().c_str())); }},
        {"AddData", [=](const Args& a) {
             const auto in = a[0].Bytes();
             std::copy(in.begin(), in.end(), data->begin());
             return zultest::Ok(md->AddData(data->data(), static_cast<unsigned>(in.size())));
         }},
        // Final [- for a null buffer]
        {"Final", [=](const Args& a) {
             unsigned char out[64];
             unsigned int length = 0;
             const bool ok = md->GetMessageDigest(a.empty() ? out : nullptr, &length);
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

TEST_F(DigestTest, Scripts) { zultest::RunScripts("digest_scripts.vec", DigestCalls); }

TEST_F(DigestTest, FailedReleaseIsReported) {
    auto* md = new CZulCryptMDContext(*context);
    // The holder follows the vtable pointer and the context reference; the test frees what the failed release left.
    VKL_EVP_MD_CTX_t* raw = reinterpret_cast<C_VKL_EVP_MD_CTX_Wrap**>(md)[2]->m_pMDCtx;
    VKLTest_FailCall("VKL_EVP_MD_CTX_free", 0, 1, 0);
    delete md;
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptmdcontext"), std::vector<std::string>{"VKL_EVP_MD_CTX_free: injected failure"});
    VKL_EVP_MD_CTX_free(vkl, raw);
}

}  // namespace
