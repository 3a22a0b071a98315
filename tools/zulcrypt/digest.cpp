// zulcrypt digest and zulcrypt hmac: hash or authenticate a file or standard
// input with any digest VKL knows, printing the result in hex.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <istream>
#include <iterator>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <czulcryptcontext.h>
#include <czulcrypthmac.h>
#include <czulcryptmdcontext.h>

#include "commands.h"
#include "hex.h"
#include "reports.h"

namespace zulcrypt {
namespace {

constexpr size_t kChunk = 64 * 1024;

// The file named by path, or standard input for "-"; null (reported) when it cannot be opened.
std::istream* OpenInput(const char* path, std::unique_ptr<std::ifstream>& file, Streams& io) {
    if (std::strcmp(path, "-") == 0) return &io.in;
    file = std::make_unique<std::ifstream>(path, std::ios::binary);
    if (!*file) {
        io.err << "zulcrypt: cannot read " << path << '\n';
        return nullptr;
    }
    return file.get();
}

int Failed(const ErrorCapture& capture, const char* what, Streams& io) {
    io.err << "zulcrypt: " << what << " failed\n";
    for (const std::string& text : capture.Texts()) io.err << "zulcrypt: " << text << '\n';
    return 1;
}

struct DigestOptions {
    std::string name;
    std::string key;
    std::string file = "-";
};

int Digest(const DigestOptions& options, Streams& io) {
    std::unique_ptr<std::ifstream> file;
    std::istream* in = OpenInput(options.file.c_str(), file, io);
    if (in == nullptr) return 2;

    ErrorCapture capture;
    CZulCryptContext context;
    if (!context.GetStatus()) return Failed(capture, "crypto context", io);
    CZulCryptMDContext md(context);
    if (!md.SetType(options.name.c_str())) return Failed(capture, "digest", io);
    // Read in pieces so that a large file never sits in memory whole.
    std::vector<char> chunk(kChunk);
    while (*in) {
        in->read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        std::streamsize got = in->gcount();
        if (got > 0 && !md.AddData(chunk.data(), static_cast<unsigned int>(got))) return Failed(capture, "digest", io);
    }
    if (in->bad()) {
        io.err << "zulcrypt: read error\n";
        return 2;
    }
    int size = md.GetDigestSize();
    Bytes out(size > 0 ? static_cast<size_t>(size) : 1);
    unsigned int outLength = 0;
    if (size <= 0 || !md.GetMessageDigest(out.data(), &outLength)) return Failed(capture, "digest", io);
    io.out << ToHex(out.data(), outLength) << '\n';
    return 0;
}

int Hmac(DigestOptions& options, Streams& io) {
    Bytes key;
    const bool hex = FromHex(options.key, key);
    Wipe(options.key);
    if (!hex) return Usage(io, "hmac", "the key must be hex, two digits a byte");
    std::unique_ptr<std::ifstream> file;
    std::istream* in = OpenInput(options.file.c_str(), file, io);
    if (in == nullptr) return 2;
    Bytes data((std::istreambuf_iterator<char>(*in)), std::istreambuf_iterator<char>());
    if (in->bad()) {
        io.err << "zulcrypt: read error\n";
        return 2;
    }
    // GetHMAC counts bytes in 32 bits, padded key included.
    if (data.size() > 0xffff0000u) {
        io.err << "zulcrypt: input too large\n";
        return 2;
    }

    ErrorCapture capture;
    CZulCryptContext context;
    if (!context.GetStatus()) return Failed(capture, "crypto context", io);
    CZulCryptHMAC hmac(context, options.name.c_str(), key.data(), static_cast<unsigned int>(key.size()));
    unsigned char empty = 0;
    unsigned char* result = nullptr;
    unsigned int resultLength = 0;
    if (!hmac.GetHMAC(data.empty() ? &empty : data.data(), static_cast<unsigned int>(data.size()), &result,
                      &resultLength)) {
        return Failed(capture, "hmac", io);
    }
    io.out << ToHex<SecretText>(result, resultLength) << '\n';
    zul::Cleanse(result, resultLength);
    std::free(result);
    return 0;
}

}  // namespace

void AddDigestCommands(CLI::App& app, Actions& actions) {
    auto digest = std::make_shared<DigestOptions>();
    CLI::App* sub = app.add_subcommand("digest", "Print the hex digest of a file or of standard input.");
    sub->add_option("NAME", digest->name, "the digest by its VKL name: SHA1, SHA256, SHA3-256, MD5, ...")->required();
    sub->add_option("FILE", digest->file, "the input; - or none: standard input");
    sub->footer("Example:\n  zulcrypt digest SHA256 file.bin");
    actions.emplace_back(sub, [digest](Streams& io) { return Digest(*digest, io); });

    auto hmac = std::make_shared<DigestOptions>();
    sub = app.add_subcommand("hmac", "Print the hex HMAC (RFC 2104) of a file or of standard input under a hex key.");
    sub->add_option("NAME", hmac->name, "the digest by its VKL name: SHA1, SHA256, MD5, ...")->required();
    sub->add_option("HEXKEY", hmac->key, "the key in hex, any length")->required();
    sub->add_option("FILE", hmac->file, "the input; - or none: standard input");
    sub->footer("Example (RFC 2202, test case 1):\n"
                "  printf 'Hi There' | zulcrypt hmac SHA1 0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b");
    actions.emplace_back(sub, [hmac](Streams& io) { return Hmac(*hmac, io); });
}

}  // namespace zulcrypt
