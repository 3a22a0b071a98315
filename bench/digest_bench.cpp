// CZulCryptMDContext hashing one message per iteration (restart, data, final)
// beside OpenSSL 3's one-shot EVP_Digest, which fetches the digest implicitly.
#include <vector>

#include <benchmark/benchmark.h>

#include <openssl/evp.h>

#include <czulcryptmdcontext.h>

namespace {

void BM_Zul_MDContext_SHA256(benchmark::State& state) {
    CZulCryptContext context;
    CZulCryptMDContext md(context);
    std::vector<unsigned char> data(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[32];
    unsigned int outLength = 0;
    for (auto _ : state) {
        if (!md.SetType("SHA256") || !md.AddData(data.data(), static_cast<unsigned int>(data.size())) ||
            !md.GetMessageDigest(out, &outLength)) {
            state.SkipWithError("digest failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Zul_MDContext_SHA256)->Arg(64)->Arg(1024)->Arg(1 << 20);

void BM_Raw_EVP_Digest_SHA256(benchmark::State& state) {
    std::vector<unsigned char> data(static_cast<size_t>(state.range(0)), 0x5a);
    unsigned char out[32];
    unsigned int outLength = 0;
    for (auto _ : state) {
        if (EVP_Digest(data.data(), data.size(), out, &outLength, EVP_sha256(), nullptr) != 1) {
            state.SkipWithError("EVP_Digest failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Raw_EVP_Digest_SHA256)->Arg(64)->Arg(1024)->Arg(1 << 20);

}  // namespace

namespace {

// The SNMPv3 password-to-key shape: 1 MiB fed to VKL in 64-byte updates,
// beside one bulk EVP_Digest of the same mebibyte.
void BM_Vkl_Updates64_SHA1_1MiB(benchmark::State& state) {
    CZulCryptContext context;
    VKL_t* vkl = context.GetContext()->m_pCtx;
    VKL_EVP_MD_CTX_t* ctx = VKL_EVP_MD_CTX_new(vkl);
    const VKL_EVP_MD_t* md = VKL_EVP_get_digestbyname(vkl, "SHA1");
    std::vector<unsigned char> data(1 << 20, 0x5a);
    unsigned char out[20];
    for (auto _ : state) {
        bool ok = VKL_EVP_DigestInit(vkl, ctx, md) == 1;
        for (size_t at = 0; ok && at < data.size(); at += 64) ok = VKL_EVP_DigestUpdate(vkl, ctx, &data[at], 64) == 1;
        if (!ok || VKL_EVP_DigestFinal(vkl, ctx, out, nullptr) != 1) {
            state.SkipWithError("VKL digest failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    VKL_EVP_MD_CTX_free(vkl, ctx);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (1 << 20));
}
BENCHMARK(BM_Vkl_Updates64_SHA1_1MiB);

void BM_Raw_EVP_Digest_SHA1_1MiB(benchmark::State& state) {
    std::vector<unsigned char> data(1 << 20, 0x5a);
    unsigned char out[20];
    for (auto _ : state) {
        if (EVP_Digest(data.data(), data.size(), out, nullptr, EVP_sha1(), nullptr) != 1) {
            state.SkipWithError("EVP_Digest failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (1 << 20));
}
BENCHMARK(BM_Raw_EVP_Digest_SHA1_1MiB);

}  // namespace
