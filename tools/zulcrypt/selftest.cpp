// zulcrypt selftest: builds a crypto context and says whether it is usable.
#include <ostream>
#include <string>
#include <vector>

#include <czulcryptcontext.h>
#include <wexcrypt.h>

#include "commands.h"
#include "reports.h"

namespace zulcrypt {

int SelfTestCommand(int argc, char**, Streams& io) {
    if (argc != 1) {
        io.err << "usage: zulcrypt selftest\n";
        return 2;
    }
    // The context reports what went wrong through the error callback; the
    // command shows those texts as the decoded status.
    std::vector<std::string> reports;
    bool usable = false;
    std::string version = "unknown (no VKL context)";
    {
        ErrorCapture capture;
        CZulCryptContext context;
        usable = context.GetStatus();
        if (context.GetContext() != nullptr) version = VKL_Version(context.GetContext()->m_pCtx);
        reports = capture.Texts();
    }

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
