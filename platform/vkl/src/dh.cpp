// Diffie-Hellman of the VKL stand-in, over OpenSSL 3's EVP_PKEY DH. The
// record's fields are public and callers write them, so every operation builds
// its OpenSSL key from the fields as they are at the call.
#include <algorithm>
#include <new>
#include <string>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include "bignum.h"
#include "errors.h"
#include "handles.h"
#include "memory.h"
#include "probe.h"
#include "vkl_context.h"

namespace vkl {
namespace {

// OpenSSL may queue several entries for one failure, while callers take one
// entry per failure. A trail collapses what OpenSSL queued during an operation
// into a single entry naming the step, with OpenSSL's reason when there is one;
// on success it drops whatever OpenSSL left behind.
class Trail {
public:
    explicit Trail(const char* function) : m_function(function) { ERR_set_mark(); }
    ~Trail() {
        if (!m_failed) ERR_pop_to_mark();
    }
    Trail(const Trail&) = delete;
    Trail& operator=(const Trail&) = delete;

    void Fail(const char* cause) {
        const unsigned long last = ERR_peek_last_error();
        ERR_pop_to_mark();
        m_failed = true;
        std::string text = std::string(m_function) + ": " + cause;
        const char* reason = last != 0 && ERR_peek_last_error() != last ? ERR_reason_error_string(last) : nullptr;
        if (reason != nullptr) text.append(" (").append(reason).append(")");
        QueueError(text);
    }

private:
    const char* m_function;
    bool m_failed = false;
};

// Bits of a fresh private value: twice the security strength that NIST SP 800-57
// gives the prime's size, as SP 800-56A asks of safe-prime groups. A full-size
// exponent would cost several times as much for no strength the group has. OpenSSL
// takes no prime above 10,000 bits, so the 256-bit strength of 15,360 never applies.
int PrivateValueBits(int primeBits) {
    const int strength = primeBits >= 7680 ? 192
                         : primeBits >= 3072 ? 128
                         : primeBits >= 2048 ? 112
                                             : 80;
    return std::min(2 * strength, primeBits - 2);
}

const BIGNUM* Bn(const VKL_BIGNUM_t* number) { return number != nullptr ? number->bn.get() : nullptr; }

// An OpenSSL DH key of the record's group with the given public and private
// values (either may be null); null when OpenSSL refuses.
PkeyPtr MakeKey(VKL_t* vkl, const VKL_DH_t& dh, const BIGNUM* pub, const BIGNUM* priv, int selection) {
    ParamBldPtr builder(OSSL_PARAM_BLD_new());
    if (!builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_P, Bn(dh.p)) != 1 ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_FFC_G, Bn(dh.g)) != 1) {
        return nullptr;
    }
    if (pub != nullptr && OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, pub) != 1) return nullptr;
    // A copy in secure memory: the builder then puts the private value in the
    // block that OSSL_PARAM_free wipes.
    BnPtr secret;
    if (priv != nullptr) {
        secret.reset(BN_secure_new());
        if (!secret || BN_copy(secret.get(), priv) == nullptr ||
            OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_PRIV_KEY, secret.get()) != 1) {
            return nullptr;
        }
    }
    ParamsPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(vkl->libctx.get(), "DH", nullptr));
    EVP_PKEY* key = nullptr;
    if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1 ||
        EVP_PKEY_fromdata(ctx.get(), &key, selection, params.get()) != 1) {
        return nullptr;
    }
    return PkeyPtr(key);
}

// Puts value into *field, making the field's number when it has none; the
// previous value is wiped as it goes.
void Store(VKL_BIGNUM_t*& field, VKL_BIGNUM_t* made, BnPtr value) {
    if (field == nullptr) field = made;
    field->bn = std::move(value);
}

}  // namespace
}  // namespace vkl

extern "C" {

VKL_DH_t* VKL_DH_new(VKL_t*) {
    VKL_ENTER(VKL_DH_t*);
    VKL_DH_t* dh = vkl::Make<VKL_DH_t>().release();
    if (dh == nullptr) vkl::QueueError(std::string(__func__) + ": out of memory");
    return dh;
}

void VKL_DH_free(VKL_t*, VKL_DH_t* dh) {
    VKL_ENTER(void);
    if (dh == nullptr) return;
    // The numbers clear themselves on release.
    delete dh->p;
    delete dh->g;
    delete dh->pub_key;
    delete dh->priv_key;
    delete dh;
}

VKL_DH_t* VKL_DH_generate_parameters(VKL_t* vkl, int primeLength, int generator, void (*)(int, int, void*),
                                     void*) {
    VKL_ENTER_LEN(VKL_DH_t*, primeLength);
    if (vkl == nullptr || primeLength <= 0) {
        vkl::QueueError(std::string(__func__) + ": no VKL context or no prime length");
        return nullptr;
    }
    vkl::Trail trail(__func__);
    vkl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(vkl->libctx.get(), "DH", nullptr));
    size_t bits = static_cast<size_t>(primeLength);
    char type[] = "generator";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_FFC_TYPE, type, 0),
                           OSSL_PARAM_construct_size_t(OSSL_PKEY_PARAM_FFC_PBITS, &bits),
                           OSSL_PARAM_construct_int(OSSL_PKEY_PARAM_DH_GENERATOR, &generator),
                           OSSL_PARAM_construct_end()};
    EVP_PKEY* made = nullptr;
    if (!ctx || EVP_PKEY_paramgen_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_params(ctx.get(), params) != 1 ||
        EVP_PKEY_paramgen(ctx.get(), &made) != 1) {
        trail.Fail("cannot generate the parameters");
        return nullptr;
    }
    vkl::PkeyPtr key(made);
    BIGNUM* p = nullptr;
    BIGNUM* g = nullptr;
    const bool gotPrime = EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_FFC_P, &p) == 1;
    vkl::BnPtr prime(p);
    const bool gotBoth = gotPrime && EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_FFC_G, &g) == 1;
    vkl::BnPtr base(g);
    std::unique_ptr<VKL_BIGNUM_s> pNumber = vkl::Make<VKL_BIGNUM_s>();
    std::unique_ptr<VKL_BIGNUM_s> gNumber = vkl::Make<VKL_BIGNUM_s>();
    std::unique_ptr<VKL_DH_t> dh = vkl::Make<VKL_DH_t>();
    if (!gotBoth || !pNumber || !gNumber || !dh) {
        trail.Fail("cannot hold the parameters");
        return nullptr;
    }
    pNumber->bn = std::move(prime);
    gNumber->bn = std::move(base);
    dh->p = pNumber.release();
    dh->g = gNumber.release();
    return dh.release();
}

int VKL_DH_generate_key(VKL_t* vkl, VKL_DH_t* dh) {
    VKL_ENTER(int);
    if (vkl == nullptr || dh == nullptr || dh->p == nullptr || dh->g == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context or no group");
        return 0;
    }
    vkl::Trail trail(__func__);
    vkl::PkeyPtr group = vkl::MakeKey(vkl, *dh, nullptr, nullptr, EVP_PKEY_KEY_PARAMETERS);
    if (!group) {
        trail.Fail("the group is not usable");
        return 0;
    }
    vkl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(vkl->libctx.get(), group.get(), nullptr));
    int privateBits = vkl::PrivateValueBits(BN_num_bits(dh->p->bn.get()));
    OSSL_PARAM params[] = {OSSL_PARAM_construct_int(OSSL_PKEY_PARAM_DH_PRIV_LEN, &privateBits),
                           OSSL_PARAM_construct_end()};
    EVP_PKEY* made = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_params(ctx.get(), params) != 1 ||
        EVP_PKEY_keygen(ctx.get(), &made) != 1) {
        trail.Fail("cannot generate the key pair");
        return 0;
    }
    vkl::PkeyPtr key(made);
    BIGNUM* pub = nullptr;
    BIGNUM* priv = nullptr;
    const bool gotPub = EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, &pub) == 1;
    vkl::BnPtr pubValue(pub);
    const bool gotPriv = gotPub && EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PRIV_KEY, &priv) == 1;
    vkl::BnPtr privValue(priv);
    // Both holders exist before either field changes: the record keeps a whole pair or its old one.
    std::unique_ptr<VKL_BIGNUM_s> pubNumber = dh->pub_key == nullptr ? vkl::Make<VKL_BIGNUM_s>() : nullptr;
    std::unique_ptr<VKL_BIGNUM_s> privNumber = dh->priv_key == nullptr ? vkl::Make<VKL_BIGNUM_s>() : nullptr;
    if (!gotPriv || (dh->pub_key == nullptr && !pubNumber) || (dh->priv_key == nullptr && !privNumber)) {
        trail.Fail("cannot hold the key pair");
        return 0;
    }
    vkl::Store(dh->pub_key, pubNumber.release(), std::move(pubValue));
    vkl::Store(dh->priv_key, privNumber.release(), std::move(privValue));
    return 1;
}

int VKL_DH_size(VKL_t*, const VKL_DH_t* dh) {
    VKL_ENTER(int);
    if (dh == nullptr || dh->p == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no group");
        return 0;
    }
    return BN_num_bytes(dh->p->bn.get());
}

int VKL_DH_compute_key(VKL_t* vkl, unsigned char* key, const VKL_BIGNUM_t* peer, VKL_DH_t* dh) {
    VKL_ENTER(int);
    if (vkl == nullptr || key == nullptr || peer == nullptr || dh == nullptr || dh->p == nullptr ||
        dh->g == nullptr || dh->pub_key == nullptr || dh->priv_key == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context, output, peer value or key pair");
        return -1;
    }
    vkl::Trail trail(__func__);
    const BIGNUM* p = dh->p->bn.get();
    const BIGNUM* y = peer->bn.get();
    // In a safe-prime group the only small subgroup is {1, p - 1}; ruling out
    // those (and 0) is all the peer check the group needs, where OpenSSL's full
    // check would raise y to the group order, costing more than the derivation.
    vkl::BnPtr pMinusOne(BN_dup(p));
    if (!pMinusOne || BN_sub_word(pMinusOne.get(), 1) != 1) {
        trail.Fail("cannot check the peer's public value");
        return -1;
    }
    if (BN_cmp(y, BN_value_one()) <= 0 || BN_cmp(y, pMinusOne.get()) >= 0) {
        trail.Fail("the peer's public value is out of range");
        return -1;
    }
    vkl::PkeyPtr own = vkl::MakeKey(vkl, *dh, dh->pub_key->bn.get(), dh->priv_key->bn.get(), EVP_PKEY_KEYPAIR);
    vkl::PkeyPtr other = vkl::MakeKey(vkl, *dh, y, nullptr, EVP_PKEY_PUBLIC_KEY);
    if (!own || !other) {
        trail.Fail("the key pair or the peer's value is not usable");
        return -1;
    }
    vkl::PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(vkl->libctx.get(), own.get(), nullptr));
    // Padded to the prime's size: a secret with leading zero bytes keeps its length.
    unsigned int pad = 1;
    OSSL_PARAM params[] = {OSSL_PARAM_construct_uint(OSSL_EXCHANGE_PARAM_PAD, &pad), OSSL_PARAM_construct_end()};
    size_t length = static_cast<size_t>(BN_num_bytes(p));
    if (!ctx || EVP_PKEY_derive_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_params(ctx.get(), params) != 1 ||
        EVP_PKEY_derive_set_peer_ex(ctx.get(), other.get(), 0) != 1 || EVP_PKEY_derive(ctx.get(), key, &length) != 1) {
        trail.Fail("cannot derive the shared secret");
        return -1;
    }
    return static_cast<int>(length);
}

}  // extern "C"
