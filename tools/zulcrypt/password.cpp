#include "password.h"

#include <cerrno>
#include <istream>
#include <ostream>
#include <system_error>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "files.h"

namespace zulcrypt {
namespace {

// The line next() gives byte by byte (-1 at its end, -2 on a read error with
// error set), without "\n" or "\r\n"; bounded, so that /dev/zero is no password.
// A "\r" before "\n" or the end of input is part of the line ending, not counted.
template <class Next>
bool ReadLine(Next next, const std::string& source, int& error, Bytes& line, std::string& why) {
    line.clear();
    const auto tooLong = [&] {
        why = "cannot read " + source + ": no password line ends within " + std::to_string(kMaxPasswordLine) +
              " bytes";
        return false;
    };
    for (int c = next(); c != -1 && c != '\n'; c = next()) {
        if (c == -2) {
            why = "cannot read " + source + ": " + std::generic_category().message(error);
            return false;
        }
        if (line.size() > kMaxPasswordLine) return tooLong();
        line.push_back(static_cast<unsigned char>(c));
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line.size() <= kMaxPasswordLine || tooLong();
}

// Byte by byte with read(2), so neither a stdio buffer, which nobody wipes, nor
// the rest of the input (a second password) is taken.
bool ReadDescriptor(int fd, const std::string& source, Bytes& line, std::string& why) {
    int error = EIO;
    const auto next = [&] {
        unsigned char c = 0;
        ssize_t got = 0;
        while ((got = read(fd, &c, 1)) < 0 && errno == EINTR) {
        }
        error = errno;
        return got == 1 ? c : got == 0 ? -1 : -2;
    };
    return ReadLine(next, source, error, line, why);
}

bool ReadInput(Streams& io, Bytes& line, std::string& why) {
    if (io.inFd >= 0) return ReadDescriptor(io.inFd, "standard input", line, why);
    int error = EIO;
    const auto next = [&] {
        const int c = io.in.get();
        return c != std::char_traits<char>::eof() ? c : io.in.bad() ? -2 : -1;
    };
    return ReadLine(next, "standard input", error, line, why);
}

// With echo off; an interrupt meanwhile puts the terminal back first.
bool ReadTerminal(Streams& io, Bytes& line, std::string& why) {
    termios saved{};
    if (tcgetattr(STDIN_FILENO, &saved) != 0) return ReadInput(io, line, why);
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    GuardTerminal(&saved);
    const bool quieted = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
    const bool read = quieted && ReadInput(io, line, why);
    if (!quieted) why = std::string("cannot turn echo off: ") + std::generic_category().message(errno);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    GuardTerminal(nullptr);
    return read;
}

}  // namespace

bool ReadPasswordFile(const std::string& path, Streams& io, Bytes& password, std::string& why) {
    if (path == "-") return io.terminal ? ReadTerminal(io, password, why) : ReadInput(io, password, why);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = "cannot read " + path + ": " + std::generic_category().message(errno);
        return false;
    }
    const bool read = ReadDescriptor(fd, path, password, why);
    close(fd);
    return read;
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
