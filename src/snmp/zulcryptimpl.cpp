#include <zulcryptimpl.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>

#include "../common/cleanse.h"
#include "../common/report.h"
#include "../common/sizes.h"

namespace {

constexpr char kZulFile[] = "zulcryptimpl";
constexpr size_t kMsgSize = ZULVKL_ERROR_MSG_SIZE;

// RFC 3414 A.2: one mebibyte of the repeated password, hashed 64 bytes at a time.
constexpr size_t kKeyPiece = 64;
constexpr unsigned kKeyPieces = 16384;
// The longest digest the library knows; a longer answer from VKL is refused.
constexpr size_t kMaxMac = zul::kDigestSize.most;
// The longest extended key: AES-256 and 3DES-EDE need 32 bytes; 64 leaves room for more.
constexpr uint32_t kMaxExtendedKey = 64;

const char kOutOfMemory[] = "Probly pointless out of mem message";

void SetOrReportError(ZulVklStatusWrap* status, const char* text) {
    if (status != nullptr) {
        status->Set(text);
    } else {
        ZUL_REPORT(text);
    }
}

// Records that point nowhere are refused with the null arguments: an input may lack its
// bytes only when it has none, and an area the caller provides must be there.
bool Missing(const ZulVklConstBuffer* in) { return in == nullptr || (in->data == nullptr && in->length != 0); }

bool Missing(const ZulVklBuffer* out) { return out == nullptr || out->data == nullptr; }

// An empty record may point nowhere, which memcpy may not be handed even for no bytes.
unsigned char* CopyIn(unsigned char* to, const ZulVklConstBuffer& from) {
    if (from.length != 0) std::memcpy(to, from.data, from.length);
    return to + from.length;
}

// A null entry is not missing here: the operation tells it in its own words.
bool MissingPiece(ZulVklConstBuffer* const* in, unsigned int count) {
    if (in == nullptr) return true;
    for (unsigned int i = 0; i < count; ++i) {
        if (in[i] != nullptr && Missing(in[i])) return true;
    }
    return false;
}

// Bytes of room left in errorMsg after msgLen, which callers may have moved.
size_t Room(const ZulVklStatusWrap& status) {
    return status.msgLen < kMsgSize ? kMsgSize - static_cast<size_t>(status.msgLen) : 0;
}


// vsnprintf: cutting at the end of the area is intended here, and snprintf with the
// area's size in sight draws truncation warnings.
int FormatInto(char* out, size_t room, const char* format, ...) {  // NOLINT(cert-dcl50-cpp): for vsnprintf, as above
    va_list args;
    va_start(args, format);
    const int needed = std::vsnprintf(out, room, format, args);
    va_end(args);
    return needed;
}

// Writes a text at the start of errorMsg, replacing what was there.
int Write(ZulVklStatusWrap& status, const char* text) {
    FormatInto(status.errorMsg, kMsgSize, "%s", text);
    return 0;
}

// Writes format (whose first conversion is the caller's algorithm name) at the start of
// errorMsg. A name too long for the area is shortened, on a UTF-8 character boundary and
// marked with "...", so the fixed part of the text and its end survive. Returns 0.
template <class... Args>
int Report(ZulVklStatusWrap& status, const char* format, const char* name, Args... args) {
    const int needed = FormatInto(status.errorMsg, kMsgSize, format, name, args...);
    if (needed < 0 || static_cast<size_t>(needed) < kMsgSize) return 0;
    static const char kMark[] = "...";
    const size_t excess = static_cast<size_t>(needed) - (kMsgSize - 1) + (sizeof kMark - 1);
    const size_t nameLength = std::strlen(name);
    size_t keep = nameLength > excess ? nameLength - excess : 0;
    while (keep > 0 && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80) --keep;
    char cut[kMsgSize];
    FormatInto(cut, sizeof cut, "%.*s%s", static_cast<int>(std::min(keep, sizeof cut - sizeof kMark)), name, kMark);
    FormatInto(status.errorMsg, kMsgSize, format, cut, args...);
    return 0;
}

// A size VKL answers that no algorithm has is the operation's failure, told in the status
// record; 0 for the caller to return.
template <class Query, class Type>
int SizeOrReport(ZulVklStatusWrap& status, Query query, VKL_t& vkl, const Type* type, int& size) {
    std::string why;
    size = query(&vkl, type, &why);
    if (size < 0) Write(status, why.c_str());
    return size < 0 ? 0 : 1;
}

// The text, then what VKL says about the failed call; 0 for the caller to return.
int FailWith(ZulVklStatusWrap& status, VKL_t& vkl, const char* text, int result) {
    status.Set(text);
    status.Set(vkl, result);
    return 0;
}

// The repeated password as a source of 64-byte pieces. A password of at most 64 bytes is
// written out end to end for 64 more bytes, so that every piece is one plain stretch of it
// starting below the password's length; a longer password is its own source, and only a
// piece that runs over its end takes two stretches.
class KeyStream {
public:
    explicit KeyStream(const ZulVklConstBuffer& password)
        : m_length(password.length), m_step(kKeyPiece % password.length) {
        if (m_length <= kKeyPiece) {
            for (size_t i = 0; i < m_length + kKeyPiece; ++i) m_pattern[i] = password.data[i % m_length];
            m_source = m_pattern;
            m_span = m_length + kKeyPiece;
        } else {
            m_source = password.data;
            m_span = m_length;
        }
    }
    ~KeyStream() { zul::Cleanse(m_pattern, sizeof m_pattern); }
    KeyStream(const KeyStream&) = delete;
    KeyStream& operator=(const KeyStream&) = delete;

    // Writes the next 64 bytes of the stream into piece.
    void Next(unsigned char* piece) {
        if (m_start + kKeyPiece <= m_span) {
            std::memcpy(piece, m_source + m_start, kKeyPiece);
        } else {
            const size_t head = m_span - m_start;
            std::memcpy(piece, m_source + m_start, head);
            std::memcpy(piece + head, m_source, kKeyPiece - head);
        }
        // 64 mod length, kept to avoid a division a piece.
        m_start += m_step;
        if (m_start >= m_length) m_start -= m_length;
    }

private:
    const size_t m_length;
    const size_t m_step;
    const unsigned char* m_source;
    size_t m_span;
    size_t m_start = 0;
    unsigned char m_pattern[2 * kKeyPiece];
};

// Lookups by the caller's name. A miss is told in the status record in the library's own
// words, so VKL's entry for it is taken off VKL's queue: left there, it would be reported
// as the cause of the next failure that asks VKL for its text.
const VKL_EVP_MD_t* FindDigest(VKL_t& vkl, const char* name) {
    const VKL_EVP_MD_t* type = VKL_EVP_get_digestbyname(&vkl, name);
    if (type == nullptr) zul::DrainVklErrors(&vkl);
    return type;
}

const VKL_EVP_CIPHER_t* FindCipher(VKL_t& vkl, const char* name) {
    const VKL_EVP_CIPHER_t* type = VKL_EVP_get_cipherbyname(&vkl, name);
    if (type == nullptr) zul::DrainVklErrors(&vkl);
    return type;
}

// The localisation work area: key material, wiped before it is released.
class WorkArea {
public:
    explicit WorkArea(size_t length)
        : m_length(length), m_data(static_cast<unsigned char*>(std::malloc(length ? length : 1))) {}
    ~WorkArea() {
        zul::Cleanse(m_data, m_length);
        std::free(m_data);
    }
    WorkArea(const WorkArea&) = delete;
    WorkArea& operator=(const WorkArea&) = delete;
    unsigned char* Data() const { return m_data; }

private:
    size_t m_length;
    unsigned char* m_data;
};

// Key material on the stack, wiped however the function holding it returns.
template <size_t N>
struct SecretBytes {
    SecretBytes() = default;
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    ~SecretBytes() { zul::Cleanse(data, N); }
    unsigned char data[N]{};
};

// VKL writes the digest's real length whatever size it answered before: finished into room
// for the longest, and copied out only when the two agree. 0 with the status told otherwise.
// A finish that wrote another length than VKL's size: 0 with the status told.
int WrongLength(ZulVklStatusWrap& status, VKL_t& vkl, const char* failed, const char* what, unsigned int written,
                int size) {
    zul::DrainVklErrors(&vkl);
    return Report(status, "%s(VKL gave %u %s bytes, %d expected)", failed, written, what, size);
}

int FinishDigest(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, int size, unsigned char* out, ZulVklStatusWrap& status,
                 const char* failed) {
    SecretBytes<kMaxMac> digest;
    unsigned int written = 0;
    const int result = VKL_EVP_DigestFinal(&vkl, &md, digest.data, &written);
    if (result != 1) return FailWith(status, vkl, failed, result);
    if (written != static_cast<unsigned int>(size)) return WrongLength(status, vkl, failed, "digest", written, size);
    std::memcpy(out, digest.data, written);
    return 1;
}

const VKL_EVP_CIPHER_t* FindCheckedCipher(VKL_t& vkl, const char* name, const ZulVklConstBuffer& key,
                                          const ZulVklConstBuffer& iv, ZulVklStatusWrap& status) {
    const VKL_EVP_CIPHER_t* cipher = FindCipher(vkl, name);
    if (cipher == nullptr) {
        Report(status, "Failed to get cipher by name for algorithm: %s\n", name);
        return nullptr;
    }
    int ivLength = 0;
    int keyLength = 0;
    if (SizeOrReport(status, zul::CipherIvLength, vkl, cipher, ivLength) == 0 ||
        SizeOrReport(status, zul::CipherKeyLength, vkl, cipher, keyLength) == 0) {
        return nullptr;
    }
    if (static_cast<long long>(iv.length) != ivLength) {
        Report(status, "Incorrect iv length for %s encryption/decryption. Required %d but got %u\n", name, ivLength,
               static_cast<unsigned>(iv.length));
        return nullptr;
    }
    if (static_cast<long long>(key.length) != keyLength) {
        Report(status, "Incorrect key length for %s encryption/decryption. Required %d but got %u\n", name, keyLength,
               static_cast<unsigned>(key.length));
        return nullptr;
    }
    return cipher;
}

int CipherInit(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* name, ZulVklConstBuffer& key,
               ZulVklConstBuffer& iv, ZulVklStatusWrap& status, bool encrypt) {
    // Whatever the context held from the previous message goes first.
    zul::DropVklFailure(&vkl, VKL_EVP_CIPHER_CTX_init(&vkl, &ctx));
    const VKL_EVP_CIPHER_t* cipher = FindCheckedCipher(vkl, name, key, iv, status);
    if (cipher == nullptr) return 0;
    // The caller sizes its output areas by the block size returned, so it is known first.
    int block = 0;
    if (SizeOrReport(status, zul::CipherBlockSize, vkl, cipher, block) == 0) return 0;
    if (encrypt) {
        const int result = VKL_EVP_EncryptInit(&vkl, &ctx, cipher, key.data, iv.data);
        if (result != 1) return FailWith(status, vkl, "Encryption initialisation failed ", result);
    } else {
        int result = VKL_EVP_DecryptInit(&vkl, &ctx, cipher, key.data, iv.data);
        if (result != 1) return FailWith(status, vkl, "Decryption initialisation failed ", result);
        // SNMPv3 privacy pads (or not) by itself: the receiver gets every byte back.
        result = VKL_EVP_CIPHER_CTX_set_padding(&vkl, &ctx, 0);
        if (result != 1) {
            Report(status, "Failed to disable padding with algorithm: %s\n", name);
            status.Set(vkl, result);
            return 0;
        }
    }
    return block;
}

int CipherFinalise(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* name, ZulVklBuffer& out,
                   ZulVklStatusWrap& status, bool encrypt) {
    int written = 0;
    const int result = encrypt ? VKL_EVP_EncryptFinal(&vkl, &ctx, out.data, &written)
                               : VKL_EVP_DecryptFinal(&vkl, &ctx, out.data, &written);
    if (result != 1) {
        return FailWith(status, vkl, encrypt ? "Encryption finalisation failed " : "Decryption finalisation failed ",
                        result);
    }
    out.length = static_cast<uint32_t>(written);
    if (VKL_EVP_CIPHER_CTX_cleanup(&vkl, &ctx) != 1) {
        zul::DrainVklErrors(&vkl);
        Report(status,
               encrypt ? "Failed to cleanup the cipher context after applying encryption algorithm%s\n"
                       : "Failed to cleanup the cipher context after applying decryption algorithm%s\n",
               name);
    }
    return 1;
}

}  // namespace

// ---- Status record ----

void ZulVklStatusWrap::Set(VKL_t& vkl, int result) {
    if (result == 0) {
        VKL_GetStatus(&vkl, &status);
    } else if (result == -2) {
        const size_t room = Room(*this);
        const unsigned long code = VKL_ERR_get_error(&vkl);
        if (room > 0) VKL_ERR_error_string_n(&vkl, code, errorMsg + msgLen, room);
    }
    zul::DrainVklErrors(&vkl);
}

void ZulVklStatusWrap::Set(const char* text) {
    if (text == nullptr) return;
    const size_t length = std::strlen(text);
    if (Room(*this) > length) {
        std::memcpy(errorMsg + msgLen, text, length + 1);
    } else {
        ZUL_REPORT(text);
    }
}

std::ostream& operator<<(std::ostream& out, const ZulVklStatusWrap& status) {
    out.write(status.status.description, static_cast<std::streamsize>(
                                             strnlen(status.status.description, sizeof status.status.description)));
    if (status.errorMsg[0] != '\0') {
        out << " errorMsg: ";
        out.write(status.errorMsg, static_cast<std::streamsize>(strnlen(status.errorMsg, kMsgSize)));
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const ZulVklStatusWrap* status) {
    if (status == nullptr) return out << "NULL VKL status wrapper";
    return out << *status;
}

// ---- Conversions and object life ----

VKL_t* ZulVklWrapConvert(ZulVklCtxWrap* ctx) {
    if (ctx == nullptr) return nullptr;
    C_VKL_CTX_Wrap* wrap = ctx->m_Context.GetContext();
    return wrap != nullptr ? wrap->m_pCtx : nullptr;
}

VKL_EVP_CIPHER_CTX_t* ZulVklWrapConvert(ZulVklCipherCtxWrap* cipher) {
    return cipher != nullptr ? cipher->m_pCipherCtx : nullptr;
}

VKL_HMAC_CTX_t* ZulVklWrapConvert(ZulVklHmacCtxWrap* hmac) { return hmac != nullptr ? hmac->m_pHmacCtx : nullptr; }

VKL_EVP_MD_CTX_t* ZulVklWrapConvert(ZulVklMdCtxWrap* md) { return md != nullptr ? md->m_pMdCtx : nullptr; }

VKL_EVP_MD_CTX_t* ZulVklMdCtxCreateImpl(VKL_t& vkl) {
    VKL_EVP_MD_CTX_t* md = VKL_EVP_MD_CTX_new(&vkl);
    // A handle that could not be made is told by a null handle alone.
    if (md == nullptr) zul::DrainVklErrors(&vkl);
    if (md != nullptr) zul::DropVklFailure(&vkl, VKL_EVP_MD_CTX_init(&vkl, md));
    return md;
}

void ZulVklMdCtxDestroyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t* md) {
    if (md != nullptr) zul::DropVklFailure(&vkl, VKL_EVP_MD_CTX_free(&vkl, md));
}

VKL_HMAC_CTX_t* ZulVklHmacCtxCreateImpl(VKL_t& vkl) {
    VKL_HMAC_CTX_t* hmac = VKL_HMAC_CTX_new(&vkl);
    if (hmac == nullptr) zul::DrainVklErrors(&vkl);
    return hmac;
}

void ZulVklHmacCtxDestroyImpl(VKL_t& vkl, VKL_HMAC_CTX_t* hmac) {
    if (hmac != nullptr) zul::DropVklFailure(&vkl, VKL_HMAC_CTX_free(&vkl, hmac));
}

VKL_EVP_CIPHER_CTX_t* ZulVklCipherCtxCreateImpl(VKL_t& vkl) {
    VKL_EVP_CIPHER_CTX_t* cipher = VKL_EVP_CIPHER_CTX_new(&vkl);
    if (cipher == nullptr) zul::DrainVklErrors(&vkl);
    if (cipher != nullptr) zul::DropVklFailure(&vkl, VKL_EVP_CIPHER_CTX_init(&vkl, cipher));
    return cipher;
}

void ZulVklCipherCtxDestroyImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t* cipher) {
    if (cipher != nullptr) zul::DropVklFailure(&vkl, VKL_EVP_CIPHER_CTX_free(&vkl, cipher));
}

// ---- Key derivation ----

int ZulVklMdGenerateKeyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest, ZulVklConstBuffer& password,
                            ZulVklBuffer& key, ZulVklStatusWrap& status) {
    if (password.length == 0) {
        status.Set("Currently will not generate a digest with an empty password");
        return 0;
    }
    const VKL_EVP_MD_t* type = FindDigest(vkl, digest);
    if (type == nullptr) return Report(status, "Failed to get the %s message digest for key generation\n", digest);
    int result = VKL_EVP_DigestInit(&vkl, &md, type);
    if (result != 1) return FailWith(status, vkl, "key digest initialisation failed ", result);
    int size = 0;
    if (SizeOrReport(status, zul::DigestSize, vkl, type, size) == 0) return 0;
    if (static_cast<long long>(key.length) != size) {
        return Report(status, "Incorrect buffer size for %s digest key generation", digest);
    }
    unsigned char piece[kKeyPiece];
    KeyStream stream(password);
    for (unsigned i = 0; i < kKeyPieces; ++i) {
        stream.Next(piece);
        result = VKL_EVP_DigestUpdate(&vkl, &md, piece, kKeyPiece);
        if (result != 1) break;
    }
    zul::Cleanse(piece, sizeof piece);
    if (result != 1) return FailWith(status, vkl, "key digest update failed ", result);
    return FinishDigest(vkl, md, size, key.data, status, "key digest finalisation failed ");
}

int ZulVklMdLocaliseKeyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest, ZulVklConstBuffer& engineId,
                            ZulVklConstBuffer& key, ZulVklBuffer& localisedKey, ZulVklStatusWrap& status) {
    const VKL_EVP_MD_t* type = FindDigest(vkl, digest);
    if (type == nullptr) return Report(status, "Failed to get the %s message digest for local key generation", digest);
    int size = 0;
    if (SizeOrReport(status, zul::DigestSize, vkl, type, size) == 0) return 0;
    if (static_cast<long long>(localisedKey.length) != size) {
        return Report(status, "Incorrect buffer size for %s digest local key generation", digest);
    }
    const uint64_t total = 2 * static_cast<uint64_t>(key.length) + engineId.length;
    if (total > UINT32_MAX) {
        return Report(status, "Key and engine ID too long for %s digest local key generation: %llu bytes", digest,
                      static_cast<unsigned long long>(total));
    }
    WorkArea work(static_cast<size_t>(total));
    if (work.Data() == nullptr) return Write(status, kOutOfMemory);
    // RFC 3414 A.2.2: key | engine ID | key.
    CopyIn(CopyIn(CopyIn(work.Data(), key), engineId), key);
    int result = VKL_EVP_DigestInit(&vkl, &md, type);
    if (result != 1) return FailWith(status, vkl, "localised key digest initialisation failed ", result);
    result = VKL_EVP_DigestUpdate(&vkl, &md, work.Data(), static_cast<size_t>(total));
    if (result != 1) return FailWith(status, vkl, "localised key digest update failed ", result);
    return FinishDigest(vkl, md, size, localisedKey.data, status, "localised key digest finalisation failed ");
}

int ZulVklMdKeyChangeImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest, ZulVklConstBuffer& first,
                          ZulVklConstBuffer& second, ZulVklBuffer& out, ZulVklStatusWrap& status) {
    const VKL_EVP_MD_t* type = FindDigest(vkl, digest);
    if (type == nullptr) return Report(status, "Failed to get the %s message digest for key change digest", digest);
    int result = VKL_EVP_DigestInit(&vkl, &md, type);
    if (result != 1) return FailWith(status, vkl, "key change digest initialisation failed ", result);
    result = VKL_EVP_DigestUpdate(&vkl, &md, first.data, first.length);
    if (result == 1) result = VKL_EVP_DigestUpdate(&vkl, &md, second.data, second.length);
    if (result != 1) return FailWith(status, vkl, "key change digest update failed ", result);
    int size = 0;
    if (SizeOrReport(status, zul::DigestSize, vkl, type, size) == 0) return 0;
    auto* block = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(size)));
    if (block == nullptr) return Write(status, kOutOfMemory);
    if (FinishDigest(vkl, md, size, block, status, "key change digest update failed ") != 1) {
        std::free(block);
        return 0;
    }
    out.data = block;
    out.length = static_cast<uint32_t>(size);
    return 1;
}

int ZulVklMdExtendKeyImpl(VKL_t& vkl, VKL_EVP_MD_CTX_t& md, const char* digest, int method,
                          ZulVklConstBuffer& engineId, ZulVklConstBuffer& localisedKey, ZulVklBuffer& extendedKey,
                          ZulVklStatusWrap& status) {
    if (method != ZULVKL_KEY_EXTENSION_BLUMENTHAL && method != ZULVKL_KEY_EXTENSION_REEDER) {
        return Report(status, "Unknown key extension method for %s digest key extension: %d", digest, method);
    }
    const uint32_t wanted = extendedKey.length;
    if (wanted == 0 || wanted > kMaxExtendedKey) {
        return Report(status, "Incorrect extended key length for %s digest key extension: %u, 1 to 64 allowed",
                      digest, static_cast<unsigned>(wanted));
    }
    if (localisedKey.length == 0) {
        status.Set("Currently will not extend an empty localised key");
        return 0;
    }
    const VKL_EVP_MD_t* type = FindDigest(vkl, digest);
    if (type == nullptr) return Report(status, "Failed to get the %s message digest for key extension", digest);
    if (localisedKey.length >= wanted) {
        // The caller may cut a key in place.
        std::memmove(extendedKey.data, localisedKey.data, wanted);
        return 1;
    }
    int size = 0;
    if (SizeOrReport(status, zul::DigestSize, vkl, type, size) == 0) return 0;
    const auto step = static_cast<uint32_t>(size);
    // The key grows by whole digests and stops at the first length past the one asked.
    SecretBytes<kMaxExtendedKey + kMaxMac> key;
    SecretBytes<kMaxMac> ku;
    uint32_t length = localisedKey.length;
    std::memcpy(key.data, localisedKey.data, length);
    while (length < wanted) {
        if (method == ZULVKL_KEY_EXTENSION_BLUMENTHAL) {
            int result = VKL_EVP_DigestInit(&vkl, &md, type);
            if (result != 1) return FailWith(status, vkl, "key extension digest initialisation failed ", result);
            result = VKL_EVP_DigestUpdate(&vkl, &md, key.data, length);
            if (result != 1) return FailWith(status, vkl, "key extension digest update failed ", result);
            if (FinishDigest(vkl, md, size, key.data + length, status, "key extension digest finalisation failed ") !=
                1) {
                return 0;
            }
        } else {
            // The key so far is the password, then its key is localised to the engine.
            ZulVklConstBuffer password{key.data, length};
            ZulVklBuffer kuOut{ku.data, step};
            ZulVklConstBuffer kuIn{ku.data, step};
            ZulVklBuffer next{key.data + length, step};
            if (ZulVklMdGenerateKeyImpl(vkl, md, digest, password, kuOut, status) != 1 ||
                ZulVklMdLocaliseKeyImpl(vkl, md, digest, engineId, kuIn, next, status) != 1) {
                return 0;
            }
        }
        length += step;
    }
    std::memcpy(extendedKey.data, key.data, wanted);
    return 1;
}

int ZulVklMdDigestLengthImpl(VKL_t& vkl, const char* digest) {
    const VKL_EVP_MD_t* type = FindDigest(vkl, digest);
    return type != nullptr ? std::max(zul::DigestSize(&vkl, type), 0) : 0;
}

// ---- Privacy ciphers ----

int ZulVklCipherRequiredKeySizeImpl(VKL_t& vkl, const char* cipher, ZulVklStatusWrap& status) {
    const VKL_EVP_CIPHER_t* type = FindCipher(vkl, cipher);
    if (type == nullptr) return Report(status, "Failed to get cipher for algorithm: %s", cipher);
    int size = 0;
    return SizeOrReport(status, zul::CipherKeyLength, vkl, type, size) == 1 ? size : 0;
}

int ZulVklCipherRequiredIvSizeImpl(VKL_t& vkl, const char* cipher, ZulVklStatusWrap& status) {
    const VKL_EVP_CIPHER_t* type = FindCipher(vkl, cipher);
    if (type == nullptr) return Report(status, "Failed to get cipher for algorithm: %s", cipher);
    int size = 0;
    return SizeOrReport(status, zul::CipherIvLength, vkl, type, size) == 1 ? size : 0;
}

int ZulVklCipherSetPaddingImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, int padding, ZulVklStatusWrap& status) {
    const int result = VKL_EVP_CIPHER_CTX_set_padding(&vkl, &ctx, padding);
    if (result == 1) return 1;
    Report(status, "Failed to %s padding\n", padding != 0 ? "enable" : "disable");
    status.Set(vkl, result);
    return 0;
}

int ZulVklCipherEncryptInitImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher, ZulVklConstBuffer& key,
                                ZulVklConstBuffer& iv, ZulVklStatusWrap& status) {
    return CipherInit(vkl, ctx, cipher, key, iv, status, true);
}

int ZulVklCipherDecryptInitImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher, ZulVklConstBuffer& key,
                                ZulVklConstBuffer& iv, ZulVklStatusWrap& status) {
    return CipherInit(vkl, ctx, cipher, key, iv, status, false);
}

int ZulVklCipherEncryptUpdateImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char*, ZulVklConstBuffer** in,
                                  unsigned int count, ZulVklBuffer& out, ZulVklStatusWrap& status) {
    unsigned char* const start = out.data;
    uint32_t total = 0;
    for (unsigned int i = 0; i < count; ++i) {
        const ZulVklConstBuffer* piece = in[i];
        // VKL counts in int: a longer piece would arrive as a negative length.
        if (piece == nullptr || piece->length > INT_MAX) {
            status.Set("Invalid buffer passed in for SNMPv3 msg encryption");
            out.data = start;
            return 0;
        }
        // An empty piece may have no address, which VKL refuses; it adds nothing anyway.
        if (piece->length == 0) continue;
        int written = 0;
        const int result =
            VKL_EVP_EncryptUpdate(&vkl, &ctx, out.data, &written, piece->data, static_cast<int>(piece->length));
        if (result != 1) {
            FailWith(status, vkl, "Encryption update failed ", result);
            out.data = start;
            return 0;
        }
        total += static_cast<uint32_t>(written);
        out.data += written;
        out.length = 0;
    }
    out.data = start;
    out.length = total;
    return 1;
}

int ZulVklCipherDecryptUpdateImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char*, ZulVklConstBuffer& in,
                                  ZulVklBuffer& out, ZulVklStatusWrap& status) {
    if (in.length > INT_MAX) {
        // VKL counts in int: a longer input would arrive as a negative length.
        status.Set("Decryption update failed ");
        return 0;
    }
    int written = 0;
    const int result = in.length == 0 ? 1 : VKL_EVP_DecryptUpdate(&vkl, &ctx, out.data, &written, in.data, static_cast<int>(in.length));
    if (result != 1) return FailWith(status, vkl, "Decryption update failed ", result);
    out.length = static_cast<uint32_t>(written);
    return 1;
}

int ZulVklCipherEncryptFinaliseImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher, ZulVklBuffer& out,
                                    ZulVklStatusWrap& status) {
    return CipherFinalise(vkl, ctx, cipher, out, status, true);
}

int ZulVklCipherDecryptFinaliseImpl(VKL_t& vkl, VKL_EVP_CIPHER_CTX_t& ctx, const char* cipher, ZulVklBuffer& out,
                                    ZulVklStatusWrap& status) {
    return CipherFinalise(vkl, ctx, cipher, out, status, false);
}

// ---- Authentication digests ----

int ZulVklHmacGenerateDigestImpl(VKL_t& vkl, VKL_HMAC_CTX_t& hmac, const char* digest, ZulVklConstBuffer** in,
                                 unsigned int count, ZulVklConstBuffer& key, ZulVklBuffer& out,
                                 ZulVklStatusWrap& status) {
    const VKL_EVP_MD_t* type = FindDigest(vkl, digest);
    if (type == nullptr) return Report(status, "Failed to get the %s message digest", digest);
    if (key.length > INT_MAX) return Report(status, "Key too long for the %s message digest", digest);
    // VKL keeps the keyed state when the key and digest are the ones it holds, so
    // authenticating every message of a user with its one key costs no rekeying.
    // A null key re-arms VKL's HMAC with the key it holds; an empty key is a key too.
    static const unsigned char kEmptyKey = 0;
    const unsigned char* keyBytes = key.length == 0 ? &kEmptyKey : key.data;
    // A failed init may leave the handle keyed for the previous caller: nothing may be
    // computed past it, or the MAC would be under someone else's key.
    int result = VKL_HMAC_Init(&vkl, &hmac, keyBytes, static_cast<int>(key.length), type);
    if (result != 1) return FailWith(status, vkl, "HMAC initialisation failed ", result);
    for (unsigned int i = 0; i < count; ++i) {
        if (in[i] == nullptr) {
            status.Set("Invalid buffer passed in for SNMPv3 msg authentication");
            return 0;
        }
        result = VKL_HMAC_Update(&vkl, &hmac, in[i]->data, in[i]->length);
        if (result != 1) return FailWith(status, vkl, "HMAC update failed ", result);
    }
    // Finished beside the caller's area, so a failure leaves that area as it was.
    unsigned char mac[kMaxMac];
    int size = 0;
    if (SizeOrReport(status, zul::DigestSize, vkl, type, size) == 0) return 0;
    unsigned int written = 0;
    result = VKL_HMAC_Final(&vkl, &hmac, mac, &written);
    if (result != 1) return FailWith(status, vkl, "HMAC finalisation failed ", result);
    if (written != static_cast<unsigned int>(size)) {
        return WrongLength(status, vkl, "HMAC finalisation failed ", "MAC", written, size);
    }
    result = VKL_HMAC_Init(&vkl, &hmac, nullptr, 0, nullptr);
    if (result != 1) return FailWith(status, vkl, "HMAC re-arm failed ", result);
    std::memcpy(out.data, mac, written);
    out.length = written;
    return 1;
}

// ---- The C-callable operations ----

extern "C" {

ZulVklCtxWrap* ZulVklCtxCreate(void) {
    ZulVklCtxWrap* ctx = nullptr;
    try {
        ctx = new ZulVklCtxWrap;
    } catch (const std::bad_alloc&) {
        return nullptr;  // no exception may cross into a C caller
    }
    if (ctx->m_Context.GetContext() == nullptr) {
        delete ctx;
        return nullptr;
    }
    return ctx;
}

int ZulVklCtxDestroy(ZulVklCtxWrap* ctx) {
    delete ctx;
    return 0;
}

ZulVklStatusWrap* ZulVklStatusCreate(void) { return new (std::nothrow) ZulVklStatusWrap; }

int ZulVklStatusDestroy(ZulVklStatusWrap* status) {
    delete status;
    return 0;
}

ZulVklMdCtxWrap* ZulVklMdCtxCreate(ZulVklCtxWrap* ctx) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr) return nullptr;
    VKL_EVP_MD_CTX_t* md = ZulVklMdCtxCreateImpl(*vkl);
    if (md == nullptr) return nullptr;
    auto* handle = new (std::nothrow) ZulVklMdCtxWrap(md);
    if (handle == nullptr) ZulVklMdCtxDestroyImpl(*vkl, md);
    return handle;
}

int ZulVklMdCtxDestroy(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr) return 0;
    ZulVklMdCtxDestroyImpl(*vkl, ZulVklWrapConvert(md));
    delete md;
    return 0;
}

ZulVklHmacCtxWrap* ZulVklHmacCtxCreate(ZulVklCtxWrap* ctx) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr) return nullptr;
    VKL_HMAC_CTX_t* hmac = ZulVklHmacCtxCreateImpl(*vkl);
    if (hmac == nullptr) return nullptr;
    auto* handle = new (std::nothrow) ZulVklHmacCtxWrap(hmac);
    if (handle == nullptr) ZulVklHmacCtxDestroyImpl(*vkl, hmac);
    return handle;
}

int ZulVklHmacCtxDestroy(ZulVklCtxWrap* ctx, ZulVklHmacCtxWrap* hmac) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr) return 0;
    ZulVklHmacCtxDestroyImpl(*vkl, ZulVklWrapConvert(hmac));
    delete hmac;
    return 0;
}

ZulVklCipherCtxWrap* ZulVklCipherCtxCreate(ZulVklCtxWrap* ctx) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr) return nullptr;
    VKL_EVP_CIPHER_CTX_t* cipher = ZulVklCipherCtxCreateImpl(*vkl);
    if (cipher == nullptr) return nullptr;
    auto* handle = new (std::nothrow) ZulVklCipherCtxWrap(cipher);
    if (handle == nullptr) ZulVklCipherCtxDestroyImpl(*vkl, cipher);
    return handle;
}

int ZulVklCipherCtxDestroy(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* cipher) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr) return 0;
    ZulVklCipherCtxDestroyImpl(*vkl, ZulVklWrapConvert(cipher));
    delete cipher;
    return 0;
}

void ZulVklLogErrMsg(ZulVklStatusWrap* status) {
    if (status == nullptr) return;
    CZulCryptContext::HandleDebug(status->errorMsg, 0);
    CZulCryptContext::HandleDebug(status->status.description, 0);
}

int ZulVklMdGenerateKey(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest, ZulVklConstBuffer* password,
                        ZulVklBuffer* key, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_MD_CTX_t* mdCtx = ZulVklWrapConvert(md);
    if (vkl == nullptr || mdCtx == nullptr || digest == nullptr || Missing(password) || Missing(key) ||
        status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklDigestGenerateKey");
        return 0;
    }
    return ZulVklMdGenerateKeyImpl(*vkl, *mdCtx, digest, *password, *key, *status);
}

int ZulVklMdLocaliseKey(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest, ZulVklConstBuffer* engineId,
                        ZulVklConstBuffer* key, ZulVklBuffer* localisedKey, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_MD_CTX_t* mdCtx = ZulVklWrapConvert(md);
    if (vkl == nullptr || mdCtx == nullptr || digest == nullptr || Missing(engineId) || Missing(key) ||
        Missing(localisedKey) || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklDigestLocaliseKey");
        return 0;
    }
    return ZulVklMdLocaliseKeyImpl(*vkl, *mdCtx, digest, *engineId, *key, *localisedKey, *status);
}

int ZulVklMdKeyChangeDigest(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest, ZulVklConstBuffer* first,
                            ZulVklConstBuffer* second, ZulVklBuffer* out, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_MD_CTX_t* mdCtx = ZulVklWrapConvert(md);
    if (vkl == nullptr || mdCtx == nullptr || digest == nullptr || Missing(first) || Missing(second) ||
        out == nullptr || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklMdKeyChangeDigest");
        return 0;
    }
    return ZulVklMdKeyChangeImpl(*vkl, *mdCtx, digest, *first, *second, *out, *status);
}

int ZulVklMdExtendKey(ZulVklCtxWrap* ctx, ZulVklMdCtxWrap* md, const char* digest, int method,
                      ZulVklConstBuffer* engineId, ZulVklConstBuffer* localisedKey, ZulVklBuffer* extendedKey,
                      ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_MD_CTX_t* mdCtx = ZulVklWrapConvert(md);
    if (vkl == nullptr || mdCtx == nullptr || digest == nullptr || Missing(engineId) || Missing(localisedKey) ||
        Missing(extendedKey) || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklMdExtendKey");
        return 0;
    }
    return ZulVklMdExtendKeyImpl(*vkl, *mdCtx, digest, method, *engineId, *localisedKey, *extendedKey, *status);
}

int ZulVklMdDigestLength(ZulVklCtxWrap* ctx, const char* digest) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr || digest == nullptr) return 0;
    return ZulVklMdDigestLengthImpl(*vkl, digest);
}

int ZulVklCipherRequiredKeySize(ZulVklCtxWrap* ctx, const char* cipher, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr || cipher == nullptr || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherRequiredKeySize");
        return 0;
    }
    return ZulVklCipherRequiredKeySizeImpl(*vkl, cipher, *status);
}

int ZulVklCipherRequiredIvSize(ZulVklCtxWrap* ctx, const char* cipher, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    if (vkl == nullptr || cipher == nullptr || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherRequiredIvSize");
        return 0;
    }
    return ZulVklCipherRequiredIvSizeImpl(*vkl, cipher, *status);
}

int ZulVklCipherSetPadding(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, int padding, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_CIPHER_CTX_t* cipherCtx = ZulVklWrapConvert(handle);
    if (vkl == nullptr || cipherCtx == nullptr || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherSetPadding");
        return 0;
    }
    return ZulVklCipherSetPaddingImpl(*vkl, *cipherCtx, padding, *status);
}

int ZulVklCipherEncryptInit(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                            ZulVklConstBuffer* key, ZulVklConstBuffer* iv, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_CIPHER_CTX_t* cipherCtx = ZulVklWrapConvert(handle);
    if (vkl == nullptr || cipherCtx == nullptr || cipher == nullptr || Missing(key) || Missing(iv) ||
        status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherEncryptInit");
        return 0;
    }
    return ZulVklCipherEncryptInitImpl(*vkl, *cipherCtx, cipher, *key, *iv, *status);
}

int ZulVklCipherDecryptInit(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                            ZulVklConstBuffer* key, ZulVklConstBuffer* iv, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_CIPHER_CTX_t* cipherCtx = ZulVklWrapConvert(handle);
    if (vkl == nullptr || cipherCtx == nullptr || cipher == nullptr || Missing(key) || Missing(iv) ||
        status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherDecryptInit");
        return 0;
    }
    return ZulVklCipherDecryptInitImpl(*vkl, *cipherCtx, cipher, *key, *iv, *status);
}

int ZulVklCipherEncryptUpdate(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                              ZulVklConstBuffer** in, unsigned int count, ZulVklBuffer* out,
                              ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_CIPHER_CTX_t* cipherCtx = ZulVklWrapConvert(handle);
    if (vkl == nullptr || cipherCtx == nullptr || cipher == nullptr || MissingPiece(in, count) ||
        Missing(out) || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherEncryptUpdate");
        return 0;
    }
    return ZulVklCipherEncryptUpdateImpl(*vkl, *cipherCtx, cipher, in, count, *out, *status);
}

int ZulVklCipherDecryptUpdate(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                              ZulVklConstBuffer* in, ZulVklBuffer* out, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_CIPHER_CTX_t* cipherCtx = ZulVklWrapConvert(handle);
    if (vkl == nullptr || cipherCtx == nullptr || cipher == nullptr || Missing(in) || Missing(out) ||
        status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherDecryptUpdate");
        return 0;
    }
    return ZulVklCipherDecryptUpdateImpl(*vkl, *cipherCtx, cipher, *in, *out, *status);
}

int ZulVklCipherEncryptFinalise(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                ZulVklBuffer* out, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_CIPHER_CTX_t* cipherCtx = ZulVklWrapConvert(handle);
    if (vkl == nullptr || cipherCtx == nullptr || cipher == nullptr || Missing(out) || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherEncryptFinalise");
        return 0;
    }
    return ZulVklCipherEncryptFinaliseImpl(*vkl, *cipherCtx, cipher, *out, *status);
}

int ZulVklCipherDecryptFinalise(ZulVklCtxWrap* ctx, ZulVklCipherCtxWrap* handle, const char* cipher,
                                ZulVklBuffer* out, ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_EVP_CIPHER_CTX_t* cipherCtx = ZulVklWrapConvert(handle);
    if (vkl == nullptr || cipherCtx == nullptr || cipher == nullptr || Missing(out) || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklCipherDecryptFinalise");
        return 0;
    }
    return ZulVklCipherDecryptFinaliseImpl(*vkl, *cipherCtx, cipher, *out, *status);
}

int ZulVklHmacGenerateDigest(ZulVklCtxWrap* ctx, ZulVklHmacCtxWrap* hmac, const char* digest,
                             ZulVklConstBuffer** in, unsigned int count, ZulVklConstBuffer* key, ZulVklBuffer* out,
                             ZulVklStatusWrap* status) {
    VKL_t* vkl = ZulVklWrapConvert(ctx);
    VKL_HMAC_CTX_t* hmacCtx = ZulVklWrapConvert(hmac);
    if (vkl == nullptr || hmacCtx == nullptr || digest == nullptr || MissingPiece(in, count) || Missing(key) ||
        Missing(out) || status == nullptr) {
        SetOrReportError(status, "Invalid NULL arg to ZulVklHmacGenerateDigest");
        return 0;
    }
    return ZulVklHmacGenerateDigestImpl(*vkl, *hmacCtx, digest, in, count, *key, *out, *status);
}

}  // extern "C"
