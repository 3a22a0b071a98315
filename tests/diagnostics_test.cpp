// Diagnostics: status decoding, the error and trace channels, the VKL error
// queue and the hex dump.
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

namespace {

class DiagnosticsTest : public zultest::PlatformTest {
protected:
    // The default channels: no callbacks.
    void UseStandardStreams() {
        CZulCryptContext::SetDebugResponseFn(nullptr);
        CZulCryptContext::SetErrorResponseFn(nullptr);
    }
};

TEST_F(DiagnosticsTest, StatusRecordsDecodeAsTheTablesSay) {
    CZulCryptContext context;
    for (const zultest::VectorCase& vector : zultest::ReadVectors("status.vec")) {
        SCOPED_TRACE(vector.Where());
        C_VKL_STATUS_Wrap status;
        std::memset(&status, 0, sizeof status);
        status.major = static_cast<int32_t>(vector.Number("Major"));
        status.minor = static_cast<int32_t>(vector.Number("Minor"));
        std::string description = vector.Text("Desc");
        std::strncpy(status.description, description.c_str(), sizeof status.description - 1);
        diagnostics->Clear();

        const std::string before = vector.Number("Clean") ? "already here" : "";
        std::string text = before;
        EXPECT_EQ(context.GetStatus(&status, text), vector.Number("Clean") == 1);
        EXPECT_EQ(text, vector.Number("Clean") ? before : vector.Text("Out"));
        EXPECT_EQ(diagnostics->errors.size(), static_cast<size_t>(vector.Number("Reports")));
        EXPECT_THAT(diagnostics->TracesAt(4), ElementsAre("CZulCryptContext::GetStatus()\n"));
    }
}

TEST_F(DiagnosticsTest, UnknownCodesAreReportedBeforeTheDecodedText) {
    CZulCryptContext context;
    C_VKL_STATUS_Wrap status;
    std::memset(&status, 0, sizeof status);
    status.major = 5;
    status.minor = 9;
    std::string text = "prefix:";
    EXPECT_FALSE(context.GetStatus(&status, text));
    EXPECT_EQ(text, "prefix:MAJOR: UNKNOWN 5, MINOR: UNKNOWN 9, DESC:");
    ASSERT_EQ(diagnostics->errors.size(), 2u);
    EXPECT_EQ(diagnostics->errors[0].text, "Unsupported major VKL status error type.");
    EXPECT_EQ(diagnostics->errors[1].text, "Unsupported minor VKL status error type.");
    for (const zultest::ErrorReport& report : diagnostics->errors) {
        EXPECT_EQ(report.file, "czulcryptcontext");
        EXPECT_GT(report.line, 0u);
        EXPECT_FALSE(report.fatal);
    }
    EXPECT_NE(diagnostics->errors[0].line, diagnostics->errors[1].line);
}

TEST_F(DiagnosticsTest, NullRecordAppendsItsTextWithoutReport) {
    CZulCryptContext context;
    std::string text = "a";
    EXPECT_FALSE(context.GetStatus(nullptr, text));
    EXPECT_EQ(text, "aNULL Status object.");
    EXPECT_TRUE(diagnostics->errors.empty());
}

TEST_F(DiagnosticsTest, GetErrorTakesOneEntryPerCallOldestFirst) {
    CZulCryptContext context;
    VKL_t* vkl = context.GetContext()->m_pCtx;
    VKLTest_FailCall("VKL_RAND_bytes", 0, 1, 0);
    unsigned char out[4];
    EXPECT_EQ(VKL_RAND_bytes(vkl, out, sizeof out), 0);
    EXPECT_EQ(VKL_RAND_seed(vkl, nullptr, 8), 0);
    diagnostics->Clear();

    std::string first, second, third = "unchanged";
    context.GetError(first);
    context.GetError(second);
    context.GetError(third);
    EXPECT_EQ(first, "VKL_RAND_bytes: injected failure");
    EXPECT_EQ(second, "VKL_RAND_seed: no context or seed");
    EXPECT_EQ(third, "unchanged");
    EXPECT_THAT(diagnostics->TracesAt(4), ElementsAre("CZulCryptContext::GetError()\n", "CZulCryptContext::GetError()\n",
                                                      "CZulCryptContext::GetError()\n"));
}

TEST_F(DiagnosticsTest, ErrorsGoToStandardErrorWithoutCallback) {
    UseStandardStreams();
    CaptureStderr();
    CaptureStdout();
    CZulCryptContext::HandleError("somefile", 42, "something broke", false);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "FILE:somefile LINE:42 DESC:something broke\n");
}

// A null file or text must not put the stream into a failed state that would
// swallow every later report.
TEST_F(DiagnosticsTest, NullTextsPrintAsNullAndLaterReportsStillShow) {
    UseStandardStreams();
    CaptureStderr();
    CaptureStdout();
    CZulCryptContext::HandleError(nullptr, 1, nullptr, false);
    CZulCryptContext::HandleError("f", 2, "after", false);
    CZulCryptContext::HandleDebug(nullptr, 0);
    CZulCryptContext::HandleDebug("after", 0);
    EXPECT_EQ(GetCapturedStdout(), "(null)\nafter\n");
    EXPECT_EQ(GetCapturedStderr(), "FILE:(null) LINE:1 DESC:(null)\nFILE:f LINE:2 DESC:after\n");
}

TEST_F(DiagnosticsTest, TracesAreFilteredByLevelWithoutCallback) {
    UseStandardStreams();
    CZulCryptContext::SetLogLevel(3);
    CaptureStdout();
    CZulCryptContext::HandleDebug("at three\n", 3);
    CZulCryptContext::HandleDebug("at four\n", 4);
    CZulCryptContext::HandleDebug("at zero", 0);
    EXPECT_EQ(GetCapturedStdout(), "at three\n\nat zero\n");

    CZulCryptContext::SetLogLevel(0);
    CaptureStdout();
    CZulCryptContext::HandleDebug("hidden", 1);
    CZulCryptContext::HandleDebug("shown", 0);
    EXPECT_EQ(GetCapturedStdout(), "shown\n");
}

TEST_F(DiagnosticsTest, TraceCallbackReceivesEveryLevel) {
    CZulCryptContext::SetLogLevel(0);
    CaptureStdout();
    CZulCryptContext::HandleDebug("deep", 4);
    EXPECT_EQ(GetCapturedStdout(), "");
    ASSERT_EQ(diagnostics->traces.size(), 1u);
    EXPECT_EQ(diagnostics->traces[0].text, "deep");
    EXPECT_EQ(diagnostics->traces[0].level, 4u);
}

TEST_F(DiagnosticsTest, DefaultsWriteNothingToStandardOutputForALifeCycle) {
    UseStandardStreams();
    CaptureStdout();
    CaptureStderr();
    { CZulCryptContext context; }
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "");
}

void ReportToStderr(const char* file, unsigned int line, const char* text, bool fatal) {
    std::fprintf(stderr, "callback %s %u %s %d\n", file, line, text, fatal ? 1 : 0);
}

TEST(DiagnosticsDeathTest, FatalErrorExitsWith255AfterReporting) {
    EXPECT_EXIT(
        {
            CZulCryptContext::SetErrorResponseFn(nullptr);
            CZulCryptContext::HandleError("f", 7, "the end", true);
        },
        ExitedWithCode(255), "FILE:f LINE:7 DESC:the end");
    EXPECT_EXIT(
        {
            CZulCryptContext::SetErrorResponseFn(ReportToStderr);
            CZulCryptContext::HandleError("f", 8, "via callback", true);
        },
        ExitedWithCode(255), "callback f 8 via callback 1");
}

std::string Dump(const std::vector<unsigned char>& data) {
    CaptureStdout();
    CZulCryptContext::PrintData(data.empty() ? nullptr : data.data(), static_cast<unsigned int>(data.size()));
    return GetCapturedStdout();
}

std::vector<unsigned char> Counting(size_t length) {
    std::vector<unsigned char> data(length);
    for (size_t i = 0; i < length; ++i) data[i] = static_cast<unsigned char>(i);
    return data;
}

const char kHeader[] = "    00-01-02-03-04-05-06-07___08-09-0A-0B-0C-0D-0E-0F\n";

TEST_F(DiagnosticsTest, PrintDataRows) {
    EXPECT_EQ(Dump({}), "NULL\n");
    CaptureStdout();
    CZulCryptContext::PrintData(reinterpret_cast<const unsigned char*>("x"), 0);
    EXPECT_EQ(GetCapturedStdout(), "NULL\n");

    EXPECT_EQ(Dump(Counting(16)),
              std::string(kHeader) + "00  00 01 02 03 04 05 06 07   08 09 0a 0b 0c 0d 0e 0f \n");
    EXPECT_EQ(Dump(Counting(17)),
              std::string(kHeader) + "00  00 01 02 03 04 05 06 07   08 09 0a 0b 0c 0d 0e 0f \n01  10 \n");
    EXPECT_EQ(Dump({0xAB, 0xCD}), std::string(kHeader) + "00  ab cd \n");
}

TEST_F(DiagnosticsTest, PrintDataLabelsRowsByNumberAndLeavesStreamDecimal) {
    std::istringstream lines(Dump(Counting(300)));
    std::vector<std::string> rows;
    for (std::string line; std::getline(lines, line);) rows.push_back(line);
    ASSERT_EQ(rows.size(), 1u + 19u);  // header and ceil(300 / 16) rows
    EXPECT_EQ(rows[16].substr(0, 4), "0f  ");
    EXPECT_EQ(rows[17].substr(0, 4), "10  ");
    EXPECT_EQ(rows[19], "12  20 21 22 23 24 25 26 27   28 29 2a 2b ");

    std::istringstream big(Dump(std::vector<unsigned char>(16 * 257, 0xff)));
    std::string line, last;
    while (std::getline(big, line)) last = line;
    EXPECT_EQ(last.substr(0, 5), "100  ");

    CaptureStdout();
    std::cout << 255 << std::endl;
    EXPECT_EQ(GetCapturedStdout(), "255\n");
}

// Flags the application left on the stream neither shift the dump nor are lost.
TEST_F(DiagnosticsTest, PrintDataKeepsTheCallersStreamFormat) {
    std::cout << std::left << std::uppercase;
    const std::string dump = Dump(Counting(17));
    const std::ios_base::fmtflags after = std::cout.flags();
    std::cout << std::right << std::nouppercase;
    EXPECT_EQ(dump, std::string(kHeader) + "00  00 01 02 03 04 05 06 07   08 09 0a 0b 0c 0d 0e 0f \n01  10 \n");
    EXPECT_EQ(after & (std::ios_base::left | std::ios_base::uppercase | std::ios_base::basefield),
              std::ios_base::left | std::ios_base::uppercase | std::ios_base::dec);
}

}  // namespace
