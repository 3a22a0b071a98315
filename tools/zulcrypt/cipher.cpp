// zulcrypt enc and dec: a named cipher with a hex key and IV over a file or the
// standard streams, piece by piece, so any size goes through in fixed memory.
#include <cctype>
#include <map>
#include <memory>
#include <ostream>
#include <string>

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>

#include "commands.h"
#include "files.h"
#include "hex.h"
#include "secret.h"

namespace zulcrypt {
namespace {

constexpr size_t kPiece = size_t{64} * 1024;

// Parts of the names of modes whose ciphertext is worthless without its
// authentication tag: this command writes no tag and could not check one.
const char* const kTagModes[] = {"GCM", "CCM", "OCB", "SIV", "POLY1305", "HMAC"};

std::string NeedsTag(const std::string& cipher) {
    std::string name = cipher;
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const char* mode : kTagModes) {
        if (name.find(mode) != std::string::npos) {
            return cipher + " needs an authentication tag, which enc does not write and dec cannot check;"
                            " use a mode such as CBC or CTR";
        }
    }
    return "";
}

const char kCipherList[] = "AES-128, AES-192 or AES-256 with -CBC, -CFB, -OFB, -CTR or -ECB; DES-CBC or"
                           " DES-EDE3-CBC, in any case";

std::map<std::string, std::string> CipherNames() {
    std::map<std::string, std::string> names = {{"DES-CBC", "DES-CBC"}, {"DES-EDE3-CBC", "DES-EDE3-CBC"}};
    for (const char* size : {"128", "192", "256"}) {
        for (const char* mode : {"CBC", "CFB", "OFB", "CTR", "ECB"}) {
            const std::string name = std::string("AES-") + size + "-" + mode;
            names[name] = name;
        }
    }
    return names;
}

std::ostream* g_errors = nullptr;

void ShowError(const char*, unsigned int, const char* text, bool) {
    if (g_errors != nullptr) *g_errors << "zulcrypt: " << text << '\n';
}

// Restores the error callback however the command ends.
struct Session {
    explicit Session(std::ostream& err) : previous(CZulCryptContext::m_ErrorResponseFn) {
        g_errors = &err;
        CZulCryptContext::SetErrorResponseFn(ShowError);
    }
    ~Session() {
        CZulCryptContext::SetErrorResponseFn(previous);
        g_errors = nullptr;
    }
    void (*previous)(const char*, unsigned int, const char*, bool);
};

// The tag modes with their own reason, before the list.
CLI::Validator CipherChoice() {
    const CLI::Validator choice = Choice(CipherNames(), kCipherList);
    return CLI::Validator(
        [choice](std::string& value) {
            const std::string why = NeedsTag(value);
            return why.empty() ? choice(value) : why;
        },
        "");
}

// Only a regular file: reading and writing one FIFO or device is for the caller to mean.
bool SameFile(const std::string& a, const std::string& b) {
    struct stat first {}, second {};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && S_ISREG(first.st_mode) &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

struct CipherOptions {
    std::string cipher;
    std::string key;
    std::string iv;
    std::string in = "-";
    std::string out = "-";
    bool nopad = false;
};

int Run(CipherOptions& options, Streams& io, bool encrypt) {
    const char* command = encrypt ? "enc" : "dec";
    const char* name = options.cipher.c_str();
    Bytes key, iv;
    std::string why;
    const bool keyHex = ReadHex(options.key, "HEXKEY", key, why);
    Wipe(options.key);
    if (!keyHex || !ReadHex(options.iv, "HEXIV", iv, why)) return Usage(io, command, why);
    if (key.empty()) return Usage(io, command, "the key is empty");
    const bool toFile = options.out != "-";
    if (options.in != "-" && toFile && SameFile(options.in, options.out)) {
        return Usage(io, command, "the output is the input file " + options.in + "; write to another file");
    }
    Input in;
    if (!in.Open(options.in, io, why)) return Refused(io, command, why);

    Session session(io.err);
    CZulCryptContext context;
    if (!context.GetStatus()) return 1;
    CZulCryptCipherContext cipher(context);
    const int keyLength = cipher.GetDefaultKeyLengthForType(name);
    if (keyLength < 0) return 1;
    if (key.size() != static_cast<size_t>(keyLength)) {
        return Usage(io, command, options.cipher + " takes a key of " + std::to_string(keyLength) + " bytes, not " +
                                      std::to_string(key.size()));
    }
    const int ivLength = cipher.GetDefaultIvLengthForType(name);
    if (iv.size() != static_cast<size_t>(ivLength)) {
        return Usage(io, command, options.cipher + " takes an IV of " + std::to_string(ivLength) + " bytes, not " +
                                      std::to_string(iv.size()));
    }
    const bool keyed = encrypt ? cipher.SetEncryptType(name, key.data(), keyLength, iv.data(), ivLength)
                               : cipher.SetDecryptType(name, key.data(), keyLength, iv.data(), ivLength);
    if (!keyed || (options.nopad && !cipher.SetPadding(false))) {
        io.err << "zulcrypt: cannot set up " << options.cipher << '\n';
        return 1;
    }
    Output file;
    if (toFile && !file.Open(options.out, why)) return Refused(io, command, why);
    auto emit = [&](const Bytes& data, int length) {
        if (toFile) return file.Write(data.data(), static_cast<size_t>(length));
        io.out.write(reinterpret_cast<const char*>(data.data()), length);
        return static_cast<bool>(io.out);
    };

    // The pieces hold plaintext on one side or the other.
    Bytes piece(kPiece);
    Bytes result(static_cast<size_t>(cipher.GetBufferSize(static_cast<int>(kPiece), encrypt)));
    int written = 0;
    for (;;) {
        const long got = in.Read(piece.data(), piece.size(), why);
        if (got < 0) return Refused(io, command, why);
        if (got == 0) break;
        const bool done = encrypt ? cipher.EncryptData(piece.data(), static_cast<int>(got), result.data(), &written)
                                  : cipher.DecryptData(piece.data(), static_cast<int>(got), result.data(), &written);
        if (!done) return 1;
        if (!emit(result, written)) {
            io.err << "zulcrypt: write error\n";
            return 1;
        }
    }
    const bool finished =
        encrypt ? cipher.EncryptFinal(result.data(), &written) : cipher.DecryptFinal(result.data(), &written);
    if (!finished) return 1;
    if (!emit(result, written) || !io.out.flush() || (toFile && !file.Commit())) {
        io.err << "zulcrypt: write error\n";
        return 1;
    }
    return 0;
}

const char kCipherFooter[] = R"(Output:
  What openssl enc writes with -K and -iv: no salt header, PKCS#7 padding, so each reads
  the other's files. With --nopad, as openssl enc -nopad: no padding is added or checked,
  and the data must be whole blocks (a DES-CBC scoped PDU's RFC 3414 padding is kept).

Refused (exit 2):
  a cipher not listed; an empty key, or a key or IV not of the cipher's length; modes that
  need an authentication tag (GCM, CCM, OCB, SIV, ChaCha20-Poly1305, ...), since no tag is
  written or checked; an OUT that is the IN file. Hex may start with 0x and have ':' between
  digits.

Files:
  A regular file OUT, or a new one, is written under a temporary name beside it (mode 0600,
  or the mode of the file it replaces) and renamed into place only when everything
  succeeded: a failed or interrupted run leaves OUT as it was. A file the user may not
  write to is refused (exit 2), not replaced. A symlink OUT is followed: its target is
  replaced. An OUT that is no regular file (a FIFO, a device, /dev/stdout) is written
  directly, as openssl enc -out does. On standard output the data goes out as it is
  processed, so a decryption failing at its end has written the rest.

Example (NIST SP 800-38A F.2.1's key and IV):
  zulcrypt enc AES-128-CBC 2b7e151628aed2a6abf7158809cf4f3c 000102030405060708090a0b0c0d0e0f in.bin in.enc
  zulcrypt dec AES-128-CBC 2b7e151628aed2a6abf7158809cf4f3c 000102030405060708090a0b0c0d0e0f in.enc -)";

}  // namespace

void AddCipherCommands(CLI::App& app, Actions& actions) {
    for (const bool encrypt : {true, false}) {
        auto options = std::make_shared<CipherOptions>();
        CLI::App* sub = app.add_subcommand(encrypt ? "enc" : "dec",
                                           encrypt ? "Encrypt a file or standard input, padded, as openssl enc does."
                                                   : "Decrypt what enc or openssl enc wrote.");
        sub->add_option("CIPHER", options->cipher, std::string("the cipher: ") + kCipherList)
            ->required()
            ->transform(CipherChoice());
        sub->add_option("HEXKEY", options->key, "the key in hex, of the cipher's key length")->required();
        sub->add_option("HEXIV", options->iv, "the IV in hex; \"\" for a cipher without one")->required();
        sub->add_option("IN", options->in, "the input file; - or none: standard input");
        sub->add_option("OUT", options->out, "the output file; - or none: standard output");
        sub->add_flag("--nopad", options->nopad, "no padding, as openssl enc -nopad: whole blocks only");
        sub->footer(kCipherFooter);
        actions.emplace_back(sub, [options, encrypt](Streams& io) { return Run(*options, io, encrypt); });
    }
}

}  // namespace zulcrypt
