// Every class and the procedural interface driven through a program of calls: a byte picks a
// call from kOps, which reads its operands from the bytes after it. Each object keeps a model of
// what it was given (the digest and data since SetType, the cipher stream, a number's value, the
// key components held); whenever a call reports success, its bytes must be what OpenSSL gives
// for the same work done afresh. VKL failures are injected between calls and objects are rebuilt
// on a context without VKL: neither may turn into a wrong result reported as success, a crash or
// a leak. Size questions are failed with answers no algorithm has, and the procedural calls are
// now and then given a record that points nowhere: both must be refused.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include <czulcryptbignum.h>
#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>
#include <czulcryptdh.h>
#include <czulcrypthmac.h>
#include <czulcryptmdcontext.h>
#include <czulcryptrsacalculator.h>
#include <czulcryptrsakey.h>
#include <czulcryptsignature.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>
#include <zulcryptimpl.h>

#include "fuzz_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Want = std::optional<Bytes>;  // OpenSSL's bytes for the same work; none when no right answer exists

// A success must give OpenSSL's bytes; where there is no right answer, success itself is wrong.
void Check(bool ok, const Bytes& got, const Want& want) {
    if (ok && (!want || got != *want)) __builtin_trap();
}

Bytes Cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Never null, also for no bytes: a null input is refused by design and is not what runs here.
// Some calls take their input through a non-const pointer; none writes it.
unsigned char* Data(const Bytes& b) {
    static unsigned char none;
    return b.empty() ? &none : const_cast<unsigned char*>(b.data());
}
unsigned Len(const Bytes& b) { return static_cast<unsigned>(b.size()); }
ZulVklConstBuffer In(const Bytes& b) { return {Data(b), Len(b)}; }

// Where a call writes: exactly the room a size promised (none for a negative size), so that the
// sanitizer sees a write past it, or a buffer that an allocating form made (the caller releases it).
struct Out {
    explicit Out(long size) : room(std::max(size, 0L)), area(new unsigned char[room]) {}
    // What a successful call says it wrote; a count past the room is a lie as well.
    Bytes Got(bool ok, long count) const {
        if (ok && (count < 0 || count > room)) __builtin_trap();
        const unsigned char* at = made != nullptr ? made : area.get();
        return ok ? Bytes(at, at + count) : Bytes();
    }
    long room;
    std::unique_ptr<unsigned char[]> area;
    unsigned char* made = nullptr;
};

struct Reader {
    const uint8_t* at;
    size_t left;
    unsigned Byte() { return left > 0 ? (--left, *at++) : 0; }
    Bytes Take(size_t count) {
        count = std::min(count, left);
        at += count, left -= count;
        return Bytes(at - count, at);
    }
    Bytes Exactly(size_t count) {  // key material: zeros once the input runs out
        Bytes bytes = Take(count);
        bytes.resize(count);
        return bytes;
    }
    template <typename T, size_t N>
    const T& Pick(const T (&table)[N]) { return table[Byte() % N]; }
};

const char* const kDigests[] = {"MD5", "SHA1", "SHA256", "SHA512", "SHA3-256", "BLAKE2s256", "NOPE"};
const char* const kCiphers[] = {"AES-128-CBC", "AES-256-CTR",  "AES-128-CFB", "AES-192-OFB",
                                "AES-128-ECB", "DES-EDE3-CBC", "BF-CBC",      "NOPE"};

// Each function fails with its own failure value. Releases are left out: one forced to fail leaks.
struct Fault {
    const char* name;
    long result;
};
const Fault kFaults[] = {
    {"VKL_EVP_get_digestbyname", 0}, {"VKL_EVP_DigestInit", 0},      {"VKL_EVP_DigestUpdate", 0},
    {"VKL_EVP_DigestFinal", 0},      {"VKL_EVP_MD_CTX_new", 0},      {"VKL_EVP_MD_CTX_cleanup", 0},
    {"VKL_EVP_get_cipherbyname", 0}, {"VKL_EVP_CIPHER_CTX_new", 0},  {"VKL_EVP_CIPHER_CTX_cleanup", 0},
    {"VKL_EVP_EncryptInit", 0},      {"VKL_EVP_DecryptInit", 0},     {"VKL_EVP_EncryptUpdate", 0},
    {"VKL_EVP_DecryptUpdate", 0},    {"VKL_EVP_EncryptFinal", 0},    {"VKL_EVP_DecryptFinal", 0},
    {"VKL_HMAC_Init", 0},            {"VKL_HMAC_Update", 0},         {"VKL_HMAC_Final", 0},
    {"VKL_BN_new", 0},               {"VKL_BN_bin2bn", 0},           {"VKL_BN_bn2bin", -1},
    {"VKL_BN_num_bits", 0},          {"VKL_RAND_bytes", 0},          {"VKL_RSA_new", 0},
    {"VKL_RSA_public_encrypt", -1},  {"VKL_RSA_public_decrypt", -1}, {"VKL_RSA_private_encrypt", -1},
    {"VKL_RSA_private_decrypt", -1}, {"VKL_EVP_PKEY_new", 0},        {"VKL_EVP_PKEY_set1_RSA", 0},
    {"VKL_EVP_SignFinal", 0},        {"VKL_EVP_VerifyFinal", -1},    {"VKL_DH_new", 0},
    {"VKL_DH_generate_key", 0},      {"VKL_DH_size", 0},             {"VKL_DH_compute_key", -1},
    {"VKL_SelfTest/SHA-256", 0},     {"VKL_EVP_CIPHER_CTX_set_padding", 0},
    {"VKL_EVP_CIPHER_CTX_set_key_length", 0},
    // Size questions: answered with one of kBadSizes (an IV length of 0 is one ECB has).
    {"VKL_EVP_MD_size", LONG_MIN},        {"VKL_EVP_MD_block_size", LONG_MIN},
    {"VKL_EVP_CIPHER_block_size", LONG_MIN}, {"VKL_EVP_CIPHER_key_length", LONG_MIN},
    {"VKL_EVP_CIPHER_iv_length", -1},     {"VKL_DH_size", LONG_MIN}, {"VKL_BN_num_bits", LONG_MIN},
};
const long kBadSizes[] = {0, -1, -8, 4096, 1L << 20};

// ---- OpenSSL's side ----

const EVP_MD* Md(const char* name) { return name != nullptr ? EVP_get_digestbyname(name) : nullptr; }

// base ^ exponent mod prime, as wide as the prime.
Bytes Power(const Bytes& base, const BIGNUM* exponent, const BIGNUM* prime) {
    BN_CTX* work = BN_CTX_new();
    BIGNUM* value = BN_bin2bn(Data(base), static_cast<int>(base.size()), nullptr);
    BN_mod_exp(value, value, exponent, prime, work);
    Bytes bytes(static_cast<size_t>(BN_num_bytes(prime)));
    BN_bn2binpad(value, bytes.data(), BN_num_bytes(prime));
    BN_free(value);
    BN_CTX_free(work);
    return bytes;
}

// A fixed 1024-bit RSA key, as n, e and d (the first fields of VKL's record), and for each
// Diffie-Hellman group (Oakley group 2, group 14) a peer with a fixed private value.
struct Fixed {
    Bytes part[3];
    EVP_PKEY* key = nullptr;
    BIGNUM* peerPrivate = BN_new();
    BIGNUM* prime[2] = {BN_get_rfc2409_prime_1024(nullptr), BN_get_rfc3526_prime_2048(nullptr)};
    Bytes peer[2];
};

const Fixed& Keys() {
    static const Fixed fixed = [] {
        const char* const hex[3] = {
            "c338ab836c060a6d2f53d8ca7855eb7c81705be838bbeab1e35e515b6354ab6c886abf30d322eac10bc0612ed3e177c5445c7a"
            "19612d431e932c7ebcc3198933b33e30dbf79f433b4fb1184e4fd6119481cb63f421f251cd22b88812f6fa1d2486946ac38d13"
            "9a3079a885a938835294ea01c4f3c83fe64cfb5cc89430ab1d71",
            "010001",
            "4a847f3393305b1a824e471a4204c9f6a491f7031564e5993168f735231d56b1ff00802a6aed911e4f1608028fee2881ac2e80"
            "8cdf831f73b449efb6ade239744fcc2548cf45e32976ebc2398f3a02865894f7878acfee965882ac06e4fbbaa0d855c80f4ae7"
            "c676ca5692aeb52a190c4a8083eb15e479885514a68d7b866081"};
        const char* const names[3] = {OSSL_PKEY_PARAM_RSA_N, OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_D};
        Fixed f;
        BIGNUM* number[3] = {};
        OSSL_PARAM_BLD* build = OSSL_PARAM_BLD_new();
        for (int i = 0; i < 3; ++i) {
            BN_hex2bn(&number[i], hex[i]);
            OSSL_PARAM_BLD_push_BN(build, names[i], number[i]);
            f.part[i].resize(static_cast<size_t>(BN_num_bytes(number[i])));
            BN_bn2bin(number[i], f.part[i].data());
        }
        OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(build);
        EVP_PKEY_CTX* make = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
        if (EVP_PKEY_fromdata_init(make) != 1 || EVP_PKEY_fromdata(make, &f.key, EVP_PKEY_KEYPAIR, params) != 1) abort();
        BN_set_word(f.peerPrivate, 0x2f5a1c3b7dULL);
        for (int g = 0; g < 2; ++g) f.peer[g] = Power({2}, f.peerPrivate, f.prime[g]);
        EVP_PKEY_CTX_free(make);
        OSSL_PARAM_free(params);
        OSSL_PARAM_BLD_free(build);
        for (BIGNUM* n : number) BN_free(n);
        return f;
    }();
    return fixed;
}

// The digest of data, or with a key its HMAC.
Want Digest(const char* name, const Bytes& data, const Bytes* key = nullptr) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    bool done = Md(name) != nullptr &&
                (key != nullptr ? HMAC(Md(name), Data(*key), static_cast<int>(key->size()), Data(data), data.size(),
                                       out, &length) != nullptr
                                : EVP_Digest(Data(data), data.size(), out, &length, Md(name), nullptr) == 1);
    return done ? Want(Bytes(out, out + length)) : std::nullopt;
}

// The two published key extensions over the model's digests; none where the library must refuse.
Want Extended(const char* name, unsigned method, Bytes key, const Bytes& engineId, size_t length) {
    if (method == 0 || method > 2 || key.empty() || length == 0 || length > 64 || Md(name) == nullptr) return {};
    while (key.size() < length) {
        Want more = Digest(name, key);
        if (method == 2) {  // Reeder: password to key over all the key so far, then localised
            Bytes repeated(1 << 20);
            for (size_t i = 0; i < repeated.size(); ++i) repeated[i] = key[i % key.size()];
            const Bytes ku = *Digest(name, repeated);
            more = Digest(name, Cat(Cat(ku, engineId), ku));
        }
        key = Cat(key, *more);
    }
    key.resize(length);
    return key;
}

// Each calculator operation beside raw RSA with PKCS #1 v1.5 padding and the fixed key.
enum : int { kN = 1, kE = 2, kD = 4, kForeign = -1 };
struct RsaOp {
    int (CZulCryptRSACalculator::*call)(const unsigned char*, unsigned int, const CZulCryptRSAKey&, unsigned char*);
    int (*init)(EVP_PKEY_CTX*);
    int (*run)(EVP_PKEY_CTX*, unsigned char*, size_t*, const unsigned char*, size_t);
    int needs;         // the key components it needs
    unsigned inverse;  // the operation that undoes it
};
const RsaOp kRsaOps[] = {
    // Public encryption first: its padding is random, so it is checked by undoing it.
    {&CZulCryptRSACalculator::RSAPublicEncrypt, EVP_PKEY_encrypt_init, EVP_PKEY_encrypt, kN | kE, 3},
    {&CZulCryptRSACalculator::RSAPublicDecrypt, EVP_PKEY_verify_recover_init, EVP_PKEY_verify_recover, kN | kE, 2},
    {&CZulCryptRSACalculator::RSAPrivateEncrypt, EVP_PKEY_sign_init, EVP_PKEY_sign, kN | kD, 1},
    {&CZulCryptRSACalculator::RSAPrivateDecrypt, EVP_PKEY_decrypt_init, EVP_PKEY_decrypt, kN | kD, 0},
};

// With a digest, the private encryption is a signature over the hash given as input.
Want Rsa(const RsaOp& op, const Want& in, const EVP_MD* md = nullptr) {
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(Keys().key, nullptr),
                                                                     EVP_PKEY_CTX_free);
    Bytes out(512);
    size_t length = out.size();
    bool done = in && op.init(ctx.get()) == 1 && EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) == 1 &&
                (md == nullptr || EVP_PKEY_CTX_set_signature_md(ctx.get(), md) == 1) &&
                op.run(ctx.get(), out.data(), &length, Data(*in), in->size()) == 1;
    out.resize(length);
    return done ? Want(out) : std::nullopt;
}

Want Sign(const char* name, const Bytes& data) { return Rsa(kRsaOps[2], Digest(name, data), Md(name)); }

// OpenSSL's cipher beside a cipher object or handle, fed what it was fed. It follows from a
// successful set-up to the first failure or the final step; after those the state is VKL's.
struct Mirror {
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx{EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free};
    bool following = false;
    bool encrypt = true;

    void Start(bool ok, const char* name, const Bytes& key, const Bytes& iv, bool forEncryption, bool padding) {
        encrypt = forEncryption;
        following = ok && EVP_CipherInit_ex(ctx.get(), EVP_get_cipherbyname(name), nullptr, key.data(), iv.data(),
                                            forEncryption) == 1;
        SetPadding(true, padding);
    }
    void SetPadding(bool ok, bool padding) {
        following = following && ok && EVP_CIPHER_CTX_set_padding(ctx.get(), padding) == 1;
    }
    // One step, a piece or (in null) the final step, and the bytes it reported.
    void Follow(bool ok, const Bytes& got, const Bytes* in) {
        if (!following) return;
        following = ok && in != nullptr;
        Bytes out((in != nullptr ? in->size() : 0) + EVP_MAX_BLOCK_LENGTH);
        int length = 0;
        bool done = ok && (in != nullptr ? EVP_CipherUpdate(ctx.get(), out.data(), &length, Data(*in),
                                                            static_cast<int>(in->size()))
                                         : EVP_CipherFinal_ex(ctx.get(), out.data(), &length)) == 1;
        out.resize(done ? static_cast<size_t>(length) : 0);
        Check(ok, got, done ? Want(out) : std::nullopt);
    }
};

// ---- The objects under test, each with its model ----

std::unique_ptr<CZulCryptContext> WithoutVkl() {
    WEXTest_SetGetContextResult(0);
    auto context = std::make_unique<CZulCryptContext>();
    WEXTest_SetGetContextResult(-3);
    return context;
}

struct Rig {
    std::unique_ptr<CZulCryptContext> good = std::make_unique<CZulCryptContext>(), bad = WithoutVkl();
    bool faulted = false;  // a failure was injected in this program

    std::unique_ptr<CZulCryptMDContext> md;
    const char* mdName = nullptr;  // null: nothing is known of the object's hash
    Bytes mdData;                  // fed since the successful SetType
    std::unique_ptr<CZulCryptHMAC> hmac = std::make_unique<CZulCryptHMAC>(*good, nullptr, nullptr, 0);
    const char* hmacName = nullptr;
    Bytes hmacKey;
    std::unique_ptr<CZulCryptCipherContext> cipher;
    Mirror cipherMirror;
    std::unique_ptr<CZulCryptBigNum> bn;
    std::optional<Bytes> bnValue;  // none once VKL had a say in it
    CZulCryptContext* bnContext = nullptr;
    std::unique_ptr<CZulCryptRSAKey> key;
    int keyHeld = 0;  // components of the fixed key held, or kForeign
    std::unique_ptr<CZulCryptRSACalculator> calc;
    std::unique_ptr<CZulCryptSignature> sig;
    const char* sigName = nullptr;
    int sigKind = 0;
    std::unique_ptr<CZulCryptDH> dh;
    int dhGroup = -1;  // 0 Oakley group 2, 1 group 14, -1 not known

    ZulVklCtxWrap* c = ZulVklCtxCreate();
    ZulVklMdCtxWrap* cMd = ZulVklMdCtxCreate(c);
    ZulVklHmacCtxWrap* cHmac = ZulVklHmacCtxCreate(c);
    ZulVklCipherCtxWrap* cCipher = ZulVklCipherCtxCreate(c);
    ZulVklStatusWrap* status = ZulVklStatusCreate();
    Mirror cMirror;

    Rig() {
        for (unsigned kind = 0; kind < 7; ++kind) Make(kind, *good);
    }
    ~Rig() {
        ZulVklMdCtxDestroy(c, cMd);
        ZulVklHmacCtxDestroy(c, cHmac);
        ZulVklCipherCtxDestroy(c, cCipher);
        ZulVklCtxDestroy(c);
        ZulVklStatusDestroy(status);
    }
    CZulCryptContext& Context(unsigned choice) { return choice % 4 == 3 ? *bad : *good; }
    // Makes one object afresh; true when it says it is usable (the classes that have a status).
    bool Make(unsigned kind, CZulCryptContext& on) {
        switch (kind % 7) {
            case 0: md = std::make_unique<CZulCryptMDContext>(on), mdName = nullptr; return md->GetStatus();
            case 1: cipher = std::make_unique<CZulCryptCipherContext>(on), cipherMirror.following = false;
                    return cipher->GetStatus();
            case 2: bn = std::make_unique<CZulCryptBigNum>(on), bnValue = Bytes(), bnContext = &on; return false;
            case 3: key = std::make_unique<CZulCryptRSAKey>(on), keyHeld = 0; return false;
            case 4: calc = std::make_unique<CZulCryptRSACalculator>(on); return false;
            case 5: sig = std::make_unique<CZulCryptSignature>(on), sigName = nullptr; return sig->GetStatus();
            default: dh = std::make_unique<CZulCryptDH>(on), dhGroup = -1; return dh->GetStatus();
        }
    }
};

// Message pieces for the procedural interface; the list ends in a null entry that is never read.
struct Pieces {
    explicit Pieces(Reader& in) : parts(in.Byte() % 4) {
        for (Bytes& part : parts) part = in.Take(in.Byte() % 40), all = Cat(all, part);
        for (const Bytes& part : parts) records.push_back(In(part));
        for (ZulVklConstBuffer& record : records) list.push_back(&record);
        list.push_back(nullptr);
    }
    std::vector<Bytes> parts;
    Bytes all;
    std::vector<ZulVklConstBuffer> records;
    std::vector<ZulVklConstBuffer*> list;
};

// ---- The calls ----

void Fail(Rig& r, Reader& in) {
    const Fault& fault = in.Pick(kFaults);
    unsigned skip = in.Byte() % 4;
    int times = in.Byte() % 4 == 0 ? -1 : 1;
    VKLTest_FailCall(fault.name, skip, times, fault.result == LONG_MIN ? in.Pick(kBadSizes) : fault.result);
    r.faulted = true;
}

void New(Rig& r, Reader& in) {
    CZulCryptContext& on = r.Context(in.Byte());
    // Nothing built without VKL may say it is usable.
    if (r.Make(in.Byte(), on) && &on == r.bad.get()) __builtin_trap();
}

void Initialise(Rig& r, Reader& in) {
    switch (in.Byte() % 4) {
        case 0: r.good->Initialise(); break;
        case 1: r.md->Initialise(), r.mdName = nullptr; break;
        case 2: r.cipher->Initialise(), r.cipherMirror.following = false; break;
        default: r.sig->Initialise(); break;
    }
}

void Reset(Rig& r, Reader& in) {
    switch (in.Byte() % 4) {
        case 0: r.md->ResetMessageDigest(), r.mdName = nullptr; break;
        case 1: r.cipher->ResetCipher(), r.cipherMirror.following = false; break;
        case 2: r.sig->ResetMessageDigest(), r.sigName = nullptr; break;
        default: r.key->ClearKey(), r.keyHeld = 0; break;
    }
}

void Md(Rig& r, Reader& in) {
    unsigned step = in.Byte() % 3;
    if (step == 0) {
        const char* name = in.Pick(kDigests);
        r.mdName = r.md->SetType(name) ? name : nullptr;
        r.mdData.clear();
    } else if (step == 1) {
        Bytes data = in.Take(in.Byte() % 64);
        if (!r.md->AddData(Data(data), Len(data))) r.mdName = nullptr;
        r.mdData = Cat(r.mdData, data);
    } else {
        Out out(r.md->GetDigestSize());
        // No caller writes into room of a size the library could not give.
        if (out.room == 0) return void(r.mdName = nullptr);
        unsigned length = 0;
        bool ok = r.md->GetMessageDigest(out.area.get(), &length);
        Bytes got = out.Got(ok, length);
        if (r.mdName != nullptr) Check(ok, got, Digest(r.mdName, r.mdData));
        r.mdName = nullptr;  // a finished hash goes on only after the next SetType
    }
}

void Hmac(Rig& r, Reader& in) {
    if (in.Byte() % 3 == 0) {
        CZulCryptContext& on = r.Context(in.Byte());
        r.hmacName = in.Pick(kDigests);
        r.hmacKey = in.Take(in.Byte() % 160);
        r.hmac = std::make_unique<CZulCryptHMAC>(on, r.hmacName, Data(r.hmacKey), Len(r.hmacKey));
        return;
    }
    Bytes data = in.Take(in.Byte() % 64);
    Out out(r.hmac->GetDigestSize());
    if (out.room == 0) return;
    unsigned length = 0;
    bool ok = in.Byte() % 2 == 0 ? r.hmac->GetHMAC(Data(data), Len(data), out.area.get(), &length)
                                 : r.hmac->GetHMAC(Data(data), Len(data), &out.made, &length);
    Bytes got = out.Got(ok, length);
    std::free(out.made);
    Check(ok, got, Digest(r.hmacName, data, &r.hmacKey));
}

// The cipher object or the procedural cipher handle, with OpenSSL beside each.
void Cipher(Rig& r, Reader& in) {
    bool object = in.Byte() % 2 == 0, ok = false;
    Mirror& mirror = object ? r.cipherMirror : r.cMirror;
    unsigned step = in.Byte() % 4;
    if (step == 0) {
        const char* name = in.Pick(kCiphers);
        const EVP_CIPHER* cipher = EVP_get_cipherbyname(name);
        bool encrypt = in.Byte() % 2 == 0, wrong = in.Byte() % 8 == 0;  // a wrong IV or key length
        // The object's key goes when this call ends, as a caller's may.
        Bytes key = in.Exactly(object ? 32 : (cipher != nullptr ? EVP_CIPHER_get_key_length(cipher) : 16) + wrong);
        Bytes iv = in.Exactly(object || cipher == nullptr ? 16 : EVP_CIPHER_get_iv_length(cipher));
        ZulVklConstBuffer k = In(key), v = In(iv);
        int result = object ? r.cipher->SetType(name, key.data(), 0, iv.data(), wrong ? 7 : 0, encrypt)
                            : (encrypt ? ZulVklCipherEncryptInit : ZulVklCipherDecryptInit)(r.c, r.cCipher, name, &k,
                                                                                             &v, r.status);
        ok = result > 0;
        // Both refuse a wrong length and an unknown name; the handle reports the block size.
        if (ok && (wrong || cipher == nullptr || (!object && result != EVP_CIPHER_get_block_size(cipher)))) {
            __builtin_trap();
        }
        mirror.Start(ok, name, key, iv, encrypt, object || encrypt);  // procedural decryption turns padding off
    } else if (step == 1) {
        unsigned choice = in.Byte();
        if (object && choice % 3 == 0) {  // keyed again from what SetType was given: nothing follows that
            r.cipher->SetKeyLength(4 + static_cast<int>(choice % 29));
            mirror.following = false;
        } else {
            bool on = choice & 1;
            mirror.SetPadding(object ? r.cipher->SetPadding(on) : ZulVklCipherSetPadding(r.c, r.cCipher, on, r.status),
                              on);
        }
    } else if (step == 2) {
        Pieces pieces(in);
        const Bytes& all = pieces.all;
        int length = static_cast<int>(all.size()), written = 0;
        Out out(object ? r.cipher->GetBufferSize(length, mirror.encrypt) : length + EVP_MAX_BLOCK_LENGTH);
        ZulVklBuffer area{out.area.get(), 0};
        ZulVklConstBuffer whole = In(all);
        bool refused = false;
        if (!object) {
            const unsigned hole = in.Byte() % 16;
            ZulVklConstBuffer& input = mirror.encrypt && !pieces.records.empty() ? pieces.records[0] : whole;
            if (hole == 1) input.data = nullptr, refused = input.length != 0;
            if (hole == 2) area.data = nullptr, refused = true;
            ok = (mirror.encrypt ? ZulVklCipherEncryptUpdate(r.c, r.cCipher, "cipher", pieces.list.data(),
                                                             static_cast<unsigned>(pieces.parts.size()), &area,
                                                             r.status)
                                 : ZulVklCipherDecryptUpdate(r.c, r.cCipher, "cipher", &whole, &area, r.status)) == 1;
            written = static_cast<int>(area.length);
            if (refused && ok) __builtin_trap();
        } else if (in.Byte() % 2 == 0) {
            if (out.room == 0) return void(mirror.following = false);
            ok = r.cipher->AddData(Data(all), length, out.area.get(), &written, mirror.encrypt);
        } else {
            ok = mirror.encrypt ? r.cipher->EncryptData(Data(all), length, &out.made, &written)
                                : r.cipher->DecryptData(Data(all), length, &out.made, &written);
        }
        Bytes got = out.Got(ok, written);
        std::free(out.made);
        mirror.Follow(ok, got, &all);
    } else {
        Out out(object ? r.cipher->GetBlockSize() : EVP_MAX_BLOCK_LENGTH);
        if (out.room == 0) return void(mirror.following = false);
        ZulVklBuffer area{out.area.get(), 0};
        int written = 0;
        ok = object ? r.cipher->GetFinal(out.area.get(), &written, mirror.encrypt)
                    : (mirror.encrypt ? ZulVklCipherEncryptFinalise
                                      : ZulVklCipherDecryptFinalise)(r.c, r.cCipher, "cipher", &area, r.status) == 1;
        mirror.Follow(ok, out.Got(ok, object ? written : static_cast<long>(area.length)), nullptr);
    }
}

void Number(Rig& r, Reader& in) {
    CZulCryptBigNum& bn = *r.bn;
    std::optional<Bytes>& value = r.bnValue;
    Bytes bytes = in.Take(in.Byte() % 72);
    unsigned step = in.Byte() % 6, bits = Len(bytes) * 8;
    if (step == 0) {
        if (bn.SetNumber(Len(bytes), Data(bytes))) value = bytes;
    } else if (step == 1) {  // a whole packet; bits of the first byte above its count are kept
        bits -= bits > 0 ? in.Byte() % 8 : 0;
        if (bn.SetNumber(Cat({static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)}, bytes).data())) {
            value = bytes;
        }
    } else if (step == 2) {  // onto itself: the value stays
        bn.SetNumber(bn.GetLen(), bn.GetBigNumPacket());
    } else if (step == 3) {  // onto itself read as a packet, when the value holds a whole one
        size_t end = value && value->size() >= 2 ? 2 + (((*value)[0] << 8 | (*value)[1]) + 7u) / 8 : SIZE_MAX;
        if (end <= bn.GetLen() && bn.SetNumber(bn.GetBigNumPacket())) {
            value = Bytes(value->begin() + 2, value->begin() + static_cast<long>(end));
        }
    } else if (step == 4) {  // through a VKL number and back: leading zero bytes go
        C_VKL_BIGNUM_Wrap* built = bn.BuildNumber();
        bool ok = bn.SetNumber(built);
        if (ok && value) value->erase(value->begin(), std::find_if(value->begin(), value->end(), [](int b) { return b; }));
        if (!ok && built != nullptr) value.reset();
        if (built != nullptr && r.bnContext->GetContext() != nullptr) {
            VKL_BN_clear_free(r.bnContext->GetContext()->m_pCtx, built->m_pBigNum);
        }
        delete built;
    } else {
        bn.PopulateRandom(bits);
        if (bits > 0) value.reset();
    }
    if (value && Bytes(bn.GetBigNumPacket(), bn.GetBigNumPacket() + bn.GetLen()) != *value) __builtin_trap();
}

void Key(Rig& r, Reader& in) {
    auto number = [&](int part) {
        auto made = std::make_unique<CZulCryptBigNum>(*r.good);
        made->SetNumber(Len(Keys().part[part]), Keys().part[part].data());
        return made;
    };
    auto n = number(0), e = number(1), d = number(2);
    unsigned step = in.Byte() % 5;
    if (step == 0) {
        r.key->PopulateWithPublic(n.get(), e.get()), r.keyHeld = kN | kE;
    } else if (step == 1) {
        r.key->PopulateWithPrivate(n.get(), d.get()), r.keyHeld = kN | kD;
    } else if (step == 2) {  // handed over: the key owns them from now on
        CZulCryptBigNum *modulus = n.release(), *exponent = e.release();
        r.key->PopulateWithPublic(&modulus, &exponent), r.keyHeld = kN | kE;
    } else if (step == 3) {
        r.key->PopulateWithPublic(r.bn.get(), in.Byte() % 2 ? e.get() : r.bn.get()), r.keyHeld = kForeign;
    } else if (C_VKL_CTX_Wrap* holder = r.good->GetContext()) {  // copied out of a VKL record
        C_VKL_RSA_Wrap record(VKL_RSA_new(holder->m_pCtx));
        if (record.m_pRSA == nullptr) return;
        VKL_BIGNUM_t** fields[3] = {&record.m_pRSA->n, &record.m_pRSA->e, &record.m_pRSA->d};
        for (int i = 0; i < 3; ++i) {
            *fields[i] = VKL_BN_bin2bn(holder->m_pCtx, Keys().part[i].data(), Len(Keys().part[i]), nullptr);
        }
        r.key->SetKey(&record);
        VKL_RSA_free(holder->m_pCtx, record.m_pRSA);
        // SetKey does not examine its copies: under injected failures they may be anything.
        r.keyHeld = r.faulted ? kForeign : kN | kE | kD;
    }
}

void Calculate(Rig& r, Reader& in) {
    unsigned which = in.Byte() % 4;
    const RsaOp &op = kRsaOps[which], &back = kRsaOps[op.inverse];
    Bytes from = in.Take(in.Byte() % 130);
    if (in.Byte() % 2) from = Rsa(back, from).value_or(from);  // a well-formed input, now and then
    Out to(r.key->KeySize());
    int written = (r.calc.get()->*op.call)(Data(from), Len(from), *r.key, to.area.get());
    Bytes got = to.Got(written >= 0, written);
    bool holds = (r.keyHeld & op.needs) == op.needs;
    if (r.keyHeld == kForeign) return;
    if (which == 0) return Check(written >= 0, from, holds ? Rsa(back, got) : std::nullopt);
    Check(written >= 0, got, holds ? Rsa(op, from) : std::nullopt);
}

// How the signature object is keyed: which exponent goes with the fixed modulus.
enum { kSignWithD, kSignWithE, kZeroExponent, kNoExponent, kNoModulus };

void Signature(Rig& r, Reader& in) {
    unsigned step = in.Byte() % 3;
    if (step == 0) {
        r.sigName = in.Pick(kDigests);
        r.sigKind = static_cast<int>(in.Byte() % 5);
        const Bytes none, zero{0};
        const Bytes* exponents[] = {&Keys().part[2], &Keys().part[1], &zero, &none, &Keys().part[2]};
        const Bytes& modulus = r.sigKind == kNoModulus ? none : Keys().part[0];
        const Bytes& exponent = *exponents[r.sigKind];
        r.sig->SetHashAndKey(r.sigName, Data(modulus), Len(modulus), Data(exponent), Len(exponent));
        return;
    }
    Bytes data = in.Take(in.Byte() % 64);
    Want genuine = Sign(r.sigName, data);
    if (step == 1) {
        Out out(r.sig->GetSignatureSize());
        unsigned length = 0;
        bool ok = in.Byte() % 2 == 0 ? r.sig->GetSignature(Data(data), Len(data), out.area.get(), &length)
                                     : r.sig->GetSignature(Data(data), Len(data), &out.made, &length);
        Bytes got = out.Got(ok, length);
        delete[] out.made;
        // Signing with e is a computation without a use; there is no reference for it here.
        if (r.sigKind != kSignWithE) Check(ok, got, r.sigKind == kSignWithD ? genuine : std::nullopt);
        return;
    }
    Bytes signature = genuine ? *genuine : in.Take(128);
    bool tampered = in.Byte() % 4 == 0 && !signature.empty();
    if (tampered) signature[in.Byte() % signature.size()] ^= 0x5a;
    bool ok = r.sig->VerifySignature(Data(data), Len(data), Data(signature), Len(signature));
    Check(ok, {1}, r.sigKind == kSignWithE && genuine && !tampered ? Want({1}) : std::nullopt);
}

void Dh(Rig& r, Reader& in) {
    unsigned step = in.Byte() % 4;
    if (step < 2) {
        bool ok = step == 0 ? r.dh->SetOakleyGroup2() : r.dh->SetOakleyGroup14();
        r.dhGroup = ok ? static_cast<int>(step) : -1;
        return;
    }
    if (step == 2) return r.dh->GenerateKey();
    bool before = r.dh->GetStatus();
    std::unique_ptr<CZulCryptBigNum> mine(r.dh->GetPublicKey());
    bool ours = r.dhGroup >= 0 && in.Byte() % 4 != 0;  // OpenSSL's peer, or the fuzzer's number
    CZulCryptBigNum peer(*r.good);
    if (ours) peer.SetNumber(Len(Keys().peer[r.dhGroup]), Keys().peer[r.dhGroup].data());
    r.dh->ComputeSharedSecret(ours ? &peer : r.bn.get());
    int length = 0;
    unsigned char* secret = r.dh->GetSharedSecret(length);
    bool ok = before && r.dh->GetStatus() && secret != nullptr && length > 0;  // no length: nothing claimed
    if (!ours || !mine) return;
    Bytes theirs = Power(Bytes(mine->GetBigNumPacket(), mine->GetBigNumPacket() + mine->GetLen()),
                         Keys().peerPrivate, Keys().prime[r.dhGroup]);
    Check(ok, ok ? Bytes(secret, secret + length) : Bytes(), theirs);
}

// The procedural digests: key localisation and extension (a the key, b the engine ID), the key-change
// digest, HMAC.
void Procedural(Rig& r, Reader& in) {
    const char* name = in.Pick(kDigests);
    unsigned step = in.Byte() % 4;
    Bytes a = in.Take(in.Byte() % 80);
    Pieces pieces(in);
    const Bytes& b = pieces.all;
    ZulVklConstBuffer first = In(a), second = In(b);
    // Read only for an extension, so that the other steps' programs read as they always did.
    const unsigned method = step == 3 ? in.Byte() % 4 : 0, extended = step == 3 ? in.Byte() % 66 : 0;
    Out out(step == 3 ? extended : Md(name) != nullptr ? EVP_MD_get_size(Md(name)) : 0);
    ZulVklBuffer area{out.area.get(), static_cast<uint32_t>(out.room)};
    // A record pointing nowhere: an input with a length, or the area the caller provides.
    const unsigned hole = in.Byte() % 16;
    ZulVklConstBuffer unused{};
    ZulVklConstBuffer* inputs[] = {&first, step != 2 ? &second : pieces.records.empty() ? &unused : &pieces.records[0]};
    if (hole < 2) inputs[hole]->data = nullptr;
    if (hole == 2 && step != 1) area.data = nullptr;  // the key-change digest makes its own
    const bool refused = (hole < 2 && inputs[hole]->length != 0) || (hole == 2 && step != 1);
    bool ok;
    Want want;
    if (step == 0) {
        ok = ZulVklMdLocaliseKey(r.c, r.cMd, name, &second, &first, &area, r.status) == 1;
        want = Digest(name, Cat(Cat(a, b), a));
    } else if (step == 1) {
        ok = ZulVklMdKeyChangeDigest(r.c, r.cMd, name, &first, &second, &area, r.status) == 1;
        out.made = ok ? area.data : nullptr;
        want = Digest(name, Cat(a, b));
    } else if (step == 3) {
        ok = ZulVklMdExtendKey(r.c, r.cMd, name, static_cast<int>(method), &second, &first, &area, r.status) == 1;
        want = Extended(name, method, a, b, extended);
    } else {
        ok = ZulVklHmacGenerateDigest(r.c, r.cHmac, name, pieces.list.data(), static_cast<unsigned>(pieces.parts.size()),
                                      &first, &area, r.status) == 1;
        want = Digest(name, b, &a);
    }
    Bytes got = out.Got(ok, area.length);
    std::free(out.made);
    Check(ok, got, refused ? std::nullopt : want);
}

struct Op {
    const char* name;
    void (*run)(Rig&, Reader&);
};
const Op kOps[] = {
    {"Fail", Fail},     {"New", New},           {"Initialise", Initialise}, {"Reset", Reset},
    {"Md", Md},         {"Hmac", Hmac},         {"Cipher", Cipher},         {"Number", Number},
    {"Key", Key},       {"Calculate", Calculate}, {"Signature", Signature}, {"Dh", Dh},
    {"Procedural", Procedural},
};

// Enough for any sequence worth having; longer programs only cost time.
const int kMaxSteps = 64;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool trace = [] {
        zulfuzz::SilenceReports();
        WEXTest_SetSystemFips(0);
        Keys();
        return std::getenv("CALL_SEQUENCE_TRACE") != nullptr;  // names each call, for reading a reproducer
    }();
    VKLTest_Reset();
    Rig rig;
    Reader in{data, size};
    for (int step = 0; step < kMaxSteps && in.left > 0; ++step) {
        const Op& op = in.Pick(kOps);
        if (trace) std::fprintf(stderr, "call_sequence: %s\n", op.name);
        op.run(rig, in);
    }
    // The objects are torn down without injected failures: teardown is not what this target is about.
    VKLTest_Reset();
    return 0;
}
