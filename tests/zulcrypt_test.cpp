// The zulcrypt tool run through its command table as main runs it: the known answers of
// tests/vectors/zulcrypt.vec, and the scripts of tests/data/zulcrypt_scripts.vec.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "commands.h"
#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using namespace zultest;

using ZulcryptTest = PlatformTest;

using Words = std::vector<std::string>;

std::string Str(const std::vector<unsigned char>& bytes) { return std::string(bytes.begin(), bytes.end()); }

// The exit status as number, standard output as out and standard error as text.
Outcome Zul(const std::string& input, Words words) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(&word[0]);
    std::istringstream in(input);
    std::ostringstream out, err;
    zulcrypt::Streams io{in, out, err};
    const long status = zulcrypt::Dispatch(static_cast<int>(argv.size()), argv.data(), io);
    const std::string printed = out.str();
    return {true, status, err.str(), {printed.begin(), printed.end()}};
}

void Save(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// Every command over its known answers: digests and MACs of a file, enc from standard input to
// standard output and dec into a file, passwords from standard input (CRLF; one for both, or a
// second for privacy).
TEST_F(ZulcryptTest, Vectors) {
    const std::string file = ::testing::TempDir() + "zulcrypt.in", sealed = file + ".out";
    for (const VectorCase& v : ReadVectors("zulcrypt.vec")) {
        SCOPED_TRACE(v.Where());
        const auto text = [&](const char* n) { return v.Has(n) ? Str(v.Bytes(n)) : ""; };
        std::string input = text("In");
        Save(file, input);
        Words words;
        if (v.Has("Digest")) words = {"digest", v.Text("Digest"), file};
        if (v.Has("Hmac")) words = {"hmac", v.Text("Hmac"), v.Text("Key"), file};
        if (v.Has("Cipher")) words = {"enc", v.Text("Cipher"), v.Text("Key"), v.Text("IV")};
        if (v.Has("Nopad")) words.push_back("--nopad");
        if (v.Has("EngineId")) words = {"usm-keys", "--engine-id", v.Text("EngineId"), "--auth", v.Text("Auth")};
        if (v.Has("Priv")) words.insert(words.end(), {"--priv", v.Text("Priv")});
        if (v.Has("Old")) {
            words = {"keychange", "--auth", v.Text("Auth"), "--old", v.Text("Old"), "--new", v.Text("New"),
                     "--random", v.Text("Random")};
        }
        if (v.Has("Password")) {
            input = text("Password") + "\r\n" + text("PrivPassword") + "\n";
            words.insert(words.end(), {"--password-file", "-"});
        }
        if (v.Has("PrivPassword")) words.insert(words.end(), {"--priv-password-file", "-"});
        const Outcome got = Zul(input, words);
        EXPECT_EQ(got.number, 0) << got.text;
        // A long ciphertext is known by its SHA-256. The tool prints a digest or MAC alone on a line,
        // and keychange the random it was given (words[8]), delta and the KeyChange value.
        const bool big = v.Has("Sha256");
        EXPECT_EQ(Str(big ? Zul(Str(got.out), {"digest", "SHA256"}).out : got.out),
                  v.Has("Old") ? "random: " + words[8] + "\ndelta: " + v.Text("Delta") + "\nKeyChange: " + v.Text("Out") + "\n"
                  : big || v.Has("Digest") || v.Has("Hmac") ? v.Text(big ? "Sha256" : "Out") + "\n" : text("Out"));
        if (v.Has("Cipher")) {
            // An OUT of the last run's would hide a dec that wrote nothing.
            Save(sealed, "");
            words[0] = "dec";
            words.insert(words.end(), {"-", sealed});
            Zul(Str(got.out), words);
            EXPECT_EQ(Zul("", {"digest", "SHA1", sealed}).out, Zul(input, {"digest", "SHA1"}).out);
        }
    }
}

// Run stdin word... runs the command table; a word x*N stands for N copies of the hex x. Usage and
// Refuse run it too, require exit status 2 and take "zulcrypt COMMAND: " off standard error, Usage
// also " (see zulcrypt COMMAND --help)". Write file bytes (- removes it).
Calls ZulcryptCalls(CZulCryptContext&) {
    Vars()["$tmp"] = ::testing::TempDir() + "zulcrypt";
    const auto call = [](bool refused, bool usage) {
        return [refused, usage](const Args& a) {
            Words words;
            for (size_t i = 1; i < a.size(); ++i) {
                words.push_back(a[i].raw.find('*') != std::string::npos ? Hex(a[i].Bytes()) : a[i].Text());
            }
            Outcome outcome = Zul(Str(a[0].Bytes()), words);
            if (!refused) return outcome;
            EXPECT_EQ(outcome.number, 2);
            const std::string head = "zulcrypt " + words[0] + ": ";
            const std::string tail = usage ? " (see zulcrypt " + words[0] + " --help)\n" : "\n";
            std::string& text = outcome.text;
            const size_t end = text.size() - std::min(text.size(), tail.size());
            const bool framed = text.rfind(head, 0) == 0 && text.substr(end) == tail && end >= head.size();
            text = framed ? text.substr(head.size(), end - head.size()) : "unframed " + text;
            return outcome;
        };
    };
    const auto write = [](const Args& a) {
        if (a[1].IsNull()) return Ok(std::remove(a[0].Text().c_str()) == 0);
        Save(a[0].Text(), Str(a[1].Bytes()));
        return Ok(true);
    };
    return {{"Run", call(false, false)}, {"Refuse", call(true, false)}, {"Usage", call(true, true)}, {"Write", write}};
}

TEST_F(ZulcryptTest, Scripts) { RunScripts("zulcrypt_scripts.vec", ZulcryptCalls); }

}  // namespace
