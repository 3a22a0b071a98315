// VKL's HMAC over OpenSSL 3's EVP_MAC.
//
// SNMP engines authenticate every message with the same localised key, so the
// context remembers the key and digest it was keyed with: an init with the
// same pair (or the null re-arm) only resets the keyed state instead of
// hashing the padded key again.
#include <climits>
#include <string>
#include <vector>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include "errors.h"
#include "memory.h"
#include "probe.h"
#include "vkl_context.h"

struct VKL_HMAC_CTX_s {
    vkl::MacCtxPtr mac;
    const VKL_EVP_MD_s* md = nullptr;  // the digest the context is keyed for, null before the first key
    std::vector<unsigned char> key;    // kept to recognise the same key again
    bool armed = false;                // initialised and not yet finalised
    bool untouched = false;            // armed with nothing fed since: a re-arm has nothing to undo
    vkl::Live live;

    ~VKL_HMAC_CTX_s() { ForgetKey(); }

    // Wipes the key kept and holds none: until keyed again, no key matches.
    void ForgetKey() {
        OPENSSL_cleanse(key.data(), key.size());
        key.clear();
        md = nullptr;
    }

    bool Holds(const unsigned char* other, size_t length, const VKL_EVP_MD_s* digest) const {
        // Lengths are not secret; the bytes are compared in constant time.
        return md == digest && key.size() == length && CRYPTO_memcmp(key.data(), other, length) == 0;
    }
};

namespace {

constexpr int kFailed = -2;

// Back to the state right after keying, without hashing the key again.
int Rearm(VKL_HMAC_CTX_s* ctx, const char* function) {
    if (ctx->untouched) return 1;
    if (EVP_MAC_init(ctx->mac.get(), nullptr, 0, nullptr) != 1) {
        ctx->armed = ctx->untouched = false;
        vkl::QueueErrorIfEmpty(function, "re-initialising the HMAC failed");
        return kFailed;
    }
    ctx->armed = ctx->untouched = true;
    return 1;
}

int Rekey(VKL_HMAC_CTX_s* ctx, const unsigned char* key, size_t length, const VKL_EVP_MD_s* md,
          const char* function) {
    ctx->armed = ctx->untouched = false;
    // A zero-length key still needs a non-null pointer: EVP_MAC_init reads null as "keep the key".
    static const unsigned char kEmpty = 0;
    const unsigned char* bytes = length == 0 ? &kEmpty : key;
    OSSL_PARAM params[2] = {OSSL_PARAM_construct_end(), OSSL_PARAM_construct_end()};
    if (md != ctx->md) {
        params[0] = OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST,
                                                     const_cast<char*>(EVP_MD_get0_name(md->md.get())), 0);
    }
    ctx->ForgetKey();
    if (EVP_MAC_init(ctx->mac.get(), bytes, length, params) != 1) {
        vkl::QueueErrorIfEmpty(function, "keying the HMAC failed");
        return kFailed;
    }
    ctx->key.assign(bytes, bytes + length);
    ctx->md = md;
    ctx->armed = ctx->untouched = true;
    return 1;
}

}  // namespace

extern "C" {

VKL_HMAC_CTX_t* VKL_HMAC_CTX_new(VKL_t* vkl) {
    VKL_ENTER(VKL_HMAC_CTX_t*);
    if (vkl == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context");
        return nullptr;
    }
    EVP_MAC* mac = vkl::FetchMac(vkl, "HMAC", __func__);
    if (mac == nullptr) return nullptr;
    auto ctx = vkl::Make<VKL_HMAC_CTX_s>();
    if (ctx) ctx->mac.reset(EVP_MAC_CTX_new(mac));
    if (!ctx || !ctx->mac) {
        vkl::QueueErrorIfEmpty(__func__, "cannot allocate an HMAC context");
        return nullptr;
    }
    return ctx.release();
}

int VKL_HMAC_CTX_free(VKL_t*, VKL_HMAC_CTX_t* ctx) {
    VKL_ENTER(int);
    delete ctx;
    return 1;
}

int VKL_HMAC_Init(VKL_t* vkl, VKL_HMAC_CTX_t* ctx, const void* key, int keyLength, const VKL_EVP_MD_t* md) {
    VKL_ENTER_LEN(int, keyLength);
    if (vkl == nullptr || ctx == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context or HMAC context");
        return kFailed;
    }
    if (keyLength < 0 || (key == nullptr && keyLength != 0)) {
        vkl::QueueError(std::string(__func__) + ": invalid key length " + std::to_string(keyLength));
        return kFailed;
    }
    const VKL_EVP_MD_s* digest = md != nullptr ? md : ctx->md;
    if (digest == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no digest given or held");
        return kFailed;
    }
    if (key == nullptr) {
        // Re-arm with what is held; as with OpenSSL, another digest needs its key.
        if (digest != ctx->md) {
            vkl::QueueError(std::string(__func__) + ": a new digest needs a key");
            return kFailed;
        }
        return Rearm(ctx, __func__);
    }
    const auto* bytes = static_cast<const unsigned char*>(key);
    const auto length = static_cast<size_t>(keyLength);
    if (ctx->Holds(bytes, length, digest)) return Rearm(ctx, __func__);
    return Rekey(ctx, bytes, length, digest, __func__);
}

int VKL_HMAC_Update(VKL_t* vkl, VKL_HMAC_CTX_t* ctx, const unsigned char* data, size_t length) {
    VKL_ENTER_LEN(int, length);
    if (vkl == nullptr || ctx == nullptr || (data == nullptr && length != 0)) {
        vkl::QueueError(std::string(__func__) + ": no VKL context, HMAC context or data");
        return kFailed;
    }
    if (!ctx->armed) {
        vkl::QueueError(std::string(__func__) + ": HMAC not initialised");
        return kFailed;
    }
    if (length == 0) return 1;
    if (EVP_MAC_update(ctx->mac.get(), data, length) != 1) {
        ctx->armed = ctx->untouched = false;
        vkl::QueueErrorIfEmpty(__func__, "HMAC update failed");
        return kFailed;
    }
    ctx->untouched = false;
    return 1;
}

int VKL_HMAC_Final(VKL_t* vkl, VKL_HMAC_CTX_t* ctx, unsigned char* out, unsigned int* outLength) {
    VKL_ENTER(int);
    if (vkl == nullptr || ctx == nullptr || out == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context, HMAC context or output");
        return kFailed;
    }
    if (!ctx->armed) {
        vkl::QueueError(std::string(__func__) + ": HMAC not initialised");
        return kFailed;
    }
    size_t written = 0;
    const size_t room = static_cast<size_t>(ctx->md->size);
    const int result = EVP_MAC_final(ctx->mac.get(), out, &written, room);
    ctx->armed = ctx->untouched = false;
    if (result != 1) {
        vkl::QueueErrorIfEmpty(__func__, "HMAC finalisation failed");
        return kFailed;
    }
    if (outLength != nullptr) *outLength = static_cast<unsigned int>(written);
    return 1;
}

}  // extern "C"
