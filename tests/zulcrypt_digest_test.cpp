// zulcrypt digest and zulcrypt hmac, run through the command table as the tool runs them.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands.h"
#include "test_support.h"

namespace {

class ZulcryptDigestTest : public zultest::PlatformTest {
protected:
    // Runs the command line with `input` as standard input; returns the exit status.
    int Run(std::vector<std::string> args, const std::string& input = "") {
        std::vector<char*> argv;
        for (std::string& arg : args) argv.push_back(arg.data());
        std::istringstream in(input);
        out.str("");
        err.str("");
        zulcrypt::Streams io{in, out, err};
        return zulcrypt::Dispatch(static_cast<int>(argv.size()), argv.data(), io);
    }

    std::ostringstream out;
    std::ostringstream err;
};

TEST_F(ZulcryptDigestTest, DigestOfStandardInputAndOfAFile) {
    // FIPS 180-2 appendix A.1 and B.1.
    EXPECT_EQ(Run({"digest", "SHA1"}, "abc"), 0);
    EXPECT_EQ(out.str(), "a9993e364706816aba3e25717850c26c9cd0d89d\n");
    EXPECT_EQ(Run({"digest", "SHA256", "-"}, "abc"), 0);
    EXPECT_EQ(out.str(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad\n");

    // FIPS 180-2 appendix A.3: a million "a", more than one read chunk.
    std::string path = ::testing::TempDir() + "zulcrypt_digest_input";
    std::ofstream(path, std::ios::binary) << std::string(1000000, 'a');
    EXPECT_EQ(Run({"digest", "SHA1", path}), 0);
    EXPECT_EQ(out.str(), "34aa973cd4c4daa4f61eeb2bdbad27316534016f\n");
    std::remove(path.c_str());
    EXPECT_EQ(err.str(), "");
}

TEST_F(ZulcryptDigestTest, HmacOfStandardInput) {
    // RFC 2202 HMAC-SHA-1 test case 1; RFC 4231 test case 2 (a text key, given in hex).
    EXPECT_EQ(Run({"hmac", "SHA1", "0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b"}, "Hi There"), 0);
    EXPECT_EQ(out.str(), "b617318655057264e28bc0b6fb378c8ef146be00\n");
    EXPECT_EQ(Run({"hmac", "SHA256", "4a656665"}, "what do ya want for nothing?"), 0);
    EXPECT_EQ(out.str(), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843\n");
    EXPECT_EQ(err.str(), "");
}

TEST_F(ZulcryptDigestTest, FailuresAndUsage) {
    EXPECT_EQ(Run({"digest", "NO-SUCH"}, "abc"), 1);
    EXPECT_EQ(err.str(), "zulcrypt: digest failed\nzulcrypt: VKL_EVP_get_digestbyname: unknown digest NO-SUCH\n");
    EXPECT_EQ(Run({"hmac", "NO-SUCH", "00"}, "abc"), 1);
    EXPECT_EQ(err.str(), "zulcrypt: hmac failed\nzulcrypt: VKL_EVP_get_digestbyname: unknown digest NO-SUCH\n");
    EXPECT_EQ(Run({"hmac", "SHA1", "0g"}, "abc"), 2);
    EXPECT_EQ(err.str(), "usage: zulcrypt hmac NAME HEXKEY [FILE]\n");
    EXPECT_EQ(Run({"digest"}), 2);
    EXPECT_EQ(err.str(), "usage: zulcrypt digest NAME [FILE]\n");
    EXPECT_EQ(Run({"digest", "SHA1", "/nonexistent/input"}), 2);
    EXPECT_EQ(err.str(), "zulcrypt: cannot read /nonexistent/input\n");
    EXPECT_EQ(out.str(), "");
}

}  // namespace
