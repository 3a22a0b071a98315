// The SNMPv3 procedural interface beside raw OpenSSL 3 doing the same work the
// way SNMP engines do it today: password to key (and the Reeder key extension,
// one password to key and one localisation) against one bulk digest,
// message authentication against one-shot HMAC(), privacy against a new EVP
// cipher context per message.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/provider.h>

#include <zulcryptimpl.h>

namespace {

constexpr size_t kMebibyte = 1 << 20;

// One context handle and one handle of each kind for a benchmark's life.
struct Handles {
    Handles()
        : ctx(ZulVklCtxCreate()),
          md(ZulVklMdCtxCreate(ctx)),
          hmac(ZulVklHmacCtxCreate(ctx)),
          cipher(ZulVklCipherCtxCreate(ctx)),
          status(ZulVklStatusCreate()) {}
    ~Handles() {
        ZulVklMdCtxDestroy(ctx, md);
        ZulVklHmacCtxDestroy(ctx, hmac);
        ZulVklCipherCtxDestroy(ctx, cipher);
        ZulVklStatusDestroy(status);
        ZulVklCtxDestroy(ctx);
    }
    bool Usable() const { return ctx && md && hmac && cipher && status; }

    ZulVklCtxWrap* ctx;
    ZulVklMdCtxWrap* md;
    ZulVklHmacCtxWrap* hmac;
    ZulVklCipherCtxWrap* cipher;
    ZulVklStatusWrap* status;
};

const unsigned char kPassword[] = "maplesyrup";

// ---- Password to key (SHA-1, 1 MiB) ----

void BM_Snmp_PasswordToKey_SHA1(benchmark::State& state) {
    Handles h;
    unsigned char key[20];
    ZulVklConstBuffer password{kPassword, 10};
    ZulVklBuffer out{key, sizeof key};
    for (auto _ : state) {
        if (!h.Usable() || ZulVklMdGenerateKey(h.ctx, h.md, "SHA1", &password, &out, h.status) != 1) {
            state.SkipWithError("ZulVklMdGenerateKey failed");
            break;
        }
        benchmark::DoNotOptimize(key);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMebibyte);
}
BENCHMARK(BM_Snmp_PasswordToKey_SHA1)->Unit(benchmark::kMicrosecond);

void BM_Raw_Sha1_1MiB_OneCall(benchmark::State& state) {
    std::vector<unsigned char> data(kMebibyte);
    for (size_t i = 0; i < data.size(); ++i) data[i] = kPassword[i % 10];
    EVP_MD* sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    unsigned char key[20];
    for (auto _ : state) {
        if (EVP_Digest(data.data(), data.size(), key, nullptr, sha1, nullptr) != 1) {
            state.SkipWithError("EVP_Digest failed");
            break;
        }
        benchmark::DoNotOptimize(key);
    }
    EVP_MD_free(sha1);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMebibyte);
}
BENCHMARK(BM_Raw_Sha1_1MiB_OneCall)->Unit(benchmark::kMicrosecond);

// ---- Key extension, Reeder, SHA-1 to AES-256 (32 bytes): one password to key and one localisation ----

const unsigned char kEngineId[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
// "maplesyrup" localised to engine 00..02 with SHA-1 (RFC 3414 A.3.2).
const unsigned char kLocalisedSha1[20] = {0x66, 0x95, 0xfe, 0xbc, 0x92, 0x88, 0xe3, 0x62, 0x82, 0x23,
                                          0x5f, 0xc7, 0x15, 0x1f, 0x12, 0x84, 0x97, 0xb3, 0x8f, 0x3f};

void BM_Snmp_ExtendKey_Reeder_SHA1_AES256(benchmark::State& state) {
    Handles h;
    unsigned char key[32];
    ZulVklConstBuffer engineId{kEngineId, sizeof kEngineId};
    ZulVklConstBuffer kul{kLocalisedSha1, sizeof kLocalisedSha1};
    ZulVklBuffer out{key, sizeof key};
    for (auto _ : state) {
        if (!h.Usable() || ZulVklMdExtendKey(h.ctx, h.md, "SHA1", ZULVKL_KEY_EXTENSION_REEDER, &engineId, &kul, &out,
                                             h.status) != 1) {
            state.SkipWithError("ZulVklMdExtendKey failed");
            break;
        }
        benchmark::DoNotOptimize(key);
    }
}
BENCHMARK(BM_Snmp_ExtendKey_Reeder_SHA1_AES256)->Unit(benchmark::kMicrosecond);

// The same digests: SHA-1 of 1 MiB of the repeated key in one call, then SHA-1(Ku2 | engine ID | Ku2).
void BM_Raw_ExtendKey_Reeder_SHA1_AES256(benchmark::State& state) {
    std::vector<unsigned char> data(kMebibyte);
    for (size_t i = 0; i < data.size(); ++i) data[i] = kLocalisedSha1[i % sizeof kLocalisedSha1];
    EVP_MD* sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    unsigned char material[20 + sizeof kEngineId + 20];
    std::copy(kEngineId, kEngineId + sizeof kEngineId, material + 20);
    unsigned char key[40];
    std::copy(kLocalisedSha1, kLocalisedSha1 + 20, key);
    for (auto _ : state) {
        if (EVP_Digest(data.data(), data.size(), material, nullptr, sha1, nullptr) != 1) {
            state.SkipWithError("EVP_Digest failed");
            break;
        }
        std::copy(material, material + 20, material + 20 + sizeof kEngineId);
        if (EVP_Digest(material, sizeof material, key + 20, nullptr, sha1, nullptr) != 1) {
            state.SkipWithError("EVP_Digest failed");
            break;
        }
        benchmark::DoNotOptimize(key);
    }
    EVP_MD_free(sha1);
}
BENCHMARK(BM_Raw_ExtendKey_Reeder_SHA1_AES256)->Unit(benchmark::kMicrosecond);

// ---- Authentication digest (HMAC-SHA-1) of a message in 3 pieces ----

std::vector<unsigned char> Message(size_t length) {
    std::vector<unsigned char> message(length);
    for (size_t i = 0; i < length; ++i) message[i] = static_cast<unsigned char>(i * 31);
    return message;
}

// Keys alternate between messages when newKey is set, as for an engine serving several users.
void SnmpHmac(benchmark::State& state, bool newKey) {
    Handles h;
    const std::vector<unsigned char> message = Message(static_cast<size_t>(state.range(0)));
    const size_t third = message.size() / 3;
    ZulVklConstBuffer a{message.data(), static_cast<uint32_t>(third)};
    ZulVklConstBuffer b{message.data() + third, static_cast<uint32_t>(third)};
    ZulVklConstBuffer c{message.data() + 2 * third, static_cast<uint32_t>(message.size() - 2 * third)};
    ZulVklConstBuffer* pieces[] = {&a, &b, &c};
    unsigned char keys[2][20];
    for (int k = 0; k < 2; ++k) {
        for (int i = 0; i < 20; ++i) keys[k][i] = static_cast<unsigned char>(k * 50 + i);
    }
    unsigned char mac[20];
    ZulVklBuffer out{mac, 0};
    unsigned n = 0;
    for (auto _ : state) {
        ZulVklConstBuffer key{keys[newKey ? (n++ & 1) : 0], 20};
        if (!h.Usable() || ZulVklHmacGenerateDigest(h.ctx, h.hmac, "SHA1", pieces, 3, &key, &out, h.status) != 1) {
            state.SkipWithError("ZulVklHmacGenerateDigest failed");
            break;
        }
        benchmark::DoNotOptimize(mac);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Snmp_Hmac_SameKey(benchmark::State& state) { SnmpHmac(state, false); }
void BM_Snmp_Hmac_NewKey(benchmark::State& state) { SnmpHmac(state, true); }
BENCHMARK(BM_Snmp_Hmac_SameKey)->Arg(64)->Arg(1024)->Arg(1536);
BENCHMARK(BM_Snmp_Hmac_NewKey)->Arg(64)->Arg(1024)->Arg(1536);

void BM_Raw_Hmac_OneShot(benchmark::State& state) {
    const std::vector<unsigned char> message = Message(static_cast<size_t>(state.range(0)));
    unsigned char key[20];
    for (int i = 0; i < 20; ++i) key[i] = static_cast<unsigned char>(i);
    unsigned char mac[20];
    unsigned int length = 0;
    for (auto _ : state) {
        if (HMAC(EVP_sha1(), key, sizeof key, message.data(), message.size(), mac, &length) == nullptr) {
            state.SkipWithError("HMAC failed");
            break;
        }
        benchmark::DoNotOptimize(mac);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Raw_Hmac_OneShot)->Arg(64)->Arg(1024)->Arg(1536);

// ---- Privacy: 1 KiB message, init, gathering update, final ----

void SnmpEncrypt(benchmark::State& state, const char* name) {
    Handles h;
    const std::vector<unsigned char> message = Message(1024);
    unsigned char keyBytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const int keyLength = ZulVklCipherRequiredKeySize(h.ctx, name, h.status);
    const int ivLength = ZulVklCipherRequiredIvSize(h.ctx, name, h.status);
    ZulVklConstBuffer key{keyBytes, static_cast<uint32_t>(keyLength)}, iv{keyBytes, static_cast<uint32_t>(ivLength)};
    ZulVklConstBuffer a{message.data(), 100}, b{message.data() + 100, 400}, c{message.data() + 500, 524};
    ZulVklConstBuffer* pieces[] = {&a, &b, &c};
    std::vector<unsigned char> sealed(1024 + 32);
    for (auto _ : state) {
        ZulVklBuffer out{sealed.data(), 0};
        bool ok = h.Usable() && ZulVklCipherEncryptInit(h.ctx, h.cipher, name, &key, &iv, h.status) != 0 &&
                  ZulVklCipherSetPadding(h.ctx, h.cipher, 0, h.status) == 1 &&
                  ZulVklCipherEncryptUpdate(h.ctx, h.cipher, name, pieces, 3, &out, h.status) == 1;
        ZulVklBuffer tail{sealed.data() + out.length, 0};
        ok = ok && ZulVklCipherEncryptFinalise(h.ctx, h.cipher, name, &tail, h.status) == 1;
        if (!ok) {
            state.SkipWithError("procedural encryption failed");
            break;
        }
        benchmark::DoNotOptimize(sealed.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 1024);
}

void RawEncrypt(benchmark::State& state, const EVP_CIPHER* cipher) {
    const std::vector<unsigned char> message = Message(1024);
    unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    std::vector<unsigned char> sealed(1024 + 32);
    for (auto _ : state) {
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        int n = 0, tail = 0;
        const bool ok = ctx != nullptr && EVP_EncryptInit_ex(ctx, cipher, nullptr, key, key) == 1 &&
                        EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
                        EVP_EncryptUpdate(ctx, sealed.data(), &n, message.data(), 1024) == 1 &&
                        EVP_EncryptFinal_ex(ctx, sealed.data() + n, &tail) == 1;
        EVP_CIPHER_CTX_free(ctx);
        if (!ok) {
            state.SkipWithError("raw encryption failed");
            break;
        }
        benchmark::DoNotOptimize(sealed.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 1024);
}

void BM_Snmp_Encrypt_AES128CFB_1KiB(benchmark::State& state) { SnmpEncrypt(state, "AES-128-CFB"); }
void BM_Raw_Encrypt_AES128CFB_1KiB(benchmark::State& state) { RawEncrypt(state, EVP_aes_128_cfb128()); }
void BM_Snmp_Encrypt_DESCBC_1KiB(benchmark::State& state) { SnmpEncrypt(state, "DES-CBC"); }
void BM_Raw_Encrypt_DESCBC_1KiB(benchmark::State& state) {
    // DES lives in the legacy provider, which the default library context does not load.
    OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    OSSL_PROVIDER* base = OSSL_PROVIDER_load(nullptr, "default");
    RawEncrypt(state, EVP_des_cbc());
    OSSL_PROVIDER_unload(base);
    OSSL_PROVIDER_unload(legacy);
}
BENCHMARK(BM_Snmp_Encrypt_AES128CFB_1KiB);
BENCHMARK(BM_Raw_Encrypt_AES128CFB_1KiB);
BENCHMARK(BM_Snmp_Encrypt_DESCBC_1KiB);
BENCHMARK(BM_Raw_Encrypt_DESCBC_1KiB);

}  // namespace
