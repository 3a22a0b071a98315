// zulcrypt enc and dec: a named cipher with a hex key and IV over a file or the
// standard streams, piece by piece, so any size goes through in fixed memory.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>

#include "commands.h"
#include "hex.h"

namespace zulcrypt {
namespace {

constexpr size_t kPiece = 64 * 1024;

std::ostream* g_errors = nullptr;

void ShowError(const char*, unsigned int, const char* text, bool) {
    if (g_errors != nullptr) *g_errors << "zulcrypt: " << text << '\n';
}

// Restores the error callback and wipes the key however the command ends.
struct Session {
    explicit Session(std::ostream& err) : previous(CZulCryptContext::m_ErrorResponseFn) {
        g_errors = &err;
        CZulCryptContext::SetErrorResponseFn(ShowError);
    }
    ~Session() {
        CZulCryptContext::SetErrorResponseFn(previous);
        g_errors = nullptr;
        std::fill(key.begin(), key.end(), 0);
    }
    void (*previous)(const char*, unsigned int, const char*, bool);
    std::vector<unsigned char> key;
};

int Run(int argc, char** argv, Streams& io, bool encrypt) {
    const char* command = encrypt ? "enc" : "dec";
    if (argc < 4 || argc > 6) {
        io.err << "usage: zulcrypt " << command << " CIPHER HEXKEY HEXIV [IN|- [OUT|-]]\n";
        return 2;
    }
    Session session(io.err);
    std::vector<unsigned char> iv;
    if (!FromHex(argv[2], session.key) || !FromHex(argv[3], iv)) {
        io.err << "zulcrypt: key and IV must be hex (the IV may be empty: \"\")\n";
        return 2;
    }
    std::ifstream inFile;
    std::ofstream outFile;
    std::istream* in = &io.in;
    std::ostream* out = &io.out;
    if (argc >= 5 && std::strcmp(argv[4], "-") != 0) {
        inFile.open(argv[4], std::ios::binary);
        if (!inFile) {
            io.err << "zulcrypt: cannot read " << argv[4] << '\n';
            return 1;
        }
        in = &inFile;
    }

    CZulCryptContext context;
    if (!context.GetStatus()) return 1;
    CZulCryptCipherContext cipher(context);
    int keyLength = static_cast<int>(session.key.size());
    int required = cipher.GetDefaultKeyLengthForType(argv[1]);
    if (required < 0) return 1;
    // SetType reads the default key length from the key whatever length is asked for.
    if (static_cast<int>(session.key.size()) < required) session.key.resize(static_cast<size_t>(required), 0);
    int ivLength = static_cast<int>(iv.size());
    if (ivLength != cipher.GetDefaultIvLengthForType(argv[1])) {
        io.err << "zulcrypt: " << argv[1] << " takes an IV of " << cipher.GetDefaultIvLengthForType(argv[1])
               << " bytes\n";
        return 2;
    }
    bool keyed = encrypt ? cipher.SetEncryptType(argv[1], session.key.data(), keyLength, iv.data(), ivLength)
                         : cipher.SetDecryptType(argv[1], session.key.data(), keyLength, iv.data(), ivLength);
    if (!keyed) {
        io.err << "zulcrypt: cannot set up " << argv[1] << '\n';
        return 1;
    }
    if (argc == 6 && std::strcmp(argv[5], "-") != 0) {
        outFile.open(argv[5], std::ios::binary | std::ios::trunc);
        if (!outFile) {
            io.err << "zulcrypt: cannot write " << argv[5] << '\n';
            return 1;
        }
        out = &outFile;
    }

    std::vector<unsigned char> piece(kPiece);
    std::vector<unsigned char> result(static_cast<size_t>(cipher.GetBufferSize(static_cast<int>(kPiece), encrypt)));
    int written = 0;
    while (*in) {
        in->read(reinterpret_cast<char*>(piece.data()), static_cast<std::streamsize>(piece.size()));
        auto got = static_cast<int>(in->gcount());
        if (got == 0) break;
        bool done = encrypt ? cipher.EncryptData(piece.data(), got, result.data(), &written)
                            : cipher.DecryptData(piece.data(), got, result.data(), &written);
        if (!done) return 1;
        out->write(reinterpret_cast<const char*>(result.data()), written);
    }
    if (in->bad()) {
        io.err << "zulcrypt: read error\n";
        return 1;
    }
    bool finished = encrypt ? cipher.EncryptFinal(result.data(), &written) : cipher.DecryptFinal(result.data(), &written);
    if (!finished) return 1;
    out->write(reinterpret_cast<const char*>(result.data()), written);
    out->flush();
    if (!*out) {
        io.err << "zulcrypt: write error\n";
        return 1;
    }
    return 0;
}

}  // namespace

int EncryptCommand(int argc, char** argv, Streams& io) { return Run(argc, argv, io, true); }

int DecryptCommand(int argc, char** argv, Streams& io) { return Run(argc, argv, io, false); }

}  // namespace zulcrypt
