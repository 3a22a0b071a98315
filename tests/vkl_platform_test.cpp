// The VKL and libwexcrypt stand-ins themselves: test control, error queue,
// status records, self-test and seeding.
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vkl.h>
#include <vkl_testing.h>
#include <wexcrypt.h>
#include <wexcrypt_testing.h>

#include "test_support.h"

using ::testing::ElementsAre;

namespace {

class VklPlatformTest : public zultest::PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        ASSERT_EQ(WEXCryptGetContext(&vkl), -3);
        ASSERT_NE(vkl, nullptr);
        VKLTest_Reset();
    }

    std::string TakeError() {
        unsigned long code = VKL_ERR_get_error(vkl);
        char text[512];
        std::memset(text, 'x', sizeof text);
        VKL_ERR_error_string_n(vkl, code, text, sizeof text);
        return text;
    }

    VKL_t* vkl = nullptr;
};

TEST_F(VklPlatformTest, FailCallSkipsThenFailsForItsCount) {
    unsigned char out[8];
    VKLTest_FailCall("VKL_RAND_bytes", 2, 2, -7);
    std::vector<int> results;
    for (int i = 0; i < 5; ++i) results.push_back(VKL_RAND_bytes(vkl, out, sizeof out));
    EXPECT_THAT(results, ElementsAre(1, 1, -7, -7, 1));
    EXPECT_EQ(TakeError(), "VKL_RAND_bytes: injected failure");
    EXPECT_EQ(TakeError(), "VKL_RAND_bytes: injected failure");
    EXPECT_EQ(TakeError(), "");
    EXPECT_EQ(VKLTest_CallCount("VKL_RAND_bytes"), 5u);
}

TEST_F(VklPlatformTest, NegativeTimesFailsEveryLaterCallUntilReset) {
    unsigned char out[8];
    VKLTest_FailCall("VKL_RAND_bytes", 0, -1, 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(VKL_RAND_bytes(vkl, out, sizeof out), 0);
    VKLTest_Reset();
    EXPECT_EQ(VKL_RAND_bytes(vkl, out, sizeof out), 1);
    EXPECT_EQ(TakeError(), "") << "reset empties the queue";
}

// Each test runs in a process of its own, where nothing has called this function yet.
TEST_F(VklPlatformTest, AFaultArmedBeforeTheFirstCallFiresOnIt) {
    VKLTest_FailCall("VKL_EVP_MD_block_size", 1, 1, -9);
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_MD_block_size"), 0u);
    const VKL_EVP_MD_t* sha1 = VKL_EVP_get_digestbyname(vkl, "SHA1");
    ASSERT_NE(sha1, nullptr);
    std::vector<int> results;
    for (int i = 0; i < 3; ++i) results.push_back(VKL_EVP_MD_block_size(vkl, sha1));
    EXPECT_THAT(results, ElementsAre(64, -9, 64));
    EXPECT_EQ(TakeError(), "VKL_EVP_MD_block_size: injected failure");
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_MD_block_size"), 3u);
}

TEST_F(VklPlatformTest, InjectedPointerResultIsNullAndFunctionDoesNoWork) {
    VKLTest_FailCall("VKL_CTX_new", 0, 1, 1);
    EXPECT_EQ(VKL_CTX_new(), nullptr);
    EXPECT_EQ(TakeError(), "VKL_CTX_new: injected failure");

    VKLTest_FailCall("VKL_GetStatus", 0, 1, 5);
    VKL_STATUS_t status;
    std::memset(&status, 0x5a, sizeof status);
    EXPECT_EQ(VKL_GetStatus(vkl, &status), 5);
    EXPECT_EQ(status.major, 0x5a5a5a5a) << "the record is not touched";
    EXPECT_EQ(TakeError(), "VKL_GetStatus: injected failure");
}

TEST_F(VklPlatformTest, CountsLengthsAndLogSinceReset) {
    unsigned char out[40];
    EXPECT_EQ(VKLTest_LastLength("VKL_RAND_bytes"), -1);
    VKL_RAND_bytes(vkl, out, 40);
    VKL_RAND_seed(vkl, out, 17);
    VKL_RAND_bytes(vkl, out, 3);
    EXPECT_EQ(VKLTest_LastLength("VKL_RAND_bytes"), 3);
    EXPECT_EQ(VKLTest_LastLength("VKL_RAND_seed"), 17);
    EXPECT_EQ(VKLTest_CallCount("VKL_RAND_bytes"), 2u);
    EXPECT_EQ(VKLTest_CallCount("VKL_Never_Called"), 0u);
    EXPECT_STREQ(VKLTest_CallLog(), "VKL_RAND_bytes\nVKL_RAND_seed\nVKL_RAND_bytes\n");
    VKLTest_Reset();
    EXPECT_STREQ(VKLTest_CallLog(), "");
    EXPECT_EQ(VKLTest_CallCount("VKL_RAND_bytes"), 0u);
}

TEST_F(VklPlatformTest, CallLogKeepsTheLatestEntries) {
    unsigned char out[1];
    for (int i = 0; i < 5000; ++i) VKL_RAND_bytes(vkl, out, 1);
    VKL_RAND_seed(vkl, out, 1);
    std::vector<std::string> log = zultest::CallLog();
    ASSERT_EQ(log.size(), 5001u);
    EXPECT_EQ(log.back(), "VKL_RAND_seed");
}

TEST_F(VklPlatformTest, ForcedStatusRecordsUntilReset) {
    VKL_STATUS_t status{};
    VKLTest_SetStatus("VKL_SelfTest", 2, 4, "forced");
    EXPECT_EQ(VKL_SelfTest(vkl, &status), 0);
    EXPECT_EQ(status.major, 2);
    EXPECT_EQ(status.minor, 4);
    EXPECT_STREQ(status.description, "forced");
    VKLTest_Reset();
    std::memset(&status, 0, sizeof status);
    EXPECT_EQ(VKL_SelfTest(vkl, &status), 1);
    EXPECT_EQ(status.major, 0);
    EXPECT_EQ(status.minor, 0);
}

TEST_F(VklPlatformTest, SeedGenerationFillsTheBuffer) {
    VKL_STATUS_t status{};
    unsigned char seed[64] = {0};
    ASSERT_EQ(VKL_GenerateRandomSeed(vkl, &status, 64, seed), 1);
    EXPECT_NE(std::vector<unsigned char>(seed, seed + 64), std::vector<unsigned char>(64, 0));
    EXPECT_EQ(VKL_RAND_seed(vkl, seed, 64), 1);

    std::memset(&status, 0, sizeof status);
    EXPECT_EQ(VKL_GenerateRandomSeed(vkl, &status, 0, seed), 0);
    EXPECT_EQ(status.major, VKL_MAJOR_ERROR);
    EXPECT_EQ(status.minor, VKL_MINOR_NULL_PARAMETER);
}

TEST_F(VklPlatformTest, ErrorTextsAreCutToTheBuffer) {
    unsigned char out[1];
    VKLTest_FailCall("VKL_RAND_bytes", 0, 1, 0);
    VKL_RAND_bytes(vkl, out, 1);
    unsigned long code = VKL_ERR_get_error(vkl);
    ASSERT_NE(code, 0u);
    char small[8];
    VKL_ERR_error_string_n(vkl, code, small, sizeof small);
    EXPECT_STREQ(small, "VKL_RAN");
}

TEST_F(VklPlatformTest, WexcryptControls) {
    VKL_t* handed = nullptr;
    WEXTest_SetGetContextResult(7);
    EXPECT_EQ(WEXCryptGetContext(&handed), 7);
    EXPECT_EQ(handed, nullptr);
    WEXTest_SetGetContextResult(-3);
    EXPECT_EQ(WEXCryptGetContext(&handed), -3);
    EXPECT_EQ(handed, vkl) << "one context per process";

    WEXTest_SetSystemFips(1);
    EXPECT_EQ(WEXUTILSIsSystemFips(), 1);
    WEXTest_SetSystemFips(0);
    EXPECT_EQ(WEXUTILSIsSystemFips(), 0);
}

}  // namespace

namespace {

class SelfTestKnownAnswers : public VklPlatformTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(SelfTestKnownAnswers, AFailingTestIsNamedAndStopsTheContext) {
    const std::string name = GetParam();
    VKLTest_FailCall(("VKL_SelfTest/" + name).c_str(), 0, 1, 0);
    VKL_STATUS_t status{};
    EXPECT_EQ(VKL_SelfTest(vkl, &status), 0);
    EXPECT_EQ(status.major, VKL_MAJOR_ERROR);
    EXPECT_EQ(status.minor, VKL_MINOR_LIBRARY_VERIFICATION_FAILED);
    EXPECT_EQ(std::string(status.description), "Self-test failed: " + name + " known-answer test");
    EXPECT_STREQ(VKLTest_CallLog(), "VKL_SelfTest\n");
    EXPECT_EQ(TakeError(), "") << "the self-test leaves no queue entries behind";
}

INSTANTIATE_TEST_SUITE_P(EveryKnownAnswer, SelfTestKnownAnswers,
                         ::testing::Values("SHA-1", "SHA-256", "HMAC-SHA-1", "AES-128-CBC", "DES-CBC"));

}  // namespace
