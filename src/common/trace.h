// Traces that carry values are composed only when someone will see them:
// composing costs more than hashing a short message.
#ifndef ZUL_TRACE_H
#define ZUL_TRACE_H

#include <czulcryptcontext.h>

#include <ostream>
#include <sstream>

namespace zul {

// Whether HandleDebug would pass a trace of this level on.
inline bool TraceWanted(unsigned int level) {
    return CZulCryptContext::m_DebugResponseFn != nullptr || level <= CZulCryptContext::m_LogLevel;
}

// Passes the trace `write` composes onto a stream to HandleDebug at `level`; composes
// it only when someone will see it.
template <class Write>
void Trace(unsigned int level, const Write& write) {
    if (!TraceWanted(level)) return;
    std::ostringstream text;
    write(text);
    CZulCryptContext::HandleDebug(text.str().c_str(), level);
}

inline const char* OrNull(const char* text) { return text != nullptr ? text : "NULL"; }

}  // namespace zul

#endif  // ZUL_TRACE_H
