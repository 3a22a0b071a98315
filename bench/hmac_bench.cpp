// CZulCryptHMAC::GetHMAC beside OpenSSL 3's one-shot HMAC(), same key and data.
#include <vector>

#include <benchmark/benchmark.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <czulcrypthmac.h>

namespace {

const unsigned char kKey[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

void BM_Zul_GetHMAC_SHA256(benchmark::State& state) {
    CZulCryptContext context;
    CZulCryptHMAC hmac(context, "SHA256", kKey, sizeof kKey);
    std::vector<unsigned char> data(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[32];
    unsigned int outLength = 0;
    for (auto _ : state) {
        if (!hmac.GetHMAC(data.data(), static_cast<unsigned int>(data.size()), out, &outLength)) {
            state.SkipWithError("GetHMAC failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Zul_GetHMAC_SHA256)->Arg(64)->Arg(1024)->Arg(64 * 1024);

void BM_Raw_HMAC_SHA256(benchmark::State& state) {
    std::vector<unsigned char> data(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[32];
    unsigned int outLength = 0;
    for (auto _ : state) {
        if (HMAC(EVP_sha256(), kKey, sizeof kKey, data.data(), data.size(), out, &outLength) == nullptr) {
            state.SkipWithError("HMAC failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Raw_HMAC_SHA256)->Arg(64)->Arg(1024)->Arg(64 * 1024);

}  // namespace
