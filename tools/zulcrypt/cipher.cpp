// zulcrypt enc and dec: a named cipher with a hex key and IV over a file or the
// standard streams, piece by piece, so any size goes through in fixed memory.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>

#include "commands.h"
#include "hex.h"
#include "secret.h"

namespace zulcrypt {
namespace {

constexpr size_t kPiece = 64 * 1024;

// Parts of the names of modes whose ciphertext is worthless without its
// authentication tag: this command writes no tag and could not check one.
const char* const kTagModes[] = {"GCM", "CCM", "OCB", "SIV", "POLY1305", "HMAC"};

bool NeedsTag(std::string name) {
    for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const char* mode : kTagModes) {
        if (name.find(mode) != std::string::npos) return true;
    }
    return false;
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

// An output file written under a temporary name beside it and renamed into
// place by Commit, so a failure never leaves a partial or truncated file.
class OutputFile {
public:
    ~OutputFile() {
        if (m_fd >= 0) close(m_fd);
        if (!m_temp.empty()) unlink(m_temp.c_str());
    }

    // False, with why set, when no file can be made beside path.
    bool Open(const std::string& path, std::string& why) {
        std::string name = path + ".XXXXXX";
        m_fd = mkstemp(&name[0]);
        if (m_fd < 0) {
            why = "cannot write " + path + ": " + std::strerror(errno);
            return false;
        }
        m_temp = name;
        m_path = path;
        return true;
    }

    bool Write(const unsigned char* data, size_t length) {
        while (length > 0) {
            const ssize_t done = write(m_fd, data, length);
            if (done < 0 && errno == EINTR) continue;
            if (done <= 0) return false;
            data += done;
            length -= static_cast<size_t>(done);
        }
        return true;
    }

    // True once the data is on disk under the final name.
    bool Commit() {
        const bool closed = fsync(m_fd) == 0 && close(m_fd) == 0;
        m_fd = -1;
        if (!closed || rename(m_temp.c_str(), m_path.c_str()) != 0) return false;
        m_temp.clear();
        return true;
    }

private:
    int m_fd = -1;
    std::string m_temp;
    std::string m_path;
};

bool SameFile(const std::string& a, const std::string& b) {
    struct stat first {}, second {};
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

struct CipherOptions {
    std::string cipher;
    std::string key;
    std::string iv;
    std::string in = "-";
    std::string out = "-";
};

int Run(CipherOptions& options, Streams& io, bool encrypt) {
    const char* command = encrypt ? "enc" : "dec";
    const char* name = options.cipher.c_str();
    Bytes key, iv;
    const bool keyHex = FromHex(options.key, key);
    Wipe(options.key);
    if (NeedsTag(options.cipher)) {
        return Usage(io, command,
                     options.cipher + " needs an authentication tag, which enc does not write and dec cannot check;"
                                      " use a mode such as CBC or CTR");
    }
    if (!keyHex || !FromHex(options.iv, iv)) {
        return Usage(io, command, "key and IV must be hex (the IV may be empty: \"\")");
    }
    if (key.empty()) return Usage(io, command, "the key is empty");
    const bool toFile = options.out != "-";
    if (options.in != "-" && toFile && SameFile(options.in, options.out)) {
        return Usage(io, command, "the output is the input file " + options.in + "; write to another file");
    }
    std::ifstream inFile;
    std::istream* in = &io.in;
    if (options.in != "-") {
        inFile.open(options.in, std::ios::binary);
        if (!inFile) return Refused(io, command, "cannot read " + options.in + ": " + std::strerror(errno));
        in = &inFile;
    }

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
    if (!keyed) {
        io.err << "zulcrypt: cannot set up " << options.cipher << '\n';
        return 1;
    }
    OutputFile file;
    std::string why;
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
    while (*in) {
        in->read(reinterpret_cast<char*>(piece.data()), static_cast<std::streamsize>(piece.size()));
        const auto got = static_cast<int>(in->gcount());
        if (got == 0) break;
        const bool done = encrypt ? cipher.EncryptData(piece.data(), got, result.data(), &written)
                                  : cipher.DecryptData(piece.data(), got, result.data(), &written);
        if (!done) return 1;
        if (!emit(result, written)) {
            io.err << "zulcrypt: write error\n";
            return 1;
        }
    }
    if (in->bad()) {
        io.err << "zulcrypt: read error\n";
        return 1;
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
  the other's files.

Refused (exit 2):
  an empty key, or a key or IV not of the cipher's length; modes that need an authentication
  tag (GCM, CCM, OCB, SIV, ChaCha20-Poly1305, ...), since no tag is written or checked; an
  OUT that is the IN file.

Files:
  A file OUT is written under a temporary name beside it (mode 0600) and renamed into place
  only when everything succeeded: a failed run leaves OUT as it was. On standard output the
  data goes out as it is processed, so a decryption failing at its end has written the rest.

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
        sub->add_option("CIPHER", options->cipher,
                        "the cipher by its VKL name: AES-128-CBC, AES-256-CTR, DES-EDE3-CBC, ...")
            ->required();
        sub->add_option("HEXKEY", options->key, "the key in hex, of the cipher's key length")->required();
        sub->add_option("HEXIV", options->iv, "the IV in hex; \"\" for a cipher without one")->required();
        sub->add_option("IN", options->in, "the input file; - or none: standard input");
        sub->add_option("OUT", options->out, "the output file; - or none: standard output");
        sub->footer(kCipherFooter);
        actions.emplace_back(sub, [options, encrypt](Streams& io) { return Run(*options, io, encrypt); });
    }
}

}  // namespace zulcrypt
