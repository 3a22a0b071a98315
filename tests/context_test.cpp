// The crypto context: start-up (tests/data/context_scripts.vec), status decoding,
// the error and trace channels, the hex dump and the FIPS lists.
#include <cstring>

#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl_testing.h>
#include <wexcrypt.h>

#include "script.h"
#include "test_support.h"

using namespace testing::internal;

namespace {

using zultest::Args;
using zultest::Ok;
class ContextTest : public zultest::ContextTest {};

zultest::Calls ContextCalls(CZulCryptContext& given) {
    auto made = std::make_shared<std::unique_ptr<CZulCryptContext>>();
    auto context = [made, &given]() -> CZulCryptContext& { return *made ? **made : given; };
    return {
        {"New", [made](const Args&) { *made = std::make_unique<CZulCryptContext>(); return Ok(true); }},
        {"Status", [=](const Args&) { return Ok(context().GetStatus()); }},
        {"HasVkl", [=](const Args&) { return Ok(context().GetContext() != nullptr); }},
        {"SelfTest", [=](const Args&) { return Ok(context().SelfTest()); }},
        {"Seed", [=](const Args&) { return Ok(context().SetRandomSeed()); }},
        {"CheckStatus", [=](const Args&) { std::string t = "kept"; const bool ok = context().CheckStatus(t); return zultest::Text(t.c_str(), ok); }},
        {"GetError", [=](const Args&) { std::string t; context().GetError(t); return zultest::Text(t.c_str()); }},
        {"Rand", [=](const Args&) { unsigned char b[4]; return Ok(VKL_RAND_bytes(context().GetContext()->m_pCtx, b, 4) == 1); }},
        {"Override", [=](const Args& a) { context().SetIsNonFIPSAllowedInFIPS(a[0].Number() != 0); return Ok(true); }},
        {"Allowed", [=](const Args& a) {
             std::string name = a[1].Text();
             return Ok(context().CheckAlgorithmAllowed(static_cast<EZulCryptAlgorithmUsage>(a[0].Number()), a[1].IsNull() ? nullptr : name.c_str()));
         }},
    };
}

TEST_F(ContextTest, Scripts) { zultest::RunScripts("context_scripts.vec", ContextCalls); }

// Each major and minor text once, unknown codes (9, 13, -1, 5) after their report.
TEST_F(ContextTest, StatusDecoding) {
    const struct { int major, minor; const char* text; int reports; } rows[] = {
        {0, 0, "", 0}, {0, 1, "MAJOR: VKL OK, MINOR: UNSUPPORTED VALUE ID ", 0},
        {1, 7, "MAJOR: VKL WARNING, MINOR: VALUE NOT SET", 0}, {2, 0, "MAJOR: VKL ERROR, MINOR: NULL PARAMETER", 0},
        {3, 2, "MAJOR: VKL OPENSSL ERROR, MINOR: UNSUPPORTED VALUE", 0}, {4, 3, "MAJOR: VKL OS ERROR, MINOR: LIBRARY NOT FOUND", 0},
        {1, 4, "MAJOR: VKL WARNING, MINOR: LIBRARY VERIFICATION FAILED", 0}, {1, 5, "MAJOR: VKL WARNING, MINOR: INCOMPATIBLE LIBRARY", 0},
        {1, 6, "MAJOR: VKL WARNING, MINOR: INVALID STATE", 0}, {1, 8, "MAJOR: VKL WARNING, MINOR: VALUE TRUNCATED", 0},
        {2, 10, "MAJOR: VKL ERROR, MINOR: NOT INITIALISED", 0}, {2, 11, "MAJOR: VKL ERROR, MINOR: DISABLED", 0},
        {2, 12, "MAJOR: VKL ERROR, MINOR: MEMORY FUNCTIONS ISSUE", 0}, {2, 14, "MAJOR: VKL ERROR, MINOR: UNABLE TO SET VALUE", 0},
        {2, 9, "MAJOR: VKL ERROR, MINOR: UNKNOWN 9", 1}, {2, 13, "MAJOR: VKL ERROR, MINOR: UNKNOWN 13", 1},
        {5, -1, "MAJOR: UNKNOWN 5, MINOR: UNKNOWN -1", 2}, {-1, 6, "MAJOR: UNKNOWN -1, MINOR: INVALID STATE", 1},
    };
    for (const auto& row : rows) {
        C_VKL_STATUS_Wrap status;
        std::memset(&status, 0, sizeof status);
        status.major = row.major, status.minor = row.minor;
        std::strcpy(status.description, "d");
        std::string text = "was:";
        EXPECT_EQ(context->GetStatus(&status, text), row.text[0] == 0);
        EXPECT_EQ(text, row.text[0] == 0 ? "was:" : std::string("was:") + row.text + ", DESC:d");
        EXPECT_EQ(diagnostics->TakeErrors("czulcryptcontext").size(), static_cast<size_t>(row.reports)) << row.text;
    }
    std::string text = "a";
    EXPECT_FALSE(context->GetStatus(nullptr, text));
    EXPECT_EQ(text, "aNULL Status object.");
}

TEST_F(ContextTest, FipsLists) {
    const struct { int usage; const char* name; bool fips; } rows[] = {
        {0, "DESX-CBC", true}, {0, "AESX", true}, {0, "RSA-SHA1-2", true}, {0, "des-cbc", false}, {0, "DE", false},
        {0, "SHA1", false}, {1, "RSA-SHA1-2", false}, {1, "SHA1", true}, {2, "RSA-SHA1", true}, {3, "RSA-MD5", true},
        {1, "DH", true}, {2, "DSA", true}, {1, "SHA256", false}, {1, "SHA1X", false}, {4, "SHA1", false}, {-1, "AES", false},
    };
    for (const auto& row : rows) EXPECT_EQ(context->IsAlgorithmFIPS(static_cast<EZulCryptAlgorithmUsage>(row.usage), row.name), row.fips) << row.name;
    EXPECT_FALSE(context->IsAlgorithmFIPS(eZulCryptUsageCipher, nullptr));
}

// Without callbacks: errors to standard error, traces up to the log level to standard output.
TEST_F(ContextTest, DefaultChannels) {
    CZulCryptContext::SetErrorResponseFn(nullptr);
    CZulCryptContext::SetDebugResponseFn(nullptr);
    CaptureStderr();
    CZulCryptContext::HandleError("somefile", 42, "broke", false);
    CZulCryptContext::HandleError(nullptr, 1, nullptr, false);
    CZulCryptContext::HandleError("f", 2, "after", false);
    EXPECT_EQ(GetCapturedStderr(), "FILE:somefile LINE:42 DESC:broke\nFILE:(null) LINE:1 DESC:(null)\nFILE:f LINE:2 DESC:after\n");
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
