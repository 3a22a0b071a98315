#include "password.h"

#include <cerrno>
#include <ostream>
#include <system_error>

#include <termios.h>
#include <unistd.h>

#include "files.h"

namespace zulcrypt {
namespace {

// The first line of path ("-": standard input), without "\n" or "\r\n"; bounded,
// so that /dev/zero is no password. Byte by byte, so neither a stdio buffer,
// which nobody wipes, nor the rest of the input (a second password) is taken.
// A "\r" before "\n" or the end of input is part of the line ending, not counted.
bool ReadLine(const std::string& path, Streams& io, Bytes& line, std::string& why) {
    line.clear();
    Input in;
    if (!in.Open(path, io, why)) return false;
    const auto tooLong = [&] {
        why = "cannot read " + in.Name() + ": no password line ends within " + std::to_string(kMaxPasswordLine) +
              " bytes";
        return false;
    };
    for (unsigned char c = 0;;) {
        const long got = in.Read(&c, 1, why);
        if (got < 0) return false;
        if (got == 0 || c == '\n') break;
        if (line.size() > kMaxPasswordLine) return tooLong();
        line.push_back(c);
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line.size() <= kMaxPasswordLine || tooLong();
}

// With echo off; an interrupt meanwhile puts the terminal back first.
bool ReadTerminal(Streams& io, Bytes& line, std::string& why) {
    termios saved{};
    if (tcgetattr(STDIN_FILENO, &saved) != 0) return ReadLine("-", io, line, why);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    GuardTerminal(&saved);
    const bool quieted = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
    const bool read = quieted && ReadLine("-", io, line, why);
    if (!quieted) why = std::string("cannot turn echo off: ") + std::generic_category().message(errno);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    GuardTerminal(nullptr);
    return read;
}

}  // namespace

bool ReadPasswordFile(const std::string& path, Streams& io, Bytes& password, std::string& why) {
    if (path == "-" && io.terminal) return ReadTerminal(io, password, why);
    return ReadLine(path, io, password, why);
}

bool PromptPassword(const char* prompt, Streams& io, Bytes& password, std::string& why) {
    if (!io.terminal) return false;
    io.err << prompt << std::flush;
    const bool read = ReadTerminal(io, password, why);
    // The typed Enter was not echoed.
    io.err << '\n';
    return read;
}

}  // namespace zulcrypt
