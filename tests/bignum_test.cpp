// The big number: packets, raw bytes, conversions to and from VKL numbers,
// random fills and dumps, with every failure driven through the platform.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <czulcryptbignum.h>
#include <czulcryptcontext.h>
#include <vkl.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

class BigNumTest : public zultest::ContextTest {
protected:
    static std::string Held(const CZulCryptBigNum& number) {
        return zultest::Hex(number.GetBigNumPacket(), number.GetLen());
    }

    // The magnitude VKL holds, as hex.
    std::string VklValue(VKL_BIGNUM_t* bn) {
        std::vector<unsigned char> out(static_cast<size_t>(VKL_BN_num_bits(vkl, bn) + 7) / 8 + 1);
        int written = VKL_BN_bn2bin(vkl, bn, out.data());
        EXPECT_GE(written, 0);
        return zultest::Hex(out.data(), static_cast<size_t>(written));
    }
};

TEST_F(BigNumTest, PacketsHoldTheStatedBytes) {
    for (const zultest::VectorCase& vector : zultest::ReadVectors("bignum_packet.vec")) {
        SCOPED_TRACE(vector.Where());
        CZulCryptBigNum number(*context);
        const unsigned char old[] = {0x00, 0x10, 0x12, 0x34};
        ASSERT_TRUE(number.SetNumber(old));
        // An odd address: the prefix is read byte by byte.
        std::vector<unsigned char> packet(1);
        const std::vector<unsigned char> in = vector.Bytes("In");
        packet.insert(packet.end(), in.begin(), in.end());
        EXPECT_TRUE(number.SetNumber(packet.data() + 1));
        EXPECT_EQ(Held(number), zultest::Hex(vector.Bytes("Out")));
        EXPECT_EQ(number.GetLen(), vector.Bytes("Out").size());
        if (number.GetLen() == 0) {
            // An empty number converts to nothing and dumps as such.
            EXPECT_EQ(number.BuildNumber(), nullptr);
            CaptureStdout();
            number.Dump();
            EXPECT_EQ(GetCapturedStdout(), "NULL\n");
        }
    }
    EXPECT_THAT(diagnostics->errors, IsEmpty());
    EXPECT_EQ(VKLTest_CallCount("VKL_BN_bin2bn"), 0u);
}

TEST_F(BigNumTest, RawBytesKeepLeadingZerosUntilVklDropsThem) {
    CZulCryptBigNum number(*context);
    const unsigned char bytes[] = {0x00, 0x00, 0x05};
    ASSERT_TRUE(number.SetNumber(3, bytes));
    EXPECT_EQ(Held(number), "000005");

    C_VKL_BIGNUM_Wrap* built = number.BuildNumber();
    ASSERT_NE(built, nullptr);
    ASSERT_NE(built->m_pBigNum, nullptr);
    EXPECT_EQ(VKLTest_LastLength("VKL_BN_bin2bn"), 3);

    CZulCryptBigNum back(*context);
    EXPECT_TRUE(back.SetNumber(built));
    EXPECT_EQ(Held(back), "05");
    VKL_BN_clear_free(vkl, built->m_pBigNum);
    delete built;
}

TEST_F(BigNumTest, NegativeVklNumberIsHeldAsItsMagnitude) {
    const unsigned char five = 5;
    VKL_BIGNUM_t* bn = VKL_BN_bin2bn(vkl, &five, 1, nullptr);
    ASSERT_NE(bn, nullptr);
    ASSERT_EQ(VKL_BN_set_negative(vkl, bn, 1), 1);
    ASSERT_EQ(VKL_BN_is_negative(vkl, bn), 1);
    C_VKL_BIGNUM_Wrap wrap(bn);
    CZulCryptBigNum number(*context);
    EXPECT_TRUE(number.SetNumber(&wrap));
    EXPECT_EQ(Held(number), "05");

    // Zero: a zero-length value that counts as empty.
    ASSERT_NE(VKL_BN_bin2bn(vkl, nullptr, 0, bn), nullptr);
    EXPECT_TRUE(number.SetNumber(&wrap));
    EXPECT_EQ(number.GetLen(), 0u);
    EXPECT_EQ(number.BuildNumber(), nullptr);
    VKL_BN_free(vkl, bn);
}

TEST_F(BigNumTest, PopulateNumberWritesIntoTheCallersNumber) {
    CZulCryptBigNum number(*context);
    const unsigned char bytes[] = {0x00, 0xAB, 0xCD};
    ASSERT_TRUE(number.SetNumber(3, bytes));
    VKL_BIGNUM_t* bn = VKL_BN_new(vkl);
    ASSERT_NE(bn, nullptr);
    C_VKL_BIGNUM_Wrap wrap(bn);
    EXPECT_TRUE(number.PopulateNumber(&wrap));
    EXPECT_EQ(wrap.m_pBigNum, bn);
    EXPECT_EQ(VklValue(bn), "abcd");
    VKL_BN_clear_free(vkl, bn);

    // A holder of null would leave VKL's new number without owner.
    C_VKL_BIGNUM_Wrap empty(nullptr);
    VKLTest_Reset();
    EXPECT_FALSE(number.PopulateNumber(&empty));
    EXPECT_FALSE(number.PopulateNumber(nullptr));
    EXPECT_EQ(VKLTest_CallCount("VKL_BN_bin2bn"), 0u);
}

TEST_F(BigNumTest, RefusedArgumentsKeepTheOldValue) {
    CZulCryptBigNum number(*context);
    const unsigned char bytes[] = {0x01, 0x02};
    ASSERT_TRUE(number.SetNumber(2, bytes));
    C_VKL_BIGNUM_Wrap empty(nullptr);
    EXPECT_FALSE(number.SetNumber(0, bytes));
    EXPECT_FALSE(number.SetNumber(4, nullptr));
    EXPECT_FALSE(number.SetNumber(static_cast<const unsigned char*>(nullptr)));
    EXPECT_FALSE(number.SetNumber(static_cast<const C_VKL_BIGNUM_Wrap*>(nullptr)));
    EXPECT_FALSE(number.SetNumber(&empty));
    number.PopulateRandom(0);
    EXPECT_EQ(Held(number), "0102");
    EXPECT_THAT(diagnostics->errors, IsEmpty());
    EXPECT_EQ(VKLTest_CallCount("VKL_RAND_bytes"), 0u);
}

// VKL's bit count and the bytes it writes disagree: refused, nothing written past the
// buffer, and the entry the failed call queued goes with the report.
TEST_F(BigNumTest, VklCountsThatDisagreeAreReported) {
    struct Row {
        const char* function;
        long result;
        const char* held;
    };
    const unsigned char bytes[] = {0x7F, 0xFF, 0xFF};
    VKL_BIGNUM_t* bn = VKL_BN_bin2bn(vkl, bytes, 3, nullptr);
    ASSERT_NE(bn, nullptr);
    C_VKL_BIGNUM_Wrap wrap(bn);
    // Fewer bytes than promised keep the cleared bytes and their count; more are cut to the count.
    for (const Row& row : {Row{"VKL_BN_bn2bin", 2, "000000"}, Row{"VKL_BN_num_bits", 8, "7f"},
                           Row{"VKL_BN_num_bits", 0, ""}}) {
        SCOPED_TRACE(std::string(row.function) + " " + std::to_string(row.result));
        diagnostics->Clear();
        CZulCryptBigNum number(*context);
        VKLTest_FailCall(row.function, 0, 1, row.result);
        EXPECT_FALSE(number.SetNumber(&wrap));
        ASSERT_EQ(diagnostics->errors.size(), 1u);
        EXPECT_EQ(diagnostics->errors[0].file, "czulcryptbignum");
        EXPECT_EQ(diagnostics->errors[0].text, "Failed to create big num");
        EXPECT_FALSE(diagnostics->errors[0].fatal);
        EXPECT_EQ(Held(number), row.held);
        EXPECT_THAT(zultest::TakeQueue(vkl), IsEmpty());
    }
    VKL_BN_free(vkl, bn);
}

// Allocate and copy first, then release: the source may be the held bytes.
TEST_F(BigNumTest, CopyingOntoItself) {
    CZulCryptBigNum number(*context);
    const unsigned char bytes[] = {0x00, 0x10, 0xAB, 0xCD};
    ASSERT_TRUE(number.SetNumber(4, bytes));
    EXPECT_TRUE(number.SetNumber(number.GetLen(), number.GetBigNumPacket()));
    EXPECT_EQ(Held(number), "0010abcd");
    // Read as a packet: 16 bits, then AB CD.
    EXPECT_TRUE(number.SetNumber(number.GetBigNumPacket()));
    EXPECT_EQ(Held(number), "abcd");
}

TEST_F(BigNumTest, PopulateRandomSizesAndFailure) {
    CZulCryptBigNum number(*context);
    number.PopulateRandom(12);
    EXPECT_EQ(number.GetLen(), 2u);
    EXPECT_EQ(VKLTest_LastLength("VKL_RAND_bytes"), 2);
    number.PopulateRandom(2048);
    EXPECT_EQ(number.GetLen(), 256u);
    const std::string first = Held(number);
    number.PopulateRandom(2048);
    EXPECT_NE(Held(number), first);
    number.PopulateRandom(1);
    EXPECT_EQ(number.GetLen(), 1u);
    EXPECT_THAT(diagnostics->errors, IsEmpty());

    VKLTest_FailCall("VKL_RAND_bytes", 0, 1, 0);
    number.PopulateRandom(64);
    EXPECT_EQ(Held(number), "0000000000000000");
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("VKL_RAND_bytes: injected failure"));
    EXPECT_EQ(diagnostics->errors[0].file, "czulcryptbignum");
}

TEST_F(BigNumTest, DumpOfSeventeenBytes) {
    std::vector<unsigned char> bytes(17);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(0xF0 + i);
    CZulCryptBigNum number(*context);
    ASSERT_TRUE(number.SetNumber(17, bytes.data()));
    CaptureStdout();
    number.Dump();
    EXPECT_EQ(GetCapturedStdout(),
              "    00-01-02-03-04-05-06-07___08-09-0A-0B-0C-0D-0E-0F\n"
              "00  f0 f1 f2 f3 f4 f5 f6 f7   f8 f9 fa fb fc fd fe ff \n"
              "01  00 \n");
}

TEST_F(BigNumTest, LifeTraces) {
    CZulCryptContext::SetLogLevel(4);
    {
        CZulCryptBigNum empty(*context);
    }
    std::ostringstream expected;
    expected << "CZulCryptBigNum::CZulCryptBigNum(" << static_cast<const void*>(context.get()) << ")";
    EXPECT_THAT(diagnostics->TracesAt(4), ElementsAre(expected.str()));
    diagnostics->Clear();
    {
        CZulCryptBigNum held(*context);
        const unsigned char packet[] = {0x00, 0x00};
        ASSERT_TRUE(held.SetNumber(packet));
    }
    EXPECT_THAT(diagnostics->TracesAt(4), ElementsAre(expected.str(), "CZulCryptBigNum::~CZulCryptBigNum()"));
}

}  // namespace
