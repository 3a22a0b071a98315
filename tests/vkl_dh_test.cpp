// The VKL stand-in's Diffie-Hellman where the library's scripts cannot look: the
// private value's length, the generated group itself, and refusals of arguments
// the library never passes.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <openssl/bn.h>

#include <czulcryptdh.h>
#include <vkl.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using VklDhTest = zultest::ContextTest;

// A record of an RFC group, generator 2.
VKL_DH_t* Group(VKL_t* vkl, const unsigned char* prime, int length) {
    static const unsigned char two = 2;
    VKL_DH_t* dh = VKL_DH_new(vkl);
    dh->g = VKL_BN_bin2bn(vkl, &two, 1, nullptr);
    dh->p = VKL_BN_bin2bn(vkl, prime, length, nullptr);
    return dh;
}

// Twice the strength NIST SP 800-57 gives the prime: 80 bits for 512 and 1024, 112
// for 2048. A generated prime is a safe prime p = 2q + 1.
TEST_F(VklDhTest, PrivateValuesAreShortAndTheGeneratedPrimeSafe) {
    VKL_DH_t* generated = VKL_DH_generate_parameters(vkl, 512, 2, nullptr, nullptr);
    ASSERT_NE(generated, nullptr);
    const std::pair<VKL_DH_t*, int> rows[] = {{Group(vkl, CZulCryptDH::ms_Oakley2Prime, 128), 160},
                                              {Group(vkl, CZulCryptDH::ms_Oakley14Prime, 256), 224}, {generated, 160}};
    for (const auto& [dh, bits] : rows) {
        SCOPED_TRACE(bits);
        EXPECT_EQ(VKL_DH_generate_key(vkl, dh), 1);
        EXPECT_LE(VKL_BN_num_bits(vkl, dh->priv_key), bits);
        EXPECT_GT(VKL_BN_num_bits(vkl, dh->priv_key), bits - 32);
    }
    unsigned char bytes[1024];
    BIGNUM* p = BN_bin2bn(bytes, VKL_BN_bn2bin(vkl, generated->p, bytes), nullptr);
    EXPECT_EQ(BN_check_prime(p, nullptr, nullptr), 1);
    EXPECT_EQ(BN_rshift1(p, p), 1);
    EXPECT_EQ(BN_check_prime(p, nullptr, nullptr), 1);
    BN_free(p);
    for (const auto& [dh, bits] : rows) VKL_DH_free(vkl, dh);
}

// Each row calls one function with one thing missing (or a bad group or peer).
TEST_F(VklDhTest, Refusals) {
    for (const zultest::VectorCase& row : zultest::ReadVectors("dh_stand_in.vec")) {
        SCOPED_TRACE(row.Where());
        VKL_DH_t* dh = Group(vkl, CZulCryptDH::ms_Oakley2Prime, 128);
        ASSERT_EQ(VKL_DH_generate_key(vkl, dh), 1);
        const std::string missing = row.Has("Missing") ? row.Text("Missing") : "";
        VKL_DH_t copy = *dh;
        std::map<std::string, VKL_BIGNUM_t**> fields{{"p", &copy.p}, {"g", &copy.g}, {"pub", &copy.pub_key}, {"priv", &copy.priv_key}};
        if (fields.count(missing) != 0) *fields[missing] = nullptr;
        if (row.Has("Prime")) VKL_BN_bin2bn(vkl, row.Bytes("Prime").data(), static_cast<int>(row.Bytes("Prime").size()), copy.p);
        unsigned char out[128] = {2};
        VKL_BIGNUM_t* peer = VKL_BN_bin2bn(vkl, row.Has("Peer") ? row.Bytes("Peer").data() : out, 1, nullptr);
        VKL_t* v = missing == "vkl" ? nullptr : vkl;
        VKL_DH_t* record = missing == "dh" ? nullptr : &copy;
        unsigned char* key = missing == "out" ? nullptr : out;
        const std::map<std::string, std::function<long()>> calls{
            {"size", [&] { return VKL_DH_size(v, record); }},
            {"generate", [&] { return VKL_DH_generate_key(v, record); }},
            {"compute", [&] { return VKL_DH_compute_key(v, key, missing == "peer" ? nullptr : peer, record); }},
            {"num_bits", [&] { return VKL_BN_num_bits(v, nullptr); }},
            {"bn2bin", [&] { return VKL_BN_bn2bin(v, missing == "bn" ? nullptr : peer, key); }},
            {"bin2bn", [&] { return VKL_BN_bin2bn(v, missing == "in" ? nullptr : out, missing == "in" ? 1 : -1, nullptr) != nullptr; }},
            {"set_negative", [&] { return VKL_BN_set_negative(v, nullptr, 1); }},
            {"is_negative", [&] { return VKL_BN_is_negative(v, nullptr); }},
        };
        EXPECT_EQ(calls.at(row.Text("Call"))(), row.Number("Result"));
        EXPECT_EQ(zultest::TakeQueue(vkl), row.Has("Queue") ? std::vector<std::string>{row.Text("Queue")} : std::vector<std::string>{});
        VKL_BN_free(vkl, peer);
        VKL_DH_free(vkl, dh);
    }
    VKL_DH_free(vkl, nullptr);
}

}  // namespace
