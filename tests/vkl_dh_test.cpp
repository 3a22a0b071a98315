// The VKL stand-in's Diffie-Hellman where the library's scripts cannot look: the
// private value's length, the generated group itself, and records and arguments
// the library never passes.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <openssl/bn.h>

#include <czulcryptdh.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using VklDhTest = zultest::ContextTest;

// A generated prime is a safe prime p = 2q + 1; the private value has 160 bits, as for
// any prime of 512 to 2047 bits (see dh_stand_in.vec).
TEST_F(VklDhTest, GeneratedGroup) {
    VKL_DH_t* dh = VKL_DH_generate_parameters(vkl, 512, 2, nullptr, nullptr);
    ASSERT_NE(dh, nullptr);
    EXPECT_EQ(VKL_DH_generate_key(vkl, dh), 1);
    EXPECT_LE(VKL_BN_num_bits(vkl, dh->priv_key), 160);
    EXPECT_GT(VKL_BN_num_bits(vkl, dh->priv_key), 128);
    unsigned char bytes[1024];
    BIGNUM* p = BN_bin2bn(bytes, VKL_BN_bn2bin(vkl, dh->p, bytes), nullptr);
    EXPECT_EQ(BN_check_prime(p, nullptr, nullptr), 1);
    EXPECT_EQ(BN_rshift1(p, p), 1);
    EXPECT_EQ(BN_check_prime(p, nullptr, nullptr), 1);
    BN_free(p);
    VKL_DH_free(vkl, dh);
}

// Each row calls one function on a record of group 2 with a key pair and the peer
// value 02, with one thing missing or changed.
TEST_F(VklDhTest, Rows) {
    for (const zultest::VectorCase& row : zultest::ReadVectors("dh_stand_in.vec")) {
        SCOPED_TRACE(row.Where());
        static const unsigned char two = 2;
        VKL_DH_t* dh = VKL_DH_new(vkl);
        dh->g = VKL_BN_bin2bn(vkl, &two, 1, nullptr);
        dh->p = VKL_BN_bin2bn(vkl, CZulCryptDH::ms_Oakley2Prime, 128, nullptr);
        ASSERT_EQ(VKL_DH_generate_key(vkl, dh), 1);
        VKL_DH_t copy = *dh;
        std::map<std::string, VKL_BIGNUM_t**> fields{{"p", &copy.p}, {"g", &copy.g}, {"pub", &copy.pub_key}, {"priv", &copy.priv_key}};
        if (row.Has("Set")) VKL_BN_bin2bn(vkl, row.Bytes("Value").data(), static_cast<int>(row.Bytes("Value").size()), *fields.at(row.Text("Set")));
        if (row.Has("Ones")) VKL_BN_bin2bn(vkl, std::vector<unsigned char>(row.Number("Ones"), 0xFF).data(), row.Number("Ones"), copy.p);
        if (row.Has("Negative")) VKL_BN_set_negative(vkl, *fields.at(row.Text("Negative")), 1);
        const std::string missing = row.Has("Missing") ? row.Text("Missing") : "";
        if (fields.count(missing) != 0) *fields[missing] = nullptr;
        unsigned char out[128] = {2};
        VKL_BIGNUM_t* peer = VKL_BN_bin2bn(vkl, row.Has("Peer") ? row.Bytes("Peer").data() : out, 1, nullptr);
        VKL_t* v = missing == "vkl" ? nullptr : vkl;
        VKL_DH_t* record = missing == "dh" ? nullptr : &copy;
        unsigned char* key = missing == "out" ? nullptr : out;
        VKL_BIGNUM_t* bn = missing == "bn" ? nullptr : peer;
        const std::map<std::string, std::function<long()>> calls{
            {"size", [&] { return VKL_DH_size(v, record); }},
            {"generate", [&] { return VKL_DH_generate_key(v, record); }},
            {"private_bits", [&] { return VKL_DH_generate_key(v, record) == 1 ? VKL_BN_num_bits(v, record->priv_key) : -1; }},
            {"compute", [&] { return VKL_DH_compute_key(v, key, missing == "peer" ? nullptr : peer, record); }},
            {"num_bits", [&] { return VKL_BN_num_bits(v, bn); }},
            {"bn2bin", [&] { return VKL_BN_bn2bin(v, bn, key); }},
            {"bin2bn", [&] { return VKL_BN_bin2bn(v, missing == "in" ? nullptr : out, missing == "in" ? 1 : -1, nullptr) != nullptr; }},
            {"set_negative", [&] { return VKL_BN_set_negative(v, bn, 1) * 10 + VKL_BN_is_negative(v, bn); }},
        };
        if (row.Has("Oom")) VKLTest_FailAllocation(static_cast<unsigned long>(row.Number("Oom")));
        EXPECT_EQ(calls.at(row.Text("Call"))(), row.Number("Result"));
        EXPECT_EQ(zultest::TakeQueue(vkl), row.Has("Queue") ? std::vector<std::string>{row.Text("Queue")} : std::vector<std::string>{});
        VKL_BN_free(vkl, peer);
        VKL_DH_free(vkl, dh);
    }
    VKL_DH_free(vkl, nullptr);
}

}  // namespace
