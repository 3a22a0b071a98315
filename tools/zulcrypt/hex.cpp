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

std::string ToHex(const unsigned char* data, size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * length);
    for (size_t i = 0; i < length; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text;
}

std::string ToHex(const std::vector<unsigned char>& data) { return ToHex(data.data(), data.size()); }

bool FromHex(const std::string& text, std::vector<unsigned char>& out) {
    if (text.size() % 2 != 0) return false;
    out.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = Nibble(text[i]), low = Nibble(text[i + 1]);
        if (high < 0 || low < 0) return false;
        out.push_back(static_cast<unsigned char>(high << 4 | low));
    }
    return true;
}

bool FromLooseHex(std::string text, std::vector<unsigned char>& out) {
    if (text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0) text.erase(0, 2);
    std::string digits;
    for (char c : text) {
        if (c != ':') digits += c;
    }
    return FromHex(digits, out);
}

}  // namespace zulcrypt
