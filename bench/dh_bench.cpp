// One party's group 14 agreement (key pair, public value out, secret from the
// peer's value) through CZulCryptDH, beside OpenSSL 3's EVP_PKEY DH with its
// defaults doing the same work.
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <czulcryptbignum.h>
#include <czulcryptcontext.h>
#include <czulcryptdh.h>

namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;

void BM_Zul_DH_Group14_KeyAndSecret(benchmark::State& state) {
    CZulCryptContext context;
    CZulCryptDH peer(context);
    if (!peer.SetOakleyGroup14()) {
        state.SkipWithError("peer set-up failed");
        return;
    }
    std::unique_ptr<CZulCryptBigNum> peerPublic(peer.GetPublicKey());
    for (auto _ : state) {
        CZulCryptDH dh(context);
        dh.SetOakleyGroup14();
        std::unique_ptr<CZulCryptBigNum> mine(dh.GetPublicKey());
        dh.ComputeSharedSecret(peerPublic.get());
        int length = 0;
        unsigned char* secret = dh.GetSharedSecret(length);
        if (!dh.GetStatus() || mine == nullptr || secret == nullptr || length != 256) {
            state.SkipWithError("agreement failed");
            break;
        }
        benchmark::DoNotOptimize(secret[0]);
    }
}
BENCHMARK(BM_Zul_DH_Group14_KeyAndSecret)->Unit(benchmark::kMicrosecond);

Pkey GenerateModp2048() {
    PkeyCtx ctx(EVP_PKEY_CTX_new_from_name(nullptr, "DH", nullptr));
    char group[] = "modp_2048";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, group, 0),
                           OSSL_PARAM_construct_end()};
    EVP_PKEY* key = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_params(ctx.get(), params) != 1 ||
        EVP_PKEY_keygen(ctx.get(), &key) != 1) {
        return nullptr;
    }
    return Pkey(key);
}

// range(0) 1: OpenSSL's default, a full check of the peer's value; 0: no check,
// the same work as the stand-in's minus its range check, to show the layers' own cost.
void BM_Raw_EVP_PKEY_DH_Group14_KeyAndSecret(benchmark::State& state) {
    const int validatePeer = static_cast<int>(state.range(0));
    Pkey peer = GenerateModp2048();
    if (!peer) {
        state.SkipWithError("peer set-up failed");
        return;
    }
    std::vector<unsigned char> secret(256);
    for (auto _ : state) {
        Pkey key = GenerateModp2048();
        BIGNUM* pub = nullptr;
        bool ok = key && EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, &pub) == 1;
        BN_free(pub);
        PkeyCtx derive(ok ? EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr) : nullptr);
        size_t length = secret.size();
        ok = ok && derive && EVP_PKEY_derive_init(derive.get()) == 1 &&
             EVP_PKEY_derive_set_peer_ex(derive.get(), peer.get(), validatePeer) == 1 &&
             EVP_PKEY_derive(derive.get(), secret.data(), &length) == 1;
        if (!ok) {
            state.SkipWithError("agreement failed");
            break;
        }
        benchmark::DoNotOptimize(secret[0]);
    }
}
BENCHMARK(BM_Raw_EVP_PKEY_DH_Group14_KeyAndSecret)
    ->ArgName("peer_check")
    ->Arg(1)
    ->Arg(0)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
