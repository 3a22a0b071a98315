// zulcrypt usm-keys and keychange: the command lines of tests/data/snmp_usm_tool.vec.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands.h"
#include "script.h"
#include "test_support.h"

namespace {

zultest::Calls ToolCalls(CZulCryptContext&) {
    return {{"Zulcrypt", [](const zultest::Args& args) {
                 std::vector<std::string> words;
                 for (const zultest::Arg& arg : args) words.push_back(arg.Text());
                 std::vector<char*> argv;
                 for (std::string& word : words) argv.push_back(word.data());
                 std::istringstream in;
                 std::ostringstream out, err;
                 zulcrypt::Streams io{in, out, err};
                 const int status = zulcrypt::Dispatch(static_cast<int>(argv.size()), argv.data(), io);
                 zultest::Outcome outcome = zultest::Number(status);
                 outcome.text = out.str();
                 const std::string error = err.str();
                 outcome.out.assign(error.begin(), error.end());
                 return outcome;
             }}};
}

class UsmToolTest : public zultest::PlatformTest {};

TEST_F(UsmToolTest, CommandLines) { zultest::RunScripts("snmp_usm_tool.vec", ToolCalls); }

}  // namespace
