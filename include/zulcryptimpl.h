/*
 * The procedural interface for SNMPv3 engines: opaque handles, plain buffer
 * records and a status record that carries failure texts back to the caller.
 *
 * Every C-callable operation checks its pointer arguments and refuses a null
 * one with "Invalid NULL arg to <operation>" in the status record (or through
 * CZulCryptContext::HandleError when the status record itself is null), then
 * does its work through VKL. Results: 1 (or a size) on success, 0 on failure,
 * with the failure text in the status record's errorMsg.
 *
 * From C the handles are opaque; the records have the same layout in C and C++.
 */
#ifndef ZULCRYPTIMPL_H
#define ZULCRYPTIMPL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vkl.h>

#include "zulcryptexport.h"

#ifdef __cplusplus
#include <iosfwd>

#include "czulcryptcontext.h"
#endif

#define ZULVKL_ERROR_MSG_SIZE 512

/* A writable byte range; length is an input, an output or both, as each operation says. */
typedef struct ZulVklBuffer {
    unsigned char* data;
    uint32_t length;
} ZulVklBuffer;

/* A read-only byte range; operations never change it. */
typedef struct ZulVklConstBuffer {
    const unsigned char* data;
    uint32_t length;
} ZulVklConstBuffer;

#ifdef __cplusplus

/* The status record: VKL's status, then the text of the most recent failure. */
struct ZULCRYPT_API ZulVklStatusWrap {
    ZulVklStatusWrap() : msgLen(0) {
        memset(&status, 0, sizeof status);
        memset(errorMsg, 0, sizeof errorMsg);
    }

    // After a failed VKL call: result 0 copies VKL's status record into status, result -2 writes
    // the text of the oldest VKL error at errorMsg + msgLen; any other result changes nothing.
    void Set(VKL_t& vkl, int result);
    // Copies text at errorMsg + msgLen when it fits with its terminator; otherwise the text goes
    // to CZulCryptContext::HandleError and the record keeps what it had.
    void Set(const char* text);

    C_VKL_STATUS_Wrap status;
    uint64_t msgLen;
    char errorMsg[ZULVKL_ERROR_MSG_SIZE];
};

/* The context handle: one crypto context, opened and checked by its constructor. */
struct ZulVklCtxWrap {
    ZulVklCtxWrap() : m_Context() {}
    CZulCryptContext m_Context;
};

/* Object handles: each owns one VKL object, released by the matching destroy operation. */
struct ZulVklMdCtxWrap {
    explicit ZulVklMdCtxWrap(VKL_EVP_MD_CTX_t* pMdCtx) : m_pMdCtx(pMdCtx) {}
    VKL_EVP_MD_CTX_t* m_pMdCtx;
};

struct ZulVklHmacCtxWrap {
    explicit ZulVklHmacCtxWrap(VKL_HMAC_CTX_t* pHmacCtx) : m_pHmacCtx(pHmacCtx) {}
    VKL_HMAC_CTX_t* m_pHmacCtx;
};

struct ZulVklCipherCtxWrap {
    explicit ZulVklCipherCtxWrap(VKL_EVP_CIPHER_CTX_t* pCipherCtx) : m_pCipherCtx(pCipherCtx) {}
    VKL_EVP_CIPHER_CTX_t* m_pCipherCtx;
};

#else

typedef struct ZulVklStatusWrap {
    VKL_STATUS_t status;
    uint64_t msgLen;
    char errorMsg[ZULVKL_ERROR_MSG_SIZE];
} ZulVklStatusWrap;

typedef struct ZulVklCtxWrap ZulVklCtxWrap;
typedef struct ZulVklMdCtxWrap ZulVklMdCtxWrap;
typedef struct ZulVklHmacCtxWrap ZulVklHmacCtxWrap;
typedef struct ZulVklCipherCtxWrap ZulVklCipherCtxWrap;

#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Handles and status records ---- */

/* A context handle with a usable VKL context, or null (the context reports why). */
ZULCRYPT_API ZulVklCtxWrap* ZulVklCtxCreate(void);
/* Destroys the handle (null allowed); object handles made from it must be destroyed first. Returns 0. */
ZULCRYPT_API int ZulVklCtxDestroy(ZulVklCtxWrap* ctx);
/* A zeroed status record, or null when memory is short. */
ZULCRYPT_API ZulVklStatusWrap* ZulVklStatusCreate(void);
/* Frees the record (null allowed). Returns 0. */
ZULCRYPT_API int ZulVklStatusDestroy(ZulVklStatusWrap* status);

/* Object handles: null without a VKL context or when VKL cannot make the object. Destroy returns 0,
 * and with a null context handle leaves the object handle alone. */
ZULCRYPT_API ZulVklMdCtxWrap* ZulVklMdCtxCreate(ZulVklCtxWrap* ctx);
ZULCRYPT_API int ZulVklMdCtxDestroy(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md);
ZULCRYPT_API ZulVklHmacCtxWrap* ZulVklHmacCtxCreate(ZulVklCtxWrap* ctx);
ZULCRYPT_API int ZulVklHmacCtxDestroy(ZulVklCtxWrap* ctx, ZulVklHmacCtxWrap* hmac);
ZULCRYPT_API ZulVklCipherCtxWrap* ZulVklCipherCtxCreate(ZulVklCtxWrap* ctx);
ZULCRYPT_API int ZulVklCipherCtxDestroy(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* cipher);

/* Passes errorMsg, then VKL's status description, to CZulCryptContext::HandleDebug at level 0. */
ZULCRYPT_API void ZulVklLogErrMsg(ZulVklStatusWrap* status);

/* ---- SNMPv3 key derivation (RFC 3414) ---- */

/* Password to key: digest of 1,048,576 bytes of the repeated password. key->length must be the
 * digest's size and is left unchanged. Refuses an empty password. 1 on success, 0 on failure. */
ZULCRYPT_API int ZulVklMdGenerateKey(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest,
                                     ZulVklConstBuffer* password, ZulVklBuffer* key, ZulVklStatusWrap* status);
/* Localised key: digest(key | engine ID | key). localisedKey->length must be the digest's size.
 * 1 on success, 0 on failure. */
ZULCRYPT_API int ZulVklMdLocaliseKey(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest,
                                     ZulVklConstBuffer* engineId, ZulVklConstBuffer* key,
                                     ZulVklBuffer* localisedKey, ZulVklStatusWrap* status);
/* digest(first | second), the step KeyChange repeats. On success out->data is a new malloc'ed block
 * of the digest's size (stored in out->length) that the caller frees; the block out held before is
 * not freed. 1 on success, 0 on failure (out untouched). */
ZULCRYPT_API int ZulVklMdKeyChangeDigest(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest,
                                         ZulVklConstBuffer* first, ZulVklConstBuffer* second, ZulVklBuffer* out,
                                         ZulVklStatusWrap* status);
/* The digest's output size in bytes; 0 for an unknown name or without a VKL context. */
ZULCRYPT_API int ZulVklMdDigestLength(ZulVklCtxWrap* ctx, const char* digest);

#define ZULVKL_KEY_EXTENSION_BLUMENTHAL 1
#define ZULVKL_KEY_EXTENSION_REEDER     2
/* Extends a localised privacy key to extendedKey->length bytes (1..64) by the given method; the engine ID
 * is used by REEDER only but must not be null.
 * BLUMENTHAL (AES-192/256 of most agents): key | H(key) | ..., each digest over all the key so far.
 * REEDER (3DES-EDE, AES-192-C/256-C): key | localise(password to key(key)) | ..., the password to key
 * taking all the key so far as the password. The two give different keys. A localised key at least as
 * long as asked is only cut. extendedKey->data needs extendedKey->length bytes; the length is not
 * changed. 1 on success, 0 on failure (unknown method, empty key, length 0 or over 64, VKL failure),
 * with nothing written. */
ZULCRYPT_API int ZulVklMdExtendKey(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest, int method,
                                   ZulVklConstBuffer* engineId, ZulVklConstBuffer* localisedKey,
                                   ZulVklBuffer* extendedKey, ZulVklStatusWrap* status);

/* ---- Privacy ciphers ---- */

/* Key or IV size in bytes of the named cipher; 0 for an unknown name. */
ZULCRYPT_API int ZulVklCipherRequiredKeySize(ZulVklCtxWrap* ctx, const char* cipher, ZulVklStatusWrap* status);
ZULCRYPT_API int ZulVklCipherRequiredIvSize(ZulVklCtxWrap* ctx, const char* cipher, ZulVklStatusWrap* status);
/* Padding off (0) or on (any other value); 1 on success, 0 on failure. */
ZULCRYPT_API int ZulVklCipherSetPadding(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, int padding,
                                        ZulVklStatusWrap* status);
/* Starts a message; key and IV lengths must be the cipher's exactly. Decryption turns padding off.
 * The cipher's block size on success, 0 on failure. */
ZULCRYPT_API int ZulVklCipherEncryptInit(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                         ZulVklConstBuffer* key, ZulVklConstBuffer* iv, ZulVklStatusWrap* status);
ZULCRYPT_API int ZulVklCipherDecryptInit(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                         ZulVklConstBuffer* key, ZulVklConstBuffer* iv, ZulVklStatusWrap* status);
/* Encrypts count pieces, in order, into out->data, which needs room for their total plus one block;
 * out->length receives the count written and out->data is left where it was. 1 or 0. */
ZULCRYPT_API int ZulVklCipherEncryptUpdate(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                           ZulVklConstBuffer** in, unsigned int count, ZulVklBuffer* out,
                                           ZulVklStatusWrap* status);
/* Decrypts in into out->data (room: in->length plus one block); out->length receives the count. 1 or 0. */
ZULCRYPT_API int ZulVklCipherDecryptUpdate(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                           ZulVklConstBuffer* in, ZulVklBuffer* out, ZulVklStatusWrap* status);
/* Writes the last block at out->data (room: one block), its count into out->length, and cleans the
 * cipher context up. 1 or 0. */
ZULCRYPT_API int ZulVklCipherEncryptFinalise(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                             ZulVklBuffer* out, ZulVklStatusWrap* status);
ZULCRYPT_API int ZulVklCipherDecryptFinalise(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                             ZulVklBuffer* out, ZulVklStatusWrap* status);

/* ---- Authentication digests ---- */

/* HMAC of the count pieces under key with the named digest, written at out->data (room: the digest's
 * size, ZulVklMdDigestLength); out->length receives the full size. 1 on success, 0 on failure.
 * Every VKL failure is detected (a MAC past a failed init would be under the handle's previous
 * key): 0 with VKL's text in the status record, and the output record left as it was. */
ZULCRYPT_API int ZulVklHmacGenerateDigest(ZulVklCtxWrap* ctx, ZulVklHmacCtxWrap* hmac, const char* digest,
                                          ZulVklConstBuffer** in, unsigned int count, ZulVklConstBuffer* key,
                                          ZulVklBuffer* out, ZulVklStatusWrap* status);

#ifdef __cplusplus
}  // extern "C"

// ---- C++ side: conversions and the functions that do the work ----

// The VKL object a handle wraps; null for a null handle (or a context without VKL context).
ZULCRYPT_API VKL_t* ZulVklWrapConvert(ZulVklCtxWrap* ctx);
ZULCRYPT_API VKL_EVP_CIPHER_CTX_t* ZulVklWrapConvert(ZulVklCipherCtxWrap* cipher);
ZULCRYPT_API VKL_HMAC_CTX_t* ZulVklWrapConvert(ZulVklHmacCtxWrap* hmac);
ZULCRYPT_API VKL_EVP_MD_CTX_t* ZulVklWrapConvert(ZulVklMdCtxWrap* md);

// A new, initialised VKL object, or null. Destroy frees a non-null object.
ZULCRYPT_API VKL_EVP_MD_CTX_t* ZulVklMdCtxCreateImpl(VKL_t& vkl);
ZULCRYPT_API void ZulVklMdCtxDestroyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t* md);
ZULCRYPT_API VKL_HMAC_CTX_t* ZulVklHmacCtxCreateImpl(VKL_t& vkl);
ZULCRYPT_API void ZulVklHmacCtxDestroyImpl(VKL_t& vkl, VKL_HMAC_CTX_t* hmac);
ZULCRYPT_API VKL_EVP_CIPHER_CTX_t* ZulVklCipherCtxCreateImpl(VKL_t& vkl);
ZULCRYPT_API void ZulVklCipherCtxDestroyImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t* cipher);

// The work of the C-callable operations of the same name, on checked arguments.
ZULCRYPT_API int ZulVklMdGenerateKeyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest,
                                         ZulVklConstBuffer& password, ZulVklBuffer& key, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklMdLocaliseKeyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest,
                                         ZulVklConstBuffer& engineId, ZulVklConstBuffer& key,
                                         ZulVklBuffer& localisedKey, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklMdKeyChangeImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest,
                                       ZulVklConstBuffer& first, ZulVklConstBuffer& second, ZulVklBuffer& out,
                                       ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklMdExtendKeyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest, int method,
                                       ZulVklConstBuffer& engineId, ZulVklConstBuffer& localisedKey,
                                       ZulVklBuffer& extendedKey, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklMdDigestLengthImpl(VKL_t& vkl, const char* digest);
ZULCRYPT_API int ZulVklCipherRequiredKeySizeImpl(VKL_t& vkl, const char* cipher, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherRequiredIvSizeImpl(VKL_t& vkl, const char* cipher, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherSetPaddingImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, int padding,
                                            ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherEncryptInitImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher,
                                             ZulVklConstBuffer& key, ZulVklConstBuffer& iv, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherDecryptInitImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher,
                                             ZulVklConstBuffer& key, ZulVklConstBuffer& iv, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherEncryptUpdateImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher,
                                               ZulVklConstBuffer** in, unsigned int count, ZulVklBuffer& out,
                                               ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherDecryptUpdateImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher,
                                               ZulVklConstBuffer& in, ZulVklBuffer& out, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherEncryptFinaliseImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher,
                                                 ZulVklBuffer& out, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklCipherDecryptFinaliseImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher,
                                                 ZulVklBuffer& out, ZulVklStatusWrap& status);
ZULCRYPT_API int ZulVklHmacGenerateDigestImpl(VKL_t& vkl, VKL_HMAC_CTX_t& hmac, const char* digest,
                                              ZulVklConstBuffer** in, unsigned int count, ZulVklConstBuffer& key,
                                              ZulVklBuffer& out, ZulVklStatusWrap& status);

// VKL's status description, then " errorMsg: " and errorMsg when errorMsg is not empty.
ZULCRYPT_API std::ostream& operator<<(std::ostream& out, const ZulVklStatusWrap& status);
// As above; "NULL VKL status wrapper" for a null record.
ZULCRYPT_API std::ostream& operator<<(std::ostream& out, const ZulVklStatusWrap* status);

#endif  // __cplusplus

#endif /* ZULCRYPTIMPL_H */
