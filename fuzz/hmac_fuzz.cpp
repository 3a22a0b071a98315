// CZulCryptHMAC against OpenSSL's one-shot HMAC() for any key, message and digest.
#include <cstdint>
#include <cstring>
#include <vector>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <czulcryptcontext.h>

#include "fuzz_support.h"
#include <czulcrypthmac.h>

namespace {
const char* const kDigests[] = {"MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512", "SHA3-256"};
}  // namespace

// Input: digest choice, key length, key, message.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CZulCryptContext* context = &zulfuzz::Context();
    if (size < 2) return 0;
    const char* name = kDigests[data[0] % (sizeof kDigests / sizeof kDigests[0])];
    size_t keyLength = data[1] <= size - 2 ? data[1] : size - 2;
    const uint8_t* key = data + 2;
    std::vector<unsigned char> message(data + 2 + keyLength, data + size);
    // A null message pointer is refused by design; an empty message is not.
    message.reserve(1);

    unsigned char expected[EVP_MAX_MD_SIZE];
    unsigned int expectedLength = 0;
    if (HMAC(EVP_get_digestbyname(name), key, static_cast<int>(keyLength), message.data(), message.size(),
             expected, &expectedLength) == nullptr) {
        __builtin_trap();
    }
    CZulCryptHMAC hmac(*context, name, key, static_cast<unsigned int>(keyLength));
    unsigned char got[EVP_MAX_MD_SIZE];
    unsigned int gotLength = 0;
    // Twice: the object must re-arm itself after each message.
    for (int round = 0; round < 2; ++round) {
        if (!hmac.GetHMAC(message.data(), static_cast<unsigned int>(message.size()), got, &gotLength) ||
            gotLength != expectedLength || std::memcmp(got, expected, expectedLength) != 0) {
            __builtin_trap();
        }
    }
    return 0;
}
