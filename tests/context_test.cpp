// The crypto context: start-up (tests/data/context_scripts.vec), status decoding,
// the error and trace channels, the hex dump and the FIPS lists.
#include <cstring>

#include <czulcryptcontext.h>
#include <vkl_testing.h>

#include "script.h"
#include "test_support.h"

using namespace testing::internal;

namespace zultest {
namespace {

class ContextTest : public zultest::ContextTest {};

TEST_F(ContextTest, Scripts) {
    // Calls on the case's context, or on one made by New.
    RunScripts("context_scripts.vec", [](CZulCryptContext& given) -> Calls {
        auto made = std::make_shared<std::unique_ptr<CZulCryptContext>>();
        CZulCryptContext* on = &given;
        auto c = [=]() -> CZulCryptContext& { return *made ? **made : *on; };
        return {ZUL_CALL("New", (*made = std::make_unique<CZulCryptContext>(), Ok(true))), ZUL_CALL("Status", Ok(c().GetStatus())),
                ZUL_CALL("HasVkl", Ok(c().GetContext() != nullptr)), ZUL_CALL("SelfTest", Ok(c().SelfTest())), ZUL_CALL("Seed", Ok(c().SetRandomSeed())),
                ZUL_CALL("CheckStatus", [&] { std::string t = "kept"; const bool ok = c().CheckStatus(t); return Text(t.c_str(), ok); }()),
                ZUL_CALL("GetError", [&] { std::string t; c().GetError(t); return Text(t.c_str()); }()),
                ZUL_CALL("Rand", [&] { unsigned char b[4]; return Ok(VKL_RAND_bytes(c().GetContext()->m_pCtx, b, 4) == 1); }()),
                ZUL_CALL("Override", (c().SetIsNonFIPSAllowedInFIPS(a[0].Number() != 0), Ok(true))),
                ZUL_CALL("Allowed", Ok(c().CheckAlgorithmAllowed(static_cast<EZulCryptAlgorithmUsage>(a[0].Number()), a[1].IsNull() ? nullptr : a[1].Text().c_str())))};
    });
}

// Each major and minor text once; unknown codes (9, 13, -1, 5) decode after their report.
TEST_F(ContextTest, StatusDecoding) {
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
}

TEST_F(ContextTest, FipsLists) {
    const struct { int usage; const char* name; bool fips; } rows[] = {
        {0, "DESX-CBC", true}, {0, "AESX", true}, {0, "RSA-SHA1-2", true}, {0, "des-cbc", false}, {0, "DE", false},
        {0, "SHA1", false}, {1, "RSA-SHA1-2", false}, {1, "SHA1", true}, {2, "RSA-SHA1", true}, {3, "RSA-MD5", true},
        {1, "DH", true}, {2, "DSA", true}, {1, "SHA256", false}, {1, "SHA1X", false}, {4, "SHA1", false}, {-1, "AES", false}};
    for (const auto& row : rows) EXPECT_EQ(context->IsAlgorithmFIPS(static_cast<EZulCryptAlgorithmUsage>(row.usage), row.name), row.fips) << row.name;
    EXPECT_FALSE(context->IsAlgorithmFIPS(eZulCryptUsageCipher, nullptr));
}

// Without callbacks: errors to standard error, traces up to the log level to standard output, the caller's stream format kept.
TEST_F(ContextTest, DefaultChannels) {
    CZulCryptContext::SetErrorResponseFn(nullptr);
    CZulCryptContext::SetDebugResponseFn(nullptr);
    CaptureStderr();
    CZulCryptContext::HandleError("file", 42, "broke", false);
    EXPECT_EQ(GetCapturedStderr(), "FILE:file LINE:42 DESC:broke\n");
    CZulCryptContext::SetLogLevel(3);
    CaptureStdout();
    CZulCryptContext::HandleDebug("three\n", 3);
    CZulCryptContext::HandleDebug("four\n", 4);
    CZulCryptContext::PrintData(nullptr, 0);
    CZulCryptContext::PrintData(reinterpret_cast<const unsigned char*>("\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10"), 17);
    std::cout << 255 << '\n';
    EXPECT_EQ(GetCapturedStdout(), "three\n\nNULL\n    00-01-02-03-04-05-06-07___08-09-0A-0B-0C-0D-0E-0F\n"
                                   "00  00 01 02 03 04 05 06 07   08 09 0a 0b 0c 0d 0e 0f \n01  10 \n255\n");
    CZulCryptContext::SetLogLevel(0);
}

void ToStderr(const char* file, unsigned int line, const char* text, bool fatal) { std::fprintf(stderr, "cb %s %u %s %d\n", file, line, text, fatal); }

TEST(ContextDeathTest, FatalErrorExitsWith255AfterReporting) {
    CZulCryptContext::SetErrorResponseFn(nullptr);
    EXPECT_EXIT(CZulCryptContext::HandleError("f", 7, "the end", true), ::testing::ExitedWithCode(255), "FILE:f LINE:7 DESC:the end");
    CZulCryptContext::SetErrorResponseFn(ToStderr);
    EXPECT_EXIT(CZulCryptContext::HandleError("f", 8, "cb", true), ::testing::ExitedWithCode(255), "cb f 8 cb 1");
    CZulCryptContext::SetErrorResponseFn(nullptr);
}

}  // namespace
}  // namespace zultest
