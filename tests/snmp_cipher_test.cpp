// SNMPv3 privacy ciphers through the procedural interface: gathering
// encryption, decryption with padding off, sizes checked, VKL failures.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <zulcryptimpl.h>

#include "snmp_fixture.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string Unescape(std::string text) {
    for (size_t at; (at = text.find("\\n")) != std::string::npos;) text.replace(at, 2, "\n");
    return text;
}

class SnmpCipherTest : public zultest::SnmpTest {
protected:
    // Encrypts data cut into pieces of the given sizes (the last one takes the rest) as one
    // gathering update; empty on failure.
    bool Encrypt(const char* name, const Bytes& key, const Bytes& iv, const Bytes& data,
                 const std::vector<size_t>& sizes, bool padding, Bytes& result) {
        ZulVklConstBuffer k = In(key), v = In(iv);
        if (ZulVklCipherEncryptInit(ctx, cipher, name, &k, &v, status) == 0) return false;
        if (!padding && ZulVklCipherSetPadding(ctx, cipher, 0, status) != 1) return false;
        zultest::Gathered gathered(data, sizes);
        std::vector<ZulVklConstBuffer*>& list = gathered.list;
        Bytes area(data.size() + 32, 0);
        ZulVklBuffer out{area.data(), 12345};
        if (ZulVklCipherEncryptUpdate(ctx, cipher, name, list.data(), static_cast<unsigned>(list.size()), &out,
                                      status) != 1) {
            EXPECT_EQ(out.data, area.data());
            return false;
        }
        EXPECT_EQ(out.data, area.data());
        ZulVklBuffer tail{area.data() + out.length, 999};
        if (ZulVklCipherEncryptFinalise(ctx, cipher, name, &tail, status) != 1) return false;
        result.assign(area.begin(), area.begin() + out.length + tail.length);
        return true;
    }

    bool Decrypt(const char* name, const Bytes& key, const Bytes& iv, const Bytes& data, Bytes& result) {
        ZulVklConstBuffer k = In(key), v = In(iv);
        if (ZulVklCipherDecryptInit(ctx, cipher, name, &k, &v, status) == 0) return false;
        Bytes area(data.size() + 32, 0);
        ZulVklConstBuffer in = In(data);
        ZulVklBuffer out{area.data(), 0};
        if (ZulVklCipherDecryptUpdate(ctx, cipher, name, &in, &out, status) != 1) return false;
        ZulVklBuffer tail{area.data() + out.length, 0};
        if (ZulVklCipherDecryptFinalise(ctx, cipher, name, &tail, status) != 1) return false;
        result.assign(area.begin(), area.begin() + out.length + tail.length);
        return true;
    }

    const Bytes key = zultest::FromHex("2b7e151628aed2a6abf7158809cf4f3c");
    const Bytes iv = zultest::FromHex("000102030405060708090a0b0c0d0e0f");
    const Bytes data = Bytes(64, 0x42);
};

TEST_F(SnmpCipherTest, VectorsInAnyGatheringAndBackOnOneHandle) {
    const auto cases = zultest::ReadVectors("snmp_cipher.vec");
    ASSERT_FALSE(cases.empty());
    for (const zultest::VectorCase& v : cases) {
        SCOPED_TRACE(v.Where());
        FreshStatus();
        const std::string name = v.Text("Cipher");
        const Bytes k = v.Bytes("Key"), iv = v.Bytes("IV"), plain = v.Bytes("In");
        Bytes result;
        if (v.Has("Error")) {
            EXPECT_FALSE(Encrypt(name.c_str(), k, iv, plain, {SIZE_MAX}, false, result));
            EXPECT_EQ(Msg(), Unescape(v.Text("Error")));
            FreshStatus();
            EXPECT_FALSE(Decrypt(name.c_str(), k, iv, plain, result));
            EXPECT_EQ(Msg(), Unescape(v.Text("Error")));
            // The size queries look the name up too.
            ZulVklCipherRequiredKeySize(ctx, name.c_str(), status);
            ZulVklCipherRequiredIvSize(ctx, name.c_str(), status);
            EXPECT_TRUE(zultest::TakeQueue(vkl).empty()) << "the status record alone tells of the failure";
            continue;
        }
        EXPECT_EQ(ZulVklCipherRequiredKeySize(ctx, name.c_str(), status), static_cast<int>(k.size()));
        EXPECT_EQ(ZulVklCipherRequiredIvSize(ctx, name.c_str(), status), static_cast<int>(iv.size()));
        ZulVklConstBuffer kb = In(k), ivb = In(iv);
        EXPECT_EQ(ZulVklCipherEncryptInit(ctx, cipher, name.c_str(), &kb, &ivb, status), v.Number("Block"));
        EXPECT_EQ(ZulVklCipherDecryptInit(ctx, cipher, name.c_str(), &kb, &ivb, status), v.Number("Block"));

        const bool padding = v.Has("Padding") && v.Number("Padding") == 1;
        const Bytes expected = v.Bytes("Out");
        const std::vector<std::vector<size_t>> gatherings = {{SIZE_MAX}, {5, 11, 16, SIZE_MAX}, {0, 1, 0, 7, SIZE_MAX},
                                                             {3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, SIZE_MAX}};
        for (const std::vector<size_t>& sizes : gatherings) {
            ASSERT_TRUE(Encrypt(name.c_str(), k, iv, plain, sizes, padding, result)) << Msg();
            ASSERT_EQ(result.size(), expected.size() + (padding ? 8 : 0));
            EXPECT_EQ(zultest::Hex(Bytes(result.begin(), result.begin() + expected.size())), zultest::Hex(expected));
            // Decryption keeps padding off, so a padded message comes back with its pad.
            Bytes back;
            ASSERT_TRUE(Decrypt(name.c_str(), k, iv, result, back)) << Msg();
            Bytes sent = plain;
            if (padding) sent.insert(sent.end(), 8, 0x08);
            EXPECT_EQ(back, sent);
        }
        EXPECT_STREQ(status->errorMsg, "");
    }
}

TEST_F(SnmpCipherTest, GatheringStopsAtANullPieceAndTakesNoPiecesAtAll) {
    ZulVklConstBuffer k = In(key), v = In(iv);
    ASSERT_EQ(ZulVklCipherEncryptInit(ctx, cipher, "AES-128-CFB", &k, &v, status), 1);
    ZulVklConstBuffer first{data.data(), 5}, third{data.data(), 16};
    ZulVklConstBuffer* pieces[] = {&first, nullptr, &third};
    Bytes area(64);
    ZulVklBuffer out{area.data(), 0};
    VKLTest_Reset();
    EXPECT_EQ(ZulVklCipherEncryptUpdate(ctx, cipher, "AES-128-CFB", pieces, 3, &out, status), 0);
    EXPECT_EQ(Msg(), "Invalid buffer passed in for SNMPv3 msg encryption");
    EXPECT_EQ(out.data, area.data());
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_EncryptUpdate"), 1u);

    out.length = 77;
    EXPECT_EQ(ZulVklCipherEncryptUpdate(ctx, cipher, "AES-128-CFB", pieces, 0, &out, status), 1);
    EXPECT_EQ(out.length, 0u);
    EXPECT_EQ(out.data, area.data());
}

TEST_F(SnmpCipherTest, UnknownNamesAndPaddingFailures) {
    EXPECT_EQ(ZulVklCipherRequiredKeySize(ctx, "AES-128-XYZ", status), 0);
    EXPECT_EQ(Msg(), "Failed to get cipher for algorithm: AES-128-XYZ");
    FreshStatus();
    EXPECT_EQ(ZulVklCipherRequiredIvSize(ctx, "DES-XYZ", status), 0);
    EXPECT_EQ(Msg(), "Failed to get cipher for algorithm: DES-XYZ");

    for (long result : {0L, -2L}) {
        for (int flag : {5, 1, 0}) {
            SCOPED_TRACE(std::to_string(flag) + " " + std::to_string(result));
            FreshStatus();
            zultest::TakeQueue(vkl);
            VKLTest_FailCall("VKL_EVP_CIPHER_CTX_set_padding", 0, 1, result);
            EXPECT_EQ(ZulVklCipherSetPadding(ctx, cipher, flag, status), 0);
            EXPECT_EQ(Msg(), result == 0 ? std::string("Failed to ") + (flag ? "enable" : "disable") + " padding\n"
                                         : "VKL_EVP_CIPHER_CTX_set_padding: injected failure");
        }
    }
    ZulVklConstBuffer k = In(key), v = In(iv);
    ASSERT_EQ(ZulVklCipherEncryptInit(ctx, cipher, "AES-128-CFB", &k, &v, status), 1);
    EXPECT_EQ(ZulVklCipherSetPadding(ctx, cipher, 5, status), 1);
}

struct Fault {
    bool encrypt;
    const char* function;
    const char* text;
};

TEST_F(SnmpCipherTest, EveryVklFailureLeavesItsText) {
    const Fault faults[] = {
        {true, "VKL_EVP_EncryptInit", "Encryption initialisation failed "},
        {true, "VKL_EVP_EncryptUpdate", "Encryption update failed "},
        {true, "VKL_EVP_EncryptFinal", "Encryption finalisation failed "},
        {false, "VKL_EVP_DecryptInit", "Decryption initialisation failed "},
        {false, "VKL_EVP_CIPHER_CTX_set_padding", "Failed to disable padding with algorithm: AES-128-CFB\n"},
        {false, "VKL_EVP_DecryptUpdate", "Decryption update failed "},
        {false, "VKL_EVP_DecryptFinal", "Decryption finalisation failed "},
    };
    for (const Fault& fault : faults) {
        for (long result : {-2L, 0L}) {
            SCOPED_TRACE(std::string(fault.function) + " " + std::to_string(result));
            FreshStatus();
            zultest::TakeQueue(vkl);
            VKLTest_Reset();
            VKLTest_SetStatus("VKL_GetStatus", 2, 6, "cipher state lost");
            VKLTest_FailCall(fault.function, 0, 1, result);
            Bytes result0;
            EXPECT_FALSE(fault.encrypt ? Encrypt("AES-128-CFB", key, iv, data, {5, 11, SIZE_MAX}, true, result0)
                                       : Decrypt("AES-128-CFB", key, iv, data, result0));
            EXPECT_EQ(VKLTest_CallCount("VKL_EVP_CIPHER_CTX_cleanup"), 0u);
            if (result == -2) {
                EXPECT_EQ(Msg(), std::string(fault.function) + ": injected failure");
                EXPECT_EQ(Description(), "");
            } else {
                EXPECT_EQ(Msg(), fault.text);
                EXPECT_EQ(Description(), "cipher state lost");
            }
            // The next message on the same handle starts afresh.
            VKLTest_Reset();
            Bytes again;
            EXPECT_TRUE(fault.encrypt ? Encrypt("AES-128-CFB", key, iv, data, {SIZE_MAX}, true, again)
                                      : Decrypt("AES-128-CFB", key, iv, data, again));
            EXPECT_EQ(again.size(), 64u);
        }
    }
}

TEST_F(SnmpCipherTest, AFailedCleanUpIsReportedButTheMessageStands) {
    for (bool encrypt : {true, false}) {
        SCOPED_TRACE(encrypt);
        FreshStatus();
        VKLTest_FailCall("VKL_EVP_CIPHER_CTX_cleanup", 0, 1, 0);
        Bytes out;
        EXPECT_TRUE(encrypt ? Encrypt("DES-CBC", Bytes(8, 1), Bytes(8, 2), Bytes(16, 3), {SIZE_MAX}, false, out)
                            : Decrypt("DES-CBC", Bytes(8, 1), Bytes(8, 2), Bytes(16, 3), out));
        EXPECT_EQ(out.size(), 16u);
        EXPECT_EQ(Msg(), std::string("Failed to cleanup the cipher context after applying ") +
                             (encrypt ? "encryption" : "decryption") + " algorithmDES-CBC\n");
    }
}

}  // namespace
