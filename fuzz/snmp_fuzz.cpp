// The C-callable SNMPv3 interface fed random names, sizes, pieces and handles:
// it must refuse or succeed cleanly, never crash, leak or write past the areas
// it is given; and what it computes must decrypt back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <czulcryptcontext.h>
#include <zulcryptimpl.h>

#include "fuzz_support.h"

namespace {

const char* const kDigests[] = {"MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512", "NOPE", ""};
const char* const kCiphers[] = {"AES-128-CFB", "DES-CBC", "AES-256-CFB", "DES-EDE3-CBC", "NOPE"};

// Takes bytes off the front of the input.
struct Reader {
    const uint8_t* data;
    size_t size;
    uint8_t Byte() {
        if (size == 0) return 0;
        --size;
        return *data++;
    }
    std::vector<unsigned char> Bytes(size_t count) {
        if (count > size) count = size;
        std::vector<unsigned char> bytes(data, data + count);
        data += count;
        size -= count;
        return bytes;
    }
};

struct Session {
    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    ZulVklMdCtxWrap* md = ZulVklMdCtxCreate(ctx);
    ZulVklHmacCtxWrap* hmac = ZulVklHmacCtxCreate(ctx);
    ZulVklCipherCtxWrap* cipher = ZulVklCipherCtxCreate(ctx);
};

// Sized exactly, so that the sanitizer catches a write past the area.
std::vector<unsigned char> Area(size_t size) { return std::vector<unsigned char>(size); }

void Keys(Session& s, ZulVklStatusWrap* status, Reader& in) {
    const char* digest = kDigests[in.Byte() % 8];
    int size = ZulVklMdDigestLength(s.ctx, digest);
    std::vector<unsigned char> password = in.Bytes(in.Byte() % 40);
    password.reserve(1);
    std::vector<unsigned char> key = Area(size > 0 ? static_cast<size_t>(size) : 1);
    // A key area one off the digest's size must be refused, not overrun.
    uint32_t keyLength = static_cast<uint32_t>(size) + (in.Byte() % 3 == 0 ? 1u : 0u);
    if (keyLength > key.size()) key.resize(keyLength);
    ZulVklConstBuffer pw{password.data(), static_cast<uint32_t>(password.size())};
    ZulVklBuffer ku{key.data(), keyLength};
    if (ZulVklMdGenerateKey(s.ctx, s.md, digest, &pw, &ku, status) != 1) return;
    std::vector<unsigned char> engine = in.Bytes(in.Byte() % 33);
    engine.reserve(1);
    std::vector<unsigned char> local = Area(keyLength);
    ZulVklConstBuffer e{engine.data(), static_cast<uint32_t>(engine.size())};
    ZulVklConstBuffer k{key.data(), keyLength};
    ZulVklBuffer kul{local.data(), keyLength};
    ZulVklMdLocaliseKey(s.ctx, s.md, digest, &e, &k, &kul, status);
    ZulVklBuffer change{nullptr, 0};
    if (ZulVklMdKeyChangeDigest(s.ctx, s.md, digest, &k, &e, &change, status) == 1) std::free(change.data);
}

void Authenticate(Session& s, ZulVklStatusWrap* status, Reader& in) {
    const char* digest = kDigests[in.Byte() % 8];
    std::vector<unsigned char> key = in.Bytes(in.Byte() % 80);
    key.reserve(1);
    unsigned count = in.Byte() % 5;
    std::vector<std::vector<unsigned char>> pieces;
    std::vector<ZulVklConstBuffer> records(count);
    std::vector<ZulVklConstBuffer*> list;
    for (unsigned i = 0; i < count; ++i) {
        pieces.push_back(in.Bytes(in.Byte() % 50));
        pieces.back().reserve(1);
        records[i] = {pieces.back().data(), static_cast<uint32_t>(pieces.back().size())};
        // Now and then a missing piece in the middle.
        list.push_back(in.Byte() % 7 == 0 ? nullptr : &records[i]);
    }
    list.push_back(nullptr);
    int size = ZulVklMdDigestLength(s.ctx, digest);
    std::vector<unsigned char> mac = Area(size > 0 ? static_cast<size_t>(size) : 64);
    ZulVklConstBuffer k{key.data(), static_cast<uint32_t>(key.size())};
    ZulVklBuffer out{mac.data(), 0};
    if (ZulVklHmacGenerateDigest(s.ctx, s.hmac, digest, list.data(), count, &k, &out, status) == 1 &&
        out.length != static_cast<uint32_t>(size)) {
        __builtin_trap();
    }
}

void Encrypt(Session& s, ZulVklStatusWrap* status, Reader& in) {
    const char* name = kCiphers[in.Byte() % 5];
    int keySize = ZulVklCipherRequiredKeySize(s.ctx, name, status);
    int ivSize = ZulVklCipherRequiredIvSize(s.ctx, name, status);
    if (keySize <= 0) return;
    std::vector<unsigned char> key = in.Bytes(static_cast<size_t>(keySize));
    key.resize(static_cast<size_t>(keySize));
    std::vector<unsigned char> iv = in.Bytes(static_cast<size_t>(ivSize));
    iv.resize(static_cast<size_t>(ivSize > 0 ? ivSize : 0));
    iv.reserve(1);
    ZulVklConstBuffer k{key.data(), static_cast<uint32_t>(key.size())};
    ZulVklConstBuffer v{iv.data(), static_cast<uint32_t>(iv.size())};
    int block = ZulVklCipherEncryptInit(s.ctx, s.cipher, name, &k, &v, status);
    if (block <= 0) return;
    bool padded = in.Byte() % 2 == 0;
    if (!padded) ZulVklCipherSetPadding(s.ctx, s.cipher, 0, status);

    unsigned count = 1 + in.Byte() % 4;
    std::vector<std::vector<unsigned char>> pieces;
    std::vector<ZulVklConstBuffer> records(count);
    std::vector<ZulVklConstBuffer*> list;
    std::vector<unsigned char> plain;
    for (unsigned i = 0; i < count; ++i) {
        pieces.push_back(in.Bytes(in.Byte() % 40));
        pieces.back().reserve(1);
        plain.insert(plain.end(), pieces.back().begin(), pieces.back().end());
        records[i] = {pieces.back().data(), static_cast<uint32_t>(pieces.back().size())};
        list.push_back(&records[i]);
    }
    std::vector<unsigned char> sealed = Area(plain.size() + 2 * static_cast<size_t>(block));
    ZulVklBuffer out{sealed.data(), 0};
    if (ZulVklCipherEncryptUpdate(s.ctx, s.cipher, name, list.data(), count, &out, status) != 1) return;
    size_t written = out.length;
    ZulVklBuffer tail{sealed.data() + written, 0};
    if (ZulVklCipherEncryptFinalise(s.ctx, s.cipher, name, &tail, status) != 1) return;
    written += tail.length;

    // Decryption turns padding off: a padded message comes back with its padding.
    if (ZulVklCipherDecryptInit(s.ctx, s.cipher, name, &k, &v, status) <= 0) __builtin_trap();
    std::vector<unsigned char> opened = Area(written + static_cast<size_t>(block));
    ZulVklConstBuffer c{sealed.data(), static_cast<uint32_t>(written)};
    ZulVklBuffer back{opened.data(), 0};
    if (ZulVklCipherDecryptUpdate(s.ctx, s.cipher, name, &c, &back, status) != 1) __builtin_trap();
    ZulVklBuffer last{opened.data() + back.length, 0};
    if (ZulVklCipherDecryptFinalise(s.ctx, s.cipher, name, &last, status) != 1) __builtin_trap();
    if (back.length + last.length < plain.size() ||
        (!plain.empty() && std::memcmp(opened.data(), plain.data(), plain.size()) != 0)) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Session* session = [] {
        zulfuzz::SilenceReports();
        return new Session;
    }();
    Reader in{data, size};
    ZulVklStatusWrap* status = in.Byte() % 4 == 0 ? nullptr : ZulVklStatusCreate();
    while (in.size > 0) {
        switch (in.Byte() % 4) {
            case 0: Keys(*session, status, in); break;
            case 1: Authenticate(*session, status, in); break;
            case 2: Encrypt(*session, status, in); break;
            default: {
                // Absent handles: every operation must refuse them.
                Session broken{nullptr, nullptr, nullptr, nullptr};
                Keys(broken, status, in);
                Authenticate(broken, status, in);
                Encrypt(broken, status, in);
                break;
            }
        }
    }
    ZulVklStatusDestroy(status);
    return 0;
}
