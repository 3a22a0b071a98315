// zulcrypt digest and zulcrypt hmac: hash or authenticate a file or standard
// input, piece by piece, printing the result in hex.
#include <memory>
#include <ostream>
#include <string>

#include <CLI/CLI.hpp>
#include <czulcryptcontext.h>
#include <czulcryptmdcontext.h>

#include "commands.h"
#include "files.h"
#include "hex.h"
#include "reports.h"

namespace zulcrypt {
namespace {

constexpr size_t kChunk = size_t{64} * 1024;

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

// Adds the whole input to md; 2 (reported) when it cannot be read, 1 when the
// digest failed.
int AddInput(const char* command, const std::string& path, CZulCryptMDContext& md, Streams& io) {
    Input in;
    std::string why;
    if (!in.Open(path, io, why)) return Refused(io, command, why);
    // The input may be plaintext an HMAC protects.
    Bytes chunk(kChunk);
    for (long got = 0; (got = in.Read(chunk.data(), chunk.size(), why)) != 0;) {
        if (got < 0) return Refused(io, command, why);
        if (!md.AddData(chunk.data(), static_cast<unsigned int>(got))) return 1;
    }
    return 0;
}

int Digest(const DigestOptions& options, Streams& io) {
    ErrorCapture capture;
    CZulCryptContext context;
    if (!context.GetStatus()) return Failed(capture, "crypto context", io);
    CZulCryptMDContext md(context);
    if (!md.SetType(options.name.c_str())) return Failed(capture, "digest", io);
    const int status = AddInput("digest", options.file, md, io);
    if (status != 0) return status == 1 ? Failed(capture, "digest", io) : status;
    Bytes out(static_cast<size_t>(md.GetDigestSize()));
    unsigned int length = 0;
    if (!md.GetMessageDigest(out.data(), &length)) return Failed(capture, "digest", io);
    io.out << ToHex(out.data(), length) << '\n';
    return 0;
}

// RFC 2104 over two digest contexts, so the data goes through in pieces:
// H(K ^ opad | H(K ^ ipad | data)), a key longer than a block hashed first.
int Hmac(DigestOptions& options, Streams& io) {
    Bytes key;
    std::string why;
    const bool hex = ReadHex(options.key, "HEXKEY", key, why);
    Wipe(options.key);
    if (!hex) return Usage(io, "hmac", why);

    ErrorCapture capture;
    CZulCryptContext context;
    if (!context.GetStatus()) return Failed(capture, "crypto context", io);
    const char* name = options.name.c_str();
    CZulCryptMDContext inner(context), outer(context);
    if (!inner.SetType(name) || !outer.SetType(name)) return Failed(capture, "hmac", io);
    const auto block = static_cast<size_t>(inner.GetDigestBlockSize());
    Bytes digest(static_cast<size_t>(inner.GetDigestSize()));
    unsigned int length = 0;
    if (key.size() > block) {
        if (!outer.AddData(key.data(), static_cast<unsigned int>(key.size())) ||
            !outer.GetMessageDigest(digest.data(), &length) || !outer.SetType(name)) {
            return Failed(capture, "hmac", io);
        }
        key.assign(digest.begin(), digest.begin() + length);
    }
    key.resize(block, 0);
    Bytes pad(block);
    for (size_t i = 0; i < block; ++i) pad[i] = key[i] ^ 0x36;
    if (!inner.AddData(pad.data(), static_cast<unsigned int>(block))) return Failed(capture, "hmac", io);
    const int status = AddInput("hmac", options.file, inner, io);
    if (status != 0) return status == 1 ? Failed(capture, "hmac", io) : status;
    for (size_t i = 0; i < block; ++i) pad[i] = key[i] ^ 0x5c;
    if (!inner.GetMessageDigest(digest.data(), &length) ||
        !outer.AddData(pad.data(), static_cast<unsigned int>(block)) || !outer.AddData(digest.data(), length) ||
        !outer.GetMessageDigest(digest.data(), &length)) {
        return Failed(capture, "hmac", io);
    }
    io.out << ToHex<SecretText>(digest.data(), length) << '\n';
    return 0;
}

}  // namespace

void AddDigestCommands(CLI::App& app, Actions& actions) {
    auto digest = std::make_shared<DigestOptions>();
    CLI::App* sub = app.add_subcommand("digest", "Print the hex digest of a file or of standard input.");
    sub->add_option("NAME", digest->name, std::string("the digest: ") + DigestList(false))
        ->required()
        ->transform(DigestChoice(false));
    sub->add_option("FILE", digest->file, "the input; - or none: standard input");
    sub->footer("Example:\n  zulcrypt digest SHA256 file.bin");
    actions.emplace_back(sub, [digest](Streams& io) { return Digest(*digest, io); });

    auto hmac = std::make_shared<DigestOptions>();
    sub = app.add_subcommand("hmac", "Print the hex HMAC (RFC 2104) of a file or of standard input under a hex key.");
    sub->add_option("NAME", hmac->name, std::string("the digest: ") + DigestList(false))
        ->required()
        ->transform(DigestChoice(false));
    sub->add_option("HEXKEY", hmac->key, "the key in hex (0x and ':' allowed), any length")->required();
    sub->add_option("FILE", hmac->file, "the input; - or none: standard input");
    sub->footer("Example (RFC 2202, test case 1):\n"
                "  printf 'Hi There' | zulcrypt hmac SHA1 0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b");
    actions.emplace_back(sub, [hmac](Streams& io) { return Hmac(*hmac, io); });
}

}  // namespace zulcrypt
