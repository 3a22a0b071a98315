// RSA with a key given as n and d, each case beside raw OpenSSL 3 doing the same work on the
// same key material. Signing 1 KiB with SHA-256 is set beside OpenSSL's own signing with the
// complete key (CRT and blinding), and beside a PKCS #1 v1.5 encoding and a constant-time
// exponentiation with n and d (no CRT), which is what such a key amounted to before VKL completed
// it. The first signature with a new key (VKL forgets its keys at every iteration) includes the
// recovery. VKL runs the prime tests of a recovered key's factors at its 64th private operation,
// so the steady-state cases start after a warm-up of that many. Raw private encryption and decryption through CZulCryptRSACalculator are set beside
// OpenSSL's with the complete key; verification beside OpenSSL's one-shot verification.
#include <cstring>
#include <map>
#include <vector>

#include <benchmark/benchmark.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <czulcryptcontext.h>
#include <czulcryptrsacalculator.h>
#include <czulcryptrsakey.h>
#include <czulcryptsignature.h>
#include <vkl_testing.h>

namespace {

struct Key {
    EVP_PKEY* pkey = nullptr;  // complete key, for generation and the raw verification
    std::vector<unsigned char> n, e, d;
};

std::vector<unsigned char> Component(EVP_PKEY* pkey, const char* name) {
    BIGNUM* value = nullptr;
    std::vector<unsigned char> bytes;
    if (EVP_PKEY_get_bn_param(pkey, name, &value) == 1) {
        bytes.resize(static_cast<size_t>(BN_num_bytes(value)));
        BN_bn2bin(value, bytes.data());
    }
    BN_clear_free(value);
    return bytes;
}

// One key per size for the whole run; never released.
const Key& TheKey(int bits) {
    static std::map<int, Key> keys;
    Key& key = keys[bits];
    if (key.pkey == nullptr) {
        key.pkey = EVP_RSA_gen(static_cast<unsigned int>(bits));
        key.n = Component(key.pkey, OSSL_PKEY_PARAM_RSA_N);
        key.e = Component(key.pkey, OSSL_PKEY_PARAM_RSA_E);
        key.d = Component(key.pkey, OSSL_PKEY_PARAM_RSA_D);
    }
    return key;
}

constexpr int kWarmUp = 64;

const std::vector<unsigned char>& Message() {
    static const std::vector<unsigned char> message(1024, 0xA5);
    return message;
}

// Steady state: VKL completes the key at the first signature and keeps it, with its tested factors
// from the 64th on.
void ZulSign(benchmark::State& state, bool newKey) {
    const Key& key = TheKey(static_cast<int>(state.range(0)));
    CZulCryptContext context;
    CZulCryptSignature signer(context);
    if (!signer.SetHashAndKey("SHA256", key.n.data(), static_cast<unsigned int>(key.n.size()), key.d.data(),
                              static_cast<unsigned int>(key.d.size()))) {
        state.SkipWithError("SetHashAndKey failed");
    }
    std::vector<unsigned char> message = Message();
    unsigned char signature[512];
    unsigned int length = 0;
    for (int i = 0; !newKey && i < kWarmUp; ++i) signer.GetSignature(message.data(), 1024, signature, &length);
    for (auto _ : state) {
        if (newKey) {
            state.PauseTiming();
            VKLTest_Reset();
            state.ResumeTiming();
        }
        if (!signer.GetSignature(message.data(), 1024, signature, &length)) state.SkipWithError("signing failed");
        benchmark::DoNotOptimize(signature);
    }
}

void BM_Zul_SignSha256_1KiB(benchmark::State& state) { ZulSign(state, false); }
BENCHMARK(BM_Zul_SignSha256_1KiB)->Arg(2048)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_Zul_SignSha256_1KiB_NewKey(benchmark::State& state) { ZulSign(state, true); }
BENCHMARK(BM_Zul_SignSha256_1KiB_NewKey)->Arg(2048)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_Raw_SignSha256_1KiB_FullKey(benchmark::State& state) {
    EVP_PKEY* pkey = TheKey(static_cast<int>(state.range(0))).pkey;
    const std::vector<unsigned char>& message = Message();
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    unsigned char signature[512];
    for (auto _ : state) {
        size_t length = sizeof signature;
        if (EVP_DigestSignInit_ex(ctx, nullptr, "SHA256", nullptr, nullptr, pkey, nullptr) != 1 ||
            EVP_DigestSign(ctx, signature, &length, message.data(), message.size()) != 1) {
            state.SkipWithError("raw signing failed");
        }
        benchmark::DoNotOptimize(signature);
    }
    EVP_MD_CTX_free(ctx);
}
BENCHMARK(BM_Raw_SignSha256_1KiB_FullKey)->Arg(2048)->Arg(4096)->Unit(benchmark::kMicrosecond);

void BM_Raw_SignSha256_1KiB_NoCrt(benchmark::State& state) {
    const Key& key = TheKey(static_cast<int>(state.range(0)));
    // The DER DigestInfo prefix of SHA-256 (RFC 8017 section 9.2, note 1).
    static const unsigned char kPrefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                            0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    BIGNUM* n = BN_bin2bn(key.n.data(), static_cast<int>(key.n.size()), nullptr);
    BIGNUM* d = BN_bin2bn(key.d.data(), static_cast<int>(key.d.size()), nullptr);
    BN_set_flags(d, BN_FLG_CONSTTIME);
    BN_CTX* bnCtx = BN_CTX_new();
    BN_MONT_CTX* mont = BN_MONT_CTX_new();
    BN_MONT_CTX_set(mont, n, bnCtx);
    EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    BIGNUM* m = BN_new();
    BIGNUM* s = BN_new();
    const std::vector<unsigned char>& message = Message();
    const size_t k = key.n.size();
    std::vector<unsigned char> em(k);
    unsigned char signature[512];
    for (auto _ : state) {
        unsigned char hash[32];
        unsigned int hashLength = 0;
        bool ok = EVP_Digest(message.data(), message.size(), hash, &hashLength, sha256, nullptr) == 1;
        const size_t t = sizeof kPrefix + hashLength;
        em[0] = 0x00;
        em[1] = 0x01;
        std::memset(em.data() + 2, 0xFF, k - t - 3);
        em[k - t - 1] = 0x00;
        std::memcpy(em.data() + k - t, kPrefix, sizeof kPrefix);
        std::memcpy(em.data() + k - hashLength, hash, hashLength);
        ok = ok && BN_bin2bn(em.data(), static_cast<int>(k), m) != nullptr &&
             BN_mod_exp_mont_consttime(s, m, d, n, bnCtx, mont) == 1 &&
             BN_bn2binpad(s, signature, static_cast<int>(k)) == static_cast<int>(k);
        if (!ok) state.SkipWithError("raw signing failed");
        benchmark::DoNotOptimize(signature);
    }
    BN_free(s);
    BN_free(m);
    EVP_MD_free(sha256);
    BN_MONT_CTX_free(mont);
    BN_CTX_free(bnCtx);
    BN_clear_free(d);
    BN_free(n);
}
BENCHMARK(BM_Raw_SignSha256_1KiB_NoCrt)->Arg(2048)->Arg(4096)->Unit(benchmark::kMicrosecond);

// A valid signature of the message, made once through the library.
std::vector<unsigned char> SignatureOfMessage() {
    const Key& key = TheKey(2048);
    CZulCryptContext context;
    CZulCryptSignature signer(context);
    std::vector<unsigned char> message = Message();
    std::vector<unsigned char> signature(256);
    unsigned int length = 0;
    if (!signer.SetHashAndKey("SHA256", key.n.data(), static_cast<unsigned int>(key.n.size()), key.d.data(),
                              static_cast<unsigned int>(key.d.size())) ||
        !signer.GetSignature(message.data(), 1024, signature.data(), &length)) {
        signature.clear();
    }
    return signature;
}

void BM_Zul_VerifySha256_1KiB(benchmark::State& state) {
    const Key& key = TheKey(2048);
    std::vector<unsigned char> signature = SignatureOfMessage();
    CZulCryptContext context;
    CZulCryptSignature verifier(context);
    if (!verifier.SetHashAndKey("SHA256", key.n.data(), static_cast<unsigned int>(key.n.size()), key.e.data(),
                                static_cast<unsigned int>(key.e.size()))) {
        state.SkipWithError("SetHashAndKey failed");
    }
    std::vector<unsigned char> message = Message();
    for (auto _ : state) {
        if (!verifier.VerifySignature(message.data(), 1024, signature.data(), 256)) {
            state.SkipWithError("verification failed");
        }
    }
}
BENCHMARK(BM_Zul_VerifySha256_1KiB)->Unit(benchmark::kMicrosecond);

void BM_Raw_VerifySha256_1KiB(benchmark::State& state) {
    EVP_PKEY* pkey = TheKey(2048).pkey;
    std::vector<unsigned char> signature = SignatureOfMessage();
    const std::vector<unsigned char>& message = Message();
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    for (auto _ : state) {
        if (EVP_DigestVerifyInit_ex(ctx, nullptr, "SHA256", nullptr, nullptr, pkey, nullptr) != 1 ||
            EVP_DigestVerify(ctx, signature.data(), signature.size(), message.data(), message.size()) != 1) {
            state.SkipWithError("raw verification failed");
        }
    }
    EVP_MD_CTX_free(ctx);
}
BENCHMARK(BM_Raw_VerifySha256_1KiB)->Unit(benchmark::kMicrosecond);

// 32 bytes, as a key or a digest would be, privately encrypted (block type 1) or, encrypted with
// e beforehand, decrypted; the calculator with n and d, OpenSSL with the complete key.
const unsigned char kSecret[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                   17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

void ZulPrivate(benchmark::State& state, bool decrypt) {
    const Key& key = TheKey(static_cast<int>(state.range(0)));
    CZulCryptContext context;
    CZulCryptBigNum n(context), d(context), e(context);
    n.SetNumber(static_cast<unsigned int>(key.n.size()), key.n.data());
    d.SetNumber(static_cast<unsigned int>(key.d.size()), key.d.data());
    e.SetNumber(static_cast<unsigned int>(key.e.size()), key.e.data());
    CZulCryptRSAKey privateKey(context), publicKey(context);
    privateKey.PopulateWithPrivate(&n, &d);
    publicKey.PopulateWithPublic(&n, &e);
    CZulCryptRSACalculator calculator(context);
    unsigned char in[512], out[512];
    const int sealed = calculator.RSAPublicEncrypt(kSecret, sizeof kSecret, publicKey, in);
    for (int i = 0; i < kWarmUp; ++i) calculator.RSAPrivateEncrypt(kSecret, sizeof kSecret, privateKey, out);
    for (auto _ : state) {
        const int written = decrypt ? calculator.RSAPrivateDecrypt(in, static_cast<unsigned int>(sealed), privateKey, out)
                                    : calculator.RSAPrivateEncrypt(kSecret, sizeof kSecret, privateKey, out);
        if (written < 0) state.SkipWithError("private operation failed");
        benchmark::DoNotOptimize(out);
    }
}

void BM_Zul_RSAPrivateEncrypt32(benchmark::State& state) { ZulPrivate(state, false); }
BENCHMARK(BM_Zul_RSAPrivateEncrypt32)->Arg(2048)->Unit(benchmark::kMicrosecond);

void BM_Zul_RSAPrivateDecrypt32(benchmark::State& state) { ZulPrivate(state, true); }
BENCHMARK(BM_Zul_RSAPrivateDecrypt32)->Arg(2048)->Unit(benchmark::kMicrosecond);

void RawPrivate(benchmark::State& state, bool decrypt) {
    EVP_PKEY* pkey = TheKey(static_cast<int>(state.range(0))).pkey;
    unsigned char in[512], out[512];
    size_t sealed = sizeof in;
    EVP_PKEY_CTX* sealer = EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr);
    if (sealer == nullptr || EVP_PKEY_encrypt_init(sealer) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(sealer, RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_encrypt(sealer, in, &sealed, kSecret, sizeof kSecret) != 1) {
        state.SkipWithError("raw encryption failed");
    }
    EVP_PKEY_CTX_free(sealer);
    for (auto _ : state) {
        EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr);
        size_t written = sizeof out;
        const bool ok = ctx != nullptr && (decrypt ? EVP_PKEY_decrypt_init(ctx) : EVP_PKEY_sign_init(ctx)) == 1 &&
                        EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
                        (decrypt ? EVP_PKEY_decrypt(ctx, out, &written, in, sealed)
                                 : EVP_PKEY_sign(ctx, out, &written, kSecret, sizeof kSecret)) == 1;
        EVP_PKEY_CTX_free(ctx);
        if (!ok) state.SkipWithError("raw private operation failed");
        benchmark::DoNotOptimize(out);
    }
}

void BM_Raw_RSAPrivateEncrypt32(benchmark::State& state) { RawPrivate(state, false); }
BENCHMARK(BM_Raw_RSAPrivateEncrypt32)->Arg(2048)->Unit(benchmark::kMicrosecond);

void BM_Raw_RSAPrivateDecrypt32(benchmark::State& state) { RawPrivate(state, true); }
BENCHMARK(BM_Raw_RSAPrivateDecrypt32)->Arg(2048)->Unit(benchmark::kMicrosecond);

}  // namespace
