// Symmetric ciphers of the VKL stand-in: thin wrappers over OpenSSL 3's EVP
// cipher calls on descriptors fetched once per VKL context.
#include <algorithm>
#include <cstring>
#include <string>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include "errors.h"
#include "memory.h"
#include "probe.h"
#include "vkl_context.h"

// A cipher context remembers the descriptor it was initialised with, so the
// queries on it cost nothing. For a variable key length cipher (RC4, Blowfish) it
// also keeps a copy of the key bytes its latest keyed init read: OpenSSL schedules
// the key at the init, with the context's key length, and drops it when the length
// changes, so a shorter length is keyed again from the copy. The caller's buffer is
// never read after the init returns; a length longer than the copy is refused.
struct VKL_EVP_CIPHER_CTX_s {
    vkl::CipherCtxPtr ctx;
    const VKL_EVP_CIPHER_s* cipher = nullptr;
    int encrypt = 1;
    int keyKept = 0;  // bytes of key held: what the latest keyed init read, 0 when not keyed
    int ivKept = 0;
    unsigned char key[EVP_MAX_KEY_LENGTH];
    unsigned char iv[EVP_MAX_IV_LENGTH];
    vkl::Live live;

    void ForgetKey() {
        OPENSSL_cleanse(key, static_cast<size_t>(keyKept));
        keyKept = 0;
    }
    void Forget() {
        cipher = nullptr;
        ForgetKey();
        OPENSSL_cleanse(iv, static_cast<size_t>(ivKept));
        ivKept = 0;
    }
    ~VKL_EVP_CIPHER_CTX_s() { Forget(); }
};

namespace vkl {
namespace {

bool Usable(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, const char* function) {
    if (vkl == nullptr || ctx == nullptr || !ctx->ctx) {
        QueueError(std::string(function) + ": no VKL context or cipher context");
        return false;
    }
    return true;
}

// Back to the empty state; the reset wipes the key schedule and IV inside
// OpenSSL's context.
bool Reset(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, const char* function) {
    if (!Usable(vkl, ctx, function)) return false;
    ctx->Forget();
    if (EVP_CIPHER_CTX_reset(ctx->ctx.get()) != 1) {
        QueueErrorIfEmpty(function, "reset failed");
        return false;
    }
    return true;
}

int Init(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, const VKL_EVP_CIPHER_t* cipher, const unsigned char* key,
         const unsigned char* iv, int encrypt, const char* function) {
    if (!Usable(vkl, ctx, function)) return -2;
    const VKL_EVP_CIPHER_s* chosen = cipher != nullptr ? cipher : ctx->cipher;
    if (chosen == nullptr) {
        QueueError(std::string(function) + ": no cipher given or set");
        return -2;
    }
    // A null cipher must reach OpenSSL as null: it keeps a key length set since.
    const EVP_CIPHER* fresh = cipher != nullptr ? cipher->cipher.get() : nullptr;
    if (EVP_CipherInit_ex2(ctx->ctx.get(), fresh, key, iv, encrypt, nullptr) != 1) {
        // Whatever key OpenSSL holds now, the copy no longer stands for it.
        if (key != nullptr) ctx->ForgetKey();
        QueueErrorIfEmpty(function, "initialisation failed");
        return -2;
    }
    if (cipher != nullptr || ctx->encrypt != encrypt) ctx->Forget();
    ctx->cipher = chosen;
    ctx->encrypt = encrypt;
    // Kept for a later key length change (OpenSSL forgets the key then). It
    // read exactly the context's key length from key and the IV length from
    // iv, so copying as much is safe. Only variable-length ciphers can change
    // it; the others (SNMPv3's, one context per message) skip the copies.
    if (!chosen->variableKeyLength) return 1;
    if (key != nullptr) {
        ctx->ForgetKey();
        const int read = std::min(EVP_CIPHER_CTX_get_key_length(ctx->ctx.get()), static_cast<int>(sizeof ctx->key));
        std::memcpy(ctx->key, key, static_cast<size_t>(read));
        ctx->keyKept = read;
    }
    if (iv != nullptr) {
        ctx->ivKept = std::min(chosen->ivLength, static_cast<int>(sizeof ctx->iv));
        std::memcpy(ctx->iv, iv, static_cast<size_t>(ctx->ivKept));
    }
    return 1;
}

int Update(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength, const unsigned char* in,
           int length, bool encrypt, const char* function) {
    if (!Usable(vkl, ctx, function)) return -2;
    if (out == nullptr || outLength == nullptr || in == nullptr || length < 0) {
        QueueError(std::string(function) + ": no input, no output or a negative length");
        return -2;
    }
    int ok = encrypt ? EVP_EncryptUpdate(ctx->ctx.get(), out, outLength, in, length)
                     : EVP_DecryptUpdate(ctx->ctx.get(), out, outLength, in, length);
    if (ok != 1) {
        QueueErrorIfEmpty(function, "update failed");
        return -2;
    }
    return 1;
}

int Final(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength, bool encrypt,
          const char* function) {
    if (!Usable(vkl, ctx, function)) return -2;
    if (out == nullptr || outLength == nullptr) {
        QueueError(std::string(function) + ": no output");
        return -2;
    }
    int ok = encrypt ? EVP_EncryptFinal_ex(ctx->ctx.get(), out, outLength)
                     : EVP_DecryptFinal_ex(ctx->ctx.get(), out, outLength);
    if (ok != 1) {
        QueueErrorIfEmpty(function, "final step failed");
        return -2;
    }
    return 1;
}

}  // namespace
}  // namespace vkl

extern "C" {

VKL_EVP_CIPHER_CTX_t* VKL_EVP_CIPHER_CTX_new(VKL_t* vkl) {
    VKL_ENTER(VKL_EVP_CIPHER_CTX_t*);
    if (vkl == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context");
        return nullptr;
    }
    auto made = vkl::Make<VKL_EVP_CIPHER_CTX_s>();
    if (made) made->ctx.reset(EVP_CIPHER_CTX_new());
    if (!made || !made->ctx) {
        vkl::QueueErrorIfEmpty(__func__, "out of memory");
        return nullptr;
    }
    return made.release();
}

int VKL_EVP_CIPHER_CTX_init(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx) {
    VKL_ENTER(int);
    return vkl::Reset(vkl, ctx, __func__);
}

int VKL_EVP_CIPHER_CTX_cleanup(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx) {
    VKL_ENTER(int);
    return vkl::Reset(vkl, ctx, __func__);
}

int VKL_EVP_CIPHER_CTX_free(VKL_t*, VKL_EVP_CIPHER_CTX_t* ctx) {
    VKL_ENTER(int);
    delete ctx;
    return 1;
}

const VKL_EVP_CIPHER_t* VKL_EVP_CIPHER_CTX_cipher(VKL_t*, const VKL_EVP_CIPHER_CTX_t* ctx) {
    VKL_ENTER(const VKL_EVP_CIPHER_t*);
    return ctx != nullptr ? ctx->cipher : nullptr;
}

int VKL_EVP_CIPHER_CTX_set_key_length(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, int length) {
    VKL_ENTER_LEN(int, length);
    if (!vkl::Usable(vkl, ctx, __func__)) return -2;
    if (ctx->cipher == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no cipher set");
        return -2;
    }
    if (length == EVP_CIPHER_CTX_get_key_length(ctx->ctx.get())) return 1;
    // The bytes past the copy were never read from the caller, and the caller's buffer
    // may be gone: refused before anything changes, the context stays keyed as it was.
    if (ctx->keyKept > 0 && length > ctx->keyKept) {
        vkl::QueueError(std::string(__func__) + ": " + std::to_string(length) + " bytes asked, but the init read " +
                        std::to_string(ctx->keyKept) +
                        " of the key; set the length before the init that brings the key");
        return -2;
    }
    if (length <= 0 || length > EVP_MAX_KEY_LENGTH ||
        EVP_CIPHER_CTX_set_key_length(ctx->ctx.get(), length) != 1) {
        vkl::QueueErrorIfEmpty(__func__, "invalid key length for the cipher");
        return -2;
    }
    if (ctx->keyKept == 0) return 1;
    // Keyed already: key it again at the new length, from the copy of the key.
    if (EVP_CipherInit_ex2(ctx->ctx.get(), nullptr, ctx->key, ctx->ivKept > 0 ? ctx->iv : nullptr, ctx->encrypt,
                           nullptr) != 1) {
        vkl::QueueErrorIfEmpty(__func__, "keying at the new length failed");
        return -2;
    }
    return 1;
}

int VKL_EVP_CIPHER_CTX_set_padding(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, int padding) {
    VKL_ENTER(int);
    if (!vkl::Usable(vkl, ctx, __func__)) return -2;
    // OpenSSL keeps the setting it refuses for want of a cipher, and the next cipher would inherit it.
    if (EVP_CIPHER_CTX_get0_cipher(ctx->ctx.get()) == nullptr) {
        vkl::QueueErrorIfEmpty(__func__, "no cipher set");
        return -2;
    }
    if (EVP_CIPHER_CTX_set_padding(ctx->ctx.get(), padding != 0) != 1) {
        vkl::QueueErrorIfEmpty(__func__, "the cipher refused the padding setting");
        return -2;
    }
    return 1;
}

const VKL_EVP_CIPHER_t* VKL_EVP_get_cipherbyname(VKL_t* vkl, const char* name) {
    VKL_ENTER(const VKL_EVP_CIPHER_t*);
    return vkl::FetchCipher(vkl, name, __func__);
}

int VKL_EVP_CIPHER_block_size(VKL_t*, const VKL_EVP_CIPHER_t* cipher) {
    VKL_ENTER(int);
    return cipher != nullptr ? cipher->blockSize : -1;
}

int VKL_EVP_CIPHER_key_length(VKL_t*, const VKL_EVP_CIPHER_t* cipher) {
    VKL_ENTER(int);
    return cipher != nullptr ? cipher->keyLength : -1;
}

int VKL_EVP_CIPHER_iv_length(VKL_t*, const VKL_EVP_CIPHER_t* cipher) {
    VKL_ENTER(int);
    return cipher != nullptr ? cipher->ivLength : -1;
}

int VKL_EVP_CIPHER_type(VKL_t*, const VKL_EVP_CIPHER_t* cipher) {
    VKL_ENTER(int);
    return cipher != nullptr ? cipher->nid : 0;
}

int VKL_EVP_EncryptInit(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, const VKL_EVP_CIPHER_t* cipher,
                        const unsigned char* key, const unsigned char* iv) {
    VKL_ENTER(int);
    return vkl::Init(vkl, ctx, cipher, key, iv, 1, __func__);
}

int VKL_EVP_DecryptInit(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, const VKL_EVP_CIPHER_t* cipher,
                        const unsigned char* key, const unsigned char* iv) {
    VKL_ENTER(int);
    return vkl::Init(vkl, ctx, cipher, key, iv, 0, __func__);
}

int VKL_EVP_EncryptUpdate(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength,
                          const unsigned char* in, int length) {
    VKL_ENTER_LEN(int, length);
    return vkl::Update(vkl, ctx, out, outLength, in, length, true, __func__);
}

int VKL_EVP_DecryptUpdate(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength,
                          const unsigned char* in, int length) {
    VKL_ENTER_LEN(int, length);
    return vkl::Update(vkl, ctx, out, outLength, in, length, false, __func__);
}

int VKL_EVP_EncryptFinal(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength) {
    VKL_ENTER(int);
    return vkl::Final(vkl, ctx, out, outLength, true, __func__);
}

int VKL_EVP_DecryptFinal(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength) {
    VKL_ENTER(int);
    return vkl::Final(vkl, ctx, out, outLength, false, __func__);
}

}  // extern "C"
