// The procedural interface's handles, status record and argument checks.
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <wexcrypt_testing.h>
#include <zulcryptimpl.h>

#include "snmp_fixture.h"
#include "test_support.h"

namespace {

using zultest::SnmpTest;
using Texts = std::vector<std::string>;

TEST_F(SnmpTest, HandlesAreMadeAndReleasedThroughVkl) {
    VKLTest_Reset();
    ZulVklMdCtxWrap* m = ZulVklMdCtxCreate(ctx);
    ZulVklHmacCtxWrap* h = ZulVklHmacCtxCreate(ctx);
    ZulVklCipherCtxWrap* c = ZulVklCipherCtxCreate(ctx);
    ASSERT_TRUE(m != nullptr && h != nullptr && c != nullptr);
    EXPECT_EQ(zultest::CallLog(), (Texts{"VKL_EVP_MD_CTX_new", "VKL_EVP_MD_CTX_init", "VKL_HMAC_CTX_new",
                                         "VKL_EVP_CIPHER_CTX_new", "VKL_EVP_CIPHER_CTX_init"}));

    // Without a context handle nothing is released and the handles stay usable.
    EXPECT_EQ(ZulVklMdCtxDestroy(nullptr, m), 0);
    EXPECT_EQ(ZulVklHmacCtxDestroy(nullptr, h), 0);
    EXPECT_EQ(ZulVklCipherCtxDestroy(nullptr, c), 0);
    EXPECT_EQ(ZulVklMdDigestLength(ctx, "SHA1"), 20);
    unsigned char out[20];
    ZulVklBuffer key{out, sizeof out};
    const std::string maplesyrup = "maplesyrup";
    ZulVklConstBuffer password = In(maplesyrup);
    EXPECT_EQ(ZulVklMdGenerateKey(ctx, m, "SHA1", &password, &key, status), 1);

    VKLTest_Reset();
    EXPECT_EQ(ZulVklMdCtxDestroy(ctx, m), 0);
    EXPECT_EQ(ZulVklHmacCtxDestroy(ctx, h), 0);
    EXPECT_EQ(ZulVklCipherCtxDestroy(ctx, c), 0);
    EXPECT_EQ(zultest::CallLog(), (Texts{"VKL_EVP_MD_CTX_free", "VKL_HMAC_CTX_free", "VKL_EVP_CIPHER_CTX_free"}));

    // Null handles, and handles that hold nothing, are released without a VKL call.
    VKLTest_Reset();
    EXPECT_EQ(ZulVklMdCtxDestroy(ctx, nullptr), 0);
    EXPECT_EQ(ZulVklHmacCtxDestroy(ctx, nullptr), 0);
    EXPECT_EQ(ZulVklCipherCtxDestroy(ctx, new ZulVklCipherCtxWrap(nullptr)), 0);
    EXPECT_EQ(ZulVklCtxDestroy(nullptr), 0);
    EXPECT_EQ(ZulVklStatusDestroy(nullptr), 0);
    EXPECT_EQ(zultest::CallLog(), Texts{});
    EXPECT_TRUE(diagnostics->errors.empty());
}

TEST_F(SnmpTest, NoHandleWithoutVklContextOrVklObject) {
    EXPECT_EQ(ZulVklMdCtxCreate(nullptr), nullptr);
    EXPECT_EQ(ZulVklHmacCtxCreate(nullptr), nullptr);
    EXPECT_EQ(ZulVklCipherCtxCreate(nullptr), nullptr);
    EXPECT_EQ(ZulVklMdDigestLength(nullptr, "SHA1"), 0);
    EXPECT_EQ(ZulVklMdDigestLength(ctx, nullptr), 0);
    EXPECT_EQ(ZulVklMdDigestLength(ctx, "MD77"), 0);

    VKLTest_Reset();
    for (const char* function : {"VKL_EVP_MD_CTX_new", "VKL_HMAC_CTX_new", "VKL_EVP_CIPHER_CTX_new"}) {
        VKLTest_FailCall(function, 0, 1, 0);
    }
    EXPECT_EQ(ZulVklMdCtxCreate(ctx), nullptr);
    EXPECT_EQ(ZulVklHmacCtxCreate(ctx), nullptr);
    EXPECT_EQ(ZulVklCipherCtxCreate(ctx), nullptr);
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_MD_CTX_init"), 0u);
    EXPECT_TRUE(diagnostics->errors.empty());

    diagnostics->Clear();
    WEXTest_SetGetContextResult(0);
    EXPECT_EQ(ZulVklCtxCreate(), nullptr);
    EXPECT_EQ(diagnostics->ErrorTexts(), Texts{"VKL Context not started."});
}

TEST_F(SnmpTest, StatusRecordPrintsItsDescriptionAndMessage) {
    EXPECT_EQ(status->msgLen, 0u);
    const std::vector<char> zero(ZULVKL_ERROR_MSG_SIZE, 0);
    EXPECT_EQ(std::memcmp(&status->status, zero.data(), sizeof status->status), 0);
    EXPECT_EQ(std::memcmp(status->errorMsg, zero.data(), ZULVKL_ERROR_MSG_SIZE), 0);
    std::ostringstream fresh;
    fresh << *status << '|' << static_cast<const ZulVklStatusWrap*>(nullptr);
    EXPECT_EQ(fresh.str(), "|NULL VKL status wrapper");

    VKLTest_SetStatus("VKL_GetStatus", 2, 6, "state lost");
    status->Set(*vkl, 0);
    EXPECT_EQ(status->status.major, 2);
    EXPECT_EQ(status->status.minor, 6);
    status->Set("Encryption update failed ");
    std::ostringstream failed;
    failed << status;
    EXPECT_EQ(failed.str(), "state lost errorMsg: Encryption update failed ");

    ZulVklLogErrMsg(status);
    ZulVklLogErrMsg(nullptr);
    EXPECT_EQ(diagnostics->TracesAt(0), (Texts{"Encryption update failed ", "state lost"}));
}

TEST_F(SnmpTest, SetStoresTextsThatFitAndReportsTheOthers) {
    const std::string longest(511, 'x'), tooLong(512, 'y');
    status->Set(longest.c_str());
    EXPECT_EQ(Msg(), longest);
    status->Set(tooLong.c_str());
    EXPECT_EQ(Msg(), longest);
    ASSERT_EQ(diagnostics->errors.size(), 1u);
    EXPECT_EQ(diagnostics->errors[0].file, "zulcryptimpl");
    EXPECT_EQ(diagnostics->errors[0].text, tooLong);
    EXPECT_FALSE(diagnostics->errors[0].fatal);
    status->Set("short");
    EXPECT_EQ(Msg(), "short");

    // A caller's prefix is kept and shortens the room.
    std::memcpy(status->errorMsg, "engine 7: ", 10);
    status->msgLen = 10;
    status->Set("short");
    EXPECT_EQ(Msg(), "engine 7: short");
    status->Set(std::string(501, 'z').c_str());
    EXPECT_EQ(Msg(), "engine 7: " + std::string(501, 'z'));
    status->Set(std::string(502, 'w').c_str());
    EXPECT_EQ(diagnostics->errors.size(), 2u);
    status->msgLen = 4000;
    status->Set("");
    EXPECT_EQ(diagnostics->errors.size(), 3u);
    status->Set(*vkl, -2);
    EXPECT_EQ(Msg(), "engine 7: " + std::string(501, 'z'));
}

TEST_F(SnmpTest, SetWithVklResultTakesStatusOrErrorOrNothing) {
    VKLTest_SetStatus("VKL_GetStatus", 3, 12, "allocator gone");
    VKLTest_FailCall("VKL_RAND_bytes", 0, -1, 0);
    unsigned char byte;
    // Each Set takes the failure's queue entries with it, whatever it writes.
    auto failure = [&] {
        VKL_RAND_bytes(vkl, &byte, 1);
        VKL_RAND_bytes(vkl, &byte, 1);
    };
    const ZulVklStatusWrap before = *status;
    for (int result : {1, -1, 2, -3}) {
        failure();
        status->Set(*vkl, result);
        EXPECT_EQ(std::memcmp(&status->status, &before.status, sizeof before.status), 0) << result;
        EXPECT_EQ(std::memcmp(status->errorMsg, before.errorMsg, sizeof before.errorMsg), 0) << result;
        EXPECT_EQ(status->msgLen, before.msgLen);
        EXPECT_EQ(VKL_ERR_get_error(vkl), 0u) << result;
    }
    failure();
    status->Set(*vkl, -2);
    EXPECT_EQ(Msg(), "VKL_RAND_bytes: injected failure");
    EXPECT_EQ(Description(), "");
    failure();
    status->Set(*vkl, 0);
    EXPECT_EQ(Description(), "allocator gone");
    EXPECT_EQ(status->status.major, 3);
    EXPECT_EQ(VKL_ERR_get_error(vkl), 0u);
    // The text is cut to the room after msgLen.
    status->msgLen = 500;
    failure();
    status->Set(*vkl, -2);
    EXPECT_EQ(std::string(status->errorMsg + 500), "VKL_RAND_by");
}

// Every checked operation refuses each null pointer argument with its own text.
struct Args {
    ZulVklCtxWrap* ctx;
    ZulVklMdCtxWrap* md;
    ZulVklHmacCtxWrap* hmac;
    ZulVklCipherCtxWrap* cipher;
    const char* name;
    ZulVklConstBuffer* first;
    ZulVklConstBuffer* second;
    ZulVklConstBuffer** pieces;
    ZulVklBuffer* out;
    ZulVklStatusWrap* status;
};

enum Field { kCtx, kMd, kHmac, kCipher, kName, kFirst, kSecond, kPieces, kOut, kStatus, kEmptyHandle };

struct Checked {
    const char* text;
    std::vector<Field> fields;
    std::function<int(Args&)> call;
};

TEST_F(SnmpTest, EveryNullArgumentIsRefusedWithTheOperationsText) {
    const std::vector<Checked> operations = {
        {"Invalid NULL arg to ZulVklCipherSetPadding", {kCtx, kCipher, kStatus},
         [](Args& a) { return ZulVklCipherSetPadding(a.ctx, a.cipher, 1, a.status); }},
        {"Invalid NULL arg to ZulVklMdKeyChangeDigest", {kCtx, kMd, kName, kFirst, kSecond, kOut, kStatus},
         [](Args& a) { return ZulVklMdKeyChangeDigest(a.ctx, a.md, a.name, a.first, a.second, a.out, a.status); }},
        {"Invalid NULL arg to ZulVklDigestLocaliseKey", {kCtx, kMd, kName, kFirst, kSecond, kOut, kStatus},
         [](Args& a) { return ZulVklMdLocaliseKey(a.ctx, a.md, a.name, a.first, a.second, a.out, a.status); }},
        {"Invalid NULL arg to ZulVklDigestGenerateKey", {kCtx, kMd, kName, kFirst, kOut, kStatus},
         [](Args& a) { return ZulVklMdGenerateKey(a.ctx, a.md, a.name, a.first, a.out, a.status); }},
        {"Invalid NULL arg to ZulVklHmacGenerateDigest", {kCtx, kHmac, kName, kPieces, kFirst, kOut, kStatus},
         [](Args& a) {
             return ZulVklHmacGenerateDigest(a.ctx, a.hmac, a.name, a.pieces, 1, a.first, a.out, a.status);
         }},
        {"Invalid NULL arg to ZulVklCipherDecryptFinalise", {kCtx, kCipher, kName, kOut, kStatus},
         [](Args& a) { return ZulVklCipherDecryptFinalise(a.ctx, a.cipher, a.name, a.out, a.status); }},
        {"Invalid NULL arg to ZulVklCipherDecryptUpdate", {kCtx, kCipher, kName, kFirst, kOut, kStatus},
         [](Args& a) { return ZulVklCipherDecryptUpdate(a.ctx, a.cipher, a.name, a.first, a.out, a.status); }},
        {"Invalid NULL arg to ZulVklCipherDecryptInit", {kCtx, kCipher, kName, kFirst, kSecond, kStatus},
         [](Args& a) { return ZulVklCipherDecryptInit(a.ctx, a.cipher, a.name, a.first, a.second, a.status); }},
        {"Invalid NULL arg to ZulVklCipherEncryptFinalise", {kCtx, kCipher, kName, kOut, kStatus},
         [](Args& a) { return ZulVklCipherEncryptFinalise(a.ctx, a.cipher, a.name, a.out, a.status); }},
        {"Invalid NULL arg to ZulVklCipherEncryptUpdate", {kCtx, kCipher, kName, kPieces, kOut, kStatus},
         [](Args& a) { return ZulVklCipherEncryptUpdate(a.ctx, a.cipher, a.name, a.pieces, 1, a.out, a.status); }},
        {"Invalid NULL arg to ZulVklCipherEncryptInit", {kCtx, kCipher, kName, kFirst, kSecond, kStatus},
         [](Args& a) { return ZulVklCipherEncryptInit(a.ctx, a.cipher, a.name, a.first, a.second, a.status); }},
        {"Invalid NULL arg to ZulVklCipherRequiredIvSize", {kCtx, kName, kStatus},
         [](Args& a) { return ZulVklCipherRequiredIvSize(a.ctx, a.name, a.status); }},
        {"Invalid NULL arg to ZulVklCipherRequiredKeySize", {kCtx, kName, kStatus},
         [](Args& a) { return ZulVklCipherRequiredKeySize(a.ctx, a.name, a.status); }},
    };

    unsigned char bytes[64] = {0};
    ZulVklConstBuffer first{bytes, 16}, second{bytes, 16};
    ZulVklConstBuffer* pieces[] = {&first};
    ZulVklBuffer out{bytes, 20};
    ZulVklMdCtxWrap emptyMd(nullptr);
    ZulVklHmacCtxWrap emptyHmac(nullptr);
    ZulVklCipherCtxWrap emptyCipher(nullptr);
    for (const Checked& op : operations) {
        SCOPED_TRACE(op.text);
        std::vector<Field> fields = op.fields;
        fields.push_back(kEmptyHandle);
        for (Field field : fields) {
            SCOPED_TRACE(field);
            FreshStatus();
            diagnostics->Clear();
            Args a{ctx, md, hmac, cipher, "SHA1", &first, &second, pieces, &out, status};
            switch (field) {
                case kCtx: a.ctx = nullptr; break;
                case kMd: a.md = nullptr; break;
                case kHmac: a.hmac = nullptr; break;
                case kCipher: a.cipher = nullptr; break;
                case kName: a.name = nullptr; break;
                case kFirst: a.first = nullptr; break;
                case kSecond: a.second = nullptr; break;
                case kPieces: a.pieces = nullptr; break;
                case kOut: a.out = nullptr; break;
                case kStatus: a.status = nullptr; break;
                case kEmptyHandle:
                    // A handle that holds no VKL object counts as a null one.
                    a.md = &emptyMd;
                    a.hmac = &emptyHmac;
                    a.cipher = &emptyCipher;
                    if (op.fields == std::vector<Field>{kCtx, kName, kStatus}) a.ctx = nullptr;
                    break;
            }
            VKLTest_Reset();
            EXPECT_EQ(op.call(a), 0);
            EXPECT_EQ(zultest::CallLog(), Texts{});
            if (field == kStatus) {
                ASSERT_EQ(diagnostics->errors.size(), 1u);
                EXPECT_EQ(diagnostics->errors[0].text, op.text);
                EXPECT_EQ(diagnostics->errors[0].file, "zulcryptimpl");
                EXPECT_FALSE(diagnostics->errors[0].fatal);
                EXPECT_STREQ(status->errorMsg, "");
            } else {
                EXPECT_EQ(Msg(), op.text);
                EXPECT_TRUE(diagnostics->errors.empty());
            }
        }
    }
}

}  // namespace
