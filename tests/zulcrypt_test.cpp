// The zulcrypt tool's digest, hmac, enc, dec and selftest commands, run through
// its command table as the tool runs them, and the built binary once: the
// scripts of tests/data/zulcrypt_scripts.vec.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands.h"
#include "script.h"
#include "test_support.h"

namespace {

class ZulcryptTest : public zultest::PlatformTest {};

// Run stdin word... ("text"*N a word of N copies): the exit status as Result, standard output as Out and
// standard error as Text. Binary word...: the built tool, standard output only.
// Write file bytes / Read file: files under $tmp.
zultest::Calls ZulcryptCalls(CZulCryptContext&) {
    zultest::Vars()["$tmp"] = ::testing::TempDir() + "zulcrypt";
    using zultest::Args;
    auto outcome = [](int status, const std::string& out, const std::string& err) {
        zultest::Outcome result = zultest::Number(status);
        result.out.assign(out.begin(), out.end());
        result.text = err;
        return result;
    };
    return {
        {"Run",
         [=](const Args& a) {
             const auto input = a[0].Bytes();
             std::vector<std::string> words = {"zulcrypt"};
             for (size_t i = 1; i < a.size(); ++i) {
                 const auto text = a[i].raw[0] == '"' ? a[i].Bytes() : std::vector<unsigned char>();
                 words.push_back(a[i].raw[0] == '"' ? std::string(text.begin(), text.end()) : a[i].Text());
             }
             std::vector<char*> argv;
             for (std::string& word : words) argv.push_back(word.data());
             std::istringstream in(std::string(input.begin(), input.end()));
             std::ostringstream out, err;
             zulcrypt::Streams io{in, out, err};
             const int status = zulcrypt::Dispatch(static_cast<int>(argv.size()) - 1, argv.data() + 1, io);
             return outcome(status, out.str(), err.str());
         }},
        {"Binary",
         [=](const Args& a) {
             std::string command = std::string("'") + ZULCRYPT_TOOL + "'";
             for (const zultest::Arg& word : a) command += " " + word.Text();
             std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
             std::string output;
             char buffer[256];
             while (pipe && std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr) output += buffer;
             return outcome(pipe ? pclose(pipe.release()) : -1, output, "");
         }},
        {"Write",
         [](const Args& a) {
             const auto bytes = a[1].Bytes();
             std::ofstream(a[0].Text(), std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                                 static_cast<std::streamsize>(bytes.size()));
             return zultest::Ok(true);
         }},
        {"Read",
         [](const Args& a) {
             std::ifstream in(a[0].Text(), std::ios::binary);
             const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
             std::remove(a[0].Text().c_str());
             zultest::Outcome result = zultest::Number(static_cast<long>(bytes.size()));
             result.out.assign(bytes.begin(), bytes.end());
             return result;
         }},
    };
}

TEST_F(ZulcryptTest, Scripts) {
    for (const char* file : {"zulcrypt_scripts.vec", "snmp_usm_tool.vec"}) {
        zultest::RunScripts(file, ZulcryptCalls);
    }
}

}  // namespace
