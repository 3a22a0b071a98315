// Passwords from a file, standard input or the terminal, never echoed and
// wiped when released.
#ifndef ZULCRYPT_TOOL_PASSWORD_H
#define ZULCRYPT_TOOL_PASSWORD_H

#include <string>

#include "commands.h"
#include "secret.h"

namespace zulcrypt {

// The first line of the file at path ("-": the next line of standard input,
// read with echo off on a terminal), without its line ending, into password.
// False, with why set, when the file cannot be read or no line ends within
// kMaxPasswordLine bytes.
bool ReadPasswordFile(const std::string& path, Streams& io, Bytes& password, std::string& why);

// Asks for a password on standard error and reads it from the terminal with
// echo off. False when standard input is no terminal (why left empty) or, with
// why set, when the line cannot be read.
bool PromptPassword(const char* prompt, Streams& io, Bytes& password, std::string& why);

constexpr size_t kMaxPasswordLine = 1024;

}  // namespace zulcrypt

#endif  // ZULCRYPT_TOOL_PASSWORD_H
