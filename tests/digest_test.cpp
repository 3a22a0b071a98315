// CZulCryptMDContext: the vectors of tests/data/digest.vec (whole, split, after
// a reset and after a direct restart), then traces, states and every failure.
#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptmdcontext.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Texts = std::vector<std::string>;

class DigestTest : public zultest::ContextTest {};

// Hashes data in pieces of the given sizes, cycling, and returns the hex digest.
std::string HashInPieces(CZulCryptMDContext& md, std::vector<unsigned char> data, const std::vector<size_t>& pieces) {
    if (data.empty()) {
        EXPECT_TRUE(md.AddData(data.data(), 0));
    }
    zultest::InPieces(data, pieces, [&](const unsigned char* piece, size_t length) {
        EXPECT_TRUE(md.AddData(const_cast<unsigned char*>(piece), static_cast<unsigned int>(length)));
    });
    unsigned char out[64];
    unsigned int outLength = 0;
    EXPECT_TRUE(md.GetMessageDigest(out, &outLength));
    EXPECT_EQ(static_cast<int>(outLength), md.GetDigestSize());
    return zultest::Hex(out, outLength);
}

TEST_F(DigestTest, Vectors) {
    const auto cases = zultest::ReadVectors("digest.vec");
    ASSERT_FALSE(cases.empty());
    for (const zultest::VectorCase& v : cases) {
        SCOPED_TRACE(v.Where());
        diagnostics->Clear();
        CZulCryptMDContext md(*context);
        const std::string name = v.Text("Digest");
        if (v.Has("Error")) {
            EXPECT_FALSE(md.SetType(name.c_str()));
            EXPECT_EQ(diagnostics->ErrorTexts(), Texts{v.Text("Error")});
            EXPECT_EQ(md.GetDigestSize(), -1);
            EXPECT_EQ(md.GetDigestBlockSize(), -1);
            EXPECT_EQ(md.GetType(), nullptr);
            continue;
        }
        std::vector<unsigned char> data;
        const std::vector<unsigned char> unit = v.Bytes("In");
        for (long i = 0; i < (v.Has("Repeat") ? v.Number("Repeat") : 1); ++i) data.insert(data.end(), unit.begin(), unit.end());
        const std::string expected = zultest::Hex(v.Bytes("Out"));

        ASSERT_TRUE(md.SetType(name.c_str()));
        EXPECT_STREQ(md.GetType(), v.Text("Type").c_str());
        EXPECT_EQ(md.GetDigestSize(), v.Number("Size"));
        EXPECT_EQ(md.GetDigestBlockSize(), v.Number("Block"));
        EXPECT_EQ(HashInPieces(md, data, {SIZE_MAX}), expected);

        // Reuse after a reset (which forgets the digest) and after a direct restart, with
        // pieces that straddle, fill and overrun VKL's staging area and the digest block.
        const std::vector<std::vector<size_t>> splits = {{1},         {3},       {63, 1, 64, 65},    {4095, 2},
                                                         {4097, 3, 4093}, {0, 7, 0}, {8000, 1, 100, 136}, {135, 137, 4080}};
        for (const std::vector<size_t>& piece : splits) {
            if (data.size() > 100000 && piece[0] < 64) continue;
            md.ResetMessageDigest();
            EXPECT_EQ(md.GetType(), nullptr);
            EXPECT_EQ(md.GetDigestSize(), -1);
            ASSERT_TRUE(md.SetType(name.c_str()));
            EXPECT_EQ(HashInPieces(md, data, piece), expected) << "pieces from " << piece[0];
            ASSERT_TRUE(md.SetType(name.c_str()));
            EXPECT_TRUE(md.AddData(const_cast<char*>("stale"), 5));
            ASSERT_TRUE(md.SetType(name.c_str()));
            EXPECT_EQ(HashInPieces(md, data, piece), expected) << "restarted, pieces from " << piece[0];
        }
        EXPECT_TRUE(diagnostics->errors.empty());
    }
}

// The calls of tests/data/digest_scripts.vec on one digest object.
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
    // The digest context's holder is the second field after the vtable pointer
    // and the context reference; the test frees what the failed release left.
    VKL_EVP_MD_CTX_t* raw = reinterpret_cast<C_VKL_EVP_MD_CTX_Wrap**>(md)[2]->m_pMDCtx;
    VKLTest_FailCall("VKL_EVP_MD_CTX_free", 0, 1, 0);
    delete md;
    EXPECT_EQ(diagnostics->ErrorTexts(), Texts{"VKL_EVP_MD_CTX_free: injected failure"});
    EXPECT_EQ(VKL_EVP_MD_CTX_free(context->GetContext()->m_pCtx, raw), 1);
}

}  // namespace
