// RSA records, key generation and raw RSA with PKCS #1 v1.5 padding.
// A private key given as n and d only is completed once per context (e among 65537, 3, 5, 17, 257, p and
// q from e·d − 1, both prime) and kept, for OpenSSL's CRT with blinding; a d that fits none, or whose
// factors are not prime, gives m^d mod n, constant-time.
#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include "bignum.h"
#include "errors.h"
#include "memory.h"
#include "probe.h"
#include "rsa_key.h"
#include "vkl_context.h"

namespace vkl {
namespace {

bool Push(OSSL_PARAM_BLD* bld, const char* key, VKL_BIGNUM_t* number, bool secret) {
    // Secret values go to the builder's secure block, which OSSL_PARAM_free wipes.
    if (secret) BN_set_flags(number->bn.get(), BN_FLG_SECURE);
    return OSSL_PARAM_BLD_push_BN(bld, key, number->bn.get()) == 1;
}

// Byte masks for the padding check: all ones when the condition holds, else zero.
unsigned int MaskIsZero(unsigned int x) { return 0u - (((x | (0u - x)) >> (sizeof(unsigned int) * 8 - 1)) ^ 1u); }
unsigned int MaskEqual(unsigned int a, unsigned int b) { return MaskIsZero(a ^ b); }
unsigned int MaskLess(unsigned int a, unsigned int b) {
    return 0u - ((a ^ ((a ^ b) | ((a - b) ^ b))) >> (sizeof(unsigned int) * 8 - 1));
}

// Message length of a block-type-2 encoding, -1 when malformed. Scans every byte the
// same way whatever the padding holds, so its time does not tell where the check failed.
// RawRsa refuses moduli shorter than kMinModulusBytes first; the guard keeps the reads
// inside em all the same.
int CheckType2(const unsigned char* em, size_t k) {
    if (k < static_cast<size_t>(kMinModulusBytes)) return -1;
    unsigned int good = MaskIsZero(em[0]) & MaskEqual(em[1], 2);
    unsigned int found = 0;
    unsigned int zeroAt = 0;
    for (size_t i = 2; i < k; ++i) {
        unsigned int isZero = MaskIsZero(em[i]);
        zeroAt |= ~found & isZero & static_cast<unsigned int>(i);
        found |= isZero;
    }
    // At least eight non-zero padding bytes.
    good &= found & ~MaskLess(zeroAt, 10);
    return good != 0 ? static_cast<int>(k - zeroAt - 1) : -1;
}

VKL_BIGNUM_t* TakeParam(const EVP_PKEY* pkey, const char* name) {
    BIGNUM* value = nullptr;
    if (EVP_PKEY_get_bn_param(pkey, name, &value) != 1) return nullptr;
    VKL_BIGNUM_t* number = Make<VKL_BIGNUM_s>().release();
    if (number == nullptr) {
        BN_clear_free(value);
        return nullptr;
    }
    number->bn.reset(value);
    return number;
}

constexpr size_t kPublicKeysKept = 8;

// n and e as one string: the bytes of each after its length.
std::string PublicKeyName(const VKL_RSA_t* rsa) {
    std::string name;
    for (const VKL_BIGNUM_t* number : {rsa->n, rsa->e}) {
        const int length = BN_num_bytes(number->bn.get());
        std::string bytes(static_cast<size_t>(length), '\0');
        BN_bn2bin(number->bn.get(), reinterpret_cast<unsigned char*>(&bytes[0]));
        name += std::to_string(length) + ':' + bytes;
    }
    return name;
}

PkeyPtr CachedPublicKey(VKL_t* vkl, const std::string& name) {
    std::lock_guard<std::mutex> lock(vkl->publicKeyLock);
    for (const auto& entry : vkl->publicKeys) {
        if (entry.first == name && EVP_PKEY_up_ref(entry.second.get()) == 1) return PkeyPtr(entry.second.get());
    }
    return nullptr;
}

void RememberPublicKey(VKL_t* vkl, const std::string& name, EVP_PKEY* key) {
    if (EVP_PKEY_up_ref(key) != 1) return;
    PkeyPtr reference(key);
    std::lock_guard<std::mutex> lock(vkl->publicKeyLock);
    if (vkl->publicKeys.size() < kPublicKeysKept) {
        vkl->publicKeys.emplace_back(name, std::move(reference));
        return;
    }
    // Round robin: a caller cycling through more keys than are kept still gets correct keys.
    vkl->publicKeys[vkl->nextPublicKey] = {name, std::move(reference)};
    vkl->nextPublicKey = (vkl->nextPublicKey + 1) % kPublicKeysKept;
}

enum class Operation { kPublicEncrypt, kPublicDecrypt, kPrivateEncrypt, kPrivateDecrypt };

// The record-based RSA operation, through OpenSSL when the key can be imported.
int RawRsa(VKL_t* vkl, Operation operation, int length, const unsigned char* from, unsigned char* to, VKL_RSA_t* rsa,
           int padding, const char* function) {
    if (vkl == nullptr || (from == nullptr && length != 0) || to == nullptr || length < 0) {
        QueueError(std::string(function) + ": no context, input or output");
        return -1;
    }
    static const unsigned char kNoInput = 0;
    if (from == nullptr) from = &kNoInput;
    if (padding != VKL_RSA_PKCS1_PADDING) {
        QueueError(std::string(function) + ": unsupported padding " + std::to_string(padding));
        return -1;
    }
    const bool isPrivate = operation == Operation::kPrivateEncrypt || operation == Operation::kPrivateDecrypt;
    if (!KeyUsable(rsa, isPrivate, function)) return -1;
    ErrorScope errors;
    const size_t k = static_cast<size_t>(ModulusBytes(rsa));
    const size_t inLength = static_cast<size_t>(length);

    const bool fromD = isPrivate && rsa->e == nullptr;
    PkeyPtr pkey = fromD ? CompleteKey(vkl, rsa) : ToOpenSslKey(vkl, rsa, isPrivate, function);
    if (fromD && !pkey) {
        std::vector<unsigned char> em(k);
        int result = -1;
        if (operation == Operation::kPrivateEncrypt) {
            if (inLength + 11 > k) {
                ERR_raise(ERR_LIB_RSA, RSA_R_DATA_TOO_LARGE_FOR_KEY_SIZE);
                return -1;
            }
            // EM = 00 01 FF..FF 00 M (RFC 8017 section 9.2, with M as given); em starts zeroed.
            em[1] = 0x01;
            std::memset(em.data() + 2, 0xFF, k - inLength - 3);
            std::memcpy(em.data() + k - inLength, from, inLength);
            if (PrivateExponentiate(vkl, rsa, em.data(), to, function)) result = static_cast<int>(k);
        } else {
            if (inLength > k) {
                ERR_raise(ERR_LIB_RSA, RSA_R_DATA_GREATER_THAN_MOD_LEN);
                return -1;
            }
            std::vector<unsigned char> c(k, 0);
            std::memcpy(c.data() + k - inLength, from, inLength);
            if (PrivateExponentiate(vkl, rsa, c.data(), em.data(), function)) {
                result = CheckType2(em.data(), k);
                if (result < 0) {
                    // The same cause as OpenSSL gives when it holds the key.
                    ERR_raise(ERR_LIB_RSA, RSA_R_PKCS_DECODING_ERROR);
                } else {
                    std::memcpy(to, em.data() + k - static_cast<size_t>(result), static_cast<size_t>(result));
                }
            }
        }
        OPENSSL_cleanse(em.data(), em.size());
        return result;
    }

    if (!pkey) return -1;
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(vkl->libctx.get(), pkey.get(), nullptr));
    if (!ctx) {
        errors.Fail(function, "cannot create an OpenSSL key context");
        return -1;
    }
    int started = 0;
    switch (operation) {
        case Operation::kPublicEncrypt: started = EVP_PKEY_encrypt_init(ctx.get()); break;
        case Operation::kPublicDecrypt: started = EVP_PKEY_verify_recover_init(ctx.get()); break;
        case Operation::kPrivateEncrypt: started = EVP_PKEY_sign_init(ctx.get()); break;
        case Operation::kPrivateDecrypt: started = EVP_PKEY_decrypt_init(ctx.get()); break;
    }
    if (started != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1) {
        errors.Fail(function, "cannot start the RSA operation");
        return -1;
    }
#ifdef OSSL_ASYM_CIPHER_PARAM_IMPLICIT_REJECTION
    // Callers rely on bad padding failing, not on a substitute message.
    if (operation == Operation::kPrivateDecrypt) {
        unsigned int off = 0;
        OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_ASYM_CIPHER_PARAM_IMPLICIT_REJECTION, &off),
                               OSSL_PARAM_construct_end()};
        if (EVP_PKEY_CTX_set_params(ctx.get(), params) != 1) {
            errors.Fail(function, "cannot turn off implicit rejection");
            return -1;
        }
    }
#endif
    size_t written = k;
    int done = 0;
    switch (operation) {
        case Operation::kPublicEncrypt: done = EVP_PKEY_encrypt(ctx.get(), to, &written, from, inLength); break;
        case Operation::kPublicDecrypt: done = EVP_PKEY_verify_recover(ctx.get(), to, &written, from, inLength); break;
        case Operation::kPrivateEncrypt: done = EVP_PKEY_sign(ctx.get(), to, &written, from, inLength); break;
        case Operation::kPrivateDecrypt: done = EVP_PKEY_decrypt(ctx.get(), to, &written, from, inLength); break;
    }
    if (done != 1) {
        errors.Fail(function, "the RSA operation failed");
        return -1;
    }
    return static_cast<int>(written);
}

}  // namespace

namespace {

// Entries OpenSSL cleared in constant time (a padding check that passed) stay in the queue,
// unseen; purged first, they cannot make the cause of a failure that follows read as older.
bool MarkQueue() {
    if (ERR_peek_error() == 0) ERR_clear_error();
    return ERR_set_mark() == 1;
}

}  // namespace

ErrorScope::ErrorScope() : m_marked(MarkQueue()) {}

ErrorScope::~ErrorScope() {
    if (m_open && m_marked) (void)ERR_clear_last_mark();
}

void ErrorScope::Drop() {
    if (!m_open) return;
    if (m_marked) {
        (void)ERR_pop_to_mark();
    } else {
        ERR_clear_error();
    }
    m_open = false;
}

void ErrorScope::Fail(const char* function, const char* cause) {
    // The first entry names the cause ("pkcs decoding error"); later ones only say which
    // layer passed it on ("RSA lib"). Behind older entries the first of ours cannot be
    // told apart, and the newest stands in for it.
    const char* data = nullptr;
    int flags = 0;
    const unsigned long code = m_marked ? ERR_peek_last_error_all(nullptr, nullptr, nullptr, &data, &flags)
                                        : ERR_peek_error_all(nullptr, nullptr, nullptr, &data, &flags);
    const std::string text = (flags & ERR_TXT_STRING) != 0 ? data : "";
    Drop();
    if (code != 0 && (!m_marked || ERR_peek_last_error() != code)) {
        if (text.empty()) {
            ERR_raise(ERR_GET_LIB(code), ERR_GET_REASON(code));
        } else {
            ERR_raise_data(ERR_GET_LIB(code), ERR_GET_REASON(code), "%s", text.c_str());
        }
    }
    QueueErrorIfEmpty(function, cause);
}

void ReleaseRecord(VKL_RSA_t* rsa) {
    if (rsa == nullptr || --rsa->references > 0) return;
    // The numbers are cleared on release: d, the primes and the CRT values are secrets.
    for (VKL_BIGNUM_t* number : {rsa->n, rsa->e, rsa->d, rsa->p, rsa->q, rsa->dmp1, rsa->dmq1, rsa->iqmp}) {
        delete number;
    }
    delete rsa;
}

int ModulusBytes(const VKL_RSA_t* rsa) { return BN_num_bytes(rsa->n->bn.get()); }

bool ModulusSizeUsable(const VKL_RSA_t* rsa, const char* function) {
    const int bits = BN_num_bits(rsa->n->bn.get());
    if (bits > kMaxModulusBits) {
        ERR_raise(ERR_LIB_RSA, RSA_R_MODULUS_TOO_LARGE);
        return false;
    }
    if (ModulusBytes(rsa) < kMinModulusBytes) {
        QueueError(std::string(function) + ": the modulus has " + std::to_string(bits) +
                   " bits, PKCS #1 v1.5 padding needs at least " + std::to_string(8 * kMinModulusBytes));
        return false;
    }
    return true;
}

bool ExponentsUsable(const VKL_RSA_t* rsa, bool withPrivate, const char* function) {
    const BIGNUM* n = rsa->n->bn.get();
    const BIGNUM* e = rsa->e != nullptr ? rsa->e->bn.get() : nullptr;
    // OpenSSL bounds e's length in its public operations only; it signs with such keys.
    if (e != nullptr && (BN_ucmp(e, n) >= 0 || (!withPrivate && BN_num_bits(n) > kSmallModulusBits &&
                                                BN_num_bits(e) > kMaxPublicExponentBits))) {
        ERR_raise(ERR_LIB_RSA, RSA_R_BAD_E_VALUE);
        return false;
    }
    const int dBits = withPrivate ? BN_num_bits(rsa->d->bn.get()) : 0;
    if (dBits > BN_num_bits(n)) {
        QueueError(std::string(function) + ": the private exponent has " + std::to_string(dBits) +
                   " bits, more than the modulus's " + std::to_string(BN_num_bits(n)));
        return false;
    }
    return true;
}

namespace {

// OpenSSL would take a negative number's magnitude, and the kept keys are named by bytes alone.
bool NoneNegative(const VKL_RSA_t* rsa, const char* function) {
    const std::pair<const VKL_BIGNUM_t*, const char*> numbers[] = {
        {rsa->n, "modulus"}, {rsa->e, "public exponent"}, {rsa->d, "private exponent"}};
    for (const auto& number : numbers) {
        if (number.first != nullptr && BN_is_negative(number.first->bn.get())) {
            QueueError(std::string(function) + ": the key's " + number.second + " is negative");
            return false;
        }
    }
    return true;
}

}  // namespace

bool HasPublicKey(const VKL_RSA_t* rsa, const char* function) {
    if (rsa == nullptr || rsa->n == nullptr) {
        QueueError(std::string(function) + ": the key has no modulus");
        return false;
    }
    if (rsa->e == nullptr) {
        QueueError(std::string(function) + ": the key has no public exponent");
        return false;
    }
    return NoneNegative(rsa, function);
}

bool HasPrivateKey(const VKL_RSA_t* rsa, const char* function) {
    if (rsa == nullptr || rsa->n == nullptr) {
        QueueError(std::string(function) + ": the key has no modulus");
        return false;
    }
    if (rsa->d == nullptr) {
        QueueError(std::string(function) + ": the key has no private exponent");
        return false;
    }
    return NoneNegative(rsa, function);
}

PkeyPtr ToOpenSslKey(VKL_t* vkl, const VKL_RSA_t* rsa, bool withPrivate, const char* function) {
    if (withPrivate ? !HasPrivateKey(rsa, function) : !HasPublicKey(rsa, function)) return nullptr;
    if (rsa->e == nullptr) {
        QueueError(std::string(function) + ": the key has no public exponent");
        return nullptr;
    }
    std::string cacheKey;
    if (!withPrivate) {
        cacheKey = PublicKeyName(rsa);
        PkeyPtr cached = CachedPublicKey(vkl, cacheKey);
        if (cached) return cached;
    }
    ErrorScope errors;
    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    bool ok = bld && Push(bld.get(), OSSL_PKEY_PARAM_RSA_N, rsa->n, false) &&
              Push(bld.get(), OSSL_PKEY_PARAM_RSA_E, rsa->e, false);
    if (ok && withPrivate) {
        ok = Push(bld.get(), OSSL_PKEY_PARAM_RSA_D, rsa->d, true);
        const bool crt = rsa->p != nullptr && rsa->q != nullptr && rsa->dmp1 != nullptr && rsa->dmq1 != nullptr &&
                         rsa->iqmp != nullptr;
        if (ok && crt) {
            ok = Push(bld.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, rsa->p, true) &&
                 Push(bld.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, rsa->q, true) &&
                 Push(bld.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, rsa->dmp1, true) &&
                 Push(bld.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, rsa->dmq1, true) &&
                 Push(bld.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, rsa->iqmp, true);
        }
    }
    ParamsPtr params(ok ? OSSL_PARAM_BLD_to_param(bld.get()) : nullptr);
    PkeyCtxPtr ctx(params ? EVP_PKEY_CTX_new_from_name(vkl->libctx.get(), "RSA", nullptr) : nullptr);
    EVP_PKEY* made = nullptr;
    if (!ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &made, withPrivate ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
        errors.Fail(function, "cannot import the RSA key");
        return nullptr;
    }
    PkeyPtr key(made);
    if (!withPrivate) RememberPublicKey(vkl, cacheKey, key.get());
    return key;
}

bool PrivateExponentiate(VKL_t* vkl, const VKL_RSA_t* rsa, const unsigned char* em, unsigned char* out,
                         const char* function) {
    ErrorScope errors;
    const BIGNUM* n = rsa->n->bn.get();
    const int k = BN_num_bytes(n);
    BnCtxPtr bnCtx(BN_CTX_new_ex(vkl->libctx.get()));
    BnPtr m(BN_bin2bn(em, k, nullptr));
    BnPtr d(BN_dup(rsa->d->bn.get()));
    BnPtr result(BN_new());
    MontCtxPtr mont(BN_MONT_CTX_new());
    if (!bnCtx || !m || !d || !result || !mont) {
        errors.Fail(function, "out of memory");
        return false;
    }
    if (!BN_is_odd(n)) {
        QueueError(std::string(function) + ": the modulus is even");
        return false;
    }
    if (BN_ucmp(m.get(), n) >= 0) {
        ERR_raise(ERR_LIB_RSA, RSA_R_DATA_TOO_LARGE_FOR_MODULUS);
        return false;
    }
    // A key met for the first time is completed. With OpenSSL's key the private operation
    // without padding is em^d mod n.
    const Recovered recovered = RecoverKey(vkl, rsa, bnCtx.get());
    if (recovered.key) {
        PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(vkl->libctx.get(), recovered.key.get(), nullptr));
        size_t written = static_cast<size_t>(k);
        if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
            EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_NO_PADDING) != 1 ||
            EVP_PKEY_decrypt(ctx.get(), out, &written, em, static_cast<size_t>(k)) != 1 ||
            written != static_cast<size_t>(k)) {
            errors.Fail(function, "the RSA operation failed");
            return false;
        }
        return true;
    }
    // Without e there is no blinding, so the exponentiations themselves must not leak d.
    BN_set_flags(d.get(), BN_FLG_CONSTTIME);
    if (recovered.split) {
        // Should it fail, the exponentiation with d below does the work, with no error left behind.
        ErrorScope splitErrors;
        const bool done = SplitExponentiate(*recovered.split, m.get(), d.get(), n, result.get(), bnCtx.get()) &&
                          BN_bn2binpad(result.get(), out, k) == k;
        splitErrors.Drop();
        if (done) return true;
    }
    static Probe& withD = Probe::Named("VKL_RSA/d");
    if (withD.Enter() || BN_MONT_CTX_set(mont.get(), n, bnCtx.get()) != 1 ||
        BN_mod_exp_mont_consttime(result.get(), m.get(), d.get(), n, bnCtx.get(), mont.get()) != 1 ||
        BN_bn2binpad(result.get(), out, k) != k) {
        errors.Fail(function, "the RSA operation failed");
        return false;
    }
    return true;
}

}  // namespace vkl

extern "C" {

VKL_RSA_t* VKL_RSA_new(VKL_t*) {
    VKL_ENTER(VKL_RSA_t*);
    VKL_RSA_t* rsa = vkl::Make<VKL_RSA_t>().release();
    if (rsa == nullptr) {
        vkl::QueueError(std::string(__func__) + ": out of memory");
        return nullptr;
    }
    rsa->references = 1;
    return rsa;
}

void VKL_RSA_free(VKL_t*, VKL_RSA_t* rsa) {
    VKL_ENTER(void);
    vkl::ReleaseRecord(rsa);
}

VKL_RSA_t* VKL_RSA_generate_key(VKL_t* vkl, int bits, unsigned long e, void (*)(int, int, void*), void*) {
    VKL_ENTER_LEN(VKL_RSA_t*, bits);
    if (vkl == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context");
        return nullptr;
    }
    // OpenSSL generates keys of any size, and one of tens of thousands of bits takes
    // days; VKL could not use it anyway.
    if (bits > vkl::kMaxModulusBits) {
        vkl::QueueError(std::string(__func__) + ": " + std::to_string(bits) + " bits asked, at most " +
                        std::to_string(vkl::kMaxModulusBits) + " are supported");
        return nullptr;
    }
    vkl::ErrorScope errors;
    vkl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(vkl->libctx.get(), "RSA", nullptr));
    vkl::BnPtr exponent(BN_new());
    EVP_PKEY* made = nullptr;
    if (!ctx || !exponent || BN_set_word(exponent.get(), e) != 1 || EVP_PKEY_keygen_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_keygen_bits(ctx.get(), bits) != 1 ||
        EVP_PKEY_CTX_set1_rsa_keygen_pubexp(ctx.get(), exponent.get()) != 1 ||
        EVP_PKEY_generate(ctx.get(), &made) != 1) {
        errors.Fail(__func__, "cannot generate the key");
        return nullptr;
    }
    vkl::PkeyPtr pkey(made);
    vkl::RecordPtr rsa(vkl::Make<VKL_RSA_t>().release());
    if (!rsa) {
        vkl::QueueError(std::string(__func__) + ": out of memory");
        return nullptr;
    }
    rsa->references = 1;
    rsa->n = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_N);
    rsa->e = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_E);
    rsa->d = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_D);
    rsa->p = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_FACTOR1);
    rsa->q = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_FACTOR2);
    rsa->dmp1 = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1);
    rsa->dmq1 = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2);
    rsa->iqmp = vkl::TakeParam(pkey.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1);
    for (VKL_BIGNUM_t* number : {rsa->n, rsa->e, rsa->d, rsa->p, rsa->q, rsa->dmp1, rsa->dmq1, rsa->iqmp}) {
        if (number == nullptr) {
            errors.Fail(__func__, "cannot read the generated key");
            return nullptr;
        }
    }
    return rsa.release();
}

int VKL_RSA_check_key(VKL_t* vkl, const VKL_RSA_t* rsa) {
    VKL_ENTER(int);
    if (vkl == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context");
        return 0;
    }
    // A key no operation takes is not checked either: the primes of a huge one take long to test.
    if (rsa != nullptr && rsa->n != nullptr && BN_num_bits(rsa->n->bn.get()) > vkl::kMaxModulusBits) {
        ERR_raise(ERR_LIB_RSA, RSA_R_MODULUS_TOO_LARGE);
        return 0;
    }
    vkl::PkeyPtr pkey = vkl::ToOpenSslKey(vkl, rsa, true, __func__);
    if (!pkey) return 0;
    vkl::ErrorScope errors;
    vkl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(vkl->libctx.get(), pkey.get(), nullptr));
    if (!ctx || EVP_PKEY_check(ctx.get()) != 1) {
        errors.Fail(__func__, "the key is not consistent");
        return 0;
    }
    return 1;
}

int VKL_RSA_public_encrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to, VKL_RSA_t* rsa,
                           int padding) {
    VKL_ENTER_LEN(int, length);
    return vkl::RawRsa(vkl, vkl::Operation::kPublicEncrypt, length, from, to, rsa, padding, __func__);
}

int VKL_RSA_public_decrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to, VKL_RSA_t* rsa,
                           int padding) {
    VKL_ENTER_LEN(int, length);
    return vkl::RawRsa(vkl, vkl::Operation::kPublicDecrypt, length, from, to, rsa, padding, __func__);
}

int VKL_RSA_private_encrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to, VKL_RSA_t* rsa,
                            int padding) {
    VKL_ENTER_LEN(int, length);
    return vkl::RawRsa(vkl, vkl::Operation::kPrivateEncrypt, length, from, to, rsa, padding, __func__);
}

int VKL_RSA_private_decrypt(VKL_t* vkl, int length, const unsigned char* from, unsigned char* to, VKL_RSA_t* rsa,
                            int padding) {
    VKL_ENTER_LEN(int, length);
    return vkl::RawRsa(vkl, vkl::Operation::kPrivateDecrypt, length, from, to, rsa, padding, __func__);
}

}  // extern "C"
