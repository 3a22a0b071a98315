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

#include <czulcryptcontext.h>
#include <czulcrypthmac.h>
#include <czulcryptmdcontext.h>

#include "commands.h"
#include "hex.h"
#include "reports.h"

namespace zulcrypt {
namespace {

constexpr size_t kChunk = 64 * 1024;

// The file named by path, or standard input for null or "-"; null (reported) when it cannot be opened.
std::istream* OpenInput(const char* path, std::unique_ptr<std::ifstream>& file, Streams& io) {
    if (path == nullptr || std::strcmp(path, "-") == 0) return &io.in;
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

}  // namespace

int DigestCommand(int argc, char** argv, Streams& io) {
    if (argc < 2 || argc > 3) {
        io.err << "usage: zulcrypt digest NAME [FILE]\n";
        return 2;
    }
    std::unique_ptr<std::ifstream> file;
    std::istream* in = OpenInput(argc == 3 ? argv[2] : nullptr, file, io);
    if (in == nullptr) return 2;

    ErrorCapture capture;
    CZulCryptContext context;
    if (!context.GetStatus()) return Failed(capture, "crypto context", io);
    CZulCryptMDContext md(context);
    if (!md.SetType(argv[1])) return Failed(capture, "digest", io);
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
    std::vector<unsigned char> out(size > 0 ? static_cast<size_t>(size) : 1);
    unsigned int outLength = 0;
    if (size <= 0 || !md.GetMessageDigest(out.data(), &outLength)) return Failed(capture, "digest", io);
    io.out << ToHex(out.data(), outLength) << '\n';
    return 0;
}

int HmacCommand(int argc, char** argv, Streams& io) {
    std::vector<unsigned char> key;
    if (argc < 3 || argc > 4 || !FromHex(argv[2], key)) {
        io.err << "usage: zulcrypt hmac NAME HEXKEY [FILE]\n";
        return 2;
    }
    std::unique_ptr<std::ifstream> file;
    std::istream* in = OpenInput(argc == 4 ? argv[3] : nullptr, file, io);
    if (in == nullptr) return 2;
    std::vector<unsigned char> data((std::istreambuf_iterator<char>(*in)), std::istreambuf_iterator<char>());
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
    CZulCryptHMAC hmac(context, argv[1], key.data(), static_cast<unsigned int>(key.size()));
    unsigned char empty = 0;
    unsigned char* result = nullptr;
    unsigned int resultLength = 0;
    if (!hmac.GetHMAC(data.empty() ? &empty : data.data(), static_cast<unsigned int>(data.size()), &result,
                      &resultLength)) {
        return Failed(capture, "hmac", io);
    }
    io.out << ToHex(result, resultLength) << '\n';
    std::free(result);
    return 0;
}

}  // namespace zulcrypt
