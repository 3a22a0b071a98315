// The VKL cipher functions on their own: names and sizes, the life of a
// cipher context, and the causes queued for calls that cannot work.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl.h>
#include <vkl_testing.h>

#include "test_support.h"

namespace {

class VklCipherTest : public zultest::ContextTest {
protected:
    void SetUp() override {
        ContextTest::SetUp();
        ctx = VKL_EVP_CIPHER_CTX_new(vkl);
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(VKL_EVP_CIPHER_CTX_init(vkl, ctx), 1);
        aes = VKL_EVP_get_cipherbyname(vkl, "AES-128-CBC");
        ASSERT_NE(aes, nullptr);
    }
    void TearDown() override {
        EXPECT_EQ(VKL_EVP_CIPHER_CTX_free(vkl, ctx), 1);
        ContextTest::TearDown();
    }

    VKL_EVP_CIPHER_CTX_t* ctx = nullptr;
    const VKL_EVP_CIPHER_t* aes = nullptr;
    unsigned char key[32] = {};
    unsigned char iv[16] = {};
    unsigned char out[64] = {};
    int outLength = -1;
};

TEST_F(VklCipherTest, NamesAndSizes) {
    EXPECT_EQ(VKL_EVP_get_cipherbyname(vkl, "AES-128-CBC"), aes) << "fetched once, then cached";
    EXPECT_EQ(VKL_EVP_CIPHER_block_size(vkl, aes), 16);
    EXPECT_EQ(VKL_EVP_CIPHER_key_length(vkl, aes), 16);
    EXPECT_EQ(VKL_EVP_CIPHER_iv_length(vkl, aes), 16);
    EXPECT_EQ(VKL_EVP_CIPHER_type(vkl, aes), 419) << "NID_aes_128_cbc";

    const VKL_EVP_CIPHER_t* rc4 = VKL_EVP_get_cipherbyname(vkl, "RC4");
    ASSERT_NE(rc4, nullptr) << "from the legacy provider";
    EXPECT_EQ(VKL_EVP_CIPHER_block_size(vkl, rc4), 1);
    EXPECT_EQ(VKL_EVP_CIPHER_iv_length(vkl, rc4), 0);
    const VKL_EVP_CIPHER_t* des = VKL_EVP_get_cipherbyname(vkl, "des-cbc");
    ASSERT_NE(des, nullptr);
    EXPECT_EQ(VKL_EVP_CIPHER_key_length(vkl, des), 8);
    EXPECT_EQ(VKL_EVP_CIPHER_block_size(vkl, des), 8);

    EXPECT_EQ(VKL_EVP_CIPHER_block_size(vkl, nullptr), -1);
    EXPECT_EQ(VKL_EVP_CIPHER_key_length(vkl, nullptr), -1);
    EXPECT_EQ(VKL_EVP_CIPHER_iv_length(vkl, nullptr), -1);
    EXPECT_EQ(VKL_EVP_CIPHER_type(vkl, nullptr), 0);
    EXPECT_TRUE(zultest::TakeQueue(vkl).empty());

    EXPECT_EQ(VKL_EVP_get_cipherbyname(vkl, "NO-SUCH-CIPHER"), nullptr);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_get_cipherbyname: unknown cipher NO-SUCH-CIPHER"});
}

TEST_F(VklCipherTest, ContextRemembersItsCipherUntilCleanup) {
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_cipher(vkl, ctx), nullptr);
    ASSERT_EQ(VKL_EVP_DecryptInit(vkl, ctx, aes, key, iv), 1);
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_cipher(vkl, ctx), aes);
    // A null cipher keeps the one set: a new IV for the next message.
    ASSERT_EQ(VKL_EVP_DecryptInit(vkl, ctx, nullptr, nullptr, iv), 1);
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_cipher(vkl, ctx), aes);
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_cleanup(vkl, ctx), 1);
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_cipher(vkl, ctx), nullptr);
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_free(vkl, nullptr), 1);
    EXPECT_TRUE(zultest::TakeQueue(vkl).empty());
}

TEST_F(VklCipherTest, RefusalsQueueTheirCause) {
    EXPECT_EQ(VKL_EVP_EncryptInit(vkl, ctx, nullptr, key, iv), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_EncryptInit: no cipher given or set"});
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 16), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_CIPHER_CTX_set_key_length: no cipher set"});
    EXPECT_EQ(VKL_EVP_EncryptUpdate(vkl, nullptr, out, &outLength, key, 16), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_EncryptUpdate: no VKL context or cipher context"});
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_init(vkl, nullptr), 0);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_CIPHER_CTX_init: no VKL context or cipher context"});

    ASSERT_EQ(VKL_EVP_EncryptInit(vkl, ctx, aes, key, iv), 1);
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 16), 1) << "the length it has";
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 20), -2) << "AES-128 takes 16 bytes only";
    EXPECT_FALSE(zultest::TakeQueue(vkl).empty());
    EXPECT_EQ(VKL_EVP_DecryptUpdate(vkl, ctx, nullptr, &outLength, key, 16), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_DecryptUpdate: no input, no output or a negative length"});
    EXPECT_EQ(VKL_EVP_EncryptUpdate(vkl, ctx, out, &outLength, nullptr, 16), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_EncryptUpdate: no input, no output or a negative length"});
    EXPECT_EQ(VKL_EVP_EncryptFinal(vkl, ctx, out, nullptr), -2);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_EVP_EncryptFinal: no output"});
    // The context was set up to encrypt; OpenSSL names the mismatch itself.
    EXPECT_EQ(VKL_EVP_DecryptUpdate(vkl, ctx, out, &outLength, key, 16), -2);
    EXPECT_FALSE(zultest::TakeQueue(vkl).empty());
}

TEST_F(VklCipherTest, LengthChangeAfterTheKeyKeysAgain) {
    // RFC 6229 section 2, 40-bit key 0102030405, keystream offset 0; the
    // buffer holds RC4's default 16 bytes, of which the first 5 are the key.
    const VKL_EVP_CIPHER_t* rc4 = VKL_EVP_get_cipherbyname(vkl, "RC4");
    for (int i = 0; i < 5; ++i) key[i] = static_cast<unsigned char>(i + 1);
    const unsigned char zeros[16] = {};
    ASSERT_EQ(VKL_EVP_EncryptInit(vkl, ctx, rc4, key, nullptr), 1);
    ASSERT_EQ(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 5), 1);
    ASSERT_EQ(VKL_EVP_EncryptUpdate(vkl, ctx, out, &outLength, zeros, 16), 1);
    EXPECT_EQ(zultest::Hex(out, static_cast<size_t>(outLength)), "b2396305f03dc027ccc3524a0a1118a8");
}

TEST_F(VklCipherTest, EveryFunctionAnswersAnArmedFault) {
    struct Case {
        const char* name;
        long result;
        std::function<long()> call;
    };
    const std::vector<Case> cases = {
        {"VKL_EVP_CIPHER_CTX_new", 0, [&] { return VKL_EVP_CIPHER_CTX_new(vkl) == nullptr ? 0L : 1L; }},
        {"VKL_EVP_CIPHER_CTX_init", 0, [&] { return long{VKL_EVP_CIPHER_CTX_init(vkl, ctx)}; }},
        {"VKL_EVP_CIPHER_CTX_cleanup", 0, [&] { return long{VKL_EVP_CIPHER_CTX_cleanup(vkl, ctx)}; }},
        {"VKL_EVP_CIPHER_CTX_set_key_length", -2,
         [&] { return long{VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 16)}; }},
        {"VKL_EVP_CIPHER_CTX_set_padding", -2, [&] { return long{VKL_EVP_CIPHER_CTX_set_padding(vkl, ctx, 0)}; }},
        {"VKL_EVP_get_cipherbyname", 0,
         [&] { return VKL_EVP_get_cipherbyname(vkl, "AES-128-CBC") == nullptr ? 0L : 1L; }},
        {"VKL_EVP_EncryptInit", -2, [&] { return long{VKL_EVP_EncryptInit(vkl, ctx, aes, key, iv)}; }},
        {"VKL_EVP_DecryptInit", -2, [&] { return long{VKL_EVP_DecryptInit(vkl, ctx, aes, key, iv)}; }},
        {"VKL_EVP_EncryptUpdate", -2,
         [&] { return long{VKL_EVP_EncryptUpdate(vkl, ctx, out, &outLength, key, 16)}; }},
        {"VKL_EVP_DecryptUpdate", -2,
         [&] { return long{VKL_EVP_DecryptUpdate(vkl, ctx, out, &outLength, key, 16)}; }},
        {"VKL_EVP_EncryptFinal", -2, [&] { return long{VKL_EVP_EncryptFinal(vkl, ctx, out, &outLength)}; }},
        {"VKL_EVP_DecryptFinal", -2, [&] { return long{VKL_EVP_DecryptFinal(vkl, ctx, out, &outLength)}; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        VKLTest_FailCall(c.name, 0, 1, c.result);
        unsigned long before = VKLTest_CallCount(c.name);
        EXPECT_EQ(c.call(), c.result);
        EXPECT_EQ(VKLTest_CallCount(c.name), before + 1);
        EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{std::string(c.name) + ": injected failure"});
    }
}

}  // namespace
