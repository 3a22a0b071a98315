// zulcrypt enc and dec through the command table, on string streams and files.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands.h"
#include "test_support.h"

namespace {

struct Outcome {
    int status;
    std::string out;
    std::string err;
};

Outcome Zulcrypt(std::vector<std::string> args, const std::string& input = "") {
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    std::istringstream in(input);
    std::ostringstream out, err;
    zulcrypt::Streams io{in, out, err};
    int status = zulcrypt::Dispatch(static_cast<int>(argv.size()), argv.data(), io);
    return {status, out.str(), err.str()};
}

std::string Raw(const std::string& hex) {
    std::vector<unsigned char> bytes = zultest::FromHex(hex);
    return std::string(bytes.begin(), bytes.end());
}

// NIST SP 800-38A F.2.1 key and IV; 20 plaintext bytes padded to two blocks
// (the same case as tests/data/cipher.vec).
const char kKey[] = "2b7e151628aed2a6abf7158809cf4f3c";
const char kIv[] = "000102030405060708090a0b0c0d0e0f";
const char kPlain[] = "6bc1bee22e409f96e93d7e117393172aae2d8a57";
const char kSealed[] = "7649abac8119b246cee98e9b12e9197d2e013f890472d82217b17f45f6e7f539";

class ZulcryptCipherTest : public zultest::PlatformTest {};

TEST_F(ZulcryptCipherTest, StandardStreams) {
    Outcome sealed = Zulcrypt({"enc", "AES-128-CBC", kKey, kIv}, Raw(kPlain));
    EXPECT_EQ(sealed.status, 0) << sealed.err;
    EXPECT_EQ(sealed.out, Raw(kSealed));
    Outcome opened = Zulcrypt({"dec", "AES-128-CBC", kKey, kIv, "-", "-"}, Raw(kSealed));
    EXPECT_EQ(opened.status, 0) << opened.err;
    EXPECT_EQ(opened.out, Raw(kPlain));

    std::string corrupted = Raw(kSealed);
    corrupted.back() ^= 1;
    Outcome refused = Zulcrypt({"dec", "AES-128-CBC", kKey, kIv}, corrupted);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "zulcrypt: error:1C800064:Provider routines::bad decrypt\n");
}

TEST_F(ZulcryptCipherTest, Refusals) {
    EXPECT_EQ(Zulcrypt({"enc", "AES-128-CBC", kKey}).status, 2);
    EXPECT_EQ(Zulcrypt({"enc", "AES-128-CBC", "xyz", kIv}).status, 2);
    Outcome shortIv = Zulcrypt({"enc", "AES-128-CBC", kKey, "0001"});
    EXPECT_EQ(shortIv.status, 2);
    EXPECT_EQ(shortIv.err, "zulcrypt: AES-128-CBC takes an IV of 16 bytes\n");
    Outcome unknown = Zulcrypt({"dec", "NO-SUCH-CIPHER", kKey, ""});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.err, "zulcrypt: VKL_EVP_get_cipherbyname: unknown cipher NO-SUCH-CIPHER\n");
    Outcome missing = Zulcrypt({"enc", "AES-128-CBC", kKey, kIv, "/nonexistent/in"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "zulcrypt: cannot read /nonexistent/in\n");
}

// Several pieces of the command's buffer and a partial one, file to file.
TEST_F(ZulcryptCipherTest, FilesLargerThanOnePiece) {
    std::string plain;
    for (int i = 0; i < 300001; ++i) plain += static_cast<char>(i * 7 + i / 256);
    std::string dir = ::testing::TempDir();
    std::string plainPath = dir + "zulcrypt_plain", sealedPath = dir + "zulcrypt_sealed",
                openedPath = dir + "zulcrypt_opened";
    std::ofstream(plainPath, std::ios::binary) << plain;
    const char* key = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
    ASSERT_EQ(Zulcrypt({"enc", "AES-256-CBC", key, kIv, plainPath, sealedPath}).status, 0);
    ASSERT_EQ(Zulcrypt({"dec", "AES-256-CBC", key, kIv, sealedPath, openedPath}).status, 0);
    std::ifstream sealedFile(sealedPath, std::ios::binary), openedFile(openedPath, std::ios::binary);
    std::string sealed((std::istreambuf_iterator<char>(sealedFile)), std::istreambuf_iterator<char>());
    std::string opened((std::istreambuf_iterator<char>(openedFile)), std::istreambuf_iterator<char>());
    EXPECT_EQ(sealed.size(), 300016u) << "padded to the next block";
    EXPECT_EQ(opened, plain);
    std::remove(plainPath.c_str());
    std::remove(sealedPath.c_str());
    std::remove(openedPath.c_str());
}

}  // namespace
