// CZulCryptMDContext: the vectors of tests/data/digest.vec (whole, split, after
// a reset and after a direct restart), then traces, states and every failure.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptmdcontext.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using Texts = std::vector<std::string>;

class DigestTest : public zultest::ContextTest {};

// Hashes data in pieces of `piece` bytes (all at once for 0) and returns the hex digest.
std::string HashInPieces(CZulCryptMDContext& md, std::vector<unsigned char> data, size_t piece) {
    size_t at = 0;
    do {
        size_t length = piece == 0 ? data.size() : std::min(piece, data.size() - at);
        EXPECT_TRUE(md.AddData(data.data() + at, static_cast<unsigned int>(length)));
        at += length;
    } while (at < data.size());
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
        EXPECT_EQ(HashInPieces(md, data, 0), expected);

        // Reuse: after a reset (which forgets the digest) and after a direct restart.
        for (size_t piece : {1, 3, 63, 64, 65, 4097}) {
            if (data.size() > 100000 && piece < 64) continue;
            md.ResetMessageDigest();
            EXPECT_EQ(md.GetType(), nullptr);
            EXPECT_EQ(md.GetDigestSize(), -1);
            ASSERT_TRUE(md.SetType(name.c_str()));
            EXPECT_EQ(HashInPieces(md, data, piece), expected) << "pieces of " << piece;
            ASSERT_TRUE(md.SetType(name.c_str()));
            EXPECT_TRUE(md.AddData(const_cast<char*>("stale"), 5));
            ASSERT_TRUE(md.SetType(name.c_str()));
            EXPECT_EQ(HashInPieces(md, data, piece), expected) << "restarted, pieces of " << piece;
        }
        EXPECT_TRUE(diagnostics->errors.empty());
    }
}

TEST_F(DigestTest, TracesOfALife) {
    std::ostringstream address;
    address << static_cast<const void*>(context.get());
    {
        CZulCryptMDContext md(*context);
        EXPECT_EQ(md.GetType(), nullptr);
        EXPECT_EQ(md.GetDigestSize(), -1);
        EXPECT_EQ(md.GetDigestBlockSize(), -1);
        ASSERT_TRUE(md.SetType("RSA-SHA1"));
        unsigned char abc[] = {'a', 'b', 'c'};
        ASSERT_TRUE(md.AddData(abc, 3));
        unsigned char out[20];
        unsigned int outLength = 0;
        ASSERT_TRUE(md.GetMessageDigest(out, &outLength));
        EXPECT_TRUE(md.GetStatus());
        EXPECT_STREQ(md.GetType(), "SHA1");
        EXPECT_EQ(md.GetDigestSize(), 20);
        EXPECT_EQ(md.GetDigestBlockSize(), 64);
        EXPECT_FALSE(md.AddData(nullptr, 0));

        std::ostringstream data;
        data << static_cast<void*>(abc);
        EXPECT_EQ(diagnostics->TracesAt(3), Texts{"CZulCryptMDContext::Initialise()\n"});
        EXPECT_EQ(diagnostics->TracesAt(4),
                  (Texts{"CZulCryptMDContext::CZulCryptMDContext(" + address.str() + ")\n",
                         "CZulCryptMDContext::GetType() returning NULL\n",
                         "CZulCryptMDContext::GetDigestSize() returning -1\n",
                         "CZulCryptMDContext::GetBlockSize() returning -1\n",
                         "CZulCryptMDContext::SetType(RSA-SHA1)\n",
                         "CZulCryptMDContext::AddData(" + data.str() + ")\n",
                         "CZulCryptMDContext::GetMessageDigest()\n",
                         "CZulCryptMDContext::GetStatus() returning TRUE)\n",
                         "CZulCryptMDContext::GetType() returning SHA1\n",
                         "CZulCryptMDContext::GetDigestSize() returning 20\n",
                         "CZulCryptMDContext::GetBlockSize() returning 64\n",
                         "CZulCryptMDContext::AddData(NULL)\n", "CZulCryptContext::GetError()\n"}));
        // A finished hash takes no more data until SetType starts another.
        EXPECT_EQ(diagnostics->ErrorTexts(), Texts{"VKL_EVP_DigestUpdate: no digest in progress"});
        EXPECT_EQ(diagnostics->errors[0].file, "czulcryptmdcontext");
        diagnostics->Clear();
    }
    EXPECT_EQ(diagnostics->TracesAt(4), (Texts{"CZulCryptMDContext::~CZulCryptMDContext()\n",
                                               "CZulCryptMDContext::ResetMessageDigest()\n"}));
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_MD_CTX_free"), 1u);
}

TEST_F(DigestTest, WithoutVklContextEveryOperationRefuses) {
    WEXTest_SetGetContextResult(0);
    CZulCryptContext none;
    ASSERT_EQ(none.GetContext(), nullptr);
    diagnostics->Clear();
    {
        CZulCryptMDContext md(none);
        EXPECT_FALSE(md.GetStatus());
        EXPECT_FALSE(md.SetType(nullptr));  // the policy refuses a null name first, silently
        EXPECT_FALSE(md.SetType("SHA1"));
        unsigned char out[20];
        unsigned int outLength = 0;
        EXPECT_FALSE(md.AddData(out, 1));
        EXPECT_FALSE(md.GetMessageDigest(out, &outLength));
        md.ResetMessageDigest();
        EXPECT_EQ(diagnostics->ErrorTexts(), Texts(3, "VKL Context in an invalid state"));
        EXPECT_TRUE(diagnostics->TracesAt(3).empty());
        diagnostics->Clear();
    }
    EXPECT_TRUE(diagnostics->TracesAt(4).empty()) << "no destructor trace without a digest context";
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_MD_CTX_new"), 0u);
}

TEST_F(DigestTest, RefusedBufferDoesNotFinishTheHash) {
    CZulCryptMDContext md(*context);
    ASSERT_TRUE(md.SetType("SHA1"));
    unsigned char abc[] = {'a', 'b', 'c'};
    ASSERT_TRUE(md.AddData(abc, 3));
    unsigned char out[20];
    unsigned int outLength = 0;
    EXPECT_FALSE(md.GetMessageDigest(nullptr, &outLength));
    EXPECT_FALSE(md.GetMessageDigest(out, nullptr));
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptmdcontext"),
              Texts(2, "Provided message digest buffer is invalid"));
    ASSERT_TRUE(md.GetMessageDigest(out, &outLength));
    EXPECT_EQ(zultest::Hex(out, outLength), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

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

// A second Initialise over a hash in progress releases the first VKL context and
// starts clean: no digest chosen, and the next hash is right (FIPS 180-2's "abc").
TEST_F(DigestTest, SecondInitialiseReleasesTheContextInUse) {
    CZulCryptMDContext md(*context);
    ASSERT_TRUE(md.SetType("SHA512"));
    ASSERT_TRUE(md.AddData(const_cast<char*>("x"), 1));
    md.Initialise();
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_MD_CTX_free"), 1u);
    EXPECT_EQ(md.GetDigestSize(), -1);
    ASSERT_TRUE(md.SetType("SHA1"));
    EXPECT_EQ(HashInPieces(md, {'a', 'b', 'c'}, 0), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_TRUE(diagnostics->errors.empty());
}

TEST_F(DigestTest, FipsPolicy) {
    WEXTest_SetSystemFips(1);
    CZulCryptMDContext md(*context);
    EXPECT_TRUE(md.SetType("SHA1"));
    EXPECT_TRUE(diagnostics->errors.empty());

    EXPECT_TRUE(md.SetType("SHA256"));
    ASSERT_EQ(diagnostics->errors.size(), 1u);
    EXPECT_EQ(diagnostics->errors[0].file, "czulcryptcontext");
    EXPECT_EQ(diagnostics->errors[0].text, "Non FIPS algorithm SHA256 called in a FIPS context.\n");
    EXPECT_STREQ(md.GetType(), "SHA256");

    context->SetIsNonFIPSAllowedInFIPS(false);
    diagnostics->Clear();
    const unsigned long inits = VKLTest_CallCount("VKL_EVP_DigestInit");
    EXPECT_FALSE(md.SetType("MD5"));
    EXPECT_EQ(diagnostics->ErrorTexts(), Texts{"Non FIPS algorithm MD5 called in a FIPS context.\n"});
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestInit"), inits) << "a refused name does not touch the digest";
    EXPECT_STREQ(md.GetType(), "SHA256");
}

}  // namespace
