// The crypto context: start-up (tests/data/context_scripts.vec), status decoding,
// the error and trace channels, the hex dump and the FIPS lists.
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "script.h"
#include "test_support.h"

using namespace testing::internal;
using C = CZulCryptContext;

namespace zultest {

TEST_F(ContextTest, Scripts) {
    // Calls on the case's context, or on one made by New.
    RunScripts("context_scripts.vec", [](C& given) -> Calls {
        auto made = std::make_shared<std::unique_ptr<C>>();
        C* on = &given;
        auto c = [=]() -> C& { return *made ? **made : *on; };
        return {ZUL_CALL("New", (*made = std::make_unique<C>(), Ok(true))), ZUL_CALL("Status", Ok(c().GetStatus())),
                ZUL_CALL("HasVkl", Ok(c().GetContext() != nullptr)), ZUL_CALL("SelfTest", Ok(c().SelfTest())), ZUL_CALL("Seed", Ok(c().SetRandomSeed())),
                ZUL_CALL("Check", (Ok(c().CheckStatus(*std::make_unique<std::string>()))))};
    });
}

// Each major and minor text once; unknown codes (9, 13, -1, 5) decode after their report.
TEST_F(ContextTest, StatusAndErrorTexts) {
    const char* majors[] = {"UNKNOWN -1", "VKL OK", "VKL WARNING", "VKL ERROR", "VKL OPENSSL ERROR", "VKL OS ERROR", "UNKNOWN 5"};
    const char* minors[] = {"NULL PARAMETER", "UNSUPPORTED VALUE ID ", "UNSUPPORTED VALUE", "LIBRARY NOT FOUND", "LIBRARY VERIFICATION FAILED",
                            "INCOMPATIBLE LIBRARY", "INVALID STATE", "VALUE NOT SET", "VALUE TRUNCATED", "UNKNOWN 9", "NOT INITIALISED",
                            "DISABLED", "MEMORY FUNCTIONS ISSUE", "UNKNOWN 13", "UNABLE TO SET VALUE"};
    for (int minor = -1; minor < 15; ++minor) {
        C_VKL_STATUS_Wrap status = {(minor + 2) % 7 - 1, minor, "d"};
        std::string text = "was:", major = majors[status.major + 1];
        EXPECT_FALSE(context->GetStatus(&status, text));
        EXPECT_EQ(text, "was:MAJOR: " + major + ", MINOR: " + (minor < 0 ? "UNKNOWN -1" : minors[minor]) + ", DESC:d");
        EXPECT_EQ(diagnostics->TakeErrors("czulcryptcontext").size(), (status.major < 0 || status.major > 4) + (minor < 0 || minor == 9 || minor == 13) * 1u) << text;
    }
    C_VKL_STATUS_Wrap clean = {0, 0, "d"};
    std::string text = "a";
    EXPECT_TRUE(context->GetStatus(&clean, text) && text == "a");
    EXPECT_FALSE(context->GetStatus(nullptr, text));
    EXPECT_EQ(text, "aNULL Status object.");
    EXPECT_EQ(diagnostics->TracesAt(4), std::vector<std::string>(2, "CZulCryptContext::GetStatus()\n"));
    // GetError takes one queue entry per call, oldest first, and adds nothing when the queue is empty.
    diagnostics->Clear();
    unsigned char b[1];
    VKLTest_FailCall("VKL_RAND_bytes", 0, 2, 0);
    text = std::to_string(VKL_RAND_bytes(vkl, b, 1) + VKL_RAND_bytes(vkl, b, 1));
    context->GetError(text), context->GetError(text), context->GetError(text);
    EXPECT_EQ(text, "0VKL_RAND_bytes: injected failureVKL_RAND_bytes: injected failure");
    EXPECT_EQ(diagnostics->TracesAt(4), std::vector<std::string>(3, "CZulCryptContext::GetError()\n"));
}

// Off a FIPS host all is allowed silently; on one a name off the list is reported, then the override decides.
TEST_F(ContextTest, FipsPolicy) {
    EXPECT_FALSE(context->CheckAlgorithmAllowed(eZulCryptUsageDigest, nullptr));
    WEXTest_SetSystemFips(1);
    EXPECT_TRUE(context->CheckAlgorithmAllowed(eZulCryptUsageDigest, "SHA1") && context->CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD5"));
    context->SetIsNonFIPSAllowedInFIPS(false);
    EXPECT_FALSE(context->CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD5"));
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptcontext"), std::vector<std::string>(2, "Non FIPS algorithm MD5 called in a FIPS context.\n"));
    const struct { int usage; const char* name; bool fips; } rows[] = {
        {0, "DESX-CBC", true}, {0, "AESX", true}, {0, "RSA-SHA1-2", true}, {0, "des-cbc", false}, {0, "SHA1", false}, {1, "RSA-SHA1-2", false},
        {1, "SHA1", true}, {2, "RSA-SHA1", true}, {3, "RSA-MD5", true}, {1, "DH", true}, {2, "DSA", true}, {1, "SHA1X", false}, {4, "SHA1", false}, {-1, "AES", false}};
    for (const auto& row : rows) EXPECT_EQ(context->IsAlgorithmFIPS(static_cast<EZulCryptAlgorithmUsage>(row.usage), row.name), row.fips) << row.name;
    EXPECT_FALSE(context->IsAlgorithmFIPS(eZulCryptUsageCipher, nullptr));
}

// Without callbacks: errors to standard error, traces up to the log level (not above) to standard output, the caller's stream format kept.
TEST_F(ContextTest, DefaultChannels) {
    C::SetErrorResponseFn(nullptr);
    C::SetDebugResponseFn(nullptr);
    CaptureStderr();
    C::HandleError("file", 42, "broke", false);
    EXPECT_EQ(GetCapturedStderr(), "FILE:file LINE:42 DESC:broke\n");
    C::SetLogLevel(3);
    CaptureStdout();
    C::HandleDebug("three\n", 3);
    unsigned char bytes[17];
    for (unsigned char i = 0; i < 17; ++i) bytes[i] = i;
    C::PrintData(nullptr, 17), C::PrintData(bytes, 0), C::PrintData(bytes, 17);
    std::cout << 255 << '\n';
    EXPECT_EQ(GetCapturedStdout(), "three\n\nNULL\nNULL\n    00-01-02-03-04-05-06-07___08-09-0A-0B-0C-0D-0E-0F\n"
                                   "00  00 01 02 03 04 05 06 07   08 09 0a 0b 0c 0d 0e 0f \n01  10 \n255\n");
    C::SetLogLevel(0);
}

TEST(ContextDeathTest, FatalErrorExitsWith255AfterReporting) {
    C::SetErrorResponseFn([](const char* f, unsigned int l, const char* t, bool x) { std::fprintf(stderr, "cb %s %u %s %d\n", f, l, t, x); });
    EXPECT_EXIT(C::HandleError("f", 8, "cb", true), ::testing::ExitedWithCode(255), "cb f 8 cb 1");
    C::SetErrorResponseFn(nullptr);
}

}  // namespace zultest
