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
#include "memory.h"
#include "probe.h"
#include "rsa_key.h"
#include "vkl_context.h"

struct VKL_EVP_PKEY_s {
    // A reference of the container's own, dropped when the container goes.
    VKL_RSA_t* rsa = nullptr;
    vkl::Live live;
};

namespace vkl {
namespace {

// The DigestInfo prefixes (RFC 8017 section 9.2, note 1) of the digests OpenSSL's RSA
// signs and verifies with PKCS #1 v1.5 padding, byte for byte as OpenSSL writes them:
// its MD4 entry names the OID 1.2.840.113549.2.3, not MD4's own (...2.4), and MD5-SHA1
// (TLS 1.0 and 1.1) signs the bare 36 bytes. A digest not listed here is refused for
// signing and verifying alike: what VKL signs, it can verify.
struct DigestInfoPrefix {
    int nid;
    unsigned int hashLength;
    unsigned int length;
    unsigned char bytes[19];
};

constexpr DigestInfoPrefix kDigestInfos[] = {
    {NID_md4, 16, 18, {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x03, 0x05, 0x00,
                       0x04, 0x10}},
    {NID_md5, 16, 18, {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00,
                       0x04, 0x10}},
    {NID_md5_sha1, 36, 0, {}},
    {NID_ripemd160, 20, 15, {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x24, 0x03, 0x02, 0x01, 0x05, 0x00, 0x04, 0x14}},
    {NID_sha1, 20, 15, {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14}},
#define VKL_NIST_HASH(nid, last, hashLength)                                                                      \
    {nid, hashLength, 19, {0x30, static_cast<unsigned char>(0x11 + (hashLength)), 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, \
                           0x48, 0x01, 0x65, 0x03, 0x04, 0x02, last, 0x05, 0x00, 0x04, hashLength}}
    VKL_NIST_HASH(NID_sha256, 0x01, 32),
    VKL_NIST_HASH(NID_sha384, 0x02, 48),
    VKL_NIST_HASH(NID_sha512, 0x03, 64),
    VKL_NIST_HASH(NID_sha224, 0x04, 28),
    VKL_NIST_HASH(NID_sha512_224, 0x05, 28),
    VKL_NIST_HASH(NID_sha512_256, 0x06, 32),
    VKL_NIST_HASH(NID_sha3_224, 0x07, 28),
    VKL_NIST_HASH(NID_sha3_256, 0x08, 32),
    VKL_NIST_HASH(NID_sha3_384, 0x09, 48),
    VKL_NIST_HASH(NID_sha3_512, 0x0a, 64),
#undef VKL_NIST_HASH
};

// The prefix for the digest, or null with "<function>: digest <name> cannot be used in a
// PKCS #1 v1.5 signature" queued.
const DigestInfoPrefix* SignableDigest(const VKL_EVP_MD_s* md, const char* function) {
    for (const DigestInfoPrefix& entry : kDigestInfos) {
        if (entry.nid == md->nid && entry.hashLength == static_cast<unsigned int>(md->size)) return &entry;
    }
    const char* name = md->nid != NID_undef ? OBJ_nid2sn(md->nid) : nullptr;
    if (name == nullptr) name = EVP_MD_get0_name(md->md.get());
    QueueError(std::string(function) + ": digest " + (name != nullptr ? name : "?") +
               " cannot be used in a PKCS #1 v1.5 signature");
    return nullptr;
}

// T of RFC 8017 section 9.2: the DigestInfo prefix followed by the hash.
void DigestInfo(const DigestInfoPrefix& prefix, const unsigned char* hash, std::vector<unsigned char>& out) {
    out.assign(prefix.bytes, prefix.bytes + prefix.length);
    out.insert(out.end(), hash, hash + prefix.hashLength);
}

bool HaveKey(VKL_t* vkl, const VKL_EVP_PKEY_s* pkey, const char* function) {
    if (vkl == nullptr || pkey == nullptr || pkey->rsa == nullptr) {
        QueueError(std::string(function) + ": no VKL context or no key");
        return false;
    }
    return true;
}

// The signing of OpenSSL's RSA when the key imports or can be completed; by hand, to the same
// bytes, when it holds no e and none of the usual ones fits.
bool Sign(VKL_t* vkl, const VKL_RSA_t* rsa, const VKL_EVP_MD_s* md, const unsigned char* hash,
          unsigned int hashLength, unsigned char* signature, unsigned int* length, const char* function) {
    if (!KeyUsable(rsa, true, function)) return false;
    const DigestInfoPrefix* prefix = SignableDigest(md, function);
    if (prefix == nullptr) return false;
    const size_t k = static_cast<size_t>(ModulusBytes(rsa));
    PkeyPtr key = rsa->e == nullptr ? CompleteKey(vkl, rsa) : ToOpenSslKey(vkl, rsa, true, function);
    if (!key && rsa->e == nullptr) {
        std::vector<unsigned char> t;
        DigestInfo(*prefix, hash, t);
        if (t.size() + 11 > k) {
            ERR_raise(ERR_LIB_RSA, RSA_R_DIGEST_TOO_BIG_FOR_RSA_KEY);
            return false;
        }
        // 00 01 FF..FF 00 T: the vector starts zeroed, so the two 00 bytes are there already.
        std::vector<unsigned char> em(k);
        em[1] = 0x01;
        std::memset(em.data() + 2, 0xFF, k - t.size() - 3);
        std::memcpy(em.data() + k - t.size(), t.data(), t.size());
        const bool ok = PrivateExponentiate(vkl, rsa, em.data(), signature, function);
        if (ok) *length = static_cast<unsigned int>(k);
        return ok;
    }
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
    VKL_EVP_PKEY_t* pkey = vkl::Make<VKL_EVP_PKEY_s>().release();
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
    return ok;
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
    if (!vkl::FinishDigest(vkl, ctx, hash, &hashLength, &md, __func__) || !vkl::HaveKey(vkl, pkey, __func__) ||
        vkl::SignableDigest(md, __func__) == nullptr) {
        return -1;
    }
    // OpenSSL refuses such an e too, but its verification gives no cause; checked first, so that a
    // key refused is not made and kept.
    if (!vkl::HasPublicKey(pkey->rsa, __func__) || !vkl::ExponentsUsable(pkey->rsa, false, __func__)) return -1;
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
