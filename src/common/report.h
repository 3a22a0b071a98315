// Reporting shared by every class: each source file names itself once with
//   static constexpr char kZulFile[] = "czulcryptmdcontext";
// and reports through these, so file and line come out the same way everywhere.
#ifndef ZUL_REPORT_H
#define ZUL_REPORT_H

#include <string>

#include <czulcryptcontext.h>

namespace zul {

// Reports the oldest entry of VKL's error queue as an error of file:line.
inline void ReportVklError(CZulCryptContext& context, const char* file, unsigned int line) {
    std::string text;
    context.GetError(text);
    CZulCryptContext::HandleError(file, line, text.c_str(), false);
}

}  // namespace zul

#define ZUL_REPORT(text) ::CZulCryptContext::HandleError(kZulFile, __LINE__, (text), false)
#define ZUL_REPORT_FATAL(text) ::CZulCryptContext::HandleError(kZulFile, __LINE__, (text), true)
#define ZUL_REPORT_VKL_ERROR(context) ::zul::ReportVklError((context), kZulFile, __LINE__)

#endif  // ZUL_REPORT_H
