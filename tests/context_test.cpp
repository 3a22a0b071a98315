// Life of the crypto context: obtaining VKL, the start-up checks and their order.
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "test_support.h"

using ::testing::ElementsAre;
using zultest::CallLog;

namespace {

class ContextTest : public zultest::PlatformTest {};

TEST_F(ContextTest, StartsUsableAfterSelfTestAndSeedingInOrder) {
    CZulCryptContext context;
    EXPECT_TRUE(context.GetStatus());
    ASSERT_NE(context.GetContext(), nullptr);
    EXPECT_NE(context.GetContext()->m_pCtx, nullptr);
    EXPECT_TRUE(diagnostics->errors.empty());
    EXPECT_THAT(CallLog(), ElementsAre("VKL_GetStatus", "VKL_SelfTest", "VKL_GenerateRandomSeed", "VKL_RAND_seed"));
    EXPECT_EQ(VKLTest_LastLength("VKL_GenerateRandomSeed"), 64);
    EXPECT_EQ(VKLTest_LastLength("VKL_RAND_seed"), 64);
    EXPECT_THAT(diagnostics->TracesAt(3),
                ElementsAre("CZulCryptContext::CZulCryptContext()\n", "CZulCryptContext::Initialise()\n",
                            "CZulCryptContext::SelfTest()\n", "CZulCryptContext::OpenAlgorithms()\n",
                            "CZulCryptContext::SetRandomSeed()\n"));
}

TEST_F(ContextTest, DestructionTracesAndNeverReleasesTheVklContext) {
    VKL_t* first = nullptr;
    {
        CZulCryptContext context;
        first = context.GetContext()->m_pCtx;
    }
    EXPECT_EQ(diagnostics->TracesAt(3).back(), "CZulCryptContext::~CZulCryptContext()\n");
    // The same VKL context is handed out again and still works.
    CZulCryptContext again;
    EXPECT_TRUE(again.GetStatus());
    EXPECT_EQ(again.GetContext()->m_pCtx, first);
}

TEST_F(ContextTest, NoVklContextForAnyResultButMinusThree) {
    for (long long result : {0LL, -2LL, 1LL, -4LL}) {
        diagnostics->Clear();
        VKLTest_Reset();
        WEXTest_SetGetContextResult(result);
        CZulCryptContext context;
        EXPECT_FALSE(context.GetStatus()) << result;
        EXPECT_EQ(context.GetContext(), nullptr) << result;
        ASSERT_EQ(diagnostics->errors.size(), 1u) << result;
        EXPECT_EQ(diagnostics->errors[0].text, "VKL Context not started.");
        EXPECT_EQ(diagnostics->errors[0].file, "czulcryptcontext");
        EXPECT_FALSE(diagnostics->errors[0].fatal);
        EXPECT_EQ(VKLTest_CallLog(), std::string()) << "no VKL call without a context";
    }
}

// A second Initialise replaces the first holder (the leak checker sees one lost);
// one that finds no VKL leaves no holder behind for objects to use.
TEST_F(ContextTest, SecondInitialiseReplacesTheHolder) {
    CZulCryptContext context;
    context.Initialise();
    ASSERT_TRUE(context.GetStatus());
    WEXTest_SetGetContextResult(0);
    context.Initialise();
    EXPECT_FALSE(context.GetStatus());
    EXPECT_EQ(context.GetContext(), nullptr);
}

TEST_F(ContextTest, UncleanStatusAtStartKeepsTheHolderAndStops) {
    VKLTest_SetStatus("VKL_GetStatus", 2, 10, "library not initialised");
    CZulCryptContext context;
    EXPECT_FALSE(context.GetStatus());
    EXPECT_NE(context.GetContext(), nullptr);
    EXPECT_THAT(diagnostics->ErrorTexts(),
                ElementsAre("MAJOR: VKL ERROR, MINOR: NOT INITIALISED, DESC:library not initialised"));
    EXPECT_THAT(CallLog(), ElementsAre("VKL_GetStatus"));
}

TEST_F(ContextTest, FailingSelfTestDoesNotSeed) {
    VKLTest_SetStatus("VKL_SelfTest", 2, 4, "Self-test failed: SHA-1 known-answer test");
    CZulCryptContext context;
    EXPECT_FALSE(context.GetStatus());
    EXPECT_THAT(diagnostics->ErrorTexts(),
                ElementsAre("MAJOR: VKL ERROR, MINOR: LIBRARY VERIFICATION FAILED, "
                            "DESC:Self-test failed: SHA-1 known-answer test"));
    // The failed self-test's queue entries, if any, go with it.
    EXPECT_THAT(CallLog(), ElementsAre("VKL_GetStatus", "VKL_SelfTest", "VKL_ERR_get_error"));
    EXPECT_EQ(VKLTest_CallCount("VKL_RAND_seed"), 0u);
}

TEST_F(ContextTest, RealKnownAnswerFailureReachesTheReport) {
    VKLTest_FailCall("VKL_SelfTest/DES-CBC", 0, 1, 0);
    CZulCryptContext context;
    EXPECT_FALSE(context.GetStatus());
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre("MAJOR: VKL ERROR, MINOR: LIBRARY VERIFICATION FAILED, "
                                                       "DESC:Self-test failed: DES-CBC known-answer test"));
}

TEST_F(ContextTest, FailingSeedGenerationLeavesVklUnseeded) {
    VKLTest_SetStatus("VKL_GenerateRandomSeed", 4, 14, "getrandom: no entropy");
    CZulCryptContext context;
    EXPECT_FALSE(context.GetStatus());
    EXPECT_THAT(diagnostics->ErrorTexts(),
                ElementsAre("MAJOR: VKL OS ERROR, MINOR: UNABLE TO SET VALUE, DESC:getrandom: no entropy"));
    EXPECT_EQ(VKLTest_CallCount("VKL_RAND_seed"), 0u);
}

TEST_F(ContextTest, UnknownCodesInStartStatusAddTheirOwnReportsFirst) {
    VKLTest_SetStatus("VKL_GetStatus", 7, 13, "odd");
    CZulCryptContext context;
    EXPECT_THAT(diagnostics->ErrorTexts(),
                ElementsAre("Unsupported major VKL status error type.", "Unsupported minor VKL status error type.",
                            "MAJOR: UNKNOWN 7, MINOR: UNKNOWN 13, DESC:odd"));
}

TEST_F(ContextTest, StepsOnAContextWithoutVklSayOnlyTheirTrace) {
    WEXTest_SetGetContextResult(0);
    CZulCryptContext context;
    diagnostics->Clear();
    VKLTest_Reset();
    EXPECT_FALSE(context.SelfTest());
    EXPECT_FALSE(context.SetRandomSeed());
    std::string text = "kept";
    EXPECT_FALSE(context.CheckStatus(text));
    EXPECT_EQ(text, "kept");
    EXPECT_TRUE(diagnostics->errors.empty());
    EXPECT_THAT(diagnostics->TracesAt(3),
                ElementsAre("CZulCryptContext::SelfTest()\n", "CZulCryptContext::SetRandomSeed()\n"));
    EXPECT_EQ(VKLTest_CallLog(), std::string());
}

TEST_F(ContextTest, RealSelfTestAndSeedPassThroughTheStandIn) {
    // No forced records: the stand-in's own known-answer tests and getrandom run.
    CZulCryptContext context;
    ASSERT_TRUE(context.GetStatus());
    EXPECT_TRUE(context.SelfTest());
    EXPECT_TRUE(context.SetRandomSeed());
    std::string text;
    EXPECT_TRUE(context.CheckStatus(text));
    EXPECT_EQ(text, "");
}

TEST_F(ContextTest, InjectedSeedingFailureIsNotNoticed) {
    // VKL_RAND_seed's result is not examined: the context stays usable.
    VKLTest_FailCall("VKL_RAND_seed", 0, 1, 0);
    CZulCryptContext context;
    EXPECT_TRUE(context.GetStatus());
    EXPECT_EQ(VKLTest_CallCount("VKL_RAND_seed"), 1u);
}

}  // namespace
