#include "password.h"

#include <cerrno>
#include <cstring>
#include <istream>
#include <ostream>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace zulcrypt {
namespace {

// A line ends at "\n" or "\r\n"; neither belongs to the password.
void DropLineEnd(Bytes& line) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
}

void ReadLine(std::istream& in, Bytes& line) {
    line.clear();
    // Character by character, so no stream buffer of ours keeps the rest.
    for (int c = in.get(); c != std::char_traits<char>::eof() && c != '\n'; c = in.get()) {
        line.push_back(static_cast<unsigned char>(c));
    }
    DropLineEnd(line);
}

}  // namespace

bool ReadPasswordFile(const std::string& path, Streams& io, Bytes& password, std::string& why) {
    if (path == "-") {
        ReadLine(io.in, password);
        return true;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = "cannot read " + path + ": " + std::strerror(errno);
        return false;
    }
    password.clear();
    // Byte by byte, so neither a stdio buffer nor the rest of the file is read.
    unsigned char c = 0;
    ssize_t got = 0;
    while ((got = read(fd, &c, 1)) == 1 && c != '\n') password.push_back(c);
    const int error = errno;
    close(fd);
    if (got < 0) {
        why = "cannot read " + path + ": " + std::strerror(error);
        return false;
    }
    DropLineEnd(password);
    return true;
}

bool PromptPassword(const char* prompt, Streams& io, Bytes& password) {
    termios saved{};
    if (!io.terminal || tcgetattr(STDIN_FILENO, &saved) != 0) return false;
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    io.err << prompt << std::flush;
    if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) != 0) return false;
    ReadLine(io.in, password);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    // The typed Enter was not echoed.
    io.err << '\n';
    return true;
}

}  // namespace zulcrypt
