// Key containers and PKCS #1 v1.5 signing and verification over a finished hash.
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>

#include "digest_finish.h"
#include "errors.h"
#include "probe.h"
#include "rsa_key.h"
#include "vkl_context.h"

struct VKL_EVP_PKEY_s {
    // A reference of the container's own, dropped when the container goes.
    VKL_RSA_t* rsa = nullptr;
};

namespace vkl {
namespace {

// DER DigestInfo of RFC 8017 section 9.2: SEQUENCE { SEQUENCE { OID, NULL }, OCTET STRING hash }.
// Every length fits in one byte for the digests OpenSSL offers (at most 64-byte hashes).
bool DigestInfo(int nid, const unsigned char* hash, unsigned int hashLength, std::vector<unsigned char>& out,
                const char* function) {
    const ASN1_OBJECT* oid = OBJ_nid2obj(nid);
    const int oidLength = oid != nullptr ? OBJ_length(oid) : 0;
    if (oidLength <= 0 || oidLength > 32 || hashLength > 64) {
        QueueError(std::string(function) + ": no DigestInfo for digest " + std::to_string(nid));
        return false;
    }
    // Content lengths: the algorithm holds the OID and NULL, each with its two-byte header.
    const unsigned int algorithm = 2 + static_cast<unsigned int>(oidLength) + 2;
    out.clear();
    out.insert(out.end(), {0x30, static_cast<unsigned char>(2 + algorithm + 2 + hashLength)});
    out.insert(out.end(), {0x30, static_cast<unsigned char>(algorithm), 0x06, static_cast<unsigned char>(oidLength)});
    const unsigned char* body = OBJ_get0_data(oid);
    out.insert(out.end(), body, body + oidLength);
    out.insert(out.end(), {0x05, 0x00, 0x04, static_cast<unsigned char>(hashLength)});
    out.insert(out.end(), hash, hash + hashLength);
    return true;
}

bool HaveKey(VKL_t* vkl, const VKL_EVP_PKEY_s* pkey, const char* function) {
    if (vkl == nullptr || pkey == nullptr || pkey->rsa == nullptr) {
        QueueError(std::string(function) + ": no VKL context or no key");
        return false;
    }
    return true;
}

// The signing of OpenSSL's RSA when the key imports; by hand, to the same bytes, when it holds no e.
bool Sign(VKL_t* vkl, const VKL_RSA_t* rsa, const VKL_EVP_MD_s* md, const unsigned char* hash,
          unsigned int hashLength, unsigned char* signature, unsigned int* length, const char* function) {
    if (!HasPrivateKey(rsa, function)) return false;
    const size_t k = static_cast<size_t>(ModulusBytes(rsa));
    if (rsa->e == nullptr) {
        std::vector<unsigned char> t;
        if (!DigestInfo(md->nid, hash, hashLength, t, function)) return false;
        if (t.size() + 11 > k) {
            ERR_raise(ERR_LIB_RSA, RSA_R_DIGEST_TOO_BIG_FOR_RSA_KEY);
            return false;
        }
        std::vector<unsigned char> em(k);
        em[0] = 0x00;
        em[1] = 0x01;
        std::memset(em.data() + 2, 0xFF, k - t.size() - 3);
        em[k - t.size() - 1] = 0x00;
        std::memcpy(em.data() + k - t.size(), t.data(), t.size());
        const bool ok = PrivateExponentiate(vkl, rsa, em.data(), signature, function);
        if (ok) *length = static_cast<unsigned int>(k);
        return ok;
    }
    PkeyPtr key = ToOpenSslKey(vkl, rsa, true, function);
    if (!key) return false;
    ErrorScope errors;
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(vkl->libctx.get(), key.get(), nullptr));
    size_t written = k;
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), md->md.get()) != 1 ||
        EVP_PKEY_sign(ctx.get(), signature, &written, hash, hashLength) != 1) {
        errors.Fail(function, "cannot sign");
        return false;
    }
    *length = static_cast<unsigned int>(written);
    return true;
}

}  // namespace
}  // namespace vkl

extern "C" {

VKL_EVP_PKEY_t* VKL_EVP_PKEY_new(VKL_t*) {
    VKL_ENTER(VKL_EVP_PKEY_t*);
    VKL_EVP_PKEY_t* pkey = new (std::nothrow) VKL_EVP_PKEY_s;
    if (pkey == nullptr) vkl::QueueError(std::string(__func__) + ": out of memory");
    return pkey;
}

void VKL_EVP_PKEY_free(VKL_t*, VKL_EVP_PKEY_t* pkey) {
    VKL_ENTER(void);
    if (pkey == nullptr) return;
    vkl::ReleaseRecord(pkey->rsa);
    delete pkey;
}

int VKL_EVP_PKEY_set1_RSA(VKL_t*, VKL_EVP_PKEY_t* pkey, VKL_RSA_t* rsa) {
    VKL_ENTER(int);
    if (pkey == nullptr || rsa == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no key container or no RSA record");
        return 0;
    }
    ++rsa->references;
    vkl::ReleaseRecord(pkey->rsa);
    pkey->rsa = rsa;
    return 1;
}

int VKL_EVP_SignFinal(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, unsigned char* signature, unsigned int* length,
                      VKL_EVP_PKEY_t* pkey) {
    VKL_ENTER(int);
    if (signature == nullptr || length == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no output buffer");
        return 0;
    }
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int hashLength = 0;
    const VKL_EVP_MD_s* md = nullptr;
    if (!vkl::FinishDigest(vkl, ctx, hash, &hashLength, &md, __func__)) return 0;
    const bool ok = vkl::HaveKey(vkl, pkey, __func__) &&
                    vkl::Sign(vkl, pkey->rsa, md, hash, hashLength, signature, length, __func__);
    return ok ? 1 : 0;
}

int VKL_EVP_VerifyFinal(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, const unsigned char* signature, unsigned int length,
                        VKL_EVP_PKEY_t* pkey) {
    VKL_ENTER_LEN(int, length);
    if (signature == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no signature");
        return -1;
    }
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int hashLength = 0;
    const VKL_EVP_MD_s* md = nullptr;
    if (!vkl::FinishDigest(vkl, ctx, hash, &hashLength, &md, __func__) || !vkl::HaveKey(vkl, pkey, __func__)) {
        return -1;
    }
    vkl::PkeyPtr key = vkl::ToOpenSslKey(vkl, pkey->rsa, false, __func__);
    if (!key) return -1;
    vkl::ErrorScope errors;
    vkl::PkeyCtxPtr keyCtx(EVP_PKEY_CTX_new_from_pkey(vkl->libctx.get(), key.get(), nullptr));
    if (!keyCtx || EVP_PKEY_verify_init(keyCtx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(keyCtx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(keyCtx.get(), md->md.get()) != 1) {
        errors.Fail(__func__, "cannot start the verification");
        return -1;
    }
    const int verified = EVP_PKEY_verify(keyCtx.get(), signature, length, hash, hashLength);
    if (verified == 1) return 1;
    if (verified == 0) {
        // OpenSSL names the stage at which the check failed; all a caller can act on is
        // that the signature does not match.
        errors.Drop();
        vkl::QueueError(std::string(__func__) + ": the signature does not match");
        return 0;
    }
    errors.Fail(__func__, "cannot verify");
    return -1;
}

}  // extern "C"
