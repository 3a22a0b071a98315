// The VKL digest functions on their own: gathering of small updates, the
// state rules of a digest context, names and sizes, and the queued causes.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl.h>

#include "test_support.h"

namespace {

class VklDigestTest : public zultest::ContextTest {
protected:
    void SetUp() override {
        ContextTest::SetUp();
        ctx = VKL_EVP_MD_CTX_new(vkl);
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(VKL_EVP_MD_CTX_init(vkl, ctx), 1);
    }
    void TearDown() override {
        EXPECT_EQ(VKL_EVP_MD_CTX_free(vkl, ctx), 1);
        ContextTest::TearDown();
    }

    // The digest of data fed in pieces of the given sizes, cycling through them.
    std::string Digest(const char* name, const std::vector<unsigned char>& data, const std::vector<size_t>& pieces) {
        const VKL_EVP_MD_t* md = VKL_EVP_get_digestbyname(vkl, name);
        EXPECT_NE(md, nullptr) << name;
        EXPECT_EQ(VKL_EVP_DigestInit(vkl, ctx, md), 1);
        zultest::InPieces(data, pieces, [&](const unsigned char* piece, size_t length) {
            EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, piece, length), 1);
        });
        unsigned char out[64];
        unsigned int outLength = 0;
        EXPECT_EQ(VKL_EVP_DigestFinal(vkl, ctx, out, &outLength), 1);
        return zultest::Hex(out, outLength);
    }

    VKL_EVP_MD_CTX_t* ctx = nullptr;
};

std::vector<unsigned char> Pattern(size_t length) {
    std::vector<unsigned char> data(length);
    unsigned state = 0x2545F491u;
    for (unsigned char& byte : data) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<unsigned char>(state >> 16);
    }
    return data;
}

// Pieces that straddle, fill and overrun the staging area and the digest block.
TEST_F(VklDigestTest, AnySplitGivesTheDigestOfOneUpdate) {
    const std::vector<unsigned char> data = Pattern(70000);
    const std::vector<std::vector<size_t>> splits = {
        {1},       {63, 1, 64, 65},     {4095, 2},         {4096},    {4097, 3, 4093},
        {0, 7, 0}, {8000, 1, 100, 136}, {135, 137, 4080}, {20000, 5}, {64},
    };
    for (const char* name : {"SHA1", "SHA256", "SHA512", "SHA3-256", "SHA3-512", "MD5"}) {
        const std::string whole = Digest(name, data, {data.size()});
        for (const auto& split : splits) {
            EXPECT_EQ(Digest(name, data, split), whole) << name << " split starting " << split[0];
        }
    }
    EXPECT_TRUE(zultest::TakeQueue(vkl).empty());
}

// The SNMPv3 password-to-key shape: a mebibyte in 64-byte updates.
TEST_F(VklDigestTest, SixtyFourByteUpdatesOverAMebibyte) {
    const std::vector<unsigned char> data = Pattern(1 << 20);
    for (const char* name : {"MD5", "SHA1"}) {
        EXPECT_EQ(Digest(name, data, {64}), Digest(name, data, {data.size()})) << name;
    }
}

// Bytes staged before a restart or a cleanup must not reach the next hash.
TEST_F(VklDigestTest, RestartAndCleanupDropStagedBytes) {
    const std::vector<unsigned char> data = Pattern(100);
    const std::string fresh = Digest("SHA256", data, {100});
    const VKL_EVP_MD_t* md = VKL_EVP_get_digestbyname(vkl, "SHA256");

    ASSERT_EQ(VKL_EVP_DigestInit(vkl, ctx, md), 1);
    ASSERT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, "junk", 4), 1);
    EXPECT_EQ(Digest("SHA256", data, {100}), fresh);

    ASSERT_EQ(VKL_EVP_DigestInit(vkl, ctx, md), 1);
    ASSERT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, "junk", 4), 1);
    ASSERT_EQ(VKL_EVP_MD_CTX_cleanup(vkl, ctx), 1);
    unsigned char out[64];
    EXPECT_EQ(VKL_EVP_DigestFinal(vkl, ctx, out, nullptr), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_DigestFinal: no digest in progress"});
    EXPECT_EQ(Digest("SHA256", data, {100}), fresh);
}

// Sizes and short names of the common digests come through the class's vectors;
// these are the ones with blocks that are not a power of two, and the alias.
TEST_F(VklDigestTest, NamesAndSizes) {
    const VKL_EVP_MD_t* sha1 = VKL_EVP_get_digestbyname(vkl, "SHA1");
    EXPECT_EQ(VKL_EVP_get_digestbyname(vkl, "RSA-SHA1"), VKL_EVP_get_digestbyname(vkl, "RSA-SHA1"))
        << "fetched once per context";
    EXPECT_EQ(VKL_EVP_MD_type(vkl, VKL_EVP_get_digestbyname(vkl, "RSA-SHA1")), VKL_EVP_MD_type(vkl, sha1));
    const VKL_EVP_MD_t* sha3 = VKL_EVP_get_digestbyname(vkl, "SHA3-224");
    EXPECT_STREQ(VKL_OBJ_nid2sn(vkl, VKL_EVP_MD_type(vkl, sha3)), "SHA3-224");
    EXPECT_EQ(VKL_EVP_MD_size(vkl, sha3), 28);
    EXPECT_EQ(VKL_EVP_MD_block_size(vkl, sha3), 144);
    EXPECT_TRUE(zultest::TakeQueue(vkl).empty());
}

TEST_F(VklDigestTest, FailuresQueueTheirCause) {
    unsigned char out[64];
    unsigned int outLength = 77;

    EXPECT_EQ(VKL_EVP_get_digestbyname(vkl, "NO-SUCH-DIGEST"), nullptr);
    EXPECT_EQ(VKL_EVP_get_digestbyname(vkl, nullptr), nullptr);
    EXPECT_EQ(zultest::TakeQueue(vkl), (std::vector<std::string>{"VKL_EVP_get_digestbyname: unknown digest NO-SUCH-DIGEST",
                                                 "VKL_EVP_get_digestbyname: no digest name"}));

    EXPECT_EQ(VKL_EVP_MD_type(vkl, nullptr), 0);
    EXPECT_EQ(VKL_EVP_MD_size(vkl, nullptr), -1);
    EXPECT_EQ(VKL_EVP_MD_block_size(vkl, nullptr), -1);
    EXPECT_EQ(VKL_OBJ_nid2sn(vkl, -5), nullptr);
    EXPECT_EQ(zultest::TakeQueue(vkl), (std::vector<std::string>{"VKL_EVP_MD_type: no digest", "VKL_EVP_MD_size: no digest",
                                                 "VKL_EVP_MD_block_size: no digest",
                                                 "VKL_OBJ_nid2sn: unknown object identifier number -5"}));

    // A context that was never started, or whose hash is finished, takes no data.
    EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, "abc", 3), -2);
    EXPECT_EQ(VKL_EVP_DigestInit(vkl, ctx, nullptr), -2);
    EXPECT_EQ(VKL_EVP_DigestInit(vkl, nullptr, VKL_EVP_get_digestbyname(vkl, "SHA1")), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), (std::vector<std::string>{"VKL_EVP_DigestUpdate: no digest in progress",
                                                 "VKL_EVP_DigestInit: no digest",
                                                 "VKL_EVP_DigestInit: no VKL context or digest context"}));

    ASSERT_EQ(VKL_EVP_DigestInit(vkl, ctx, VKL_EVP_get_digestbyname(vkl, "SHA1")), 1);
    EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, nullptr, 0), 1);
    EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, ctx, nullptr, 1), -2);
    EXPECT_EQ(VKL_EVP_DigestFinal(vkl, ctx, nullptr, &outLength), -2);
    EXPECT_EQ(outLength, 77u);
    // A refused final leaves the hash running; a finished one takes no second final.
    ASSERT_EQ(VKL_EVP_DigestFinal(vkl, ctx, out, &outLength), 1);
    EXPECT_EQ(zultest::Hex(out, outLength), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(VKL_EVP_DigestFinal(vkl, ctx, out, &outLength), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), (std::vector<std::string>{"VKL_EVP_DigestUpdate: no data",
                                                 "VKL_EVP_DigestFinal: no output buffer",
                                                 "VKL_EVP_DigestFinal: no digest in progress"}));

    EXPECT_EQ(VKL_EVP_MD_CTX_new(nullptr), nullptr);
    EXPECT_EQ(VKL_EVP_MD_CTX_init(vkl, nullptr), 0);
    EXPECT_EQ(VKL_EVP_MD_CTX_cleanup(nullptr, ctx), 0);
    EXPECT_EQ(VKL_EVP_MD_CTX_free(vkl, nullptr), 1);
    EXPECT_EQ(zultest::TakeQueue(vkl), (std::vector<std::string>{"VKL_EVP_MD_CTX_new: no VKL context",
                                                 "VKL_EVP_MD_CTX_init: no VKL context or digest context",
                                                 "VKL_EVP_MD_CTX_cleanup: no VKL context or digest context"}));
}

}  // namespace
