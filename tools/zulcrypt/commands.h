// The commands of zulcrypt. Each takes its own arguments (argv[0] is the
// command's name) and the standard streams, and returns the exit status.
#ifndef ZULCRYPT_COMMANDS_H
#define ZULCRYPT_COMMANDS_H

#include <iosfwd>
#include <vector>

namespace zulcrypt {

struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
};

using CommandFn = int (*)(int argc, char** argv, Streams& io);

struct Command {
    const char* name;
    const char* synopsis;  // arguments, as --help shows them
    const char* summary;
    CommandFn run;
};

const std::vector<Command>& Commands();

// Prints the usage of every command.
void PrintHelp(std::ostream& out);

// Runs the command named argv[0]; 2 for an unknown command.
int Dispatch(int argc, char** argv, Streams& io);

int SelfTestCommand(int argc, char** argv, Streams& io);
int DigestCommand(int argc, char** argv, Streams& io);
int HmacCommand(int argc, char** argv, Streams& io);
int EncryptCommand(int argc, char** argv, Streams& io);
int DecryptCommand(int argc, char** argv, Streams& io);
int UsmKeysCommand(int argc, char** argv, Streams& io);
int KeyChangeCommand(int argc, char** argv, Streams& io);

}  // namespace zulcrypt

#endif  // ZULCRYPT_COMMANDS_H
