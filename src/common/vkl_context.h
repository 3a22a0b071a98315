// The VKL context behind a crypto context. A context whose VKL did not start
// has none; objects made from it must refuse rather than reach through it.
#ifndef ZUL_VKL_CONTEXT_H
#define ZUL_VKL_CONTEXT_H

#include <czulcryptcontext.h>

namespace zul {

// The context's VKL context, or null when it has none.
inline VKL_t* VklOf(CZulCryptContext& context) {
    C_VKL_CTX_Wrap* holder = context.GetContext();
    return holder != nullptr ? holder->m_pCtx : nullptr;
}

// As VklOf; a missing VKL context is reported as an error of file:line.
inline VKL_t* VklOrReport(CZulCryptContext& context, const char* file, unsigned int line) {
    VKL_t* vkl = VklOf(context);
    if (vkl == nullptr) CZulCryptContext::HandleError(file, line, "VKL Context in an invalid state", false);
    return vkl;
}

}  // namespace zul

// For files that name themselves in kZulFile (report.h).
#define ZUL_VKL_OR_REPORT(context) ::zul::VklOrReport((context), kZulFile, __LINE__)

#endif  // ZUL_VKL_CONTEXT_H
