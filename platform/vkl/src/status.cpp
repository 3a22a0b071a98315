// Status, self-test and seeding of the VKL context.
#include <cerrno>
#include <cstring>
#include <string>

#include <sys/random.h>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include "errors.h"
#include "probe.h"
#include "testing_state.h"
#include "vkl_context.h"

namespace vkl {
namespace {

std::string Hex(const unsigned char* data, size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text;
}

bool DigestKat(VKL_t* vkl, const char* name, const char* message, const char* expected) {
    const VKL_EVP_MD_s* md = FetchDigest(vkl, name, "VKL_SelfTest");
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int outLength = 0;
    return md != nullptr &&
           EVP_Digest(message, std::strlen(message), out, &outLength, md->md.get(), nullptr) == 1 &&
           Hex(out, outLength) == expected;
}

bool HmacKat(VKL_t* vkl, const char* digest, const char* key, const char* message, const char* expected) {
    EVP_MAC* mac = FetchMac(vkl, "HMAC", "VKL_SelfTest");
    if (mac == nullptr) return false;
    MacCtxPtr ctx(EVP_MAC_CTX_new(mac));
    OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, const_cast<char*>(digest), 0),
        OSSL_PARAM_construct_end()};
    unsigned char out[EVP_MAX_MD_SIZE];
    size_t outLength = 0;
    return ctx && EVP_MAC_init(ctx.get(), reinterpret_cast<const unsigned char*>(key), std::strlen(key), params) == 1 &&
           EVP_MAC_update(ctx.get(), reinterpret_cast<const unsigned char*>(message), std::strlen(message)) == 1 &&
           EVP_MAC_final(ctx.get(), out, &outLength, sizeof out) == 1 && Hex(out, outLength) == expected;
}

bool FromHex(const char* hex, unsigned char* out, size_t room, size_t* length) {
    long parsed = 0;
    unsigned char* bytes = OPENSSL_hexstr2buf(hex, &parsed);
    bool ok = bytes != nullptr && static_cast<size_t>(parsed) <= room;
    if (ok) {
        std::memcpy(out, bytes, static_cast<size_t>(parsed));
        *length = static_cast<size_t>(parsed);
    }
    OPENSSL_free(bytes);
    return ok;
}

bool CipherKat(VKL_t* vkl, const char* name, const char* key, const char* iv, const char* plain,
               const char* expected) {
    const VKL_EVP_CIPHER_s* cipher = FetchCipher(vkl, name, "VKL_SelfTest");
    unsigned char k[32], v[16], p[64], out[80];
    size_t kLength = 0, vLength = 0, pLength = 0;
    int n = 0, tail = 0;
    if (cipher == nullptr || !FromHex(key, k, sizeof k, &kLength) || !FromHex(iv, v, sizeof v, &vLength) ||
        !FromHex(plain, p, sizeof p, &pLength)) {
        return false;
    }
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    return ctx && EVP_EncryptInit_ex2(ctx.get(), cipher->cipher.get(), k, v, nullptr) == 1 &&
           EVP_CIPHER_CTX_set_padding(ctx.get(), 0) == 1 &&
           EVP_EncryptUpdate(ctx.get(), out, &n, p, static_cast<int>(pLength)) == 1 &&
           EVP_EncryptFinal_ex(ctx.get(), out + n, &tail) == 1 &&
           Hex(out, static_cast<size_t>(n) + static_cast<size_t>(tail)) == expected;
}

// A known-answer test by name; the test-control interface can make it fail
// as "VKL_SelfTest/<name>", so every failure report can be shown.
template <class Run>
bool Passes(const char* name, Run run) {
    Probe& probe = Probe::Named((std::string("VKL_SelfTest/") + name).c_str());
    return !probe.Fires() && run();
}

// The first known-answer test that fails, or null when all pass.
const char* FailingKnownAnswer(VKL_t* vkl) {
    // FIPS 180-2 appendix A.1 and B.1.
    if (!Passes("SHA-1", [&] { return DigestKat(vkl, "SHA1", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"); }))
        return "SHA-1";
    if (!Passes("SHA-256", [&] {
            return DigestKat(vkl, "SHA256", "abc",
                             "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
        }))
        return "SHA-256";
    // RFC 2202 test case 2.
    if (!Passes("HMAC-SHA-1", [&] {
            return HmacKat(vkl, "SHA1", "Jefe", "what do ya want for nothing?",
                           "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
        }))
        return "HMAC-SHA-1";
    // NIST SP 800-38A F.2.1, first block.
    if (!Passes("AES-128-CBC", [&] {
            return CipherKat(vkl, "AES-128-CBC", "2b7e151628aed2a6abf7158809cf4f3c",
                             "000102030405060708090a0b0c0d0e0f", "6bc1bee22e409f96e93d7e117393172a",
                             "7649abac8119b246cee98e9b12e9197d");
        }))
        return "AES-128-CBC";
    // FIPS 81 appendix C, "Now is the time for all ".
    if (!Passes("DES-CBC", [&] {
            return CipherKat(vkl, "DES-CBC", "0123456789abcdef", "1234567890abcdef",
                             "4e6f77206973207468652074696d6520666f7220616c6c20",
                             "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6");
        }))
        return "DES-CBC";
    return nullptr;
}

}  // namespace
}  // namespace vkl

extern "C" {

int VKL_GetStatus(VKL_t* vkl, VKL_STATUS_t* status) {
    VKL_ENTER(int);
    if (status == nullptr) return 0;
    if (vkl::ForcedStatus(__func__, status)) return status->major == 0 && status->minor == 0;
    if (vkl == nullptr) {
        vkl::FillStatus(status, VKL_MAJOR_ERROR, VKL_MINOR_NOT_INITIALISED, "no VKL context");
        return 0;
    }
    *status = vkl->status;
    return status->major == 0 && status->minor == 0;
}

int VKL_SelfTest(VKL_t* vkl, VKL_STATUS_t* status) {
    VKL_ENTER(int);
    if (status == nullptr) return 0;
    if (vkl::ForcedStatus(__func__, status)) return status->major == 0 && status->minor == 0;
    if (vkl == nullptr) {
        vkl::FillStatus(status, VKL_MAJOR_ERROR, VKL_MINOR_NOT_INITIALISED, "no VKL context");
        return 0;
    }
    ERR_set_mark();
    const char* failed = vkl::FailingKnownAnswer(vkl);
    ERR_pop_to_mark();
    if (failed != nullptr) {
        vkl::FillStatus(status, VKL_MAJOR_ERROR, VKL_MINOR_LIBRARY_VERIFICATION_FAILED,
                  std::string("Self-test failed: ") + failed + " known-answer test");
        return 0;
    }
    vkl::FillStatus(status, VKL_MAJOR_OK, 0, "");
    return 1;
}

int VKL_GenerateRandomSeed(VKL_t* vkl, VKL_STATUS_t* status, int length, unsigned char* out) {
    VKL_ENTER_LEN(int, length);
    if (status == nullptr) return 0;
    if (vkl::ForcedStatus(__func__, status)) return status->major == 0 && status->minor == 0;
    if (vkl == nullptr || out == nullptr || length <= 0) {
        vkl::FillStatus(status, VKL_MAJOR_ERROR, VKL_MINOR_NULL_PARAMETER, "no context, buffer or length for the seed");
        return 0;
    }
    size_t filled = 0;
    while (filled < static_cast<size_t>(length)) {
        ssize_t got = getrandom(out + filled, static_cast<size_t>(length) - filled, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            // Threads may fail here together: strerror's text could be overwritten, not strerror_r's.
            char text[128];
            vkl::FillStatus(status, VKL_MAJOR_OS_ERROR, VKL_MINOR_UNABLE_TO_SET_VALUE,
                      std::string("getrandom: ") + strerror_r(errno, text, sizeof text));
            OPENSSL_cleanse(out, filled);
            return 0;
        }
        filled += static_cast<size_t>(got);
    }
    vkl::FillStatus(status, VKL_MAJOR_OK, 0, "");
    return 1;
}

int VKL_RAND_seed(VKL_t* vkl, const void* buffer, int length) {
    VKL_ENTER_LEN(int, length);
    if (vkl == nullptr || buffer == nullptr || length < 0) {
        vkl::QueueError(std::string(__func__) + ": no context or seed");
        return 0;
    }
    // The bytes go in as additional input of a reseed of the context's own
    // primary generator; RAND_seed would only reach the default context's.
    EVP_RAND_CTX* primary = RAND_get0_primary(vkl->libctx.get());
    if (primary == nullptr ||
        EVP_RAND_reseed(primary, 0, nullptr, 0, static_cast<const unsigned char*>(buffer),
                        static_cast<size_t>(length)) != 1) {
        vkl::QueueErrorIfEmpty(__func__, "reseeding the random generator failed");
        return 0;
    }
    return 1;
}

int VKL_RAND_bytes(VKL_t* vkl, unsigned char* out, int length) {
    VKL_ENTER_LEN(int, length);
    if (vkl == nullptr || out == nullptr || length < 0) {
        vkl::QueueError(std::string(__func__) + ": no context or output");
        return 0;
    }
    if (RAND_bytes_ex(vkl->libctx.get(), out, static_cast<size_t>(length), 0) != 1) {
        vkl::QueueErrorIfEmpty(__func__, "the random generator failed");
        return 0;
    }
    return 1;
}

}  // extern "C"
