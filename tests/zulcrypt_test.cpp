// The zulcrypt tool run through its command table as main runs it: the known answers of
// tests/vectors/zulcrypt.vec, and the scripts of tests/data/zulcrypt_scripts.vec.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commands.h"
#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

class ZulcryptTest : public zultest::PlatformTest {};

using Words = std::vector<std::string>;

// The exit status as number, standard output as out and standard error as text.
zultest::Outcome Zul(const std::string& input, Words words) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    std::istringstream in(input);
    std::ostringstream out, err;
    zulcrypt::Streams io{in, out, err};
    zultest::Outcome result = zultest::Number(zulcrypt::Dispatch(static_cast<int>(argv.size()), argv.data(), io));
    const std::string printed = out.str();
    result.out.assign(printed.begin(), printed.end());
    result.text = err.str();
    return result;
}

std::string Printed(const zultest::Outcome& outcome) { return std::string(outcome.out.begin(), outcome.out.end()); }

void Save(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

std::string Load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Every command over its known answers: digests and MACs from standard input and from a file,
// enc from standard input and dec file to file, passwords from a file (CRLF, a second line
// ignored) or two from standard input.
TEST_F(ZulcryptTest, Vectors) {
    const std::string file = ::testing::TempDir() + "zulcrypt.in", sealed = file + ".out";
    for (const zultest::VectorCase& v : zultest::ReadVectors("zulcrypt.vec")) {
        SCOPED_TRACE(v.Where());
        const auto text = [&](const char* name) {
            const auto bytes = v.Has(name) ? v.Bytes(name) : std::vector<unsigned char>();
            return std::string(bytes.begin(), bytes.end());
        };
        const auto hex = [&](const char* name) { return zultest::Hex(v.Bytes(name)); };
        std::string input = text("In");
        Save(file, input);
        Words words;
        if (v.Has("EngineId")) words = {"usm-keys", "--engine-id", hex("EngineId"), "--auth", v.Text("Auth")};
        if (v.Has("Digest")) words = {"digest", v.Text("Digest")};
        if (v.Has("Hmac")) words = {"hmac", v.Text("Hmac"), hex("Key")};
        if (v.Has("Cipher")) words = {"enc", v.Text("Cipher"), hex("Key"), hex("IV")};
        if (v.Has("Nopad")) words.push_back("--nopad");
        if (v.Has("Old")) words = {"keychange", "--auth", v.Text("Auth"), "--old",   hex("Old"),
                                   "--new",     hex("New"),          "--random", hex("Random")};
        if (v.Has("Priv")) words.insert(words.end(), {"--priv", v.Text("Priv")});
        if (v.Has("PrivPassword")) {
            input = text("Password") + "\n" + text("PrivPassword") + "\n";
            words.insert(words.end(), {"--auth-password-file", "-", "--priv-password-file", "-"});
        } else if (v.Has("Password")) {
            Save(file, text("Password") + "\r\nsecond line\n");
            words.insert(words.end(), {"--password-file", file});
        }
        const zultest::Outcome got = Zul(input, words);
        EXPECT_EQ(got.number, 0) << got.text;
        const std::string out = Printed(got);
        // A long ciphertext is known by its SHA-256.
        const bool big = v.Has("Sha256");
        EXPECT_EQ(big ? Printed(Zul(out, {"digest", "SHA256"})) : out, text(big ? "Sha256" : "Out"));
        if (v.Has("Cipher")) {
            Save(file, out);
            words[0] = "dec";
            words.insert(words.end(), {file, sealed});
            EXPECT_EQ(Zul("", words).number, 0);
            EXPECT_EQ(Load(sealed), input);
        } else if (v.Has("In")) {
            words.push_back(file);
            EXPECT_EQ(Printed(Zul("", words)), text("Out"));
        }
    }
}

// Run stdin word... runs the command table; Refuse stdin word... the same, requiring exit status 2.
// Write file bytes; Read file gives its bytes and removes it.
zultest::Calls ZulcryptCalls(CZulCryptContext&) {
    zultest::Vars()["$tmp"] = ::testing::TempDir() + "zulcrypt";
    const auto run = [](const zultest::Args& a) {
        Words words;
        for (size_t i = 1; i < a.size(); ++i) words.push_back(a[i].Text());
        const auto input = a[0].Bytes();
        return Zul(std::string(input.begin(), input.end()), words);
    };
    return {
        {"Run", run},
        {"Refuse",
         [run](const zultest::Args& a) {
             zultest::Outcome outcome = run(a);
             EXPECT_EQ(outcome.number, 2) << "exit status";
             return outcome;
         }},
        {"Write",
         [](const zultest::Args& a) {
             const auto bytes = a[1].Bytes();
             Save(a[0].Text(), std::string(bytes.begin(), bytes.end()));
             return zultest::Ok(true);
         }},
        {"Read",
         [](const zultest::Args& a) {
             const std::string bytes = Load(a[0].Text());
             std::remove(a[0].Text().c_str());
             return zultest::Bytes(true, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
         }},
    };
}

TEST_F(ZulcryptTest, Scripts) { zultest::RunScripts("zulcrypt_scripts.vec", ZulcryptCalls); }

}  // namespace
