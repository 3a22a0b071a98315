// Signing and verifying 1 KiB with a 2048-bit key, each beside raw OpenSSL 3
// doing the same work on the same key material: for signing, a PKCS #1 v1.5
// encoding and a constant-time exponentiation with n and d (no CRT), which is
// what a signature object holding n and d amounts to; for verifying, OpenSSL's
// own one-shot verification with a prebuilt key.
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <czulcryptcontext.h>
#include <czulcryptsignature.h>

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

// One key for the whole run; never released.
const Key& TheKey() {
    static const Key key = [] {
        Key made;
        made.pkey = EVP_RSA_gen(2048);
        made.n = Component(made.pkey, OSSL_PKEY_PARAM_RSA_N);
        made.e = Component(made.pkey, OSSL_PKEY_PARAM_RSA_E);
        made.d = Component(made.pkey, OSSL_PKEY_PARAM_RSA_D);
        return made;
    }();
    return key;
}

const std::vector<unsigned char>& Message() {
    static const std::vector<unsigned char> message(1024, 0xA5);
    return message;
}

void BM_Zul_SignSha256_1KiB(benchmark::State& state) {
    const Key& key = TheKey();
    CZulCryptContext context;
    CZulCryptSignature signer(context);
    if (!signer.SetHashAndKey("SHA256", key.n.data(), static_cast<unsigned int>(key.n.size()), key.d.data(),
                              static_cast<unsigned int>(key.d.size()))) {
        state.SkipWithError("SetHashAndKey failed");
    }
    std::vector<unsigned char> message = Message();
    unsigned char signature[256];
    unsigned int length = 0;
    for (auto _ : state) {
        if (!signer.GetSignature(message.data(), 1024, signature, &length)) state.SkipWithError("signing failed");
        benchmark::DoNotOptimize(signature);
    }
}
BENCHMARK(BM_Zul_SignSha256_1KiB)->Unit(benchmark::kMicrosecond);

void BM_Raw_SignSha256_1KiB_NoCrt(benchmark::State& state) {
    const Key& key = TheKey();
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
    unsigned char signature[256];
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
BENCHMARK(BM_Raw_SignSha256_1KiB_NoCrt)->Unit(benchmark::kMicrosecond);

// A valid signature of the message, made once through the library.
std::vector<unsigned char> SignatureOfMessage() {
    const Key& key = TheKey();
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
    const Key& key = TheKey();
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
    EVP_PKEY* pkey = TheKey().pkey;
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

}  // namespace
