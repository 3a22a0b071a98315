#include "commands.h"

#include <algorithm>
#include <cctype>
#include <ostream>

#include <CLI/CLI.hpp>

#include "secret.h"

namespace zulcrypt {
namespace {

const char kFooter[] = R"(Exit status:
  0  success
  1  the cryptography failed; the library's reports follow on standard error
  2  bad usage: an unknown command or option, a refused value, bad hex, an unreadable file

Examples:
  zulcrypt usm-keys --password-file pw.txt --engine-id 800000020109840301 --auth SHA256 --priv AES-128
  zulcrypt digest SHA256 file.bin
  zulcrypt enc AES-128-CBC 2b7e151628aed2a6abf7158809cf4f3c 000102030405060708090a0b0c0d0e0f in.bin in.bin.enc

Run 'zulcrypt COMMAND --help' for a command's arguments and options.)";

// The parsed words may hold keys and passwords. Copies the parser made and
// dropped along the way are out of reach; a secret typed on the command line
// is visible to ps anyway, which is why the files and the prompt exist.
void WipeResults(const CLI::App& app) {
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& word : option->results()) Wipe(const_cast<std::string&>(word));
    }
    for (const CLI::App* sub : app.get_subcommands({})) WipeResults(*sub);
}

}  // namespace

const char* DigestList(bool snmpOnly) {
    return snmpOnly ? "MD5, SHA1, SHA224, SHA256, SHA384 or SHA512 (also SHA, SHA-1, SHA-256, ...), in any case"
                    : "MD5, SHA1, SHA224, SHA256, SHA384, SHA512, SHA3-224, SHA3-256, SHA3-384 or SHA3-512"
                      " (also SHA, SHA-1, SHA-256, ...), in any case";
}

CLI::Validator DigestChoice(bool snmpOnly) {
    // By the names operators use (upper case), with the VKL name of each.
    std::map<std::string, std::string> names = {
        {"MD5", "MD5"},       {"SHA1", "SHA1"},     {"SHA", "SHA1"},      {"SHA-1", "SHA1"},
        {"SHA224", "SHA224"}, {"SHA-224", "SHA224"}, {"SHA256", "SHA256"}, {"SHA-256", "SHA256"},
        {"SHA384", "SHA384"}, {"SHA-384", "SHA384"}, {"SHA512", "SHA512"}, {"SHA-512", "SHA512"},
    };
    if (!snmpOnly) {
        for (const char* name : {"SHA3-224", "SHA3-256", "SHA3-384", "SHA3-512"}) names[name] = name;
    }
    return Choice(std::move(names), DigestList(snmpOnly));
}

CLI::Validator Choice(std::map<std::string, std::string> names, const std::string& accepted) {
    return CLI::Validator(
        [names = std::move(names), accepted](std::string& value) {
            std::string key = value;
            for (char& c : key) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            const auto found = names.find(key);
            if (found == names.end()) return "unknown value '" + value + "'; " + accepted;
            value = found->second;
            return std::string();
        },
        "");
}

int Refused(Streams& io, const char* command, const std::string& why) {
    io.err << "zulcrypt " << command << ": " << why << '\n';
    return 2;
}

int Usage(Streams& io, const char* command, const std::string& why) {
    return Refused(io, command, why + " (see zulcrypt " + command + " --help)");
}

int Dispatch(int argc, char** argv, Streams& io) {
    CLI::App app("SNMPv3 user keys, digests, HMACs and file encryption over libwexcryptcpp.", "zulcrypt");
    app.set_version_flag("--version", "zulcrypt " ZULCRYPT_VERSION);
    app.require_subcommand(1);
    app.footer(kFooter);
    Actions actions;
    AddSelfTestCommand(app, actions);
    AddDigestCommands(app, actions);
    AddCipherCommands(app, actions);
    AddUsmCommands(app, actions);

    // The parser would only say that a command is missing.
    const auto named = [&](const auto& action) { return action.first->get_name() == argv[0]; };
    if (argc > 0 && argv[0][0] != '-' && std::none_of(actions.begin(), actions.end(), named)) {
        io.err << "zulcrypt: unknown command '" << argv[0] << "' (see zulcrypt --help)\n";
        return 2;
    }
    // CLI11 takes the words last first.
    std::vector<std::string> words(argv, argv + std::max(argc, 0));
    std::reverse(words.begin(), words.end());
    int status = 2;
    try {
        app.parse(words);
        for (auto& [sub, action] : actions) {
            if (sub->parsed()) status = action(io);
        }
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            status = app.exit(e, io.out, io.err);
        } else {
            const auto subs = app.get_subcommands();
            const std::string where = subs.empty() ? "" : " " + subs.front()->get_name();
            io.err << "zulcrypt" << where << ": " << e.what() << " (see zulcrypt" << where << " --help)\n";
        }
    }
    WipeResults(app);
    for (std::string& word : words) Wipe(word);
    return status;
}

}  // namespace zulcrypt
