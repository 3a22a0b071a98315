#include "usm_sec.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

static const UsmAuthProtocol kAuth[] = {
    {"MD5", "MD5", 12},         {"SHA", "SHA1", 12},        {"SHA-224", "SHA224", 16},
    {"SHA-256", "SHA256", 24},  {"SHA-384", "SHA384", 32},  {"SHA-512", "SHA512", 48},
};

/* AES-192, AES-256 and 3DES need more key than a localised MD5, SHA-1 or SHA-224 key holds. The plain
 * AES names lengthen it as draft-blumenthal-aes-usm-04 does, the -C names and 3DES as
 * draft-reeder-snmpv3-usm-3desede-00 does; the two give different keys, so the name must match the peer's. */
static const UsmPrivProtocol kPriv[] = {
    {"DES", "DES-CBC", 8, 1, 0},
    {"3DES", "DES-EDE3-CBC", 24, 1, ZULVKL_KEY_EXTENSION_REEDER},
    {"AES", "AES-128-CFB", 16, 0, 0},
    {"AES-192", "AES-192-CFB", 24, 0, ZULVKL_KEY_EXTENSION_BLUMENTHAL},
    {"AES-256", "AES-256-CFB", 32, 0, ZULVKL_KEY_EXTENSION_BLUMENTHAL},
    {"AES-192-C", "AES-192-CFB", 24, 0, ZULVKL_KEY_EXTENSION_REEDER},
    {"AES-256-C", "AES-256-CFB", 32, 0, ZULVKL_KEY_EXTENSION_REEDER},
};

const UsmAuthProtocol* UsmFindAuth(const char* name) {
    if (strcmp(name, "SHA1") == 0 || strcmp(name, "SHA-1") == 0) name = "SHA";
    for (size_t i = 0; i < sizeof kAuth / sizeof kAuth[0]; ++i) {
        if (strcmp(kAuth[i].name, name) == 0) return &kAuth[i];
    }
    return NULL;
}

const UsmPrivProtocol* UsmFindPriv(const char* name) {
    /* The other spellings snmpd's createUser and snmpget -x take. */
    static const char* const kAliases[][2] = {{"AES-128", "AES"},       {"AES128", "AES"},
                                              {"AES192", "AES-192"},    {"AES256", "AES-256"},
                                              {"AES192C", "AES-192-C"}, {"AES256C", "AES-256-C"}};
    for (size_t i = 0; i < sizeof kAliases / sizeof kAliases[0]; ++i) {
        if (strcmp(name, kAliases[i][0]) == 0) name = kAliases[i][1];
    }
    for (size_t i = 0; i < sizeof kPriv / sizeof kPriv[0]; ++i) {
        if (strcmp(kPriv[i].name, name) == 0) return &kPriv[i];
    }
    return NULL;
}

const char** UsmOption(UsmOptions* options, const char* name) {
    return strcmp(name, "--user") == 0                 ? &options->user
           : strcmp(name, "--auth") == 0               ? &options->auth
           : strcmp(name, "--auth-password-file") == 0 ? &options->authFile
           : strcmp(name, "--priv") == 0               ? &options->priv
           : strcmp(name, "--priv-password-file") == 0 ? &options->privFile
                                                       : NULL;
}

const char* UsmUserFromOptions(UsmUser* user, const UsmOptions* options) {
    if (!options->user || !options->auth || !options->authFile || !options->priv || !options->privFile) {
        return "missing arguments";
    }
    size_t length = strlen(options->user);
    if (length == 0 || length > sizeof user->name - 1) return "the user name needs 1 to 32 characters";
    memcpy(user->name, options->user, length + 1);
    user->auth = UsmFindAuth(options->auth);
    user->priv = UsmFindPriv(options->priv);
    return user->auth == NULL ? "unknown authentication protocol"
           : user->priv == NULL ? "unknown privacy protocol"
                                : NULL;
}

int UsmUsage(const char* program, const char* why, const char* arguments) {
    fprintf(stderr,
            "%s: %s\nusage: %s %s\n  DIGEST: MD5, SHA, SHA-224, SHA-256, SHA-384, SHA-512\n"
            "  CIPHER: DES, 3DES, AES, AES-192, AES-256, AES-192-C, AES-256-C\n",
            program, why, program, arguments);
    return 2;
}

size_t UsmPrivNeeded(const UsmPrivProtocol* priv) { return priv->keyLength + (priv->des ? 8 : 0); }

void UsmWipe(void* data, size_t length) {
    volatile unsigned char* p = (volatile unsigned char*)data;
    while (length-- > 0) *p++ = 0;
}

int UsmRandom(void* out, size_t length) {
    unsigned char* p = (unsigned char*)out;
    while (length > 0) {
        ssize_t got = getrandom(p, length, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return 0;
        p += got;
        length -= (size_t)got;
    }
    return 1;
}

/* Reports the library's failure text; returns 0 for the caller to pass on. */
static int Fail(UsmCrypto* crypto, const char* what) {
    fprintf(stderr, "%s failed: %s\n", what, crypto->status != NULL ? crypto->status->errorMsg : "");
    return 0;
}

int UsmCryptoOpen(UsmCrypto* crypto) {
    memset(crypto, 0, sizeof *crypto);
    crypto->ctx = ZulVklCtxCreate();
    crypto->status = ZulVklStatusCreate();
    if (crypto->ctx == NULL || crypto->status == NULL) {
        fprintf(stderr, "the crypto library could not be opened\n");
        return 0;
    }
    crypto->md = ZulVklMdCtxCreate(crypto->ctx);
    crypto->hmac = ZulVklHmacCtxCreate(crypto->ctx);
    crypto->cipher = ZulVklCipherCtxCreate(crypto->ctx);
    if (crypto->md == NULL || crypto->hmac == NULL || crypto->cipher == NULL) {
        fprintf(stderr, "no digest, HMAC or cipher handle\n");
        return 0;
    }
    return 1;
}

void UsmCryptoClose(UsmCrypto* crypto) {
    /* Object handles go before the context handle they were made from. */
    if (crypto->ctx != NULL) {
        if (crypto->md != NULL) ZulVklMdCtxDestroy(crypto->ctx, crypto->md);
        if (crypto->hmac != NULL) ZulVklHmacCtxDestroy(crypto->ctx, crypto->hmac);
        if (crypto->cipher != NULL) ZulVklCipherCtxDestroy(crypto->ctx, crypto->cipher);
    }
    ZulVklStatusDestroy(crypto->status);
    ZulVklCtxDestroy(crypto->ctx);
    memset(crypto, 0, sizeof *crypto);
}

/* The first line of the file, its line ending removed: its length, or -1 with a message. Read with
 * read() into the caller's buffer, so no stdio buffer keeps a copy of the password. */
static int ReadPassword(const char* path, char* out, size_t capacity) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        /* NOLINTNEXTLINE(concurrency-mt-unsafe): one thread, so strerror's buffer is ours */
        fprintf(stderr, "cannot read the password file %s: %s\n", path, strerror(errno));
        return -1;
    }
    size_t used = 0;
    char* newline = NULL;
    while (newline == NULL && used < capacity - 1) {
        ssize_t got = read(fd, out + used, capacity - 1 - used);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            /* NOLINTNEXTLINE(concurrency-mt-unsafe): one thread, so strerror's buffer is ours */
            fprintf(stderr, "cannot read the password file %s: %s\n", path, strerror(errno));
            close(fd);
            return -1;
        }
        if (got == 0) break;
        newline = memchr(out + used, '\n', (size_t)got);
        used += (size_t)got;
    }
    close(fd);
    if (newline == NULL && used == capacity - 1) {
        fprintf(stderr, "the first line of %s is too long for a password\n", path);
        return -1;
    }
    size_t length = newline != NULL ? (size_t)(newline - out) : used;
    if (length > 0 && out[length - 1] == '\r') --length;
    out[length] = '\0';
    /* snmpd refuses shorter passwords too (RFC 3414 11.2). */
    if (length < 8 || memchr(out, '\0', length) != NULL) {
        fprintf(stderr, "the password in %s is shorter than 8 characters or holds a NUL\n", path);
        return -1;
    }
    return (int)length;
}

/* The password in the file turned into the user's key Ku (RFC 3414 A.2): 1, or 0 with a message. */
static int PasswordToKey(UsmCrypto* crypto, const UsmUser* user, const char* path, unsigned char* ku) {
    char password[1026];
    int length = ReadPassword(path, password, sizeof password);
    int ok = 0;
    if (length > 0) {
        ZulVklConstBuffer secret = {(const unsigned char*)password, (uint32_t)length};
        ZulVklBuffer key = {ku, (uint32_t)user->keyLength};
        ok = ZulVklMdGenerateKey(crypto->ctx, crypto->md, user->auth->digest, &secret, &key, crypto->status) == 1 ||
             Fail(crypto, "password to key");
    }
    UsmWipe(password, sizeof password);
    return ok;
}

int UsmUserFromFiles(UsmCrypto* crypto, UsmUser* user, const char* authFile, const char* privFile) {
    int length = ZulVklMdDigestLength(crypto->ctx, user->auth->digest);
    if (length <= 0 || length > USM_MAX_KEY) {
        fprintf(stderr, "digest %s is not available\n", user->auth->digest);
        return 0;
    }
    user->keyLength = (size_t)length;
    if (UsmPrivNeeded(user->priv) > user->keyLength && user->priv->extension == 0) {
        fprintf(stderr, "%s with %s needs a longer key than %s gives\n", user->priv->name, user->auth->name,
                user->auth->name);
        return 0;
    }
    return PasswordToKey(crypto, user, authFile, user->authKu) && PasswordToKey(crypto, user, privFile, user->privKu);
}

int UsmLocalise(UsmCrypto* crypto, UsmUser* user, const unsigned char* engineId, size_t engineIdLength) {
    ZulVklConstBuffer engine = {engineId, (uint32_t)engineIdLength};
    ZulVklConstBuffer authKu = {user->authKu, (uint32_t)user->keyLength};
    ZulVklConstBuffer privKu = {user->privKu, (uint32_t)user->keyLength};
    ZulVklBuffer authKey = {user->authKey, (uint32_t)user->keyLength};
    ZulVklBuffer privKey = {user->privKey, (uint32_t)user->keyLength};
    const char* digest = user->auth->digest;
    if (ZulVklMdLocaliseKey(crypto->ctx, crypto->md, digest, &engine, &authKu, &authKey, crypto->status) != 1 ||
        ZulVklMdLocaliseKey(crypto->ctx, crypto->md, digest, &engine, &privKu, &privKey, crypto->status) != 1) {
        UsmWipe(user->authKey, sizeof user->authKey);
        UsmWipe(user->privKey, sizeof user->privKey);
        return Fail(crypto, "key localisation");
    }
    /* A localised key long enough is used as it is: the cipher reads its start. */
    size_t needed = UsmPrivNeeded(user->priv);
    if (needed <= user->keyLength) return 1;
    /* Made apart from the localised key it is read from, then put in its place. */
    unsigned char extended[USM_MAX_KEY];
    ZulVklConstBuffer localised = {user->privKey, (uint32_t)user->keyLength};
    ZulVklBuffer out = {extended, (uint32_t)needed};
    int ok = ZulVklMdExtendKey(crypto->ctx, crypto->md, digest, user->priv->extension, &engine, &localised, &out,
                               crypto->status) == 1;
    UsmWipe(user->privKey, sizeof user->privKey);
    if (ok) memcpy(user->privKey, extended, needed);
    UsmWipe(extended, sizeof extended);
    if (!ok) {
        UsmWipe(user->authKey, sizeof user->authKey);
        return Fail(crypto, "privacy key extension");
    }
    return 1;
}

void UsmUserWipe(UsmUser* user) {
    UsmWipe(user->authKu, sizeof user->authKu);
    UsmWipe(user->privKu, sizeof user->privKu);
    UsmWipe(user->authKey, sizeof user->authKey);
    UsmWipe(user->privKey, sizeof user->privKey);
}

/* The full HMAC of the message under the localised authentication key: 1, or 0 with a message. */
static int Mac(UsmCrypto* crypto, const UsmUser* user, const unsigned char* message, size_t length,
               unsigned char mac[USM_MAX_KEY]) {
    ZulVklConstBuffer key = {user->authKey, (uint32_t)user->keyLength};
    ZulVklConstBuffer data = {message, (uint32_t)length};
    ZulVklConstBuffer* pieces[1] = {&data};
    ZulVklBuffer out = {mac, 0};
    if (ZulVklHmacGenerateDigest(crypto->ctx, crypto->hmac, user->auth->digest, pieces, 1, &key, &out,
                                 crypto->status) != 1 ||
        out.length < user->auth->macLength) {
        return Fail(crypto, "message authentication");
    }
    return 1;
}

int UsmSign(UsmCrypto* crypto, const UsmUser* user, unsigned char* message, size_t length, size_t macOffset) {
    unsigned char mac[USM_MAX_KEY];
    int ok = Mac(crypto, user, message, length, mac);
    if (ok) memcpy(message + macOffset, mac, user->auth->macLength);
    UsmWipe(mac, sizeof mac);
    return ok;
}

int UsmVerify(UsmCrypto* crypto, const UsmUser* user, unsigned char* message, size_t length, size_t macOffset,
              size_t macLength) {
    unsigned char received[USM_MAX_KEY], mac[USM_MAX_KEY];
    if (macLength != user->auth->macLength) return 0;
    memcpy(received, message + macOffset, macLength);
    memset(message + macOffset, 0, macLength);
    int ok = Mac(crypto, user, message, length, mac);
    memcpy(message + macOffset, received, macLength);
    /* Constant time: a forger must not learn how many leading bytes were right. */
    unsigned char difference = 0;
    for (size_t i = 0; i < macLength; ++i) difference |= (unsigned char)(received[i] ^ mac[i]);
    UsmWipe(mac, sizeof mac);
    return ok && difference == 0;
}

/* The IV of one message: pre-IV (the key's next 8 bytes) XOR salt for DES (RFC 3414 8.1.1.1) and 3DES,
 * boots, time and salt for AES (RFC 3826 3.1.2.1). */
static void Iv(const UsmUser* user, uint32_t boots, uint32_t time, const unsigned char* salt,
                     unsigned char iv[16]) {
    if (user->priv->des) {
        for (int i = 0; i < 8; ++i) iv[i] = (unsigned char)(user->privKey[user->priv->keyLength + i] ^ salt[i]);
        return;
    }
    for (int i = 0; i < 4; ++i) {
        iv[i] = (unsigned char)(boots >> (24 - 8 * i));
        iv[4 + i] = (unsigned char)(time >> (24 - 8 * i));
    }
    memcpy(iv + 8, salt, USM_SALT_LENGTH);
}

int UsmEncrypt(UsmCrypto* crypto, const UsmUser* user, uint32_t boots, uint32_t time, uint64_t salt,
               const unsigned char* in, size_t length, unsigned char* out, size_t* outLength,
               unsigned char privParams[USM_SALT_LENGTH]) {
    const char* name = user->priv->cipher;
    unsigned char iv[16], padding[8] = {0};
    for (int i = 0; i < 8; ++i) privParams[i] = (unsigned char)(salt >> (56 - 8 * i));
    Iv(user, boots, time, privParams, iv);
    ZulVklConstBuffer key = {user->privKey, user->priv->keyLength};
    ZulVklConstBuffer ivIn = {iv, user->priv->des ? 8 : 16};
    /* DES-CBC needs whole blocks; what the padding holds does not matter to the receiver. */
    ZulVklConstBuffer data = {in, (uint32_t)length};
    ZulVklConstBuffer pad = {padding, user->priv->des ? (uint32_t)((8 - length % 8) % 8) : 0};
    ZulVklConstBuffer* pieces[2] = {&data, &pad};
    ZulVklBuffer body = {out, 0};
    int ok = ZulVklCipherEncryptInit(crypto->ctx, crypto->cipher, name, &key, &ivIn, crypto->status) > 0 &&
             ZulVklCipherSetPadding(crypto->ctx, crypto->cipher, 0, crypto->status) == 1 &&
             ZulVklCipherEncryptUpdate(crypto->ctx, crypto->cipher, name, pieces, 2, &body, crypto->status) == 1;
    ZulVklBuffer tail = {out + body.length, 0};
    ok = ok && ZulVklCipherEncryptFinalise(crypto->ctx, crypto->cipher, name, &tail, crypto->status) == 1;
    UsmWipe(iv, sizeof iv);
    if (!ok) return Fail(crypto, "encryption");
    *outLength = body.length + tail.length;
    return *outLength == length + pad.length;
}

int UsmDecrypt(UsmCrypto* crypto, const UsmUser* user, uint32_t boots, uint32_t time,
               const unsigned char* privParams, size_t privLength, const unsigned char* in, size_t length,
               unsigned char* out, size_t* outLength) {
    const char* name = user->priv->cipher;
    unsigned char iv[16];
    if (privLength != USM_SALT_LENGTH || (user->priv->des && length % 8 != 0)) return 0;
    Iv(user, boots, time, privParams, iv);
    ZulVklConstBuffer key = {user->privKey, user->priv->keyLength};
    ZulVklConstBuffer ivIn = {iv, user->priv->des ? 8 : 16};
    ZulVklConstBuffer data = {in, (uint32_t)length};
    ZulVklBuffer body = {out, 0};
    int ok = ZulVklCipherDecryptInit(crypto->ctx, crypto->cipher, name, &key, &ivIn, crypto->status) > 0 &&
             ZulVklCipherDecryptUpdate(crypto->ctx, crypto->cipher, name, &data, &body, crypto->status) == 1;
    ZulVklBuffer tail = {out + body.length, 0};
    ok = ok && ZulVklCipherDecryptFinalise(crypto->ctx, crypto->cipher, name, &tail, crypto->status) == 1;
    UsmWipe(iv, sizeof iv);
    if (!ok) return Fail(crypto, "decryption");
    *outLength = body.length + tail.length;
    return 1;
}

int UsmKeyChange(UsmCrypto* crypto, const UsmUser* user, const unsigned char* oldKey, const unsigned char* random,
                 size_t length, const unsigned char* in, unsigned char* out) {
    unsigned char block[USM_MAX_KEY];
    ZulVklConstBuffer previous = {oldKey, (uint32_t)length}, salt = {random, (uint32_t)length};
    int ok = 1;
    /* RFC 3414 5: digest(old key | random), then digest(previous digest | random), until the key is covered. */
    for (size_t at = 0; ok && at < length;) {
        ZulVklBuffer digest = {NULL, 0};
        ok = ZulVklMdKeyChangeDigest(crypto->ctx, crypto->md, user->auth->digest, &previous, &salt, &digest,
                                     crypto->status) == 1 && digest.data != NULL && digest.length > 0 &&
             digest.length <= sizeof block;
        if (digest.data != NULL) {
            if (ok) memcpy(block, digest.data, digest.length);
            UsmWipe(digest.data, digest.length);
            free(digest.data);
        }
        for (size_t i = 0; ok && i < digest.length && at < length; ++i, ++at) out[at] = in[at] ^ block[i];
        previous = (ZulVklConstBuffer){block, digest.length};
    }
    UsmWipe(block, sizeof block);
    return ok || Fail(crypto, "key change");
}

size_t UsmUserEntryOid(unsigned char column, const unsigned char* engineId, size_t engineIdLength, const char* user,
                       unsigned char* oid) {
    static const unsigned char kUsmUserEntry[] = {0x2b, 6, 1, 6, 3, 15, 1, 2, 2, 1};
    size_t at = sizeof kUsmUserEntry;
    memcpy(oid, kUsmUserEntry, at);
    oid[at++] = column;
    /* Indexed by the engine ID and the name, each its length and then one arc per octet (two bytes above 127). */
    const unsigned char* parts[2] = {engineId, (const unsigned char*)user};
    size_t lengths[2] = {engineIdLength, strlen(user)};
    for (int p = 0; p < 2; ++p) {
        oid[at++] = (unsigned char)lengths[p];
        for (size_t i = 0; i < lengths[p]; ++i) {
            if (parts[p][i] > 0x7f) oid[at++] = (unsigned char)(0x80 | (parts[p][i] >> 7));
            oid[at++] = parts[p][i] & 0x7f;
        }
    }
    return at;
}
