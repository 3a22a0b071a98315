/*
 * VKL: the vendor crypto library's EVP-style interface.
 *
 * Every call takes the VKL context first. Unless a function says otherwise,
 * an int result of 1 means success and 0 failure; a failure leaves at least
 * one entry on the error queue (VKL_ERR_get_error) whose text names the cause.
 * Functions returning a pointer return null on failure.
 */
#ifndef VKL_H
#define VKL_H

#include <stddef.h>
#include <stdint.h>

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

#ifdef __cplusplus
}
#endif

#endif /* VKL_H */
