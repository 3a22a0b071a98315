// Encryption through CZulCryptCipherContext beside raw EVP doing the same work
// on a cipher fetched once. Stream: one keyed message fed piece after piece.
// Message: key, one piece, final, for every message.
#include <vector>

#include <benchmark/benchmark.h>

#include <openssl/evp.h>

#include <czulcryptciphercontext.h>

namespace {

const unsigned char kKey[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
const unsigned char kIv[16] = {0};

void LibraryStream(benchmark::State& state, const char* name) {
    CZulCryptContext context;
    CZulCryptCipherContext cipher(context);
    auto length = static_cast<int>(state.range(0));
    std::vector<unsigned char> in(static_cast<size_t>(length), 0x5a), out(static_cast<size_t>(length) + 32);
    if (!cipher.SetEncryptType(name, kKey, 0, kIv, 0)) state.SkipWithError("set-up failed");
    for (auto _ : state) {
        int written = 0;
        if (!cipher.EncryptData(in.data(), length, out.data(), &written)) {
            state.SkipWithError("encryption failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * length);
}

void RawStream(benchmark::State& state, const char* name) {
    EVP_CIPHER* evp = EVP_CIPHER_fetch(nullptr, name, nullptr);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    auto length = static_cast<int>(state.range(0));
    std::vector<unsigned char> in(static_cast<size_t>(length), 0x5a), out(static_cast<size_t>(length) + 32);
    if (evp == nullptr || ctx == nullptr || EVP_EncryptInit_ex2(ctx, evp, kKey, kIv, nullptr) != 1)
        state.SkipWithError("set-up failed");
    for (auto _ : state) {
        int written = 0;
        if (EVP_EncryptUpdate(ctx, out.data(), &written, in.data(), length) != 1) {
            state.SkipWithError("encryption failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * length);
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(evp);
}

// One message per key setting, as SNMP engines encrypt: SetType (with its FIPS
// policy check), data, final.
void LibraryMessage(benchmark::State& state, const char* name) {
    CZulCryptContext context;
    CZulCryptCipherContext cipher(context);
    auto length = static_cast<int>(state.range(0));
    std::vector<unsigned char> in(static_cast<size_t>(length), 0x5a), out(static_cast<size_t>(length) + 32);
    for (auto _ : state) {
        int written = 0, tail = 0;
        if (!cipher.SetEncryptType(name, kKey, 0, kIv, 0) ||
            !cipher.EncryptData(in.data(), length, out.data(), &written) ||
            !cipher.EncryptFinal(out.data() + written, &tail)) {
            state.SkipWithError("encryption failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * length);
}

void RawMessage(benchmark::State& state, const char* name) {
    EVP_CIPHER* evp = EVP_CIPHER_fetch(nullptr, name, nullptr);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    auto length = static_cast<int>(state.range(0));
    std::vector<unsigned char> in(static_cast<size_t>(length), 0x5a), out(static_cast<size_t>(length) + 32);
    for (auto _ : state) {
        int written = 0, tail = 0;
        if (evp == nullptr || ctx == nullptr || EVP_EncryptInit_ex2(ctx, evp, kKey, kIv, nullptr) != 1 ||
            EVP_EncryptUpdate(ctx, out.data(), &written, in.data(), length) != 1 ||
            EVP_EncryptFinal_ex(ctx, out.data() + written, &tail) != 1) {
            state.SkipWithError("encryption failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * length);
    EVP_CIPHER_CTX_free(ctx);
    EVP_CIPHER_free(evp);
}

BENCHMARK_CAPTURE(LibraryStream, AES_128_CBC, "AES-128-CBC")->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK_CAPTURE(RawStream, AES_128_CBC, "AES-128-CBC")->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK_CAPTURE(LibraryStream, AES_256_CTR, "AES-256-CTR")->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK_CAPTURE(RawStream, AES_256_CTR, "AES-256-CTR")->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK_CAPTURE(LibraryMessage, AES_128_CBC, "AES-128-CBC")->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK_CAPTURE(RawMessage, AES_128_CBC, "AES-128-CBC")->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK_CAPTURE(LibraryMessage, AES_256_CTR, "AES-256-CTR")->Arg(16 << 10)->Arg(1 << 20);
BENCHMARK_CAPTURE(RawMessage, AES_256_CTR, "AES-256-CTR")->Arg(16 << 10)->Arg(1 << 20);

}  // namespace
