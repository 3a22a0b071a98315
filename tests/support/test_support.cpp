#include "test_support.h"

#include "hex.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include <czulcryptcontext.h>
#include <vkl.h>
#include <vkl_testing.h>
#include <wexcrypt.h>
#include <wexcrypt_testing.h>

namespace zultest {
namespace {

Diagnostics* g_active = nullptr;

void OnError(const char* file, unsigned int line, const char* text, bool fatal) {
    if (g_active != nullptr) g_active->errors.push_back({file, line, text, fatal});
}

void OnDebug(const char* text, unsigned int level) {
    if (g_active != nullptr) g_active->traces.push_back({text, level});
}

}  // namespace

Diagnostics::Diagnostics() {
    g_active = this;
    CZulCryptContext::SetErrorResponseFn(OnError);
    CZulCryptContext::SetDebugResponseFn(OnDebug);
}

Diagnostics::~Diagnostics() {
    CZulCryptContext::SetErrorResponseFn(nullptr);
    CZulCryptContext::SetDebugResponseFn(nullptr);
    g_active = nullptr;
}

std::vector<std::string> Diagnostics::TracesAt(unsigned int level) const {
    std::vector<std::string> texts;
    for (const Trace& trace : traces) {
        if (trace.level == level) texts.push_back(trace.text);
    }
    return texts;
}

std::vector<std::string> Diagnostics::TakeErrors(const std::string& file) {
    std::vector<std::string> texts;
    for (const ErrorReport& report : errors) {
        EXPECT_EQ(report.file, file) << report.text;
        EXPECT_FALSE(report.fatal) << report.text;
        texts.push_back(report.text);
    }
    Clear();
    return texts;
}

void Diagnostics::Clear() {
    errors.clear();
    traces.clear();
}

void PlatformTest::SetUp() {
    // The process's VKL context is made on first request; make it now so that
    // its creation never shows in a test's call log.
    WEXTest_SetGetContextResult(-3);
    VKL_t* vkl = nullptr;
    WEXCryptGetContext(&vkl);
    VKLTest_Reset();
    WEXTest_SetSystemFips(0);
    CZulCryptContext::SetLogLevel(0);
    diagnostics = new Diagnostics;
    liveObjects = VKLTest_LiveObjects();
}

void PlatformTest::TearDown() {
    // Whatever a test did, no VKL failure may leave an entry for a later one to be blamed on.
    VKL_t* vkl = nullptr;
    WEXTest_SetGetContextResult(-3);
    WEXCryptGetContext(&vkl);
    EXPECT_EQ(TakeQueue(vkl), std::vector<std::string>{}) << "left on VKL's error queue";
    EXPECT_EQ(VKLTest_LiveObjects(), liveObjects) << "VKL handles left alive";
    delete diagnostics;
    diagnostics = nullptr;
    VKLTest_Reset();
    WEXTest_SetGetContextResult(-3);
    WEXTest_SetSystemFips(-1);
    CZulCryptContext::SetLogLevel(0);
}

void ContextTest::SetUp() {
    PlatformTest::SetUp();
    context = std::make_unique<CZulCryptContext>();
    ASSERT_TRUE(context->GetStatus());
    vkl = context->GetContext()->m_pCtx;
    TakeQueue(vkl);
    diagnostics->Clear();
}

void ContextTest::TearDown() {
    context.reset();
    PlatformTest::TearDown();
}

std::vector<std::string> TakeQueue(VKL_t* vkl) {
    std::vector<std::string> texts;
    for (unsigned long code; (code = VKL_ERR_get_error(vkl)) != 0;) {
        char text[512] = {};
        VKL_ERR_error_string_n(vkl, code, text, sizeof text);
        texts.emplace_back(text);
    }
    return texts;
}

std::string Hex(const unsigned char* data, size_t length) { return zulcrypt::ToHex(data, length); }

std::string Hex(const std::vector<unsigned char>& data) { return Hex(data.data(), data.size()); }

std::vector<unsigned char> FromHex(const std::string& hex) {
    std::vector<unsigned char> bytes;
    if (!zulcrypt::FromHex(hex, bytes)) throw std::invalid_argument("bad hex text '" + hex + "'");
    return bytes;
}

std::vector<std::string> CallLog() {
    std::vector<std::string> names;
    std::istringstream in(VKLTest_CallLog());
    for (std::string line; std::getline(in, line);) names.push_back(line);
    return names;
}

void InPieces(const std::vector<unsigned char>& data, const std::vector<size_t>& pieces,
              const std::function<void(const unsigned char*, size_t)>& feed) {
    size_t at = 0;
    for (size_t i = 0; at < data.size(); ++i) {
        const size_t length = std::min(pieces[i % pieces.size()], data.size() - at);
        feed(data.data() + at, length);
        at += length;
    }
}

}  // namespace zultest
