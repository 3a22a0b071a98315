// Complete RSA keys from n and d: the public exponent among the usual ones, the primes from
// e·d − 1, the CRT values, kept per context so that a signer pays for them once. Every operation
// with a completed key, the first one too, is OpenSSL's (blinded, constant-time CRT).
// Moduli over 4096 bits are not completed: the primality tests would cost far more than the
// exponentiation with d they save (seconds at 14336 bits), paid again by a caller cycling more
// keys than are kept; above that size the exponentiation with d stays, right for any modulus.
#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include "bignum.h"
#include "probe.h"
#include "rsa_key.h"
#include "testing_state.h"
#include "vkl_context.h"

namespace vkl {
namespace {

constexpr size_t kPrivateKeysKept = 8;
constexpr int kMaxRecoveredModulusBits = 4096;
constexpr unsigned long kUsualExponents[] = {65537, 3, 5, 17, 257};
// The continued fraction below finds k/g, g dividing gcd(p − 1, q − 1); a key with a larger
// g than this (next to none of random primes) keeps the exponentiation with d.
constexpr int kMaxDenominatorBits = 24;

struct Factors {
    BnPtr p{BN_new()}, q{BN_new()}, dp{BN_new()}, dq{BN_new()}, qinv{BN_new()};
    bool Made() const { return p && q && dp && dq && qinv; }
};

// floor(sqrt(x)) by Newton's iteration from above.
bool SquareRoot(BIGNUM* root, const BIGNUM* x, BN_CTX* ctx) {
    BnPtr next(BN_new()), quotient(BN_new());
    if (!next || !quotient || BN_lshift(root, BN_value_one(), (BN_num_bits(x) + 1) / 2) != 1) return false;
    for (;;) {
        if (BN_div(quotient.get(), nullptr, x, root, ctx) != 1 || BN_add(next.get(), root, quotient.get()) != 1 ||
            BN_rshift1(next.get(), next.get()) != 1) {
            return false;
        }
        if (BN_cmp(next.get(), root) >= 0) return true;
        BN_swap(root, next.get());
    }
}

// p and q with p·q = n and e·d ≡ 1 modulo p − 1 and q − 1, when e is the key's exponent.
// e·d − 1 = k·λ(n) with a small k, and φ(n) = λ(n)·g lies just below n, so k/g is a
// convergent of (e·d − 1)/n; each candidate gives φ, then p + q = n − φ + 1 and p, q as the
// roots of x² − (p + q)x + n. A handful of divisions, where the randomized method of
// NIST SP 800-56B appendix C would cost a full exponentiation per try.
// Runs once per key and context; like any derivation of CRT values its timing depends on the key.
bool Factor(const BIGNUM* n, const BIGNUM* d, unsigned long e, Factors& out, BN_CTX* ctx, bool& failed) {
    BnPtr m(BN_dup(d)), a(BN_new()), b(BN_dup(n)), h0(BN_new()), h1(BN_new()), k0(BN_new()), k1(BN_new());
    BnPtr quotient(BN_new()), rest(BN_new()), t(BN_new()), phi(BN_new()), s(BN_new()), disc(BN_new()), root(BN_new());
    failed = !m || !a || !b || !h0 || !h1 || !k0 || !k1 || !quotient || !rest || !t || !phi || !s || !disc || !root ||
             BN_mul_word(m.get(), e) != 1 || BN_sub_word(m.get(), 1) != 1 || !BN_copy(a.get(), m.get()) ||
             BN_one(h1.get()) != 1 || BN_one(k0.get()) != 1;
    // Convergents h/k: h(i) = q(i)·h(i−1) + h(i−2), the same for k, from h = 1, 0 and k = 0, 1.
    while (!failed && !BN_is_zero(b.get()) && BN_num_bits(k1.get()) <= kMaxDenominatorBits) {
        failed = BN_div(quotient.get(), rest.get(), a.get(), b.get(), ctx) != 1 || !BN_copy(a.get(), b.get()) ||
                 !BN_copy(b.get(), rest.get()) || BN_mul(t.get(), quotient.get(), h1.get(), ctx) != 1 ||
                 BN_add(h0.get(), h0.get(), t.get()) != 1 || BN_mul(t.get(), quotient.get(), k1.get(), ctx) != 1 ||
                 BN_add(k0.get(), k0.get(), t.get()) != 1;
        if (failed) break;
        BN_swap(h0.get(), h1.get());
        BN_swap(k0.get(), k1.get());
        if (BN_is_zero(h1.get())) continue;
        failed = BN_mul(t.get(), m.get(), k1.get(), ctx) != 1 ||
                 BN_div(phi.get(), rest.get(), t.get(), h1.get(), ctx) != 1;
        if (failed || !BN_is_zero(rest.get())) continue;
        // s = n − φ + 1 = p + q; its square less 4n is (p − q)², above 0; a root that is not exact
        // gives p·q ≠ n below.
        failed = BN_sub(s.get(), n, phi.get()) != 1 || BN_add_word(s.get(), 1) != 1 ||
                 BN_sqr(disc.get(), s.get(), ctx) != 1 || BN_lshift(t.get(), n, 2) != 1 ||
                 BN_sub(disc.get(), disc.get(), t.get()) != 1;
        if (failed || BN_is_negative(s.get()) || BN_is_negative(disc.get()) || BN_is_zero(disc.get())) continue;
        failed = !SquareRoot(root.get(), disc.get(), ctx) || BN_add(out.p.get(), s.get(), root.get()) != 1 ||
                 BN_rshift1(out.p.get(), out.p.get()) != 1 || BN_sub(out.q.get(), s.get(), root.get()) != 1 ||
                 BN_rshift1(out.q.get(), out.q.get()) != 1 || BN_mul(t.get(), out.p.get(), out.q.get(), ctx) != 1;
        if (failed || BN_cmp(t.get(), n) != 0 || BN_is_one(out.q.get())) continue;
        // e·d ≡ 1 modulo both p − 1 and q − 1: then d mod (p − 1) and d mod (q − 1) are exact.
        failed = !BN_copy(phi.get(), out.p.get()) || BN_sub_word(phi.get(), 1) != 1 ||
                 BN_mod(rest.get(), m.get(), phi.get(), ctx) != 1 || BN_mod(out.dp.get(), d, phi.get(), ctx) != 1;
        if (failed || !BN_is_zero(rest.get())) continue;
        failed = !BN_copy(phi.get(), out.q.get()) || BN_sub_word(phi.get(), 1) != 1 ||
                 BN_mod(rest.get(), m.get(), phi.get(), ctx) != 1 || BN_mod(out.dq.get(), d, phi.get(), ctx) != 1;
        if (failed || !BN_is_zero(rest.get())) continue;
        return true;
    }
    return false;
}

// A key whose factors are not both prime would make OpenSSL's CRT give other results than m^d mod n,
// and its check with e can pass all the same: a composite P = r·(2r − 1) passes a Fermat test for half
// of all bases. Miller-Rabin with OpenSSL's rounds for the size (64 for 2048 bits and below) lets a
// composite through with a chance below 2^-128. Also q⁻¹ mod p, without a branch on the secrets.
bool Primes(Factors& f, BN_CTX* ctx, bool& failed) {
    const int p = BN_check_prime(f.p.get(), ctx, nullptr);
    const int q = p == 1 ? BN_check_prime(f.q.get(), ctx, nullptr) : 0;
    failed = p < 0 || q < 0;
    if (q != 1) return false;
    BN_set_flags(f.q.get(), BN_FLG_CONSTTIME);
    failed = BN_mod_inverse(f.qinv.get(), f.q.get(), f.p.get(), ctx) == nullptr;
    return !failed;
}

bool PushSecret(OSSL_PARAM_BLD* bld, const char* key, BIGNUM* number) {
    BN_set_flags(number, BN_FLG_SECURE);
    return OSSL_PARAM_BLD_push_BN(bld, key, number) == 1;
}

PkeyPtr Import(VKL_t* vkl, const BIGNUM* n, unsigned long e, const BIGNUM* d, Factors& f) {
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    BnPtr exponent(BN_new()), secretD(BN_dup(d));
    bool ok = bld && exponent && secretD && BN_set_word(exponent.get(), e) == 1 &&
              OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n) == 1 &&
              OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()) == 1;
    const std::pair<const char*, BIGNUM*> secrets[] = {
        {OSSL_PKEY_PARAM_RSA_D, secretD.get()},      {OSSL_PKEY_PARAM_RSA_FACTOR1, f.p.get()},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, f.q.get()},    {OSSL_PKEY_PARAM_RSA_EXPONENT1, f.dp.get()},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, f.dq.get()}, {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, f.qinv.get()}};
    for (const auto& secret : secrets) ok = ok && PushSecret(bld.get(), secret.first, secret.second);
    if (!ok) return nullptr;
    ParamsPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
    PkeyCtxPtr ctx(params ? EVP_PKEY_CTX_new_from_name(vkl->libctx.get(), "RSA", nullptr) : nullptr);
    EVP_PKEY* made = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &made, EVP_PKEY_KEYPAIR, params.get()) != 1) {
        return nullptr;
    }
    return PkeyPtr(made);
}

// SHA-256 over the length of n, n and d: the name of the key in the context's list.
bool MakeKeyId(VKL_t* vkl, const VKL_RSA_t* rsa, KeyId& id) {
    const VKL_EVP_MD_s* sha256 = FetchDigest(vkl, "SHA256", "VKL_RSA/recover");
    const BIGNUM* n = rsa->n->bn.get();
    const BIGNUM* d = rsa->d->bn.get();
    const int nLength = BN_num_bytes(n);
    std::vector<unsigned char> bytes(4 + static_cast<size_t>(nLength) + static_cast<size_t>(BN_num_bytes(d)));
    for (int i = 0; i < 4; ++i) bytes[static_cast<size_t>(i)] = static_cast<unsigned char>(nLength >> (24 - 8 * i));
    BN_bn2bin(d, bytes.data() + 4 + nLength);
    unsigned int length = 0;
    const bool ok = sha256 != nullptr && BN_bn2bin(n, bytes.data() + 4) == nLength &&
                    EVP_Digest(bytes.data(), bytes.size(), id.data(), &length, sha256->md.get(), nullptr) == 1 &&
                    length == id.size();
    OPENSSL_cleanse(bytes.data(), bytes.size());
    return ok;
}

// The entry named `id`, moved to the front; false when there is none. Drops everything made
// before the latest test reset first.
bool Lookup(VKL_t* vkl, const KeyId& id, PkeyPtr& key) {
    std::lock_guard<std::mutex> lock(vkl->privateKeyLock);
    const unsigned long resets = g_resets.load(std::memory_order_relaxed);
    if (vkl->keysReset != resets) {
        vkl->privateKeys.clear();
        vkl->keysReset = resets;
    }
    for (auto it = vkl->privateKeys.begin(); it != vkl->privateKeys.end(); ++it) {
        if (CRYPTO_memcmp(it->id.data(), id.data(), id.size()) != 0) continue;
        vkl->privateKeys.splice(vkl->privateKeys.begin(), vkl->privateKeys, it);
        if (it->key && EVP_PKEY_up_ref(it->key.get()) == 1) key.reset(it->key.get());
        return true;
    }
    return false;
}

void Remember(VKL_t* vkl, const KeyId& id, const PkeyPtr& key) {
    EVP_PKEY* reference = key && EVP_PKEY_up_ref(key.get()) == 1 ? key.get() : nullptr;
    if (key && reference == nullptr) return;
    std::lock_guard<std::mutex> lock(vkl->privateKeyLock);
    // Another thread may have recovered the same key meanwhile: one entry is enough.
    for (const RecoveredKey& entry : vkl->privateKeys) {
        if (CRYPTO_memcmp(entry.id.data(), id.data(), id.size()) == 0) {
            EVP_PKEY_free(reference);
            return;
        }
    }
    vkl->privateKeys.emplace_front();
    vkl->privateKeys.front().id = id;
    vkl->privateKeys.front().key.reset(reference);
    // The least recently used goes, its key freed by OpenSSL with its secrets cleared.
    if (vkl->privateKeys.size() > kPrivateKeysKept) vkl->privateKeys.pop_back();
}

}  // namespace

PkeyPtr CompleteKey(VKL_t* vkl, const VKL_RSA_t* rsa) {
    ErrorScope errors;
    KeyId id;
    PkeyPtr key;
    if (MakeKeyId(vkl, rsa, id)) (void)Lookup(vkl, id, key);
    OPENSSL_cleanse(id.data(), id.size());
    errors.Drop();
    return key;
}

PkeyPtr RecoverKey(VKL_t* vkl, const VKL_RSA_t* rsa, BN_CTX* ctx) {
    const BIGNUM* n = rsa->n->bn.get();
    const BIGNUM* d = rsa->d->bn.get();
    // d of 0 or 1 fits no key.
    if (BN_cmp(d, BN_value_one()) <= 0 || BN_num_bits(n) > kMaxRecoveredModulusBits) return nullptr;
    ErrorScope errors;
    KeyId id;
    PkeyPtr key;
    if (!MakeKeyId(vkl, rsa, id) || Lookup(vkl, id, key)) {
        OPENSSL_cleanse(id.data(), id.size());
        errors.Drop();
        return key;
    }
    Factors factors;
    bool failed = !factors.Made();
    unsigned long e = 0;
    for (unsigned long candidate : kUsualExponents) {
        if (failed || e != 0) break;
        if (Factor(n, d, candidate, factors, ctx, failed)) e = candidate;
    }
    if (!failed && e != 0 && Primes(factors, ctx, failed)) {
        key = Import(vkl, n, e, d, factors);
        failed = !key;
    }
    static Probe& probe = Probe::Named("VKL_RSA/recover");
    if (probe.Enter(key ? static_cast<long>(e) : 0L)) {
        failed = true;
        key.reset();
    }
    // A key that no usual e fits, or whose factors are not primes, is remembered as such; a
    // failure is not, so the next call tries again.
    if (!failed) Remember(vkl, id, key);
    OPENSSL_cleanse(id.data(), id.size());
    errors.Drop();
    return key;
}

}  // namespace vkl
