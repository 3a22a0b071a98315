#include "reports.h"

#include <czulcryptcontext.h>

namespace zulcrypt {
namespace {

ErrorCapture* g_active = nullptr;

}  // namespace

ErrorCapture::ErrorCapture() : m_previous(CZulCryptContext::m_ErrorResponseFn) {
    g_active = this;
    CZulCryptContext::SetErrorResponseFn(Collect);
}

ErrorCapture::~ErrorCapture() {
    CZulCryptContext::SetErrorResponseFn(m_previous);
    g_active = nullptr;
}

void ErrorCapture::Collect(const char*, unsigned int, const char* text, bool) {
    if (g_active != nullptr) g_active->m_texts.emplace_back(text);
}

}  // namespace zulcrypt
