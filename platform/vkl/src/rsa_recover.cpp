// Complete RSA keys from n and d: the public exponent among the usual ones, the factors from
// e·d − 1, the CRT values, kept per context so that a signer pays for them once.
// Until both factors pass their prime tests, each operation checks that its own message m
// satisfies m^(p − 1) ≡ 1 mod p, and the same for q: then m^d ≡ m^(d mod (p − 1)) mod p exactly,
// whatever p is, and the CRT with reduced exponents is m^d mod n. A factor whose check fails (p
// is then composite) takes the whole d, which is right modulo any p. OpenSSL's own CRT would not
// do: its blinding needs e·d ≡ 1 modulo λ(n), which a composite p can break. The checks cost
// about one signature more; the prime tests cost some 60 to 140, so they wait until the key has
// been used kUsesBeforePrimeTests times, and a signer never pays much over twice the least it could.
// From then on every operation is OpenSSL's (blinded, constant-time CRT).
// Moduli over 4096 bits are not completed: the primality tests would cost far more than the
// exponentiation with d they save (seconds at 14336 bits), paid again by a caller cycling more
// keys than are kept; above that size the exponentiation with d stays, right for any modulus.
#include <algorithm>
#include <list>
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
constexpr unsigned kUsesBeforePrimeTests = 64;
constexpr int kMaxRecoveredModulusBits = 4096;
constexpr unsigned long kUsualExponents[] = {65537, 3, 5, 17, 257};
// The continued fraction below finds k/g, g dividing gcd(p − 1, q − 1); a key with a larger
// g than this (next to none of random primes) keeps the exponentiation with d.
constexpr int kMaxDenominatorBits = 24;

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
bool Factor(const BIGNUM* n, const BIGNUM* d, unsigned long e, SplitKey& out, BN_CTX* ctx, bool& failed) {
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
        // e·d ≡ 1 modulo both p − 1 and q − 1, so that e is the key's exponent.
        failed = !BN_copy(phi.get(), out.p.get()) || BN_sub_word(phi.get(), 1) != 1 ||
                 BN_mod(rest.get(), m.get(), phi.get(), ctx) != 1;
        if (failed || !BN_is_zero(rest.get())) continue;
        failed = !BN_copy(phi.get(), out.q.get()) || BN_sub_word(phi.get(), 1) != 1 ||
                 BN_mod(rest.get(), m.get(), phi.get(), ctx) != 1;
        if (failed || !BN_is_zero(rest.get())) continue;
        return true;
    }
    return false;
}

// The rest of the split key for the factors found; false when q has no inverse modulo p (they
// are not coprime) or OpenSSL failed.
bool Prepare(SplitKey& key, const BIGNUM* d, BN_CTX* ctx) {
    key.montP.reset(BN_MONT_CTX_new());
    key.montQ.reset(BN_MONT_CTX_new());
    for (BnPtr* number : {&key.pLess, &key.qLess, &key.dp, &key.dq, &key.qinv, &key.qinvR2}) {
        number->reset(BN_secure_new());
        if (!*number) return false;
        // Divisions, exponentiations and the inverse without a branch on the secrets.
        BN_set_flags(number->get(), BN_FLG_CONSTTIME);
    }
    BN_set_flags(key.p.get(), BN_FLG_CONSTTIME);
    BN_set_flags(key.q.get(), BN_FLG_CONSTTIME);
    if (!key.montP || !key.montQ || BN_MONT_CTX_set(key.montP.get(), key.p.get(), ctx) != 1 ||
        BN_MONT_CTX_set(key.montQ.get(), key.q.get(), ctx) != 1 || !BN_copy(key.pLess.get(), key.p.get()) ||
        BN_sub_word(key.pLess.get(), 1) != 1 || !BN_copy(key.qLess.get(), key.q.get()) ||
        BN_sub_word(key.qLess.get(), 1) != 1 || BN_mod(key.dp.get(), d, key.pLess.get(), ctx) != 1 ||
        BN_mod(key.dq.get(), d, key.qLess.get(), ctx) != 1) {
        return false;
    }
    return BN_mod_inverse(key.qinv.get(), key.q.get(), key.p.get(), ctx) != nullptr &&
           BN_to_montgomery(key.qinvR2.get(), key.qinv.get(), key.montP.get(), ctx) == 1 &&
           BN_to_montgomery(key.qinvR2.get(), key.qinvR2.get(), key.montP.get(), ctx) == 1;
}

// OpenSSL's key for (n, d) with the split key's factors and CRT values, once they passed their tests.
// A number in secure memory goes to the builder's secure block, which OSSL_PARAM_free wipes; the
// split key's numbers are there already, d is copied there.
PkeyPtr Import(VKL_t* vkl, const BIGNUM* n, const BIGNUM* d, const SplitKey& split) {
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    BnPtr exponent(BN_new()), secretD(BN_secure_new());
    bool ok = bld && exponent && secretD && BN_set_word(exponent.get(), split.e) == 1 && BN_copy(secretD.get(), d);
    const std::pair<const char*, const BIGNUM*> numbers[] = {
        {OSSL_PKEY_PARAM_RSA_N, n},
        {OSSL_PKEY_PARAM_RSA_E, exponent.get()},
        {OSSL_PKEY_PARAM_RSA_D, secretD.get()},
        {OSSL_PKEY_PARAM_RSA_FACTOR1, split.p.get()},
        {OSSL_PKEY_PARAM_RSA_FACTOR2, split.q.get()},
        {OSSL_PKEY_PARAM_RSA_EXPONENT1, split.dp.get()},
        {OSSL_PKEY_PARAM_RSA_EXPONENT2, split.dq.get()},
        {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, split.qinv.get()}};
    for (const auto& number : numbers) ok = ok && OSSL_PARAM_BLD_push_BN(bld.get(), number.first, number.second) == 1;
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

// The entry named `id`, or the list's end; the caller holds the lock.
std::list<RecoveredKey>::iterator Find(VKL_t* vkl, const KeyId& id) {
    return std::find_if(vkl->privateKeys.begin(), vkl->privateKeys.end(), [&id](const RecoveredKey& entry) {
        return CRYPTO_memcmp(entry.id.data(), id.data(), id.size()) == 0;
    });
}

// The entry named `id`, moved to the front; false when there is none. Drops everything made
// before the latest test reset first. With `due`, counts a use of a split key and sets `due` when
// the caller is to run its prime tests.
bool Lookup(VKL_t* vkl, const KeyId& id, Recovered& found, bool* due) {
    std::lock_guard<std::mutex> lock(vkl->privateKeyLock);
    const unsigned long resets = g_resets.load(std::memory_order_relaxed);
    if (vkl->keysReset != resets) {
        vkl->privateKeys.clear();
        vkl->keysReset = resets;
    }
    const auto it = Find(vkl, id);
    if (it == vkl->privateKeys.end()) return false;
    vkl->privateKeys.splice(vkl->privateKeys.begin(), vkl->privateKeys, it);
    if (it->key && EVP_PKEY_up_ref(it->key.get()) == 1) found.key.reset(it->key.get());
    found.split = it->split;
    if (due != nullptr && it->split && !it->tested && ++it->uses >= kUsesBeforePrimeTests) {
        it->tested = true;
        *due = true;
    }
    return true;
}

// Keeps the split key found for `id` (null when no usual e fits) as a new entry.
void Remember(VKL_t* vkl, const KeyId& id, const Recovered& found) {
    std::lock_guard<std::mutex> lock(vkl->privateKeyLock);
    // Another thread may have recovered the same key meanwhile: one entry is enough.
    if (Find(vkl, id) != vkl->privateKeys.end()) return;
    vkl->privateKeys.emplace_front();
    RecoveredKey& entry = vkl->privateKeys.front();
    entry.id = id;
    entry.split = found.split;
    entry.uses = 1;
    // The least recently used goes, its key freed by OpenSSL with its secrets cleared.
    if (vkl->privateKeys.size() > kPrivateKeysKept) vkl->privateKeys.pop_back();
}

// Runs the prime tests of a split key's factors: when both pass, OpenSSL's key replaces the split
// one, for this operation too; otherwise the split key stays, right for any coprime factors.
// Miller-Rabin with OpenSSL's rounds for the size (64 for 2048 bits and below) lets a composite
// through with a chance below 2^-128, where a Fermat test passes P = r·(2r − 1) for half of all bases.
void Settle(VKL_t* vkl, const VKL_RSA_t* rsa, const KeyId& id, Recovered& found) {
    const SplitKey& split = *found.split;
    BnCtxPtr ctx(BN_CTX_secure_new_ex(vkl->libctx.get()));
    const int pPrime = ctx ? BN_check_prime(split.p.get(), ctx.get(), nullptr) : -1;
    const int qPrime = pPrime == 1 ? BN_check_prime(split.q.get(), ctx.get(), nullptr) : pPrime;
    if (qPrime == 0) return;
    if (qPrime == 1) found.key = Import(vkl, rsa->n->bn.get(), rsa->d->bn.get(), split);
    EVP_PKEY* reference = found.key && EVP_PKEY_up_ref(found.key.get()) == 1 ? found.key.get() : nullptr;
    std::lock_guard<std::mutex> lock(vkl->privateKeyLock);
    const auto it = Find(vkl, id);
    if (it == vkl->privateKeys.end()) {
        EVP_PKEY_free(reference);
    } else if (reference != nullptr) {
        it->key.reset(reference);
        it->split.reset();
    } else {
        // The tests, the import or the reference failed, as when memory runs out: the next use tries again.
        it->tested = false;
    }
}

}  // namespace

PkeyPtr CompleteKey(VKL_t* vkl, const VKL_RSA_t* rsa) {
    ErrorScope errors;
    KeyId id;
    Recovered found;
    // A split key is counted by RecoverKey, which its operation goes on to.
    if (MakeKeyId(vkl, rsa, id)) (void)Lookup(vkl, id, found, nullptr);
    OPENSSL_cleanse(id.data(), id.size());
    errors.Drop();
    return std::move(found.key);
}

Recovered RecoverKey(VKL_t* vkl, const VKL_RSA_t* rsa, BN_CTX* ctx) {
    const BIGNUM* n = rsa->n->bn.get();
    const BIGNUM* d = rsa->d->bn.get();
    Recovered found;
    // d of 0 or 1 fits no key.
    if (BN_cmp(d, BN_value_one()) <= 0 || BN_num_bits(n) > kMaxRecoveredModulusBits) return found;
    ErrorScope errors;
    KeyId id;
    bool due = false;
    if (!MakeKeyId(vkl, rsa, id) || Lookup(vkl, id, found, &due)) {
        if (due) Settle(vkl, rsa, id, found);
        OPENSSL_cleanse(id.data(), id.size());
        errors.Drop();
        return found;
    }
    auto split = std::make_shared<SplitKey>();
    split->p.reset(BN_secure_new());
    split->q.reset(BN_secure_new());
    bool failed = !split->p || !split->q;
    for (unsigned long candidate : kUsualExponents) {
        if (failed || split->e != 0) break;
        if (Factor(n, d, candidate, *split, ctx, failed)) split->e = candidate;
    }
    // Factors that are not coprime fail here too, and are factored again next time, as after an
    // allocation failure: rare, and no dearer than the exponentiation with d it then takes.
    if (!failed && split->e != 0) {
        failed = !Prepare(*split, d, ctx);
        if (!failed) found.split = std::move(split);
    }
    static Probe& probe = Probe::Named("VKL_RSA/recover");
    if (probe.Enter(found.split ? static_cast<long>(found.split->e) : 0L)) {
        failed = true;
        found.split.reset();
    }
    // A key that no usual e fits is remembered as such; a failure is not, so the next call tries again.
    if (!failed) Remember(vkl, id, found);
    OPENSSL_cleanse(id.data(), id.size());
    errors.Drop();
    return found;
}

bool SplitExponentiate(const SplitKey& key, const BIGNUM* m, const BIGNUM* d, const BIGNUM* n, BIGNUM* result,
                       BN_CTX* ctx) {
    BN_CTX_start(ctx);
    BIGNUM* e = BN_CTX_get(ctx);
    BIGNUM* xp = BN_CTX_get(ctx);
    BIGNUM* xq = BN_CTX_get(ctx);
    BIGNUM* checkP = BN_CTX_get(ctx);
    BIGNUM* checkQ = BN_CTX_get(ctx);
    // The factors carry BN_FLG_CONSTTIME, so the reductions take OpenSSL's constant-time division,
    // as its own CRT does; the pairs of exponentiations take its parallel code where the sizes allow.
    // Whether a check passes tells nothing of a key with prime factors.
    bool ok = checkQ != nullptr && BN_mod(xp, m, key.p.get(), ctx) == 1 && BN_mod(xq, m, key.q.get(), ctx) == 1 &&
              BN_mod_exp_mont_consttime_x2(checkP, xp, key.pLess.get(), key.p.get(), key.montP.get(), checkQ, xq,
                                           key.qLess.get(), key.q.get(), key.montQ.get(), ctx) == 1;
    const BIGNUM* dp = ok && BN_is_one(checkP) ? key.dp.get() : d;
    const BIGNUM* dq = ok && BN_is_one(checkQ) ? key.dq.get() : d;
    // h = (xp − xq)·q⁻¹ mod p, from xp + p − xq, above 0 as xq < q < p; m^d = xq + h·q, below p·q.
    ok = ok &&
         BN_mod_exp_mont_consttime_x2(xp, xp, dp, key.p.get(), key.montP.get(), xq, xq, dq, key.q.get(),
                                      key.montQ.get(), ctx) == 1 &&
         BN_add(xp, xp, key.p.get()) == 1 && BN_sub(xp, xp, xq) == 1 &&
         BN_from_montgomery(xp, xp, key.montP.get(), ctx) == 1 &&
         BN_mod_mul_montgomery(xp, xp, key.qinvR2.get(), key.montP.get(), ctx) == 1 &&
         BN_mul(result, xp, key.q.get(), ctx) == 1 && BN_add(result, result, xq) == 1;
    // As OpenSSL checks its own CRT: a fault in the computation must not hand out a value from
    // which gcd(s^e − m, n) gives a factor. The check proves nothing of composite factors (e-th
    // roots are then not unique); the exactness above does not rest on it.
    ok = ok && BN_set_word(e, key.e) == 1 && BN_mod_exp_mont(xp, result, e, n, ctx, nullptr) == 1 &&
         BN_cmp(xp, m) == 0;
    for (BIGNUM* x : {xp, xq, checkP, checkQ}) {
        if (x != nullptr) BN_clear(x);
    }
    BN_CTX_end(ctx);
    return ok;
}

}  // namespace vkl
