// Traces that carry values are composed only when someone will see them:
// composing costs more than hashing a short message.
#ifndef ZUL_TRACE_H
#define ZUL_TRACE_H

#include <czulcryptcontext.h>

namespace zul {

// Whether HandleDebug would pass a trace of this level on.
inline bool TraceWanted(unsigned int level) {
    return CZulCryptContext::m_DebugResponseFn != nullptr || level <= CZulCryptContext::m_LogLevel;
}

}  // namespace zul

#endif  // ZUL_TRACE_H
