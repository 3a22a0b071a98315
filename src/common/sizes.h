// Sizes, lengths and counts that VKL answers. Each one sizes a buffer, a copy or a wipe
// somewhere, so an answer that no algorithm the library knows can have (VKL's -1 for
// "cannot say", or a fault) is refused here, one check per kind, before it sizes anything.
#ifndef ZUL_SIZES_H
#define ZUL_SIZES_H

#include <string>

#include <vkl.h>

#include "report.h"

namespace zul {

struct SizeKind {
    const char* what;
    int least;
    int most;
};

constexpr SizeKind kDigestSize{"digest size", 1, 64};               // SHA-512
constexpr SizeKind kDigestBlockSize{"digest block size", 1, 144};   // SHA3-224
constexpr SizeKind kCipherBlockSize{"cipher block size", 1, 32};
constexpr SizeKind kCipherKeyLength{"cipher key length", 1, 64};
constexpr SizeKind kCipherIvLength{"cipher IV length", 0, 16};      // ECB has none
constexpr SizeKind kModulusSize{"modulus size", 1, 2048};           // 16384 bits
constexpr SizeKind kBigNumBits{"big number bit count", 0, 65535};   // what a packet can state

inline bool InRange(const SizeKind& kind, int answer) { return answer >= kind.least && answer <= kind.most; }

// The answer when the kind allows it; otherwise -1, with why (when given) holding the reason:
// VKL's own entry for the failed question, or, when VKL queued none, the answer it gave.
// VKL's queue is left empty either way.
inline int CheckedSize(VKL_t* vkl, const SizeKind& kind, int answer, std::string* why) {
    if (InRange(kind, answer)) return answer;
    const unsigned long code = VKL_ERR_get_error(vkl);
    if (why != nullptr && code != 0) {
        char text[256] = "";
        VKL_ERR_error_string_n(vkl, code, text, sizeof text);
        *why = text;
    } else if (why != nullptr) {
        *why = std::string("VKL gave an unusable ") + kind.what + ": " + std::to_string(answer);
    }
    DrainVklErrors(vkl);
    return -1;
}

inline int DigestSize(VKL_t* vkl, const VKL_EVP_MD_t* md, std::string* why = nullptr) {
    return CheckedSize(vkl, kDigestSize, VKL_EVP_MD_size(vkl, md), why);
}

inline int DigestBlockSize(VKL_t* vkl, const VKL_EVP_MD_t* md, std::string* why = nullptr) {
    return CheckedSize(vkl, kDigestBlockSize, VKL_EVP_MD_block_size(vkl, md), why);
}

inline int CipherBlockSize(VKL_t* vkl, const VKL_EVP_CIPHER_t* cipher, std::string* why = nullptr) {
    return CheckedSize(vkl, kCipherBlockSize, VKL_EVP_CIPHER_block_size(vkl, cipher), why);
}

inline int CipherKeyLength(VKL_t* vkl, const VKL_EVP_CIPHER_t* cipher, std::string* why = nullptr) {
    return CheckedSize(vkl, kCipherKeyLength, VKL_EVP_CIPHER_key_length(vkl, cipher), why);
}

inline int CipherIvLength(VKL_t* vkl, const VKL_EVP_CIPHER_t* cipher, std::string* why = nullptr) {
    return CheckedSize(vkl, kCipherIvLength, VKL_EVP_CIPHER_iv_length(vkl, cipher), why);
}

inline int DhSize(VKL_t* vkl, const VKL_DH_t* dh, std::string* why = nullptr) {
    return CheckedSize(vkl, kModulusSize, VKL_DH_size(vkl, dh), why);
}

inline int BigNumBits(VKL_t* vkl, const VKL_BIGNUM_t* number, std::string* why = nullptr) {
    return CheckedSize(vkl, kBigNumBits, VKL_BN_num_bits(vkl, number), why);
}

// As above, reporting the refusal as an error of the calling file and line.
inline int ReportedSize(int size, const std::string& why, const char* file, unsigned int line) {
    if (size < 0) CZulCryptContext::HandleError(file, line, why.c_str(), false);
    return size;
}

}  // namespace zul

// For files that name themselves in kZulFile (report.h): ZUL_SIZE(DigestSize, vkl, md).
#define ZUL_SIZE(kind, ...)                                                         \
    [&] {                                                                           \
        std::string zulWhy;                                                         \
        const int zulSize = ::zul::kind(__VA_ARGS__, &zulWhy);                      \
        return ::zul::ReportedSize(zulSize, zulWhy, kZulFile, __LINE__);            \
    }()

#endif  // ZUL_SIZES_H
