// zulcrypt selftest: the command's logic and the installed binary.
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "commands.h"
#include "test_support.h"

using ::testing::HasSubstr;

namespace {

class ZulcryptSelfTest : public zultest::PlatformTest {
protected:
    int Run(std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        std::istringstream in;
        zulcrypt::Streams io{in, out, err};
        return zulcrypt::Dispatch(static_cast<int>(argv.size()), argv.data(), io);
    }

    std::ostringstream out;
    std::ostringstream err;
};

TEST_F(ZulcryptSelfTest, UsableContextExitsZero) {
    WEXTest_SetSystemFips(1);
    EXPECT_EQ(Run({"selftest"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("context: usable\nstatus: clean\nfips mode: yes\nvkl: OpenSSL 3."));
}

TEST_F(ZulcryptSelfTest, FailingSelfTestShowsTheDecodedStatus) {
    VKLTest_SetStatus("VKL_SelfTest", 2, 4, "Self-test failed: AES-128-CBC known-answer test");
    EXPECT_NE(Run({"selftest"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("context: NOT usable\n"
                                     "status: MAJOR: VKL ERROR, MINOR: LIBRARY VERIFICATION FAILED, "
                                     "DESC:Self-test failed: AES-128-CBC known-answer test\n"));
    EXPECT_TRUE(diagnostics->errors.empty()) << "the command takes the reports itself";
}

TEST_F(ZulcryptSelfTest, MissingContextExitsNonZero) {
    WEXTest_SetGetContextResult(0);
    EXPECT_NE(Run({"selftest"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("status: VKL Context not started.\n"));
    EXPECT_THAT(out.str(), HasSubstr("vkl: unknown (no VKL context)\n"));
}

TEST_F(ZulcryptSelfTest, UsageErrors) {
    EXPECT_EQ(Run({"selftest", "extra"}), 2);
    EXPECT_EQ(Run({"frobnicate"}), 2);
    EXPECT_THAT(err.str(), HasSubstr("zulcrypt: unknown command 'frobnicate'"));
    EXPECT_EQ(Run({"--help"}), 0);
    EXPECT_THAT(out.str(), HasSubstr("selftest"));
}

TEST(ZulcryptBinary, SelftestExitsZeroHere) {
    std::string command = std::string("'") + ZULCRYPT_TOOL + "' selftest";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    ASSERT_TRUE(pipe);
    std::string output;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr) output += buffer;
    int status = pclose(pipe.release());
    EXPECT_EQ(status, 0) << output;
    EXPECT_THAT(output, HasSubstr("context: usable"));
}

}  // namespace
