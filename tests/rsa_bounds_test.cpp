// A key with a negative number is refused, not used as its magnitude: a key given as n and d,
// which OpenSSL never sees as such.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <vkl.h>
#include <vkl_testing.h>

#include "test_support.h"

namespace {

class RsaBoundsTest : public zultest::ContextTest {};

TEST_F(RsaBoundsTest, NegativeNumbersAreRefused) {
    VKL_RSA_t* rsa = VKL_RSA_generate_key(vkl, 1024, 65537, nullptr, nullptr);
    ASSERT_NE(rsa, nullptr);
    VKL_BN_free(vkl, rsa->e);
    rsa->e = nullptr;
    const unsigned char in[1] = {0x5A};
    unsigned char out[128];
    const std::pair<VKL_BIGNUM_t*, std::string> rows[] = {{rsa->n, "modulus"}, {rsa->d, "private exponent"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.second);
        ASSERT_EQ(VKL_BN_set_negative(vkl, row.first, 1), 1);
        EXPECT_EQ(VKL_RSA_private_encrypt(vkl, 1, in, out, rsa, VKL_RSA_PKCS1_PADDING), -1);
        EXPECT_EQ(zultest::TakeQueue(vkl),
                  std::vector<std::string>{"VKL_RSA_private_encrypt: the key's " + row.second + " is negative"});
        ASSERT_EQ(VKL_BN_set_negative(vkl, row.first, 0), 1);
    }
    EXPECT_EQ(VKL_RSA_private_encrypt(vkl, 1, in, out, rsa, VKL_RSA_PKCS1_PADDING), 128);
    VKL_RSA_free(vkl, rsa);
}

// Completing a key over 4096 bits would cost more than it saves: n = 2^4104 - 1, d = 3 is
// exponentiated with d at once ("VKL_RSA/d"), no completion tried ("VKL_RSA/recover").
TEST_F(RsaBoundsTest, LargeKeysAreNotCompleted) {
    VKL_RSA_t* rsa = VKL_RSA_new(vkl);
    ASSERT_NE(rsa, nullptr);
    const std::vector<unsigned char> n(513, 0xFF);
    const unsigned char d = 3, in = 0x5A;
    rsa->n = VKL_BN_bin2bn(vkl, n.data(), 513, nullptr);
    rsa->d = VKL_BN_bin2bn(vkl, &d, 1, nullptr);
    unsigned char out[513];
    EXPECT_EQ(VKL_RSA_private_encrypt(vkl, 1, &in, out, rsa, VKL_RSA_PKCS1_PADDING), 513);
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA/recover"), 0u);
    EXPECT_EQ(VKLTest_CallCount("VKL_RSA/d"), 1u);
    VKL_RSA_free(vkl, rsa);
}

}  // namespace
