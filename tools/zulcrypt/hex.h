// Hex text in and out for the tool's commands. The templates give wiping
// containers (secret.h) for keys and plain ones for everything else.
#ifndef ZULCRYPT_TOOL_HEX_H
#define ZULCRYPT_TOOL_HEX_H

#include <cstddef>
#include <string>
#include <vector>

#include "secret.h"

namespace zulcrypt {

// Writes 2 * length lower-case hex digits to text.
void EncodeHex(const unsigned char* data, size_t length, char* text);
// Reads length hex digits (either case) into length / 2 bytes of out; false
// on any other character.
bool DecodeHex(const char* text, size_t length, unsigned char* out);

// Lower-case hex, two digits a byte.
template <class Text = std::string>
Text ToHex(const unsigned char* data, size_t length) {
    Text text(2 * length, '0');
    EncodeHex(data, length, &text[0]);
    return text;
}
inline std::string ToHex(const std::vector<unsigned char>& data) { return ToHex(data.data(), data.size()); }
inline SecretText ToHex(const Bytes& data) { return ToHex<SecretText>(data.data(), data.size()); }

// Replaces out with the bytes of an even number of hex digits (either case);
// false, with out unspecified, on an odd length or any other character.
template <class Alloc>
bool FromHex(const std::string& text, std::vector<unsigned char, Alloc>& out) {
    if (text.size() % 2 != 0) return false;
    // Sized once: growing would leave copies of a key behind.
    out.assign(text.size() / 2, 0);
    return DecodeHex(text.data(), text.size(), out.data());
}

// Reads a command's hex argument into out: digits in either case, with a 0x
// prefix and ':' between digits allowed, as SNMP tools write engine IDs and keys.
// False, with why naming the argument, on an odd number of digits or any other
// character.
bool ReadHex(const std::string& text, const char* argument, Bytes& out, std::string& why);

}  // namespace zulcrypt

#endif  // ZULCRYPT_TOOL_HEX_H
