// The files the commands read and write, and what an interrupt must not leave
// behind: a terminal with echo off, a temporary file.
#ifndef ZULCRYPT_TOOL_FILES_H
#define ZULCRYPT_TOOL_FILES_H

#include <cstddef>
#include <iosfwd>
#include <string>

#include <termios.h>

namespace zulcrypt {

struct Streams;

// A command's input, the file at a path or standard input for "-", read in pieces.
class Input {
public:
    Input() = default;
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // False, with why set, when the file cannot be opened. "-" is io.inFd when
    // set, else io.in.
    bool Open(const std::string& path, const Streams& io, std::string& why);
    // Up to size bytes into data: their count, 0 at the end, -1 with why set on a read error.
    long Read(unsigned char* data, size_t size, std::string& why);
    // The path, or "standard input" for "-", as messages name it.
    const std::string& Name() const { return m_path; }

private:
    std::istream* m_stream = nullptr;
    int m_fd = -1;
    bool m_owned = false;
    std::string m_path;
};

// The output of enc and dec. A regular file, or a new one, is written under a
// temporary name beside it (beside a symlink's target) and renamed into place by
// Commit keeping its mode bits, so a failure never leaves a partial or truncated
// file; one we may not write is refused, not replaced. Anything else, a FIFO or
// a device, is written directly, as a program writing to it expects.
class Output {
public:
    Output() = default;
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // False, with why set, when path cannot be written.
    bool Open(const std::string& path, std::string& why);
    bool Write(const unsigned char* data, size_t length);
    // True once the data is in place (on disk under the final name, for a file).
    bool Commit();

private:
    int m_fd = -1;
    std::string m_temp;
    std::string m_path;
};

// While set, SIGINT, SIGTERM, SIGHUP and SIGQUIT (those not ignored) first
// restore the terminal on standard input as saved and remove the temporary
// file, then end the process as they would have. Null clears.
void GuardTerminal(const termios* saved);
void GuardTemporary(const char* path);

}  // namespace zulcrypt

#endif  // ZULCRYPT_TOOL_FILES_H
