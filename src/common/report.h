// Reporting shared by every class: each source file names itself once with
//   static constexpr char kZulFile[] = "czulcryptmdcontext";
// and reports through these, so file and line come out the same way everywhere.
#ifndef ZUL_REPORT_H
#define ZUL_REPORT_H

#include <string>

#include <czulcryptcontext.h>

#include "vkl_context.h"

namespace zul {

// Empties VKL's error queue. An entry left there would later be reported as the
// cause of an unrelated failure, so every failure that is not reported with VKL's
// text, and every report that took only the oldest entry, drains what is left.
// The bound only guards against a queue that never empties.
inline void DrainVklErrors(VKL_t* vkl) {
    if (vkl == nullptr) return;
    for (int i = 0; i < 64 && VKL_ERR_get_error(vkl) != 0; ++i) {
    }
}

inline void DrainVklErrors(CZulCryptContext& context) { DrainVklErrors(VklOf(context)); }

// For a VKL call whose failure changes nothing this library does (a re-init, a seed, a
// release that cannot be retried): its entry must not outlive it either.
inline void DropVklFailure(VKL_t* vkl, int result) {
    if (result != 1) DrainVklErrors(vkl);
}

// Reports the oldest entry of VKL's error queue as an error of file:line; the
// entries queued behind it by the same failure go with it.
inline void ReportVklError(CZulCryptContext& context, const char* file, unsigned int line) {
    std::string text;
    context.GetError(text);
    DrainVklErrors(context);
    CZulCryptContext::HandleError(file, line, text.c_str(), false);
}

}  // namespace zul

#define ZUL_REPORT(text) ::CZulCryptContext::HandleError(kZulFile, __LINE__, (text), false)
#define ZUL_REPORT_FATAL(text) ::CZulCryptContext::HandleError(kZulFile, __LINE__, (text), true)
#define ZUL_REPORT_VKL_ERROR(context) ::zul::ReportVklError((context), kZulFile, __LINE__)

#endif  // ZUL_REPORT_H
