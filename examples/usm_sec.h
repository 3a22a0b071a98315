/*
 * The user-based security model's cryptography for the UDP examples,
 * through the library's C-callable interface only: the protocol tables, user
 * keys from password files (RFC 3414 A.2), the MAC (RFC 3414 6 and 7,
 * RFC 7860), the privacy ciphers (RFC 3414 8 DES-CBC, RFC 3826 AES-CFB,
 * draft-reeder-snmpv3-usm-3desede-00 3DES-EDE-CBC) and KeyChange (RFC 3414 5).
 */
#ifndef USM_SEC_H
#define USM_SEC_H

#include <stddef.h>
#include <stdint.h>

#include <zulcryptimpl.h>

#define USM_MAX_KEY 64 /* SHA-512 */
#define USM_SALT_LENGTH 8
/* Seconds an authenticated message's time may lie from the authoritative engine's (RFC 3414 2.2.3). */
#define USM_TIME_WINDOW 150

/* usmStats counters, in the order of their OIDs (1.3.6.1.6.3.15.1.1.N.0). */
enum { UNSUPPORTED_SEC_LEVELS = 1, NOT_IN_TIME_WINDOWS, UNKNOWN_USER_NAMES, UNKNOWN_ENGINE_IDS, WRONG_DIGESTS,
       DECRYPTION_ERRORS, STATS_COUNT };

typedef struct UsmAuthProtocol {
    const char* name;   /* as snmpd's createUser and snmpget -a name it */
    const char* digest; /* the library's digest name */
    unsigned macLength; /* bytes of the HMAC put on the wire */
} UsmAuthProtocol;

typedef struct UsmPrivProtocol {
    const char* name;   /* as snmpd's createUser and snmpget -x name it */
    const char* cipher; /* the library's cipher name */
    unsigned keyLength; /* cipher key bytes, from the localised key (lengthened if short) */
    int des;            /* DES and 3DES CBC: pre-IV from the 8 key bytes after the cipher's, padded input */
    /* ZULVKL_KEY_EXTENSION_BLUMENTHAL or _REEDER: how the localised key is made as long as the cipher's
     * key (a longer one is only cut); 0 for DES and AES-128, which any digest's key covers. */
    int extension;
} UsmPrivProtocol;

/* The table row for a name, or null. */
const UsmAuthProtocol* UsmFindAuth(const char* name);
const UsmPrivProtocol* UsmFindPriv(const char* name);
/* Prints why the command line will not do, the program's usage (its arguments) and the protocols' names on
 * stderr; 2, the exit status for bad usage. */
int UsmUsage(const char* program, const char* why, const char* arguments);
/* Bytes of privacy key the protocol reads: the cipher's key, and the pre-IV for DES and 3DES. */
size_t UsmPrivNeeded(const UsmPrivProtocol* priv);

/* What every example takes on its command line for its user. */
typedef struct UsmOptions {
    const char *user, *auth, *authFile, *priv, *privFile;
} UsmOptions;
/* Where the value of the option named goes (--user, --auth, --auth-password-file, --priv,
 * --priv-password-file), or null for another name. */
const char** UsmOption(UsmOptions* options, const char* name);

typedef struct UsmCrypto {
    ZulVklCtxWrap* ctx;
    ZulVklStatusWrap* status;
    ZulVklMdCtxWrap* md;
    ZulVklHmacCtxWrap* hmac;
    ZulVklCipherCtxWrap* cipher;
} UsmCrypto;

/* Opens the library's context and handles: 1, or 0 with a message on stderr (close anyway). */
int UsmCryptoOpen(UsmCrypto* crypto);
void UsmCryptoClose(UsmCrypto* crypto);

typedef struct UsmUser {
    char name[33];
    const UsmAuthProtocol* auth;
    const UsmPrivProtocol* priv;
    size_t keyLength;                 /* the digest's size */
    unsigned char authKu[USM_MAX_KEY]; /* from the passwords, before localisation */
    unsigned char privKu[USM_MAX_KEY];
    unsigned char authKey[USM_MAX_KEY]; /* localised to the authoritative engine */
    /* The localised key, lengthened when shorter than UsmPrivNeeded: the cipher's key and pre-IV first. */
    unsigned char privKey[USM_MAX_KEY];
} UsmUser;

/* The user's name and protocols from the options: null, or why they will not do (a usage error). */
const char* UsmUserFromOptions(UsmUser* user, const UsmOptions* options);
/* Reads both password files and derives the user's Ku: 1, or 0 with a message on stderr. */
int UsmUserFromFiles(UsmCrypto* crypto, UsmUser* user, const char* authFile, const char* privFile);
/* Localises both keys to an engine and makes the privacy key as long as its cipher's key: 1, or 0 with a
 * message on stderr (the user's localised keys then hold nothing usable). */
int UsmLocalise(UsmCrypto* crypto, UsmUser* user, const unsigned char* engineId, size_t engineIdLength);
/* Wipes every key of the user. */
void UsmUserWipe(UsmUser* user);

/* Computes the MAC over the message (whose MAC field holds zeros) and puts it in place. 1 or 0. */
int UsmSign(UsmCrypto* crypto, const UsmUser* user, unsigned char* message, size_t length, size_t macOffset);
/* 1 when the MAC in the message is right; the message is left as it came. 0 otherwise. */
int UsmVerify(UsmCrypto* crypto, const UsmUser* user, unsigned char* message, size_t length, size_t macOffset,
              size_t macLength);

/* Encrypts a scoped PDU into out (room: length + 8), writing the salt into privParams. 1 or 0. */
int UsmEncrypt(UsmCrypto* crypto, const UsmUser* user, uint32_t boots, uint32_t time, uint64_t salt,
               const unsigned char* in, size_t length, unsigned char* out, size_t* outLength,
               unsigned char privParams[USM_SALT_LENGTH]);
/* Decrypts into out (room: length + 8). 0 when the lengths are wrong or the cipher fails. */
int UsmDecrypt(UsmCrypto* crypto, const UsmUser* user, uint32_t boots, uint32_t time,
               const unsigned char* privParams, size_t privLength, const unsigned char* in, size_t length,
               unsigned char* out, size_t* outLength);

/* KeyChange's XOR stream (RFC 3414 5) from the old key and the random value, both length bytes, applied to in:
 * out = the delta for a new key as in, or the new key for a delta as in; out may be oldKey, which is read first.
 * 1, or 0 with a message on stderr. */
int UsmKeyChange(UsmCrypto* crypto, const UsmUser* user, const unsigned char* oldKey, const unsigned char* random,
                 size_t length, const unsigned char* in, unsigned char* out);

/* The OID content of a usmUserEntry column (SNMP-USER-BASED-SM-MIB) for the user at the engine, into oid
 * (room: USM_MAX_ENTRY_OID): its length. */
#define USM_MAX_ENTRY_OID 144
size_t UsmUserEntryOid(unsigned char column, const unsigned char* engineId, size_t engineIdLength, const char* user,
                       unsigned char* oid);

/* Overwrites secrets in a way the compiler keeps. */
void UsmWipe(void* data, size_t length);
/* Random bytes from the kernel (salts, request IDs, engine IDs); 1 or 0. */
int UsmRandom(void* out, size_t length);

#endif /* USM_SEC_H */
