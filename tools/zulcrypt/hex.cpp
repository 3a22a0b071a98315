#include "hex.h"

namespace zulcrypt {
namespace {

int Nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

void EncodeHex(const unsigned char* data, size_t length, char* text) {
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < length; ++i) {
        text[2 * i] = digits[data[i] >> 4];
        text[2 * i + 1] = digits[data[i] & 15];
    }
}

bool DecodeHex(const char* text, size_t length, unsigned char* out) {
    for (size_t i = 0; i + 1 < length; i += 2) {
        const int high = Nibble(text[i]), low = Nibble(text[i + 1]);
        if (high < 0 || low < 0) return false;
        out[i / 2] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

bool ReadHex(const std::string& text, const char* argument, Bytes& out, std::string& why) {
    const size_t start = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 2 : 0;
    SecretText digits;
    digits.reserve(text.size());
    for (size_t i = start; i < text.size(); ++i) {
        if (text[i] != ':') digits += text[i];
    }
    // The value is not repeated: it may be a key.
    if (digits.size() % 2 != 0) {
        why = std::string("bad hex in ") + argument + ": an odd number of digits";
        return false;
    }
    out.assign(digits.size() / 2, 0);
    if (DecodeHex(digits.data(), digits.size(), out.data())) return true;
    why = std::string("bad hex in ") + argument + ": not a hex digit";
    return false;
}

}  // namespace zulcrypt
