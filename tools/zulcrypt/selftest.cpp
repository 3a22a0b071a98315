// zulcrypt selftest: builds a crypto context and says whether it is usable.
#include <ostream>
#include <string>
#include <vector>

#include <czulcryptcontext.h>
#include <wexcrypt.h>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "reports.h"

namespace zulcrypt {

namespace {

int SelfTest(Streams& io) {
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

}  // namespace

void AddSelfTestCommand(CLI::App& app, Actions& actions) {
    CLI::App* sub = app.add_subcommand("selftest", "Build a crypto context and say whether it is usable.");
    sub->footer("Prints the context's state, the decoded status records, the host's FIPS mode and VKL's version;\n"
                "exits 0 only when the context is usable.");
    actions.emplace_back(sub, SelfTest);
}

}  // namespace zulcrypt
