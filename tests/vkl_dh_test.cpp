// The VKL stand-in's Diffie-Hellman, checked against OpenSSL's big-number
// arithmetic: key pairs, padded secrets, generated groups and refusals.
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <openssl/bn.h>

#include <czulcryptcontext.h>
#include <czulcryptdh.h>
#include <vkl.h>
#include <vkl_testing.h>

#include "test_support.h"

namespace {

using ::testing::StartsWith;

struct BnFree {
    void operator()(BIGNUM* bn) const { BN_free(bn); }
};
struct BnCtxFree {
    void operator()(BN_CTX* ctx) const { BN_CTX_free(ctx); }
};
using Bn = std::unique_ptr<BIGNUM, BnFree>;

class VklDhTest : public zultest::ContextTest {
protected:
    void SetUp() override {
        ContextTest::SetUp();
        bnCtx.reset(BN_CTX_new());
        ASSERT_NE(bnCtx, nullptr);
    }
    void TearDown() override {
        VKL_DH_free(vkl, dh);
        ContextTest::TearDown();
    }

    // A record with the given prime and generator 2.
    VKL_DH_t* Group(const unsigned char* prime, int length) {
        VKL_DH_t* made = VKL_DH_new(vkl);
        EXPECT_NE(made, nullptr);
        const unsigned char two = 2;
        made->g = VKL_BN_bin2bn(vkl, &two, 1, nullptr);
        made->p = VKL_BN_bin2bn(vkl, prime, length, nullptr);
        return made;
    }

    // A VKL number as an OpenSSL one, through its bytes.
    Bn ToBn(const VKL_BIGNUM_t* number) {
        std::vector<unsigned char> bytes(static_cast<size_t>(VKL_BN_num_bits(vkl, number) + 7) / 8 + 1);
        const int written = VKL_BN_bn2bin(vkl, number, bytes.data());
        EXPECT_GE(written, 0);
        return Bn(BN_bin2bn(bytes.data(), written, nullptr));
    }

    VKL_BIGNUM_t* FromBn(const BIGNUM* bn) {
        std::vector<unsigned char> bytes(static_cast<size_t>(BN_num_bytes(bn)));
        BN_bn2bin(bn, bytes.data());
        return VKL_BN_bin2bn(vkl, bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }

    // base ^ exponent mod p, padded to the prime's size, in hex.
    std::string ModExp(const BIGNUM* base, const BIGNUM* exponent, const BIGNUM* p) {
        Bn result(BN_new());
        EXPECT_EQ(BN_mod_exp(result.get(), base, exponent, p, bnCtx.get()), 1);
        std::vector<unsigned char> bytes(static_cast<size_t>(BN_num_bytes(p)));
        EXPECT_EQ(BN_bn2binpad(result.get(), bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
        return zultest::Hex(bytes);
    }

    VKL_DH_t* dh = nullptr;
    std::unique_ptr<BN_CTX, BnCtxFree> bnCtx;
};

TEST_F(VklDhTest, KeyPairIsAShortExponentOfTheGenerator) {
    struct Case {
        const unsigned char* prime;
        int length;
        int privateBits;  // twice the group's strength: 80 bits for 1024, 112 for 2048
    };
    for (const Case& group :
         {Case{CZulCryptDH::ms_Oakley2Prime, 128, 160}, Case{CZulCryptDH::ms_Oakley14Prime, 256, 224}}) {
        SCOPED_TRACE(group.length);
        VKL_DH_free(vkl, dh);
        dh = Group(group.prime, group.length);
        ASSERT_EQ(VKL_DH_size(vkl, dh), group.length);
        ASSERT_EQ(VKL_DH_generate_key(vkl, dh), 1);
        ASSERT_NE(dh->pub_key, nullptr);
        ASSERT_NE(dh->priv_key, nullptr);
        const int bits = VKL_BN_num_bits(vkl, dh->priv_key);
        EXPECT_LE(bits, group.privateBits);
        EXPECT_GT(bits, group.privateBits - 32);
        Bn p = ToBn(dh->p), g = ToBn(dh->g), priv = ToBn(dh->priv_key), pub = ToBn(dh->pub_key);
        std::vector<unsigned char> padded(static_cast<size_t>(group.length));
        ASSERT_EQ(BN_bn2binpad(pub.get(), padded.data(), group.length), group.length);
        EXPECT_EQ(zultest::Hex(padded), ModExp(g.get(), priv.get(), p.get()));

        // A fresh pair in the same numbers.
        VKL_BIGNUM_t* pubBefore = dh->pub_key;
        VKL_BIGNUM_t* privBefore = dh->priv_key;
        ASSERT_EQ(VKL_DH_generate_key(vkl, dh), 1);
        EXPECT_EQ(dh->pub_key, pubBefore);
        EXPECT_EQ(dh->priv_key, privBefore);
        EXPECT_NE(BN_cmp(ToBn(dh->priv_key).get(), priv.get()), 0);
    }
    EXPECT_TRUE(zultest::TakeQueue(vkl).empty());
}

// A secret below 2^1016 has a leading zero byte; it comes out padded to 128 bytes.
TEST_F(VklDhTest, SecretIsPaddedToThePrimesSize) {
    dh = Group(CZulCryptDH::ms_Oakley2Prime, 128);
    ASSERT_EQ(VKL_DH_generate_key(vkl, dh), 1);
    Bn p = ToBn(dh->p), priv = ToBn(dh->priv_key);
    Bn y(BN_new());
    std::string expected;
    // About one peer value in 256 qualifies; the search always ends well within the bound.
    for (BN_ULONG value = 2; value < 100000; ++value) {
        ASSERT_EQ(BN_set_word(y.get(), value), 1);
        expected = ModExp(y.get(), priv.get(), p.get());
        if (expected.compare(0, 2, "00") == 0) break;
    }
    ASSERT_EQ(expected.compare(0, 2, "00"), 0);
    VKL_BIGNUM_t* peer = FromBn(y.get());
    std::vector<unsigned char> secret(128, 0xAA);
    EXPECT_EQ(VKL_DH_compute_key(vkl, secret.data(), peer, dh), 128);
    EXPECT_EQ(zultest::Hex(secret), expected);
    VKL_BN_clear_free(vkl, peer);
    EXPECT_TRUE(zultest::TakeQueue(vkl).empty());
}

TEST_F(VklDhTest, GeneratedSafePrimeGroupAgrees) {
    dh = VKL_DH_generate_parameters(vkl, 512, 2, nullptr, nullptr);
    ASSERT_NE(dh, nullptr);
    EXPECT_EQ(dh->pub_key, nullptr);
    EXPECT_EQ(dh->priv_key, nullptr);
    Bn p = ToBn(dh->p), g = ToBn(dh->g);
    EXPECT_EQ(BN_num_bits(p.get()), 512);
    EXPECT_TRUE(BN_is_word(g.get(), 2));
    Bn q(BN_dup(p.get()));
    ASSERT_EQ(BN_rshift1(q.get(), q.get()), 1);
    EXPECT_EQ(BN_check_prime(p.get(), bnCtx.get(), nullptr), 1);
    EXPECT_EQ(BN_check_prime(q.get(), bnCtx.get(), nullptr), 1);

    // The other party takes the same group.
    VKL_DH_t* other = VKL_DH_new(vkl);
    ASSERT_NE(other, nullptr);
    other->p = FromBn(p.get());
    other->g = FromBn(g.get());
    ASSERT_EQ(VKL_DH_generate_key(vkl, dh), 1);
    ASSERT_EQ(VKL_DH_generate_key(vkl, other), 1);
    std::vector<unsigned char> mine(64), theirs(64);
    EXPECT_EQ(VKL_DH_compute_key(vkl, mine.data(), other->pub_key, dh), 64);
    EXPECT_EQ(VKL_DH_compute_key(vkl, theirs.data(), dh->pub_key, other), 64);
    EXPECT_EQ(zultest::Hex(mine), zultest::Hex(theirs));
    EXPECT_EQ(zultest::Hex(mine), ModExp(ToBn(other->pub_key).get(), ToBn(dh->priv_key).get(), p.get()));
    VKL_DH_free(vkl, other);
    EXPECT_TRUE(zultest::TakeQueue(vkl).empty());
}

TEST_F(VklDhTest, RefusalsLeaveOneEntryEach) {
    dh = Group(CZulCryptDH::ms_Oakley2Prime, 128);
    std::vector<unsigned char> out(128);
    const unsigned char two = 2;
    VKL_BIGNUM_t* peer = VKL_BN_bin2bn(vkl, &two, 1, nullptr);

    // No key pair yet.
    EXPECT_EQ(VKL_DH_compute_key(vkl, out.data(), peer, dh), -1);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{
                           "VKL_DH_compute_key: no VKL context, output, peer value or key pair"});
    ASSERT_EQ(VKL_DH_generate_key(vkl, dh), 1);
    EXPECT_EQ(VKL_DH_compute_key(vkl, nullptr, peer, dh), -1);
    EXPECT_EQ(VKL_DH_compute_key(vkl, out.data(), nullptr, dh), -1);
    EXPECT_EQ(VKL_DH_compute_key(nullptr, out.data(), peer, dh), -1);
    EXPECT_EQ(zultest::TakeQueue(vkl).size(), 3u);

    // 0, 1, -2, p - 1 and p lie outside 1 < y < p - 1.
    Bn p = ToBn(dh->p);
    Bn pMinusOne(BN_dup(p.get()));
    ASSERT_EQ(BN_sub_word(pMinusOne.get(), 1), 1);
    std::vector<VKL_BIGNUM_t*> refused = {VKL_BN_bin2bn(vkl, nullptr, 0, nullptr),
                                          VKL_BN_bin2bn(vkl, &two, 1, nullptr), VKL_BN_bin2bn(vkl, &two, 1, nullptr),
                                          FromBn(pMinusOne.get()), FromBn(p.get())};
    const unsigned char one = 1;
    ASSERT_NE(VKL_BN_bin2bn(vkl, &one, 1, refused[1]), nullptr);
    ASSERT_EQ(VKL_BN_set_negative(vkl, refused[2], 1), 1);
    for (VKL_BIGNUM_t* value : refused) {
        EXPECT_EQ(VKL_DH_compute_key(vkl, out.data(), value, dh), -1);
        EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_DH_compute_key: the peer's public value is out of range"});
        VKL_BN_clear_free(vkl, value);
    }
    EXPECT_EQ(VKL_DH_compute_key(vkl, out.data(), peer, dh), 128);
    VKL_BN_clear_free(vkl, peer);

    // No group.
    VKL_DH_t* empty = VKL_DH_new(vkl);
    EXPECT_EQ(VKL_DH_size(vkl, empty), 0);
    EXPECT_EQ(VKL_DH_size(vkl, nullptr), 0);
    EXPECT_EQ(VKL_DH_generate_key(vkl, empty), 0);
    EXPECT_EQ(VKL_DH_generate_key(vkl, nullptr), 0);
    EXPECT_EQ(zultest::TakeQueue(vkl), (std::vector<std::string>{"VKL_DH_size: no group", "VKL_DH_size: no group",
                                                 "VKL_DH_generate_key: no VKL context or no group",
                                                 "VKL_DH_generate_key: no VKL context or no group"}));
    VKL_DH_free(vkl, empty);
    VKL_DH_free(vkl, nullptr);

    // OpenSSL refuses a prime below 512 bits: one entry, with OpenSSL's reason.
    EXPECT_EQ(VKL_DH_generate_parameters(vkl, 256, 2, nullptr, nullptr), nullptr);
    std::vector<std::string> queued = zultest::TakeQueue(vkl);
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_THAT(queued[0], StartsWith("VKL_DH_generate_parameters: cannot generate the parameters ("));
    EXPECT_EQ(VKL_DH_generate_parameters(vkl, 0, 2, nullptr, nullptr), nullptr);
    EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{"VKL_DH_generate_parameters: no VKL context or no prime length"});
}

}  // namespace
