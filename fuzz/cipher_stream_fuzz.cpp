// The cipher object's streaming with random piece sizes against its one-shot
// form, and decryption back to the plaintext.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>

#include "fuzz_support.h"

namespace {

const char* const kCiphers[] = {"AES-128-CBC", "AES-256-CTR", "AES-128-CFB", "AES-192-OFB",
                                "AES-128-ECB", "DES-CBC",     "DES-EDE3-CBC", "BF-CBC"};

// Streams in through AddData in the pieces that `sizes` gives, then GetFinal.
bool Stream(CZulCryptCipherContext& cipher, std::vector<unsigned char>& in, const uint8_t* sizes, size_t count,
            bool encrypt, std::vector<unsigned char>& out) {
    out.assign(in.size() + 64, 0);
    size_t done = 0, written = 0, next = 0;
    while (done < in.size()) {
        size_t piece = count == 0 ? in.size() : 1 + sizes[next++ % count] % 40;
        if (piece > in.size() - done) piece = in.size() - done;
        int length = 0;
        if (!cipher.AddData(in.data() + done, static_cast<int>(piece), out.data() + written, &length, encrypt)) {
            return false;
        }
        done += piece;
        written += static_cast<size_t>(length);
    }
    int tail = 0;
    if (!cipher.GetFinal(out.data() + written, &tail, encrypt)) return false;
    out.resize(written + static_cast<size_t>(tail));
    return true;
}

}  // namespace

// Input: cipher choice, count of piece sizes, the sizes, then the plaintext.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CZulCryptContext* context = &zulfuzz::Context();
    if (size < 2) return 0;
    const char* name = kCiphers[data[0] % (sizeof kCiphers / sizeof kCiphers[0])];
    size_t count = data[1] <= size - 2 ? data[1] : size - 2;
    const uint8_t* sizes = data + 2;
    std::vector<unsigned char> plain(data + 2 + count, data + size);
    unsigned char key[32], iv[16];
    for (size_t i = 0; i < sizeof key; ++i) key[i] = static_cast<unsigned char>(i * 7 + 1);
    for (size_t i = 0; i < sizeof iv; ++i) iv[i] = static_cast<unsigned char>(i * 13 + 5);

    CZulCryptCipherContext streaming(*context);
    std::vector<unsigned char> streamed;
    if (!streaming.SetEncryptType(name, key, 0, iv, 0) || !Stream(streaming, plain, sizes, count, true, streamed)) {
        __builtin_trap();
    }

    CZulCryptCipherContext oneShot(*context);
    unsigned char* whole = nullptr;
    int wholeLength = 0;
    if (!oneShot.SetEncryptType(name, key, 0, iv, 0) ||
        !oneShot.EncryptData(plain.empty() ? nullptr : plain.data(), static_cast<int>(plain.size()), &whole,
                             &wholeLength)) {
        std::free(whole);
        // An empty message has no one-shot form to compare with.
        if (plain.empty()) return 0;
        __builtin_trap();
    }
    unsigned char tail[64];
    int tailLength = 0;
    bool finished = oneShot.EncryptFinal(tail, &tailLength);
    std::vector<unsigned char> reference(whole, whole + wholeLength);
    reference.insert(reference.end(), tail, tail + tailLength);
    std::free(whole);
    if (!finished || reference != streamed) __builtin_trap();

    CZulCryptCipherContext back(*context);
    std::vector<unsigned char> decrypted;
    if (!back.SetDecryptType(name, key, 0, iv, 0) || !Stream(back, streamed, sizes, count, false, decrypted) ||
        decrypted != plain) {
        __builtin_trap();
    }
    return 0;
}
