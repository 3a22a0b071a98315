// Diffie-Hellman key agreement: the Oakley groups, agreement between two
// objects, refused peers, traces, and every failure driven through the platform.
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <openssl/bn.h>

#include <czulcryptbignum.h>
#include <czulcryptcontext.h>
#include <czulcryptdh.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Texts = std::vector<std::string>;

const char kOutOfRange[] = "VKL_DH_compute_key: the peer's public value is out of range";

class DhTest : public zultest::ContextTest {
protected:
    std::unique_ptr<CZulCryptBigNum> Number(const std::vector<unsigned char>& bytes) {
        auto number = std::make_unique<CZulCryptBigNum>(*context);
        if (!bytes.empty()) {
            EXPECT_TRUE(number->SetNumber(static_cast<unsigned int>(bytes.size()), bytes.data()));
        }
        return number;
    }

    static std::string Secret(CZulCryptDH& dh) {
        int length = 0;
        const unsigned char* secret = dh.GetSharedSecret(length);
        return secret == nullptr || length < 1 ? "" : zultest::Hex(secret, static_cast<size_t>(length));
    }

    // Each side computes with the other's public value; both secrets, in hex.
    std::pair<std::string, std::string> Agree(CZulCryptDH& a, CZulCryptDH& b) {
        std::unique_ptr<CZulCryptBigNum> aPublic(a.GetPublicKey());
        std::unique_ptr<CZulCryptBigNum> bPublic(b.GetPublicKey());
        EXPECT_NE(aPublic, nullptr);
        EXPECT_NE(bPublic, nullptr);
        a.ComputeSharedSecret(bPublic.get());
        b.ComputeSharedSecret(aPublic.get());
        return {Secret(a), Secret(b)};
    }

    void ExpectOneError(const std::string& text) {
        ASSERT_EQ(diagnostics->ErrorTexts(), Texts{text});
        EXPECT_EQ(diagnostics->errors[0].file, "czulcryptdh");
        EXPECT_FALSE(diagnostics->errors[0].fatal);
    }
};

std::vector<unsigned char> Bytes(const unsigned char* data, size_t length) {
    return std::vector<unsigned char>(data, data + length);
}

// OpenSSL's own copy of a prime, big-endian.
std::vector<unsigned char> OpenSslPrime(BIGNUM* (*get)(BIGNUM*)) {
    BIGNUM* prime = get(nullptr);
    std::vector<unsigned char> bytes(static_cast<size_t>(BN_num_bytes(prime)));
    BN_bn2bin(prime, bytes.data());
    BN_free(prime);
    return bytes;
}

TEST_F(DhTest, OakleyPrimesAreTheRfcGroups) {
    const std::vector<zultest::VectorCase> groups = zultest::ReadVectors("dh_groups.vec");
    ASSERT_EQ(groups.size(), 2u);
    for (const zultest::VectorCase& group : groups) {
        SCOPED_TRACE(group.Where());
        const bool two = group.Number("Group") == 2;
        const std::vector<unsigned char> constant =
            two ? Bytes(CZulCryptDH::ms_Oakley2Prime, sizeof CZulCryptDH::ms_Oakley2Prime)
                : Bytes(CZulCryptDH::ms_Oakley14Prime, sizeof CZulCryptDH::ms_Oakley14Prime);
        EXPECT_EQ(zultest::Hex(constant), zultest::Hex(group.Bytes("Prime")));
        EXPECT_EQ(zultest::Hex(constant),
                  zultest::Hex(OpenSslPrime(two ? BN_get_rfc2409_prime_1024 : BN_get_rfc3526_prime_2048)));

        CZulCryptDH dh(*context);
        EXPECT_TRUE(two ? dh.SetOakleyGroup2() : dh.SetOakleyGroup14());
        EXPECT_EQ(dh.GetSize(), group.Number("Size"));
        // The generator goes to VKL as the single byte 02, then the prime.
        EXPECT_EQ(VKLTest_LastLength("VKL_BN_bin2bn"), group.Number("Size"));
    }
    EXPECT_THAT(diagnostics->errors, IsEmpty());
}

// Secrets with a leading zero byte come about once in 256 rounds; they must
// agree like any other, at the prime's full size.
TEST_F(DhTest, TwoObjectsAgreeOverManyRounds) {
    struct Group {
        bool (CZulCryptDH::*set)();
        int size;
        int rounds;
    };
    for (const Group& group : {Group{&CZulCryptDH::SetOakleyGroup2, 128, 1024},
                               Group{&CZulCryptDH::SetOakleyGroup14, 256, 300}}) {
        SCOPED_TRACE(group.size);
        int leadingZero = 0;
        std::string previous;
        for (int round = 0; round < group.rounds; ++round) {
            CZulCryptDH a(*context);
            CZulCryptDH b(*context);
            ASSERT_TRUE((a.*group.set)());
            ASSERT_TRUE((b.*group.set)());
            const auto secrets = Agree(a, b);
            ASSERT_EQ(secrets.first.size(), 2u * static_cast<size_t>(group.size));
            ASSERT_EQ(secrets.first, secrets.second);
            ASSERT_NE(secrets.first, previous);
            ASSERT_TRUE(a.GetStatus() && b.GetStatus());
            if (secrets.first.compare(0, 2, "00") == 0) ++leadingZero;
            previous = secrets.first;
        }
        RecordProperty("leading_zero_secrets_" + std::to_string(group.size), leadingZero);
    }
    EXPECT_THAT(diagnostics->errors, IsEmpty());
}

TEST_F(DhTest, GeneratedGroupMakesAKeyPairAndDerives) {
    CZulCryptDH dh(*context, 512, 2);
    ASSERT_TRUE(dh.GetStatus());
    EXPECT_EQ(dh.GetSize(), 64);
    EXPECT_EQ(VKLTest_LastLength("VKL_DH_generate_parameters"), 512);
    EXPECT_EQ(VKLTest_CallCount("VKL_DH_generate_key"), 1u);
    std::unique_ptr<CZulCryptBigNum> pub(dh.GetPublicKey());
    ASSERT_NE(pub, nullptr);
    EXPECT_LE(pub->GetLen(), 64u);
    EXPECT_GT(pub->GetLen(), 32u);
    // Only this object knows the group; its own value stands in for a peer's.
    dh.ComputeSharedSecret(pub.get());
    EXPECT_TRUE(dh.GetStatus());
    EXPECT_EQ(Secret(dh).size(), 128u);
    EXPECT_THAT(diagnostics->errors, IsEmpty());
}

TEST_F(DhTest, PeerValuesOutsideTheGroupAreRefused) {
    std::vector<unsigned char> pMinusOne = Bytes(CZulCryptDH::ms_Oakley2Prime, 128);
    pMinusOne.back() = 0xFE;
    const std::vector<unsigned char> p = Bytes(CZulCryptDH::ms_Oakley2Prime, 128);
    for (const std::vector<unsigned char>& peer :
         {std::vector<unsigned char>{0x00}, std::vector<unsigned char>{0x01}, std::vector<unsigned char>{0x00, 0x01},
          pMinusOne, p}) {
        SCOPED_TRACE(zultest::Hex(peer));
        CZulCryptDH dh(*context);
        ASSERT_TRUE(dh.SetOakleyGroup2());
        diagnostics->Clear();
        std::unique_ptr<CZulCryptBigNum> number = Number(peer);
        dh.ComputeSharedSecret(number.get());
        EXPECT_FALSE(dh.GetStatus());
        ExpectOneError(kOutOfRange);
        // The buffer was allocated and cleared; VKL wrote nothing into it.
        EXPECT_EQ(Secret(dh), std::string(256, '0'));
    }
    // Two below p - 1 is still a member.
    pMinusOne.back() = 0xFD;
    CZulCryptDH dh(*context);
    ASSERT_TRUE(dh.SetOakleyGroup2());
    dh.ComputeSharedSecret(Number(pMinusOne).get());
    EXPECT_TRUE(dh.GetStatus());
}

TEST_F(DhTest, NullEmptyAndEarlyPeers) {
    CZulCryptDH dh(*context);
    ASSERT_TRUE(dh.SetOakleyGroup2());
    int length = 0;
    EXPECT_EQ(dh.GetSharedSecret(length), nullptr);
    EXPECT_EQ(length, 128);

    dh.ComputeSharedSecret(nullptr);
    EXPECT_TRUE(dh.GetStatus());
    EXPECT_EQ(dh.GetSharedSecret(length), nullptr);
    EXPECT_EQ(VKLTest_CallCount("VKL_DH_size"), 2u);
    EXPECT_EQ(VKLTest_CallCount("VKL_DH_compute_key"), 0u);
    EXPECT_THAT(diagnostics->errors, IsEmpty());

    // An empty number has no VKL form: reported once for the conversion, once for the result.
    CZulCryptBigNum empty(*context);
    dh.ComputeSharedSecret(&empty);
    EXPECT_FALSE(dh.GetStatus());
    EXPECT_EQ(diagnostics->errors.size(), 2u);
    EXPECT_EQ(VKLTest_CallCount("VKL_DH_compute_key"), 0u);
    EXPECT_EQ(Secret(dh), std::string(256, '0'));

    // Without a group there is no size to compute into.
    CZulCryptDH bare(*context);
    diagnostics->Clear();
    std::unique_ptr<CZulCryptBigNum> two = Number({0x02});
    bare.ComputeSharedSecret(two.get());
    EXPECT_FALSE(bare.GetStatus());
    ExpectOneError("VKL_DH_size: no group");
    EXPECT_EQ(bare.GetPublicKey(), nullptr);
    // Asking the size is harmless: nothing stays queued to be blamed for a later failure.
    EXPECT_EQ(bare.GetSize(), 0);
    EXPECT_THAT(zultest::TakeQueue(vkl), IsEmpty());
}

TEST_F(DhTest, TracesOfLifeAndStatus) {
    std::ostringstream address;
    address << static_cast<const void*>(context.get());
    {
        CZulCryptDH dh(*context);
        EXPECT_TRUE(dh.SetOakleyGroup2());
        EXPECT_TRUE(dh.GetStatus());
    }
    VKLTest_FailCall("VKL_DH_new", 0, 1, 0);
    {
        CZulCryptDH failed(*context);
        EXPECT_FALSE(failed.GetStatus());
    }
    const std::string constructed = "CZulCryptDH::CZulCryptDH(" + address.str() + ")\n";
    EXPECT_THAT(diagnostics->TracesAt(3), ElementsAre(constructed, "CZulCryptDH::~CZulCryptDH()\n", constructed));
    EXPECT_THAT(diagnostics->TracesAt(4),
                ElementsAre("CZulCryptDH::GetStatus() returning TRUE\n", "CZulCryptContext::GetError()\n",
                            "CZulCryptDH::GetStatus() returning FALSE\n"));
    EXPECT_EQ(address.str().compare(0, 2, "0x"), 0);
}

TEST_F(DhTest, NoRecordFailsEveryOperationCleanly) {
    for (const char* function : {"VKL_DH_new", "VKL_DH_generate_parameters"}) {
        SCOPED_TRACE(function);
        diagnostics->Clear();
        VKLTest_FailCall(function, 0, 1, 0);
        std::unique_ptr<CZulCryptDH> dh = std::strcmp(function, "VKL_DH_new") == 0
                                              ? std::make_unique<CZulCryptDH>(*context)
                                              : std::make_unique<CZulCryptDH>(*context, 512, 2);
        ExpectOneError(std::string(function) + ": injected failure");
        EXPECT_FALSE(dh->GetStatus());
        EXPECT_EQ(dh->GetSize(), -1);
        EXPECT_FALSE(dh->SetOakleyGroup2());
        EXPECT_FALSE(dh->SetOakleyGroup14());
        EXPECT_EQ(dh->GetPublicKey(), nullptr);
        dh->GenerateKey();
        std::unique_ptr<CZulCryptBigNum> two = Number({0x02});
        dh->ComputeSharedSecret(two.get());
        int length = 0;
        EXPECT_EQ(dh->GetSharedSecret(length), nullptr);
        EXPECT_EQ(length, -1);
        EXPECT_EQ(diagnostics->errors.size(), 1u);
    }
    EXPECT_EQ(VKLTest_CallCount("VKL_DH_generate_key"), 0u);
    EXPECT_EQ(VKLTest_CallCount("VKL_BN_bin2bn"), 0u);
}

TEST_F(DhTest, KeyGenerationFailureFailsTheObjectForGood) {
    CZulCryptDH dh(*context);
    VKLTest_FailCall("VKL_DH_generate_key", 0, 1, 0);
    EXPECT_FALSE(dh.SetOakleyGroup2());
    ExpectOneError("VKL_DH_generate_key: injected failure");
    EXPECT_EQ(dh.GetPublicKey(), nullptr);

    // The group changes, nothing is generated, no report.
    EXPECT_FALSE(dh.SetOakleyGroup14());
    EXPECT_EQ(dh.GetSize(), 256);
    EXPECT_EQ(VKLTest_CallCount("VKL_DH_generate_key"), 1u);
    std::unique_ptr<CZulCryptBigNum> two = Number({0x02});
    dh.ComputeSharedSecret(two.get());
    EXPECT_EQ(VKLTest_CallCount("VKL_DH_compute_key"), 0u);
    EXPECT_EQ(diagnostics->errors.size(), 1u);

    // Generated parameters whose key pair fails.
    diagnostics->Clear();
    VKLTest_FailCall("VKL_DH_generate_key", 0, 1, 0);
    CZulCryptDH generated(*context, 512, 2);
    EXPECT_FALSE(generated.GetStatus());
    EXPECT_EQ(generated.GetSize(), 64);
    ExpectOneError("VKL_DH_generate_key: injected failure");
}

// Either conversion of the group failing leaves the status alone and leaks
// nothing: the number the other made is released (the sanitizer build checks).
TEST_F(DhTest, HalfFailedGroupSetUp) {
    for (unsigned skip : {0u, 1u}) {
        SCOPED_TRACE(skip);
        VKLTest_Reset();
        diagnostics->Clear();
        CZulCryptDH dh(*context);
        VKLTest_FailCall("VKL_BN_bin2bn", skip, 1, 0);
        EXPECT_FALSE(dh.SetOakleyGroup14());
        ExpectOneError("VKL_BN_bin2bn: injected failure");
        EXPECT_TRUE(dh.GetStatus());
        EXPECT_EQ(dh.GetSize(), 0);
        EXPECT_EQ(VKLTest_CallCount("VKL_BN_clear_free"), 1u);
        EXPECT_EQ(VKLTest_CallCount("VKL_DH_generate_key"), 0u);
        // The object is still usable.
        EXPECT_TRUE(dh.SetOakleyGroup2());
        EXPECT_EQ(dh.GetSize(), 128);
    }

    // With a group in place the numbers are overwritten where they are: nothing to release.
    diagnostics->Clear();
    CZulCryptDH dh(*context);
    ASSERT_TRUE(dh.SetOakleyGroup2());
    VKLTest_Reset();
    VKLTest_FailCall("VKL_BN_bin2bn", 1, 1, 0);
    EXPECT_FALSE(dh.SetOakleyGroup14());
    EXPECT_EQ(VKLTest_CallCount("VKL_BN_clear_free"), 0u);
    EXPECT_EQ(diagnostics->errors.size(), 1u);
    EXPECT_TRUE(dh.SetOakleyGroup14());
    EXPECT_EQ(dh.GetSize(), 256);
}

TEST_F(DhTest, SharedSecretFailures) {
    struct Row {
        const char* function;
        unsigned skip;
        long result;
        Texts errors;
    };
    const Row rows[] = {
        {"VKL_DH_size", 0, 0, {"VKL_DH_size: injected failure"}},
        {"VKL_DH_size", 0, -1, {"VKL_DH_size: injected failure"}},
        {"VKL_DH_compute_key", 0, -1, {"VKL_DH_compute_key: injected failure"}},
        // A short count is a failure, not a short secret.
        {"VKL_DH_compute_key", 0, 127, {"VKL_DH_compute_key: injected failure"}},
        // The peer number cannot be converted: VKL's entry, then the empty queue.
        {"VKL_BN_bin2bn", 0, 0, {"VKL_BN_bin2bn: injected failure", ""}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.result));
        CZulCryptDH a(*context);
        CZulCryptDH b(*context);
        ASSERT_TRUE(a.SetOakleyGroup2() && b.SetOakleyGroup2());
        std::unique_ptr<CZulCryptBigNum> peer(b.GetPublicKey());
        ASSERT_NE(peer, nullptr);
        diagnostics->Clear();
        VKLTest_FailCall(row.function, row.skip, 1, row.result);
        a.ComputeSharedSecret(peer.get());
        EXPECT_FALSE(a.GetStatus());
        EXPECT_EQ(diagnostics->ErrorTexts(), row.errors);
        for (const zultest::ErrorReport& report : diagnostics->errors) EXPECT_EQ(report.file, "czulcryptdh");
        // Failed for good.
        a.ComputeSharedSecret(peer.get());
        EXPECT_EQ(diagnostics->ErrorTexts(), row.errors);
    }
}

TEST_F(DhTest, PublicValueThatCannotBeReadIsNull) {
    CZulCryptDH dh(*context);
    ASSERT_TRUE(dh.SetOakleyGroup2());
    VKLTest_FailCall("VKL_BN_bn2bin", 0, 1, 3);
    EXPECT_EQ(dh.GetPublicKey(), nullptr);
    ASSERT_EQ(diagnostics->ErrorTexts(), Texts{"Failed to create big num"});
    EXPECT_EQ(diagnostics->errors[0].file, "czulcryptbignum");
    EXPECT_TRUE(dh.GetStatus());
}

TEST_F(DhTest, NewGroupDropsTheOldSecretAndComputesAgain) {
    CZulCryptDH a(*context);
    CZulCryptDH b(*context);
    ASSERT_TRUE(a.SetOakleyGroup2() && b.SetOakleyGroup2());
    const auto first = Agree(a, b);
    ASSERT_EQ(first.first, first.second);
    ASSERT_TRUE(a.SetOakleyGroup14() && b.SetOakleyGroup14());
    int length = 0;
    EXPECT_EQ(a.GetSharedSecret(length), nullptr);
    EXPECT_EQ(length, 256);
    const auto second = Agree(a, b);
    EXPECT_EQ(second.first.size(), 512u);
    EXPECT_EQ(second.first, second.second);
    // A fresh key pair: the same peer value gives another secret.
    std::unique_ptr<CZulCryptBigNum> bPublic(b.GetPublicKey());
    a.GenerateKey();
    a.ComputeSharedSecret(bPublic.get());
    EXPECT_NE(Secret(a), second.first);
    EXPECT_THAT(diagnostics->errors, IsEmpty());
}

}  // namespace
