// The cost of the stand-in's instrumentation when no fault is armed: a cheap
// VKL call beside the same OpenSSL call on the same library context setup.
#include <benchmark/benchmark.h>

#include <openssl/rand.h>

#include <czulcryptcontext.h>

namespace {

void BM_Vkl_RandBytes32(benchmark::State& state) {
    CZulCryptContext context;
    VKL_t* vkl = context.GetContext()->m_pCtx;
    unsigned char out[32];
    for (auto _ : state) {
        if (VKL_RAND_bytes(vkl, out, sizeof out) != 1) state.SkipWithError("VKL_RAND_bytes failed");
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_Vkl_RandBytes32);

void BM_Raw_RandBytes32(benchmark::State& state) {
    OSSL_LIB_CTX* libctx = OSSL_LIB_CTX_new();
    unsigned char out[32];
    for (auto _ : state) {
        if (RAND_bytes_ex(libctx, out, sizeof out, 0) != 1) state.SkipWithError("RAND_bytes_ex failed");
        benchmark::DoNotOptimize(out);
    }
    OSSL_LIB_CTX_free(libctx);
}
BENCHMARK(BM_Raw_RandBytes32);

}  // namespace
