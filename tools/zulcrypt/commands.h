// The commands of zulcrypt. Each family adds its subcommands to the command
// line parser and binds each to an action that runs once the line parsed.
#ifndef ZULCRYPT_COMMANDS_H
#define ZULCRYPT_COMMANDS_H

#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Validator;
}

namespace zulcrypt {

struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    // Whether standard input is a terminal a password can be typed on.
    bool terminal = false;
    // Standard input's descriptor when in is std::cin: read directly, as stdio's
    // buffer behind std::cin would keep a password unwiped. -1: from in.
    int inFd = -1;
};

// A subcommand's work on its parsed options; returns the exit status.
using Action = std::function<int(Streams& io)>;
using Actions = std::vector<std::pair<CLI::App*, Action>>;

void AddSelfTestCommand(CLI::App& app, Actions& actions);
void AddDigestCommands(CLI::App& app, Actions& actions);
void AddCipherCommands(CLI::App& app, Actions& actions);
void AddUsmCommands(CLI::App& app, Actions& actions);

// Replaces a value matched without regard to case by its canonical name (the
// map's value for the upper-case key); refuses any other value, naming what
// is accepted.
CLI::Validator Choice(std::map<std::string, std::string> names, const std::string& accepted);

// The digests a command takes, as the refusal and the help list them: the SNMP
// authentication digests only, or those and SHA-3.
const char* DigestList(bool snmpOnly);
CLI::Validator DigestChoice(bool snmpOnly);

// Print "zulcrypt COMMAND: why" on standard error, Usage followed by " (see
// zulcrypt COMMAND --help)"; both return 2, the status of bad usage or input.
int Refused(Streams& io, const char* command, const std::string& why);
int Usage(Streams& io, const char* command, const std::string& why);

// Parses the words after the program's name and runs the command they name:
// its status, 0 for --help or --version, 2 for a line the parser refused.
int Dispatch(int argc, char** argv, Streams& io);

}  // namespace zulcrypt

#endif  // ZULCRYPT_COMMANDS_H
