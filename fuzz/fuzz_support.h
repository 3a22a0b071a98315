// What every fuzz target sets up once: silent reports (a refused input is
// expected, not news) and one crypto context kept for the whole run.
#ifndef ZUL_FUZZ_SUPPORT_H
#define ZUL_FUZZ_SUPPORT_H

#include <czulcryptcontext.h>

namespace zulfuzz {

inline void QuietError(const char*, unsigned int, const char*, bool) {}
inline void QuietTrace(const char*, unsigned int) {}

inline void SilenceReports() {
    CZulCryptContext::SetErrorResponseFn(QuietError);
    CZulCryptContext::SetDebugResponseFn(QuietTrace);
}

// Never released: the fuzzer ends the process, and a context per input would
// cost more than the code under test.
inline CZulCryptContext& Context() {
    static CZulCryptContext* context = [] {
        SilenceReports();
        return new CZulCryptContext;
    }();
    return *context;
}

}  // namespace zulfuzz

#endif  // ZUL_FUZZ_SUPPORT_H
