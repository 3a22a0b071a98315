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
    static const unsigned char engine[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    static const unsigned char expected[20] = {0x66, 0x95, 0xfe, 0xbc, 0x92, 0x88, 0xe3, 0x62, 0x82, 0x23,
                                               0x5f, 0xc7, 0x15, 0x1f, 0x12, 0x84, 0x97, 0xb3, 0x8f, 0x3f};
    unsigned char ku[20], kul[20];
    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    ZulVklStatusWrap* status = ZulVklStatusCreate();
    ZulVklMdCtxWrap* md = ZulVklMdCtxCreate(ctx);
    ZulVklConstBuffer password = {(const unsigned char*)"maplesyrup", 10};
    ZulVklConstBuffer key = {ku, sizeof ku}, engineId = {engine, sizeof engine};
    ZulVklBuffer kuOut = {ku, sizeof ku}, kulOut = {kul, sizeof kul};
    int ok = md != NULL && status != NULL && ZulVklMdDigestLength(ctx, "SHA1") == 20 &&
             ZulVklMdGenerateKey(ctx, md, "SHA1", &password, &kuOut, status) == 1 &&
             ZulVklMdLocaliseKey(ctx, md, "SHA1", &engineId, &key, &kulOut, status) == 1 &&
             memcmp(kul, expected, sizeof kul) == 0 &&
             ZulVklMdGenerateKey(ctx, NULL, "SHA1", &password, &kuOut, status) == 0 &&
             strcmp(status->errorMsg, "Invalid NULL arg to ZulVklDigestGenerateKey") == 0 && status->msgLen == 0;
    ZulVklMdCtxDestroy(ctx, md);
    ZulVklStatusDestroy(status);
    ZulVklCtxDestroy(ctx);
    printf("C caller: %s\n", ok ? "keys and refusal as expected" : "FAILED");
    return ok ? 0 : 1;
}
