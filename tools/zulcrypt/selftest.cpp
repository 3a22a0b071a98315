// zulcrypt selftest: builds a crypto context and says whether it is usable.
#include <ostream>
#include <string>
#include <vector>

#include <czulcryptcontext.h>
#include <wexcrypt.h>

#include "commands.h"

namespace zulcrypt {
namespace {

std::vector<std::string>* g_reports = nullptr;

void CollectError(const char*, unsigned int, const char* text, bool) {
    if (g_reports != nullptr) g_reports->emplace_back(text);
}

}  // namespace

int SelfTestCommand(int argc, char**, Streams& io) {
    if (argc != 1) {
        io.err << "usage: zulcrypt selftest\n";
        return 2;
    }
    // The context reports what went wrong through the error callback; the
    // command shows those texts as the decoded status.
    std::vector<std::string> reports;
    g_reports = &reports;
    auto* previous = CZulCryptContext::m_ErrorResponseFn;
    CZulCryptContext::SetErrorResponseFn(CollectError);
    bool usable = false;
    std::string version = "unknown (no VKL context)";
    {
        CZulCryptContext context;
        usable = context.GetStatus();
        if (context.GetContext() != nullptr) version = VKL_Version(context.GetContext()->m_pCtx);
    }
    CZulCryptContext::SetErrorResponseFn(previous);
    g_reports = nullptr;

    io.out << "context: " << (usable ? "usable" : "NOT usable") << '\n';
    if (reports.empty()) {
        io.out << "status: clean\n";
    } else {
        for (const std::string& report : reports) io.out << "status: " << report << '\n';
    }
    io.out << "fips mode: " << (WEXUTILSIsSystemFips() == 1 ? "yes" : "no") << '\n';
    io.out << "vkl: " << version << '\n';
    return usable ? 0 : 1;
}

}  // namespace zulcrypt
