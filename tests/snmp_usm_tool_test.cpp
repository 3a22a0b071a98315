// zulcrypt usm-keys and keychange.
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vkl.h>
#include <zulcryptimpl.h>

#include "commands.h"
#include "snmp_fixture.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

class UsmToolTest : public zultest::SnmpTest {
protected:
    ToolRun Zulcrypt(std::vector<std::string> args) {
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(arg.data());
        std::istringstream in;
        std::ostringstream out, err;
        zulcrypt::Streams io{in, out, err};
        const int status = zulcrypt::Dispatch(static_cast<int>(argv.size()), argv.data(), io);
        return {status, out.str(), err.str()};
    }

    // digest(first | second), straight from VKL.
    Bytes Digest(const char* name, const Bytes& first, const Bytes& second) {
        VKL_EVP_MD_CTX_t* plain = VKL_EVP_MD_CTX_new(vkl);
        unsigned char out[64];
        unsigned int length = 0;
        EXPECT_EQ(VKL_EVP_DigestInit(vkl, plain, VKL_EVP_get_digestbyname(vkl, name)), 1);
        EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, plain, first.data(), first.size()), 1);
        EXPECT_EQ(VKL_EVP_DigestUpdate(vkl, plain, second.data(), second.size()), 1);
        EXPECT_EQ(VKL_EVP_DigestFinal(vkl, plain, out, &length), 1);
        VKL_EVP_MD_CTX_free(vkl, plain);
        return Bytes(out, out + length);
    }
};

TEST_F(UsmToolTest, UsmKeysGivesTheKeysOfRfc3414) {
    // The password-to-key and localisation cases of the key vectors, by digest.
    std::map<std::string, std::string> ku, kul, engine, password;
    for (const zultest::VectorCase& v : zultest::ReadVectors("snmp_keys.vec")) {
        if (v.Has("Error")) continue;
        const std::string digest = v.Text("Digest");
        if (v.Text("Operation") == "PasswordToKey") {
            ku[digest] = zultest::Hex(v.Bytes("Out"));
            password[digest] = v.Text("In");
        } else if (v.Text("Operation") == "Localise") {
            kul[digest] = zultest::Hex(v.Bytes("Out"));
            engine[digest] = zultest::Hex(v.Bytes("In"));
        }
    }
    ASSERT_EQ(kul.size(), 2u);
    for (const auto& [digest, expected] : kul) {
        SCOPED_TRACE(digest);
        const ToolRun des = Zulcrypt({"usm-keys", "--password", password[digest], "--engine-id", engine[digest], "--auth",
                                  digest, "--priv", "DES"});
        EXPECT_EQ(des.status, 0) << des.err;
        EXPECT_EQ(des.out, "auth protocol: " + digest + "\nauth Ku: " + ku[digest] + "\nauth Kul: " + expected +
                               "\npriv protocol: DES\npriv Ku: " + ku[digest] + "\npriv Kul: " + expected +
                               "\nDES key: " + expected.substr(0, 16) + "\nDES pre-IV: " + expected.substr(16, 16) +
                               "\n");
        // Separate passwords; the engine ID written with separators.
        std::string colons;
        for (size_t i = 0; i < engine[digest].size(); i += 2) colons += (i ? ":" : "") + engine[digest].substr(i, 2);
        const ToolRun aes = Zulcrypt({"usm-keys", "--auth-password", password[digest], "--priv-password", "x",
                                  "--engine-id", colons, "--auth", digest, "--priv", "AES-128"});
        EXPECT_EQ(aes.status, 0) << aes.err;
        EXPECT_EQ(aes.out.rfind("auth protocol: " + digest + "\nauth Ku: " + ku[digest] + "\nauth Kul: " + expected +
                                    "\npriv protocol: AES-128\npriv Ku: ",
                                0),
                  0u);
        EXPECT_EQ(aes.out.find(expected, aes.out.find("priv protocol")), std::string::npos);
    }
    // The SHA-2 digests of RFC 7860 give keys of their full size.
    const ToolRun sha512 = Zulcrypt({"usm-keys", "--password", "maplesyrup", "--engine-id", "0x8000000001", "--auth",
                                 "SHA-512"});
    EXPECT_EQ(sha512.status, 0);
    std::istringstream lines(sha512.out);
    std::string protocol, key, localised;
    std::getline(lines, protocol);
    std::getline(lines, key);
    std::getline(lines, localised);
    EXPECT_EQ(protocol, "auth protocol: SHA512");
    EXPECT_EQ(key.size(), std::string("auth Ku: ").size() + 128);
    EXPECT_EQ(localised.size(), std::string("auth Kul: ").size() + 128);
}

TEST_F(UsmToolTest, BadArgumentsAreRefusedWithAReason) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"usm-keys", "--password", "", "--engine-id", "00", "--auth", "SHA1"}, "empty password"},
        {{"usm-keys", "--password", "p", "--engine-id", "0g", "--auth", "SHA1"}, "bad hex in --engine-id: '0g'"},
        {{"usm-keys", "--password", "p", "--engine-id", "", "--auth", "SHA1"}, "empty engine ID"},
        {{"usm-keys", "--password", "p", "--engine-id", "00", "--auth", "SHA3"},
         "unknown digest 'SHA3' (MD5, SHA1, SHA224, SHA256, SHA384 or SHA512)"},
        {{"usm-keys", "--password", "p", "--engine-id", "00", "--auth", "MD5", "--priv", "3DES"},
         "unknown privacy protocol '3DES' (DES or AES-128)"},
        {{"usm-keys", "--auth-password", "p", "--engine-id", "00", "--auth", "MD5", "--priv", "DES"},
         "--priv needs --password or --priv-password"},
        {{"usm-keys", "--engine-id", "00", "--auth", "MD5"}, "a password is required (--password or --auth-password)"},
        {{"usm-keys", "--pasword", "p"}, "unknown option '--pasword'"},
        {{"keychange", "--auth", "MD5", "--old", "0011", "--new", "00"}, "old and new keys differ in length"},
        {{"keychange", "--auth", "MD5", "--old", "00", "--new", "zz"}, "bad hex in --new: 'zz'"},
        {{"keychange", "--auth", "MD5", "--old", "00", "--new", "11", "--random", "2233"},
         "the random value must be as long as the keys"},
        {{"keychange", "--auth", "MD6", "--old", "00", "--new", "11"},
         "unknown digest 'MD6' (MD5, SHA1, SHA224, SHA256, SHA384 or SHA512)"},
    };
    for (const auto& [args, reason] : cases) {
        SCOPED_TRACE(reason);
        const ToolRun run = Zulcrypt(args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "zulcrypt " + args[0] + ": " + reason + " (see zulcrypt --help)\n");
    }
}

TEST_F(UsmToolTest, KeyChangeXorsTheNewKeyWithChainedDigests) {
    // 20-byte keys under MD5 take two digests, the second cut to 4 bytes.
    Bytes oldKey(20), newKey(20), random(20);
    for (size_t i = 0; i < 20; ++i) {
        oldKey[i] = static_cast<unsigned char>(i);
        newKey[i] = static_cast<unsigned char>(0xf0 - i);
        random[i] = static_cast<unsigned char>(3 * i + 1);
    }
    const Bytes first = Digest("MD5", oldKey, random), second = Digest("MD5", first, random);
    Bytes delta(20);
    for (size_t i = 0; i < 20; ++i) delta[i] = newKey[i] ^ (i < 16 ? first[i] : second[i - 16]);
    const ToolRun run = Zulcrypt({"keychange", "--auth", "MD5", "--old", zultest::Hex(oldKey), "--new",
                              zultest::Hex(newKey), "--random", zultest::Hex(random)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "random: " + zultest::Hex(random) + "\ndelta: " + zultest::Hex(delta) +
                           "\nKeyChange: " + zultest::Hex(random) + zultest::Hex(delta) + "\n");

    // A drawn random value is fresh each time and is the one the delta was made with.
    const ToolRun a = Zulcrypt({"keychange", "--auth", "SHA1", "--old", zultest::Hex(oldKey), "--new",
                            zultest::Hex(newKey)});
    const ToolRun b = Zulcrypt({"keychange", "--auth", "SHA1", "--old", zultest::Hex(oldKey), "--new",
                            zultest::Hex(newKey)});
    ASSERT_EQ(a.status, 0);
    ASSERT_EQ(a.out.rfind("random: ", 0), 0u);
    const std::string drawn = a.out.substr(8, 40);
    EXPECT_NE(b.out.substr(8, 40), drawn);
    const Bytes mask = Digest("SHA1", oldKey, zultest::FromHex(drawn));
    for (size_t i = 0; i < 20; ++i) delta[i] = newKey[i] ^ mask[i];
    EXPECT_EQ(a.out.substr(49), "delta: " + zultest::Hex(delta) + "\nKeyChange: " + drawn + zultest::Hex(delta) + "\n");
}

}  // namespace
