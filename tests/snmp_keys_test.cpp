// SNMPv3 key derivation through the procedural interface: password to key,
// localisation and the key-change digest.
#include <cstdlib>
#include <cstring>
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
using zultest::SnmpTest;

std::string Unescape(std::string text) {
    for (size_t at; (at = text.find("\\n")) != std::string::npos;) text.replace(at, 2, "\n");
    return text;
}

class SnmpKeysTest : public SnmpTest {
protected:
    // Runs one operation; the output holds what it wrote (or what it held before on failure).
    int Run(const std::string& operation, const char* digest, const Bytes& key, const Bytes& in, Bytes& out) {
        ZulVklConstBuffer first = In(key), second = In(in);
        if (operation == "KeyChange") {
            ZulVklBuffer result{out.data(), static_cast<uint32_t>(out.size())};
            const int ok = ZulVklMdKeyChangeDigest(ctx, md, digest, &first, &second, &result, status);
            if (result.data != out.data()) {
                out.assign(result.data, result.data + result.length);
                std::free(result.data);
            }
            return ok;
        }
        ZulVklBuffer result{out.data(), static_cast<uint32_t>(out.size())};
        const int ok = operation == "Localise"
                           ? ZulVklMdLocaliseKey(ctx, md, digest, &second, &first, &result, status)
                           : ZulVklMdGenerateKey(ctx, md, digest, &second, &result, status);
        EXPECT_EQ(result.data, out.data());
        EXPECT_EQ(result.length, out.size());
        return ok;
    }

    // The digest of 2^20 bytes of the repeated password, built in one piece.
    std::string Expanded(const char* digest, const Bytes& password) {
        Bytes data(1 << 20);
        for (size_t i = 0; i < data.size(); ++i) data[i] = password[i % password.size()];
        VKL_EVP_MD_CTX_t* plain = VKL_EVP_MD_CTX_new(vkl);
        unsigned char out[64];
        unsigned int length = 0;
        EXPECT_EQ(VKL_EVP_DigestInit(vkl, plain, VKL_EVP_get_digestbyname(vkl, digest)), 1);
        EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, plain, data.data(), data.size()), 1);
        EXPECT_EQ(VKL_EVP_DigestFinal(vkl, plain, out, &length), 1);
        VKL_EVP_MD_CTX_free(vkl, plain);
        return zultest::Hex(out, length);
    }
};

TEST_F(SnmpKeysTest, VectorsAndReuseOfOneDigestHandle) {
    const auto cases = zultest::ReadVectors("snmp_keys.vec");
    ASSERT_FALSE(cases.empty());
    for (const zultest::VectorCase& v : cases) {
        SCOPED_TRACE(v.Where());
        FreshStatus();
        const std::string operation = v.Text("Operation"), digest = v.Text("Digest");
        const Bytes key = v.Has("Key") ? v.Bytes("Key") : Bytes{}, in = v.Bytes("In");
        if (v.Has("Error")) {
            Bytes out(20, 0xee);
            EXPECT_EQ(Run(operation, digest.c_str(), key, in, out), 0);
            EXPECT_EQ(Msg(), Unescape(v.Text("Error")));
            EXPECT_EQ(out, Bytes(20, 0xee));
            EXPECT_TRUE(zultest::TakeQueue(vkl).empty()) << "the status record alone tells of the failure";
            continue;
        }
        const Bytes expected = v.Bytes("Out");
        ASSERT_EQ(ZulVklMdDigestLength(ctx, digest.c_str()), static_cast<int>(expected.size()));
        for (int round = 0; round < 2; ++round) {
            VKLTest_Reset();
            Bytes out(operation == "KeyChange" ? 3 : expected.size(), 0);
            EXPECT_EQ(Run(operation, digest.c_str(), key, in, out), 1);
            EXPECT_EQ(zultest::Hex(out), zultest::Hex(expected));
            EXPECT_STREQ(status->errorMsg, "");
            if (operation == "PasswordToKey") {
                // RFC 3414 A.2 hashes in 64-byte pieces; VKL sees every one of them.
                EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestUpdate"), 16384u);
                EXPECT_EQ(VKLTest_LastLength("VKL_EVP_DigestUpdate"), 64);
            }
        }
        if (operation == "KeyChange") {
            // Any split of the same bytes between the two parts.
            Bytes all = key;
            all.insert(all.end(), in.begin(), in.end());
            for (size_t at = 0; at <= all.size(); ++at) {
                Bytes out;
                EXPECT_EQ(Run(operation, digest.c_str(), Bytes(all.begin(), all.begin() + at),
                              Bytes(all.begin() + at, all.end()), out),
                          1);
                EXPECT_EQ(out, expected);
            }
        }
    }
}

TEST_F(SnmpKeysTest, PasswordsOfAnyLengthRepeatToOneMebibyte) {
    for (size_t length : {1, 2, 9, 63, 64, 65, 127, 200, 4099}) {
        SCOPED_TRACE(length);
        Bytes password(length);
        for (size_t i = 0; i < length; ++i) password[i] = static_cast<unsigned char>('a' + (i * 7) % 26);
        for (const char* digest : {"SHA1", "SHA256"}) {
            Bytes out(static_cast<size_t>(ZulVklMdDigestLength(ctx, digest)));
            ASSERT_EQ(Run("PasswordToKey", digest, {}, password, out), 1);
            EXPECT_EQ(zultest::Hex(out), Expanded(digest, password));
        }
    }
}

TEST_F(SnmpKeysTest, OutputOfTheWrongSizeIsRefusedAndLeftAlone) {
    for (size_t size : {19, 21}) {
        Bytes out(size, 0xee);
        EXPECT_EQ(Run("PasswordToKey", "SHA1", {}, Bytes{'p'}, out), 0);
        EXPECT_EQ(Msg(), "Incorrect buffer size for SHA1 digest key generation");
        EXPECT_EQ(out, Bytes(size, 0xee));
        EXPECT_EQ(Run("Localise", "SHA1", Bytes(20, 1), Bytes(12, 2), out), 0);
        EXPECT_EQ(Msg(), "Incorrect buffer size for SHA1 digest local key generation");
        EXPECT_EQ(out, Bytes(size, 0xee));
    }
    // The work area of localisation would need more than 32 bits of length.
    VKLTest_Reset();
    const unsigned char never = 0;
    ZulVklConstBuffer key{&never, 0x80000000u}, engine{&never, 0};
    unsigned char area[20];
    ZulVklBuffer out{area, sizeof area};
    EXPECT_EQ(ZulVklMdLocaliseKey(ctx, md, "SHA1", &engine, &key, &out, status), 0);
    EXPECT_EQ(Msg(), "Key and engine ID too long for SHA1 digest local key generation: 4294967296 bytes");
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_DigestInit"), 0u);
}

TEST_F(SnmpKeysTest, LongNamesAreCutToTheMessageArea) {
    Bytes out(20);
    const std::string ascii(600, 'n');
    EXPECT_EQ(Run("PasswordToKey", ascii.c_str(), {}, Bytes{'p'}, out), 0);
    const std::string tail = "... message digest for key generation\n";
    ASSERT_EQ(Msg().size(), 511u);
    EXPECT_EQ(Msg().substr(0, 21), "Failed to get the nnn");
    EXPECT_EQ(Msg().substr(511 - tail.size()), tail);

    // Two-byte characters are never split.
    std::string accents;
    for (int i = 0; i < 300; ++i) accents += "\xc3\xa9";
    EXPECT_EQ(Run("KeyChange", accents.c_str(), {}, Bytes{'p'}, out), 0);
    const std::string cut = Msg();
    const std::string end = "... message digest for key change digest";
    ASSERT_LE(cut.size(), 511u);
    ASSERT_GT(cut.size(), 500u);
    EXPECT_EQ(cut.substr(cut.size() - end.size()), end);
    const size_t name = std::strlen("Failed to get the ");
    EXPECT_EQ((cut.size() - end.size() - name) % 2, 0u);
    EXPECT_EQ(cut.substr(cut.size() - end.size() - 2, 2), "\xc3\xa9");
}

struct Fault {
    const char* operation;
    const char* function;
    unsigned skip;
    const char* text;
};

TEST_F(SnmpKeysTest, EveryVklFailureLeavesItsTextAndNoKey) {
    const Fault faults[] = {
        {"PasswordToKey", "VKL_EVP_DigestInit", 0, "key digest initialisation failed "},
        {"PasswordToKey", "VKL_EVP_DigestUpdate", 99, "key digest update failed "},
        {"PasswordToKey", "VKL_EVP_DigestFinal", 0, "key digest finalisation failed "},
        {"Localise", "VKL_EVP_DigestInit", 0, "localised key digest initialisation failed "},
        {"Localise", "VKL_EVP_DigestUpdate", 0, "localised key digest update failed "},
        {"Localise", "VKL_EVP_DigestFinal", 0, "localised key digest finalisation failed "},
        {"KeyChange", "VKL_EVP_DigestInit", 0, "key change digest initialisation failed "},
        {"KeyChange", "VKL_EVP_DigestUpdate", 0, "key change digest update failed "},
        {"KeyChange", "VKL_EVP_DigestUpdate", 1, "key change digest update failed "},
        {"KeyChange", "VKL_EVP_DigestFinal", 0, "key change digest update failed "},
    };
    for (const Fault& fault : faults) {
        for (long result : {-2L, 0L}) {
            SCOPED_TRACE(std::string(fault.operation) + " " + fault.function + " " + std::to_string(fault.skip) +
                         " " + std::to_string(result));
            FreshStatus();
            VKLTest_Reset();
            // A result of 0 leaves its queued entry behind; each case starts on an empty queue.
            zultest::TakeQueue(vkl);
            VKLTest_SetStatus("VKL_GetStatus", 2, 6, "digest state lost");
            VKLTest_FailCall(fault.function, fault.skip, 1, result);
            Bytes out(20, 0xee);
            EXPECT_EQ(Run(fault.operation, "SHA1", Bytes(20, 1), Bytes(12, 2), out), 0);
            EXPECT_EQ(out, Bytes(20, 0xee));
            // The failing call is the last one made.
            EXPECT_EQ(VKLTest_CallCount(fault.function), fault.skip + 1);
            if (result == -2) {
                // VKL's text is written where the operation's own text was.
                EXPECT_EQ(Msg(), std::string(fault.function) + ": injected failure");
                EXPECT_EQ(Description(), "");
            } else {
                EXPECT_EQ(Msg(), fault.text);
                EXPECT_EQ(Description(), "digest state lost");
                EXPECT_EQ(status->status.major, 2);
            }
            EXPECT_TRUE(diagnostics->errors.empty());
        }
    }
}

}  // namespace
