// A size VKL cannot give (below the least or beyond the largest algorithm) is refused, with
// VKL's reason, before it sizes a buffer: one row per class that sizes one.
#include <cstdlib>

#include <czulcryptbignum.h>
#include <czulcryptciphercontext.h>
#include <czulcryptdh.h>
#include <czulcrypthmac.h>
#include <vkl_testing.h>
#include <zulcryptimpl.h>

#include "test_support.h"

namespace {

using V = std::vector<std::string>;

class SizesTest : public zultest::ContextTest {};

unsigned char key[16], data[16];

TEST_F(SizesTest, UnusableAnswersAreRefused) {
    // The VKL size question and its answer, the reports and their file, and the work (true when
    // it succeeded).
    const struct { const char* function; long answer; const char* file; V reports; bool (*run)(CZulCryptContext&, VKL_t*); } rows[] = {
        {"VKL_EVP_CIPHER_block_size", -8, "czulcryptciphercontext",
         {"VKL_EVP_CIPHER_block_size: injected failure", "Buffer size is invalid"},
         [](CZulCryptContext& c, VKL_t*) {
             CZulCryptCipherContext cipher(c);
             unsigned char* out = nullptr;
             int length = 0;
             const bool ok = cipher.SetEncryptType("AES-128-ECB", key, 16) && cipher.EncryptData(data, 16, &out, &length);
             std::free(out);
             return ok;
         }},
        {"VKL_EVP_CIPHER_iv_length", 4096, "czulcryptciphercontext", {"VKL_EVP_CIPHER_iv_length: injected failure"},
         [](CZulCryptContext& c, VKL_t*) { return CZulCryptCipherContext(c).SetEncryptType("AES-128-CBC", key, 16); }},
        {"VKL_EVP_MD_block_size", 4096, "czulcrypthmac", {"VKL_EVP_MD_block_size: injected failure"},
         [](CZulCryptContext& c, VKL_t*) {
             unsigned char mac[64];
             unsigned int length = 0;
             return CZulCryptHMAC(c, "SHA1", key, 16).GetHMAC(data, 16, mac, &length);
         }},
        {"VKL_BN_num_bits", 65536, "czulcryptbignum", {"VKL_BN_num_bits: injected failure"},
         [](CZulCryptContext& c, VKL_t* vkl) {
             C_VKL_BIGNUM_Wrap number(VKL_BN_bin2bn(vkl, key, 16, nullptr));
             const bool ok = CZulCryptBigNum(c).SetNumber(&number);
             VKL_BN_free(vkl, number.m_pBigNum);
             return ok;
         }},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.function);
        VKLTest_FailCall(row.function, 0, 1, row.answer);
        EXPECT_FALSE(row.run(*context, vkl));
        EXPECT_EQ(diagnostics->TakeErrors(row.file), row.reports);
        zultest::TakeQueue(vkl);
    }
}

// The secret keeps the size it was computed with, however VKL answers later (group 2: 128 bytes).
TEST_F(SizesTest, SharedSecretKeepsItsSize) {
    CZulCryptDH dh(*context);
    ASSERT_TRUE(dh.SetOakleyGroup2());
    CZulCryptBigNum* peer = dh.GetPublicKey();
    dh.ComputeSharedSecret(peer);
    delete peer;
    VKLTest_FailCall("VKL_DH_size", 0, -1, 2048);
    int length = 0;
    EXPECT_NE(dh.GetSharedSecret(length), nullptr);
    EXPECT_EQ(length, 128);
}

// A size answered below the real one must not size the area VKL writes into (group 2: 128 bytes).
TEST_F(SizesTest, ShortAnswerDoesNotSizeTheOutput) {
    static const unsigned char key[16] = {};
    CZulCryptDH dh(*context);
    ASSERT_TRUE(dh.SetOakleyGroup2());
    CZulCryptBigNum* peer = dh.GetPublicKey();
    VKLTest_FailCall("VKL_DH_size", 0, 1, 8);
    dh.ComputeSharedSecret(peer);
    delete peer;
    EXPECT_FALSE(dh.GetStatus());
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptdh"),
              std::vector<std::string>{"VKL computed a longer shared secret than its size"});

    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    ZulVklMdCtxWrap* md = ZulVklMdCtxCreate(ctx);
    ZulVklStatusWrap status;
    ZulVklConstBuffer in{key, 16};
    ZulVklBuffer out{nullptr, 0};
    VKLTest_FailCall("VKL_EVP_MD_size", 0, 1, 4);
    EXPECT_EQ(ZulVklMdKeyChangeDigest(ctx, md, "SHA256", &in, &in, &out, &status), 0);
    EXPECT_EQ(out.data, nullptr);
    EXPECT_STREQ(status.errorMsg, "key change digest update failed (VKL gave 32 digest bytes, 4 expected)");
    ZulVklMdCtxDestroy(ctx, md);
    ZulVklCtxDestroy(ctx);
}

}  // namespace
