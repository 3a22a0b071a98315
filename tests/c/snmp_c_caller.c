/* The procedural interface used from C: keys, a privacy round trip, an
 * authentication digest and a refusal read back from the status record. */
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zulcryptimpl.h>

/* The record's layout is shared with the C++ side that fills it. */
_Static_assert(sizeof(VKL_STATUS_t) == 268, "VKL status record");
_Static_assert(offsetof(ZulVklStatusWrap, msgLen) == 272, "msgLen after the padded status");
_Static_assert(offsetof(ZulVklStatusWrap, errorMsg) == 280, "errorMsg after msgLen");

static int failures = 0;

static void Check(int ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "FAILED: %s\n", what);
        ++failures;
    }
}

static void Hex(const unsigned char* data, size_t length, char* out) {
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < length; ++i) {
        out[2 * i] = digits[data[i] >> 4];
        out[2 * i + 1] = digits[data[i] & 15];
    }
    out[2 * length] = '\0';
}

int main(void) {
    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    ZulVklStatusWrap* status = ZulVklStatusCreate();
    if (ctx == NULL || status == NULL) {
        fprintf(stderr, "no context or status record\n");
        return 1;
    }
    ZulVklMdCtxWrap* md = ZulVklMdCtxCreate(ctx);
    ZulVklHmacCtxWrap* hmac = ZulVklHmacCtxCreate(ctx);
    ZulVklCipherCtxWrap* cipher = ZulVklCipherCtxCreate(ctx);
    Check(md != NULL && hmac != NULL && cipher != NULL, "handles");

    /* RFC 3414, appendix A.3.2. */
    unsigned char ku[20], kul[20];
    char hex[41];
    const unsigned char engine[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    ZulVklConstBuffer password = {(const unsigned char*)"maplesyrup", 10};
    ZulVklBuffer key = {ku, sizeof ku};
    ZulVklConstBuffer keyIn = {ku, sizeof ku}, engineId = {engine, sizeof engine};
    ZulVklBuffer localised = {kul, sizeof kul};
    Check(ZulVklMdDigestLength(ctx, "SHA1") == 20, "SHA1 length");
    Check(ZulVklMdGenerateKey(ctx, md, "SHA1", &password, &key, status) == 1, "password to key");
    Hex(ku, sizeof ku, hex);
    Check(strcmp(hex, "9fb5cc0381497b3793528939ff788d5d79145211") == 0, "Ku of maplesyrup");
    Check(ZulVklMdLocaliseKey(ctx, md, "SHA1", &engineId, &keyIn, &localised, status) == 1, "localisation");
    Hex(kul, sizeof kul, hex);
    Check(strcmp(hex, "6695febc9288e36282235fc7151f128497b38f3f") == 0, "Kul of maplesyrup");

    /* Key change digest: the block is the caller's to free. */
    ZulVklBuffer change = {NULL, 0};
    Check(ZulVklMdKeyChangeDigest(ctx, md, "SHA1", &keyIn, &engineId, &change, status) == 1 && change.length == 20,
          "key change digest");
    free(change.data);

    /* AES-128-CFB there and back, the message in two pieces. */
    const unsigned char message[21] = "twenty-one bytes long";
    unsigned char sealed[64], opened[64];
    ZulVklConstBuffer aesKey = {kul, 16}, iv = {kul + 4, 16};
    ZulVklConstBuffer head = {message, 9}, rest = {message + 9, 12};
    ZulVklConstBuffer* pieces[2] = {&head, &rest};
    ZulVklBuffer out = {sealed, 0};
    Check(ZulVklCipherEncryptInit(ctx, cipher, "AES-128-CFB", &aesKey, &iv, status) == 1, "encrypt init");
    Check(ZulVklCipherEncryptUpdate(ctx, cipher, "AES-128-CFB", pieces, 2, &out, status) == 1 && out.length == 21,
          "encrypt update");
    ZulVklBuffer tail = {sealed + out.length, 0};
    Check(ZulVklCipherEncryptFinalise(ctx, cipher, "AES-128-CFB", &tail, status) == 1 && tail.length == 0,
          "encrypt final");
    ZulVklConstBuffer sealedIn = {sealed, 21};
    ZulVklBuffer back = {opened, 0};
    Check(ZulVklCipherDecryptInit(ctx, cipher, "AES-128-CFB", &aesKey, &iv, status) == 1, "decrypt init");
    Check(ZulVklCipherDecryptUpdate(ctx, cipher, "AES-128-CFB", &sealedIn, &back, status) == 1, "decrypt update");
    Check(back.length == 21 && memcmp(opened, message, 21) == 0, "round trip");

    /* HMAC-SHA-1 of the message: the full 20 bytes. */
    unsigned char mac[20];
    ZulVklBuffer macOut = {mac, 0};
    Check(ZulVklHmacGenerateDigest(ctx, hmac, "SHA1", pieces, 2, &keyIn, &macOut, status) == 1 && macOut.length == 20,
          "authentication digest");

    /* A refusal, read straight from the record. */
    Check(ZulVklMdGenerateKey(ctx, NULL, "SHA1", &password, &key, status) == 0, "refusal");
    Check(strcmp(status->errorMsg, "Invalid NULL arg to ZulVklDigestGenerateKey") == 0, "refusal text");
    Check(status->msgLen == 0, "msgLen");

    ZulVklMdCtxDestroy(ctx, md);
    ZulVklHmacCtxDestroy(ctx, hmac);
    ZulVklCipherCtxDestroy(ctx, cipher);
    ZulVklStatusDestroy(status);
    ZulVklCtxDestroy(ctx);
    if (failures == 0) printf("C caller: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
