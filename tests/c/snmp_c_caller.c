/* The procedural interface used from C: RFC 3414 A.3.2 keys (SHA, maplesyrup) and a
 * refusal read straight from the status record, whose layout C shares with C++. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <zulcryptimpl.h>

_Static_assert(sizeof(VKL_STATUS_t) == 268, "VKL status record");
_Static_assert(offsetof(ZulVklStatusWrap, msgLen) == 272, "msgLen after the padded status");
_Static_assert(offsetof(ZulVklStatusWrap, errorMsg) == 280, "errorMsg after msgLen");

int main(void) {
    static const unsigned char engine[12] = {[11] = 2}, kul[20] = {0x66, 0x95, 0xfe, 0xbc, 0x92, 0x88, 0xe3,
        0x62, 0x82, 0x23, 0x5f, 0xc7, 0x15, 0x1f, 0x12, 0x84, 0x97, 0xb3, 0x8f, 0x3f};
    unsigned char ku[20], out[20];
    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    ZulVklStatusWrap* st = ZulVklStatusCreate();
    ZulVklMdCtxWrap* md = ZulVklMdCtxCreate(ctx);
    ZulVklConstBuffer pw = {(const unsigned char*)"maplesyrup", 10}, k = {ku, 20}, e = {engine, 12};
    ZulVklBuffer kuOut = {ku, 20}, kulOut = {out, 20};
    int ok = md && st && ZulVklMdGenerateKey(ctx, md, "SHA1", &pw, &kuOut, st) &&
             ZulVklMdLocaliseKey(ctx, md, "SHA1", &e, &k, &kulOut, st) && !memcmp(out, kul, 20) &&
             !ZulVklMdGenerateKey(ctx, NULL, "SHA1", &pw, &kuOut, st) &&
             !strcmp(st->errorMsg, "Invalid NULL arg to ZulVklDigestGenerateKey") && !st->msgLen;
    ZulVklMdCtxDestroy(ctx, md);
    ZulVklStatusDestroy(st);
    ZulVklCtxDestroy(ctx);
    printf("C caller: %s\n", ok ? "keys and refusal as expected" : "FAILED");
    return !ok;
}
