// Hex text in and out for the tool's commands.
#ifndef ZULCRYPT_TOOL_HEX_H
#define ZULCRYPT_TOOL_HEX_H

#include <cstddef>
#include <string>
#include <vector>

namespace zulcrypt {

// Lower-case hex, two digits a byte.
std::string ToHex(const unsigned char* data, size_t length);
std::string ToHex(const std::vector<unsigned char>& data);

// Replaces out with the bytes of an even number of hex digits (either case);
// false, with out unspecified, on an odd length or any other character.
bool FromHex(const std::string& text, std::vector<unsigned char>& out);

// As FromHex, but also takes a 0x prefix and ':' between digits, as engine
// IDs and keys are often written by SNMP tools.
bool FromLooseHex(std::string text, std::vector<unsigned char>& out);

}  // namespace zulcrypt

#endif  // ZULCRYPT_TOOL_HEX_H
