/*
 * An SNMPv3 engine's outgoing messages, made with the C-callable interface:
 * user keys from passwords (RFC 3414 password to key and localisation), the
 * privacy key cut or extended to the cipher's length (Blumenthal), the scoped
 * PDU encrypted with AES-CFB (RFC 3826), the whole message authenticated. The
 * first message uses AES-128 and HMAC-SHA-96 (RFC 3414), the second AES-256
 * and HMAC-SHA-256 with its 24-byte MAC (RFC 7860). The receiving side is
 * played too: the MAC is checked and the PDU decrypted back.
 *
 * Prints each value as "<name> <hex>" on its own line, the second message's
 * names starting with "aes256."; exits 0 when the receiver gets both PDUs
 * back, 1 otherwise.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zulcryptimpl.h>

#define MAX_DIGEST 32 /* SHA-256 */
#define MAX_MAC 24    /* HMAC-SHA-256 keeps 192 bits; HMAC-SHA-96 keeps 96 */
#define MAX_KEY 32    /* AES-256 */
#define SALT_LENGTH 8
#define MAX_MESSAGE 512

static const unsigned char kEngineId[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
static const char kUser[] = "wexuser";
static const char kAuthPassword[] = "maplesyrup";
static const char kPrivPassword[] = "newsyrup";
static const uint32_t kEngineBoots = 7;
static const uint32_t kEngineTime = 123456;
/* A real engine starts the salt at a random value and adds one per message. */
static const uint64_t kSalt = 0x0123456789abcdefULL;

/* ---- A minimal BER writer: enough for the message's SEQUENCEs, INTEGERs and OCTET STRINGs ---- */

typedef struct Writer {
    unsigned char* data;
    size_t length;
    size_t capacity;
    int overflow;
} Writer;

static void Put(Writer* w, const unsigned char* bytes, size_t count) {
    /* An empty OCTET STRING has no content pointer; memcpy must not see it. */
    if (count == 0) return;
    if (w->overflow || count > w->capacity - w->length) {
        w->overflow = 1;
        return;
    }
    memcpy(w->data + w->length, bytes, count);
    w->length += count;
}

static void PutTlv(Writer* w, unsigned char tag, const unsigned char* content, size_t count) {
    unsigned char header[4];
    size_t used = 0;
    header[used++] = tag;
    if (count < 0x80) {
        header[used++] = (unsigned char)count;
    } else if (count <= 0xff) {
        header[used++] = 0x81;
        header[used++] = (unsigned char)count;
    } else {
        header[used++] = 0x82;
        header[used++] = (unsigned char)(count >> 8);
        header[used++] = (unsigned char)count;
    }
    Put(w, header, used);
    Put(w, content, count);
}

static void PutInteger(Writer* w, uint32_t value) {
    unsigned char bytes[5];
    size_t first = 1;
    bytes[0] = 0;
    for (int i = 0; i < 4; ++i) bytes[1 + i] = (unsigned char)(value >> (24 - 8 * i));
    /* Shortest two's complement form: drop leading zeros unless the next byte would read as negative. */
    while (first < 4 && bytes[first] == 0 && bytes[first + 1] < 0x80) ++first;
    if (bytes[first] >= 0x80) --first;
    PutTlv(w, 0x02, bytes + first, 5 - first);
}

static void PutBigEndian(unsigned char* out, uint64_t value, int count) {
    for (int i = 0; i < count; ++i) out[i] = (unsigned char)(value >> (8 * (count - 1 - i)));
}

/* What a user's authentication and privacy protocols need. */
typedef struct Protocol {
    const char* prefix; /* of the printed names */
    const char* digest; /* password to key, localisation, key extension and HMAC */
    size_t digestLength;
    size_t macLength; /* of the HMAC, as carried in the message */
    const char* cipher;
    size_t privLength; /* the cipher's key length */
} Protocol;

static const Protocol kProtocols[2] = {
    {"", "SHA1", 20, 12, "AES-128-CFB", 16},
    /* The localised SHA-256 key is already 32 bytes: Blumenthal only cuts it. */
    {"aes256.", "SHA256", 32, 24, "AES-256-CFB", 32},
};

static void PrintHex(const Protocol* protocol, const char* name, const unsigned char* data, size_t length) {
    printf("%s%s ", protocol->prefix, name);
    for (size_t i = 0; i < length; ++i) printf("%02x", data[i]);
    printf("\n");
}

/* A MAC check must not tell an attacker how many leading bytes were right. */
static int SameBytes(const unsigned char* a, const unsigned char* b, size_t length) {
    unsigned char difference = 0;
    for (size_t i = 0; i < length; ++i) difference |= (unsigned char)(a[i] ^ b[i]);
    return difference == 0;
}

typedef struct Engine {
    ZulVklCtxWrap* ctx;
    ZulVklStatusWrap* status;
    ZulVklMdCtxWrap* md;
    ZulVklHmacCtxWrap* hmac;
    ZulVklCipherCtxWrap* cipher;
} Engine;

static int Fail(Engine* engine, const char* what) {
    fprintf(stderr, "%s failed: %s\n", what, engine->status != NULL ? engine->status->errorMsg : "");
    return 0;
}

/* Password to key, then the key localised to the engine: a key of the digest's length. */
static int UserKey(Engine* engine, const Protocol* protocol, const char* password, unsigned char* localised) {
    unsigned char ku[MAX_DIGEST];
    uint32_t length = (uint32_t)protocol->digestLength;
    ZulVklConstBuffer secret = {(const unsigned char*)password, (uint32_t)strlen(password)};
    ZulVklBuffer key = {ku, length};
    ZulVklConstBuffer keyIn = {ku, length};
    ZulVklConstBuffer engineId = {kEngineId, sizeof kEngineId};
    ZulVklBuffer kul = {localised, length};
    int ok = ZulVklMdGenerateKey(engine->ctx, engine->md, protocol->digest, &secret, &key, engine->status) == 1 &&
             ZulVklMdLocaliseKey(engine->ctx, engine->md, protocol->digest, &engineId, &keyIn, &kul,
                                 engine->status) == 1;
    memset(ku, 0, sizeof ku);
    return ok ? 1 : Fail(engine, "key derivation");
}

/* The privacy key: the localised key made as long as the cipher's key (draft-blumenthal-aes-usm-04). */
static int PrivacyKey(Engine* engine, const Protocol* protocol, const unsigned char* localised, unsigned char* key) {
    ZulVklConstBuffer engineId = {kEngineId, sizeof kEngineId};
    ZulVklConstBuffer kul = {localised, (uint32_t)protocol->digestLength};
    ZulVklBuffer out = {key, (uint32_t)protocol->privLength};
    if (ZulVklMdExtendKey(engine->ctx, engine->md, protocol->digest, ZULVKL_KEY_EXTENSION_BLUMENTHAL, &engineId, &kul,
                          &out, engine->status) != 1) {
        return Fail(engine, "key extension");
    }
    return 1;
}

/* AES-CFB in either direction; CFB needs no padding, so out gets exactly length bytes. */
static int Crypt(Engine* engine, const Protocol* protocol, int encrypt, const unsigned char* key,
                 const unsigned char iv[16], const unsigned char* in, size_t length, unsigned char* out) {
    ZulVklConstBuffer keyIn = {key, (uint32_t)protocol->privLength}, ivIn = {iv, 16};
    ZulVklConstBuffer data = {in, (uint32_t)length};
    ZulVklConstBuffer* pieces[1] = {&data};
    ZulVklBuffer body = {out, 0};
    const char* name = protocol->cipher;
    int ok;
    if (encrypt) {
        ok = ZulVklCipherEncryptInit(engine->ctx, engine->cipher, name, &keyIn, &ivIn, engine->status) > 0 &&
             ZulVklCipherEncryptUpdate(engine->ctx, engine->cipher, name, pieces, 1, &body, engine->status) == 1;
    } else {
        ok = ZulVklCipherDecryptInit(engine->ctx, engine->cipher, name, &keyIn, &ivIn, engine->status) > 0 &&
             ZulVklCipherDecryptUpdate(engine->ctx, engine->cipher, name, &data, &body, engine->status) == 1;
    }
    if (!ok) return Fail(engine, encrypt ? "encryption" : "decryption");
    ZulVklBuffer tail = {out + body.length, 0};
    ok = encrypt ? ZulVklCipherEncryptFinalise(engine->ctx, engine->cipher, name, &tail, engine->status)
                 : ZulVklCipherDecryptFinalise(engine->ctx, engine->cipher, name, &tail, engine->status);
    if (ok != 1 || body.length + tail.length != length) return Fail(engine, "cipher final");
    return 1;
}

/* The HMAC of the whole message under the localised authentication key, all of it (digest length). */
static int Mac(Engine* engine, const Protocol* protocol, const unsigned char* key, const unsigned char* message,
               size_t length, unsigned char* mac) {
    ZulVklConstBuffer keyIn = {key, (uint32_t)protocol->digestLength};
    ZulVklConstBuffer data = {message, (uint32_t)length};
    ZulVklConstBuffer* pieces[1] = {&data};
    ZulVklBuffer out = {mac, 0};
    if (ZulVklHmacGenerateDigest(engine->ctx, engine->hmac, protocol->digest, pieces, 1, &keyIn, &out,
                                 engine->status) != 1 ||
        out.length != protocol->digestLength) {
        return Fail(engine, "authentication");
    }
    return 1;
}

/* A GetRequest for sysDescr.0 in its scoped PDU. */
static size_t ScopedPdu(unsigned char* out, size_t capacity) {
    static const unsigned char kVarBind[] = {0x30, 0x0c, 0x06, 0x08, 0x2b, 0x06, 0x01, 0x02,
                                             0x01, 0x01, 0x01, 0x00, 0x05, 0x00};
    unsigned char inner[128], pdu[160];
    Writer fields = {inner, 0, sizeof inner, 0};
    PutInteger(&fields, 0x5a17);                 /* request-id */
    PutInteger(&fields, 0);                      /* error-status */
    PutInteger(&fields, 0);                      /* error-index */
    PutTlv(&fields, 0x30, kVarBind, sizeof kVarBind);
    Writer scoped = {pdu, 0, sizeof pdu, 0};
    PutTlv(&scoped, 0x04, kEngineId, sizeof kEngineId); /* contextEngineID */
    PutTlv(&scoped, 0x04, NULL, 0);                     /* contextName */
    PutTlv(&scoped, 0xa0, inner, fields.length);        /* GetRequest-PDU */
    Writer whole = {out, 0, capacity, 0};
    PutTlv(&whole, 0x30, pdu, scoped.length);
    return fields.overflow || scoped.overflow || whole.overflow ? 0 : whole.length;
}

/* The whole message with a zeroed MAC; *macOffset receives where the MAC goes. */
static size_t Message(uint32_t msgId, size_t macLength, const unsigned char salt[SALT_LENGTH],
                      const unsigned char* encrypted, size_t encryptedLength, unsigned char* out, size_t capacity,
                      size_t* macOffset) {
    static const unsigned char kFlags = 0x07; /* authPriv, reportable */
    static const unsigned char kZeroMac[MAX_MAC] = {0};
    unsigned char global[32], usm[96], security[128], body[MAX_MESSAGE];
    Writer g = {global, 0, sizeof global, 0};
    PutInteger(&g, msgId);
    PutInteger(&g, 65507); /* msgMaxSize */
    PutTlv(&g, 0x04, &kFlags, 1);
    PutInteger(&g, 3); /* msgSecurityModel: USM */

    Writer u = {usm, 0, sizeof usm, 0};
    PutTlv(&u, 0x04, kEngineId, sizeof kEngineId);
    PutInteger(&u, kEngineBoots);
    PutInteger(&u, kEngineTime);
    PutTlv(&u, 0x04, (const unsigned char*)kUser, strlen(kUser));
    PutTlv(&u, 0x04, kZeroMac, macLength);
    size_t macInUsm = u.length - macLength;
    PutTlv(&u, 0x04, salt, SALT_LENGTH);
    Writer s = {security, 0, sizeof security, 0};
    PutTlv(&s, 0x30, usm, u.length);

    Writer b = {body, 0, sizeof body, 0};
    PutInteger(&b, 3); /* msgVersion: SNMPv3 */
    PutTlv(&b, 0x30, global, g.length);
    PutTlv(&b, 0x04, security, s.length);
    /* The security parameters' content starts where the body ends minus their length. */
    size_t macInBody = b.length - s.length + (s.length - u.length) + macInUsm;
    PutTlv(&b, 0x04, encrypted, encryptedLength); /* msgData: encryptedPDU */

    Writer whole = {out, 0, capacity, 0};
    PutTlv(&whole, 0x30, body, b.length);
    if (g.overflow || u.overflow || s.overflow || b.overflow || whole.overflow) return 0;
    *macOffset = whole.length - b.length + macInBody;
    return whole.length;
}

static int Exchange(Engine* engine, const Protocol* protocol, uint32_t msgId, uint64_t saltValue,
                    const unsigned char* authKey, const unsigned char* privKey) {
    const size_t macLength = protocol->macLength;
    PrintHex(protocol, "authKey", authKey, protocol->digestLength);
    PrintHex(protocol, "privKey", privKey, protocol->privLength);

    /* RFC 3826 IV: engine boots and engine time, then the 64-bit salt, all big-endian. */
    unsigned char iv[16], salt[SALT_LENGTH];
    PutBigEndian(iv, kEngineBoots, 4);
    PutBigEndian(iv + 4, kEngineTime, 4);
    PutBigEndian(salt, saltValue, SALT_LENGTH);
    memcpy(iv + 8, salt, SALT_LENGTH);
    PrintHex(protocol, "iv", iv, sizeof iv);

    unsigned char pdu[256], encrypted[256], message[MAX_MESSAGE];
    size_t pduLength = ScopedPdu(pdu, sizeof pdu);
    if (pduLength == 0) return 0;
    PrintHex(protocol, "scopedPDU", pdu, pduLength);
    if (!Crypt(engine, protocol, 1, privKey, iv, pdu, pduLength, encrypted)) return 0;
    PrintHex(protocol, "encryptedPDU", encrypted, pduLength);

    size_t macOffset = 0;
    size_t messageLength = Message(msgId, macLength, salt, encrypted, pduLength, message, sizeof message, &macOffset);
    if (messageLength == 0) return 0;
    unsigned char mac[MAX_DIGEST];
    if (!Mac(engine, protocol, authKey, message, messageLength, mac)) return 0;
    memcpy(message + macOffset, mac, macLength);
    PrintHex(protocol, "mac", mac, macLength);
    PrintHex(protocol, "message", message, messageLength);

    /* The receiver: MAC over the message with the MAC field zeroed, then decryption. */
    unsigned char received[MAX_MESSAGE], check[MAX_DIGEST], opened[256];
    memcpy(received, message, messageLength);
    memset(received + macOffset, 0, macLength);
    if (!Mac(engine, protocol, authKey, received, messageLength, check)) return 0;
    if (!SameBytes(check, message + macOffset, macLength)) {
        fprintf(stderr, "receiver: wrong MAC\n");
        return 0;
    }
    if (!Crypt(engine, protocol, 0, privKey, iv, encrypted, pduLength, opened)) return 0;
    PrintHex(protocol, "decryptedPDU", opened, pduLength);
    if (memcmp(opened, pdu, pduLength) != 0) {
        fprintf(stderr, "receiver: the PDU did not decrypt back\n");
        return 0;
    }
    printf("%sreceiver: MAC verified, PDU decrypted\n", protocol->prefix);
    return 1;
}

/* One message of a user of the protocol: made, printed, then received. */
static int Run(Engine* engine, const Protocol* protocol, uint32_t msgId, uint64_t saltValue) {
    unsigned char authKey[MAX_DIGEST], localPriv[MAX_DIGEST], privKey[MAX_KEY];
    int ok = UserKey(engine, protocol, kAuthPassword, authKey) && UserKey(engine, protocol, kPrivPassword, localPriv) &&
             PrivacyKey(engine, protocol, localPriv, privKey);
    memset(localPriv, 0, sizeof localPriv);
    if (ok) ok = Exchange(engine, protocol, msgId, saltValue, authKey, privKey);
    memset(authKey, 0, sizeof authKey);
    memset(privKey, 0, sizeof privKey);
    return ok;
}

int main(void) {
    Engine engine = {ZulVklCtxCreate(), ZulVklStatusCreate(), NULL, NULL, NULL};
    int ok = 0;
    if (engine.ctx != NULL && engine.status != NULL) {
        engine.md = ZulVklMdCtxCreate(engine.ctx);
        engine.hmac = ZulVklHmacCtxCreate(engine.ctx);
        engine.cipher = ZulVklCipherCtxCreate(engine.ctx);
        if (engine.md != NULL && engine.hmac != NULL && engine.cipher != NULL) {
            ok = Run(&engine, &kProtocols[0], 4242, kSalt) && Run(&engine, &kProtocols[1], 4243, kSalt + 1);
        } else {
            fprintf(stderr, "no digest, HMAC or cipher handle\n");
        }
    } else {
        fprintf(stderr, "no context handle or status record\n");
    }
    /* Object handles go before the context handle they were made from. */
    if (engine.ctx != NULL) {
        if (engine.md != NULL) ZulVklMdCtxDestroy(engine.ctx, engine.md);
        if (engine.hmac != NULL) ZulVklHmacCtxDestroy(engine.ctx, engine.hmac);
        if (engine.cipher != NULL) ZulVklCipherCtxDestroy(engine.ctx, engine.cipher);
    }
    ZulVklStatusDestroy(engine.status);
    ZulVklCtxDestroy(engine.ctx);
    return ok ? 0 : 1;
}
