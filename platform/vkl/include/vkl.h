/*
 * VKL: the vendor crypto library's EVP-style interface.
 *
 * Every call takes the VKL context first. Results:
 * - operations (digest, cipher and HMAC init/update/final, set_key_length,
 *   set_padding) return 1 on success and -2 on failure;
 * - life functions (..._init, ..._cleanup, ..._free) and the rest return 1 on
 *   success and 0 on failure;
 * - functions returning a pointer return null on failure.
 * Every failure leaves at least one entry on the error queue (VKL_ERR_get_error)
 * whose text names the cause.
 */
#ifndef VKL_H
#define VKL_H

#include <stddef.h>
#include <stdint.h>

/* The stand-in is built with hidden symbols; these are its interface. */
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

typedef struct VKL_s VKL_t;
typedef struct VKL_EVP_MD_s VKL_EVP_MD_t;
typedef struct VKL_EVP_MD_CTX_s VKL_EVP_MD_CTX_t;
typedef struct VKL_EVP_CIPHER_s VKL_EVP_CIPHER_t;
typedef struct VKL_EVP_CIPHER_CTX_s VKL_EVP_CIPHER_CTX_t;
typedef struct VKL_HMAC_CTX_s VKL_HMAC_CTX_t;

/* Status record: 268 bytes, cleared by the caller before a call fills it. */
#define VKL_STATUS_SIZE 268
#define VKL_STATUS_DESC_SIZE (VKL_STATUS_SIZE - 8)
typedef struct VKL_STATUS_s {
    int32_t major;
    int32_t minor;
    char description[VKL_STATUS_DESC_SIZE];
} VKL_STATUS_t;

/* Major codes. */
#define VKL_MAJOR_OK 0
#define VKL_MAJOR_WARNING 1
#define VKL_MAJOR_ERROR 2
#define VKL_MAJOR_OPENSSL_ERROR 3
#define VKL_MAJOR_OS_ERROR 4

/* Minor codes. */
#define VKL_MINOR_NULL_PARAMETER 0
#define VKL_MINOR_UNSUPPORTED_VALUE_ID 1
#define VKL_MINOR_UNSUPPORTED_VALUE 2
#define VKL_MINOR_LIBRARY_NOT_FOUND 3
#define VKL_MINOR_LIBRARY_VERIFICATION_FAILED 4
#define VKL_MINOR_INCOMPATIBLE_LIBRARY 5
#define VKL_MINOR_INVALID_STATE 6
#define VKL_MINOR_VALUE_NOT_SET 7
#define VKL_MINOR_VALUE_TRUNCATED 8
#define VKL_MINOR_NOT_INITIALISED 10
#define VKL_MINOR_DISABLED 11
#define VKL_MINOR_MEMORY_FUNCTIONS_ISSUE 12
#define VKL_MINOR_UNABLE_TO_SET_VALUE 14

/* ---- Context life (used by libwexcrypt, not by the library) ---- */

/* A new context with its own provider set; null when OpenSSL cannot start. */
VKL_t* VKL_CTX_new(void);
/* Releases a context made by VKL_CTX_new; null is allowed. */
void VKL_CTX_free(VKL_t* vkl);
/* The version text of the crypto implementation under VKL; never null. */
const char* VKL_Version(VKL_t* vkl);

/* ---- Status, self-test, seeding ---- */

/* Copies the context's current status into the record; returns 1, 0 for a null record. */
int VKL_GetStatus(VKL_t* vkl, VKL_STATUS_t* status);
/* Runs known-answer tests; the record is clean when all passed, else names the failing test.
 * Returns 1 when clean, 0 otherwise. */
int VKL_SelfTest(VKL_t* vkl, VKL_STATUS_t* status);
/* Writes length bytes from the kernel's random source into out; the record says how it went.
 * Returns 1 when clean, 0 otherwise. */
int VKL_GenerateRandomSeed(VKL_t* vkl, VKL_STATUS_t* status, int length, unsigned char* out);
/* Mixes length bytes into the context's random generator. */
int VKL_RAND_seed(VKL_t* vkl, const void* buffer, int length);
/* Fills out with length random bytes from the context's generator. */
int VKL_RAND_bytes(VKL_t* vkl, unsigned char* out, int length);

/* ---- Error queue (per thread) ---- */

/* Removes the oldest entry and returns its code; 0 when the queue is empty. */
unsigned long VKL_ERR_get_error(VKL_t* vkl);
/* Writes the text of code into buffer, NUL-terminated and cut to length bytes;
 * code 0 writes an empty text. */
void VKL_ERR_error_string_n(VKL_t* vkl, unsigned long code, char* buffer, size_t length);

/* ---- Message digests (platform/vkl/src/digest.cpp) ---- */

/* A new digest context, or null. Released with VKL_EVP_MD_CTX_free. */
VKL_EVP_MD_CTX_t* VKL_EVP_MD_CTX_new(VKL_t* vkl);
/* Puts the context into its empty initial state; 1 on success. */
int VKL_EVP_MD_CTX_init(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx);
/* Forgets any digest in progress (the context stays usable); 1 on success, 0 on failure. */
int VKL_EVP_MD_CTX_cleanup(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx);
/* Releases the context; 1 on success, 0 on failure. Null is allowed. */
int VKL_EVP_MD_CTX_free(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx);
/* The digest known by name or alias ("SHA1", "SHA-256", "RSA-SHA1"), owned by the
 * context; null (with an error naming it) when unknown. */
const VKL_EVP_MD_t* VKL_EVP_get_digestbyname(VKL_t* vkl, const char* name);
/* Starts a hash with md; 1 on success. */
int VKL_EVP_DigestInit(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, const VKL_EVP_MD_t* md);
/* Hashes length bytes; 1 on success. */
int VKL_EVP_DigestUpdate(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, const void* data, size_t length);
/* Writes the digest (VKL_EVP_MD_size bytes) and, when outLength is not null, its length; 1 on success. */
int VKL_EVP_DigestFinal(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, unsigned char* out, unsigned int* outLength);
/* The digest's object identifier number (NID); 0 for null. */
int VKL_EVP_MD_type(VKL_t* vkl, const VKL_EVP_MD_t* md);
/* The short name of an object identifier number ("SHA1"), or null. */
const char* VKL_OBJ_nid2sn(VKL_t* vkl, int nid);
/* Digest length in bytes; -1 for null. */
int VKL_EVP_MD_size(VKL_t* vkl, const VKL_EVP_MD_t* md);
/* Block length in bytes; -1 for null. */
int VKL_EVP_MD_block_size(VKL_t* vkl, const VKL_EVP_MD_t* md);

/* ---- Symmetric ciphers (platform/vkl/src/cipher.cpp) ---- */

/* A new cipher context, or null. Released with VKL_EVP_CIPHER_CTX_free. */
VKL_EVP_CIPHER_CTX_t* VKL_EVP_CIPHER_CTX_new(VKL_t* vkl);
/* Puts the context into its empty initial state; 1 on success. */
int VKL_EVP_CIPHER_CTX_init(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx);
/* Releases what the context holds (it stays usable after an init); 1 on success, 0 on failure. */
int VKL_EVP_CIPHER_CTX_cleanup(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx);
/* Frees the context; 1 on success, 0 on failure. Null is allowed. */
int VKL_EVP_CIPHER_CTX_free(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx);
/* The cipher the context was initialised with, null when none. */
const VKL_EVP_CIPHER_t* VKL_EVP_CIPHER_CTX_cipher(VKL_t* vkl, const VKL_EVP_CIPHER_CTX_t* ctx);
/* Sets the key length of a variable-length cipher; 1 on success, -2 when the cipher does not take it.
 * After an init without key the next init brings the key. After an init with a key the context is
 * keyed again at the new length from VKL's own copy of the bytes that init read (the length then in
 * force, the default unless set before): a length up to that many takes the start of them; a longer
 * one is refused (-2, the context stays as it was), as VKL never reads the caller's key buffer after
 * the init returns. For a longer key, set the length before the init that brings the key. */
int VKL_EVP_CIPHER_CTX_set_key_length(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, int length);
/* Padding on (1) or off (0); 1 on success. */
int VKL_EVP_CIPHER_CTX_set_padding(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, int padding);
/* The cipher known by name or alias ("AES-128-CBC", "DES-CBC"), owned by the context;
 * null (with an error naming it) when unknown. */
const VKL_EVP_CIPHER_t* VKL_EVP_get_cipherbyname(VKL_t* vkl, const char* name);
/* Block size, default key length, IV length (0 without IV) in bytes; -1 for null. */
int VKL_EVP_CIPHER_block_size(VKL_t* vkl, const VKL_EVP_CIPHER_t* cipher);
int VKL_EVP_CIPHER_key_length(VKL_t* vkl, const VKL_EVP_CIPHER_t* cipher);
int VKL_EVP_CIPHER_iv_length(VKL_t* vkl, const VKL_EVP_CIPHER_t* cipher);
/* The cipher's object identifier number (NID); 0 for null. */
int VKL_EVP_CIPHER_type(VKL_t* vkl, const VKL_EVP_CIPHER_t* cipher);
/* Initialise for encryption or decryption. A null cipher keeps the current one, a null key
 * or IV leaves it to a later init (as OpenSSL's EVP_EncryptInit_ex2); 1 on success. */
int VKL_EVP_EncryptInit(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, const VKL_EVP_CIPHER_t* cipher,
                        const unsigned char* key, const unsigned char* iv);
int VKL_EVP_DecryptInit(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, const VKL_EVP_CIPHER_t* cipher,
                        const unsigned char* key, const unsigned char* iv);
/* Encrypts length bytes into out (room: length + block size - 1) and sets *outLength; 1 on success. */
int VKL_EVP_EncryptUpdate(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength,
                          const unsigned char* in, int length);
/* Decrypts length bytes into out (room: length + block size) and sets *outLength; 1 on success. */
int VKL_EVP_DecryptUpdate(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength,
                          const unsigned char* in, int length);
/* Writes the last (padded) block, at most one block; fails with padding off and a partial block. */
int VKL_EVP_EncryptFinal(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength);
/* Writes the rest of the plaintext without padding; fails on bad padding or a partial block. */
int VKL_EVP_DecryptFinal(VKL_t* vkl, VKL_EVP_CIPHER_CTX_t* ctx, unsigned char* out, int* outLength);

/* ---- HMAC (platform/vkl/src/hmac.cpp) ---- */

/* A new HMAC context, or null. Released with VKL_HMAC_CTX_free. */
VKL_HMAC_CTX_t* VKL_HMAC_CTX_new(VKL_t* vkl);
/* Releases the context; 1 on success. Null is allowed. */
int VKL_HMAC_CTX_free(VKL_t* vkl, VKL_HMAC_CTX_t* ctx);
/* Starts an HMAC with key and md. A null key with length 0 and a null md re-arm the
 * context with the key and digest it already holds; 1 on success. */
int VKL_HMAC_Init(VKL_t* vkl, VKL_HMAC_CTX_t* ctx, const void* key, int keyLength, const VKL_EVP_MD_t* md);
/* Feeds length bytes; 1 on success. */
int VKL_HMAC_Update(VKL_t* vkl, VKL_HMAC_CTX_t* ctx, const unsigned char* data, size_t length);
/* Writes the full HMAC (the digest's size) and its length; 1 on success. */
int VKL_HMAC_Final(VKL_t* vkl, VKL_HMAC_CTX_t* ctx, unsigned char* out, unsigned int* outLength);

/* ---- Big numbers, RSA, key containers, sign/verify ---- */

typedef struct VKL_BIGNUM_s VKL_BIGNUM_t;
typedef struct VKL_EVP_PKEY_s VKL_EVP_PKEY_t;

/* An RSA key as VKL hands it out: callers read and write the component fields
 * directly (null when absent); the record owns the numbers in them and releases
 * them with itself. `references` belongs to VKL. */
typedef struct VKL_RSA_s {
    VKL_BIGNUM_t* n;
    VKL_BIGNUM_t* e;
    VKL_BIGNUM_t* d;
    VKL_BIGNUM_t* p;
    VKL_BIGNUM_t* q;
    VKL_BIGNUM_t* dmp1;
    VKL_BIGNUM_t* dmq1;
    VKL_BIGNUM_t* iqmp;
    int references;
} VKL_RSA_t;

/* PKCS #1 v1.5 padding: block type 2 for public encryption, 1 for private encryption. */
#define VKL_RSA_PKCS1_PADDING 1

/* A new number of value zero, or null. Released with VKL_BN_free or VKL_BN_clear_free. */
VKL_BIGNUM_t* VKL_BN_new(VKL_t* vkl);
/* Release a number; null is allowed. The clearing form wipes the value first. */
void VKL_BN_free(VKL_t* vkl, VKL_BIGNUM_t* bn);
void VKL_BN_clear_free(VKL_t* vkl, VKL_BIGNUM_t* bn);
/* Significant bits of the magnitude, 0 for zero; 0 for null. */
int VKL_BN_num_bits(VKL_t* vkl, const VKL_BIGNUM_t* bn);
/* Writes the magnitude big-endian without leading zero bytes ((num_bits + 7) / 8 bytes);
 * returns the count written, -1 on failure. */
int VKL_BN_bn2bin(VKL_t* vkl, const VKL_BIGNUM_t* bn, unsigned char* out);
/* Sets ret (or a new number when ret is null) to the unsigned big-endian value of length bytes;
 * returns it, or null on failure (a new number is then released). */
VKL_BIGNUM_t* VKL_BN_bin2bn(VKL_t* vkl, const unsigned char* in, int length, VKL_BIGNUM_t* ret);
/* Makes a non-zero number negative (non-zero sign) or non-negative (0); 1 on success. */
int VKL_BN_set_negative(VKL_t* vkl, VKL_BIGNUM_t* bn, int sign);
/* 1 when the number is negative, 0 otherwise. */
int VKL_BN_is_negative(VKL_t* vkl, const VKL_BIGNUM_t* bn);

/* A new RSA record with every field null, or null. Released with VKL_RSA_free. */
VKL_RSA_t* VKL_RSA_new(VKL_t* vkl);
/* Drops one reference; the last one wipes and releases the numbers and the record. Null is allowed. */
void VKL_RSA_free(VKL_t* vkl, VKL_RSA_t* rsa);
/* A new complete key (all eight fields) of bits bits and public exponent e, or null.
 * More than 16384 bits are refused. The progress callback is accepted for compatibility and never called. */
VKL_RSA_t* VKL_RSA_generate_key(VKL_t* vkl, int bits, unsigned long e,
                                void (*callback)(int, int, void*), void* callbackArgument);
/* 1 when the record is a consistent private key (n, e, d, and the CRT values when present);
 * 0 otherwise, with the inconsistency queued. */
int VKL_RSA_check_key(VKL_t* vkl, const VKL_RSA_t* rsa);
/* Raw RSA with PKCS #1 v1.5 padding (the only padding offered). to needs room for the
 * modulus length. The public forms need n and e; the private forms need n and d and use
 * the CRT values when all five are present. The modulus has 88 to 16384 bits (at least the
 * 11 bytes of the padding); others are refused. Return the count written to to, or -1. */
int VKL_RSA_public_encrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to,
                           VKL_RSA_t* rsa, int padding);
int VKL_RSA_public_decrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to,
                           VKL_RSA_t* rsa, int padding);
int VKL_RSA_private_encrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to,
                            VKL_RSA_t* rsa, int padding);
int VKL_RSA_private_decrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to,
                            VKL_RSA_t* rsa, int padding);

/* A new, empty key container, or null. Released with VKL_EVP_PKEY_free. */
VKL_EVP_PKEY_t* VKL_EVP_PKEY_new(VKL_t* vkl);
/* Releases the container and its reference to its RSA record; null is allowed. */
void VKL_EVP_PKEY_free(VKL_t* vkl, VKL_EVP_PKEY_t* pkey);
/* Puts rsa into the container, which takes a reference of its own (the caller still
 * releases its own); the record is read when the container is used. 1 on success, 0 on failure. */
int VKL_EVP_PKEY_set1_RSA(VKL_t* vkl, VKL_EVP_PKEY_t* pkey, VKL_RSA_t* rsa);
/* Finishes the hash in ctx and signs it with PKCS #1 v1.5 (needs n and d); writes the
 * signature (the modulus length) and its length. 1 on success, 0 on failure. The hash is
 * finished either way. The signature is OpenSSL's for the same key and digest, DigestInfo
 * included; the digests OpenSSL does not sign with (BLAKE2, SHAKE, SM3, whirlpool, ...) are
 * refused with "<function>: digest <name> cannot be used in a PKCS #1 v1.5 signature". */
int VKL_EVP_SignFinal(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, unsigned char* signature, unsigned int* length,
                      VKL_EVP_PKEY_t* pkey);
/* Finishes the hash in ctx and checks a PKCS #1 v1.5 signature over it (needs n and e).
 * 1 when valid, 0 when it does not match (queued as such), -1 on any other failure; the
 * digests VKL_EVP_SignFinal refuses are refused here alike. */
int VKL_EVP_VerifyFinal(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, const unsigned char* signature, unsigned int length,
                        VKL_EVP_PKEY_t* pkey);

/* ---- Diffie-Hellman (platform/vkl/src/dh.cpp) ---- */

/* A DH record as VKL hands it out: callers read and write the fields directly
 * (null when absent); the record owns the numbers in them and wipes and releases
 * them with itself. p and g are the group, pub_key and priv_key this party's pair. */
typedef struct VKL_DH_s {
    VKL_BIGNUM_t* p;
    VKL_BIGNUM_t* g;
    VKL_BIGNUM_t* pub_key;
    VKL_BIGNUM_t* priv_key;
} VKL_DH_t;

/* A new record with every field null, or null. Released with VKL_DH_free. */
VKL_DH_t* VKL_DH_new(VKL_t* vkl);
/* Wipes and releases the numbers and the record; null is allowed. */
void VKL_DH_free(VKL_t* vkl, VKL_DH_t* dh);
/* A new record with a generated safe prime p of primeLength bits (at least 512) and
 * generator g, or null. The progress callback is accepted for compatibility and never called. */
VKL_DH_t* VKL_DH_generate_parameters(VKL_t* vkl, int primeLength, int generator,
                                     void (*callback)(int, int, void*), void* callbackArgument);
/* Generates a fresh key pair for the record's p and g into pub_key and priv_key, replacing
 * any pair it held; the private value has twice the bits of the group's security strength
 * (NIST SP 800-56A). 1 on success, 0 on failure. */
int VKL_DH_generate_key(VKL_t* vkl, VKL_DH_t* dh);
/* The byte size of p; 0 on failure (no record or no p). */
int VKL_DH_size(VKL_t* vkl, const VKL_DH_t* dh);
/* Writes the shared secret (peer ^ priv_key mod p) into key, padded with leading zero bytes
 * to VKL_DH_size bytes, and returns that count; -1 on failure. Needs p, g and the key pair;
 * refuses a peer value outside 1 < peer < p - 1. */
int VKL_DH_compute_key(VKL_t* vkl, unsigned char* key, const VKL_BIGNUM_t* peer, VKL_DH_t* dh);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif /* VKL_H */
