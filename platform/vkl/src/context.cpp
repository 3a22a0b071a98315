#include <cstring>
#include <mutex>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include "errors.h"
#include "memory.h"
#include "probe.h"
#include "vkl_context.h"

namespace vkl {
namespace {

// Looks `key` up under the shared lock; on a miss makes the entry without the
// lock (a fetch can take long) and keeps whichever entry lands first.
template <class Map, class Make>
auto* CachedEntry(VKL_t* vkl, Map& map, const char* key, Make make) {
    {
        std::shared_lock<std::shared_mutex> guard(vkl->cacheLock);
        auto it = map.find(key);
        if (it != map.end()) return it->second.get();
    }
    auto made = make();
    if (!made) return static_cast<decltype(made.get())>(nullptr);
    std::unique_lock<std::shared_mutex> guard(vkl->cacheLock);
    auto& slot = map[key];
    if (!slot) slot = std::move(made);
    return slot.get();
}

// Names OpenSSL's fetch does not know but its object table does ("RSA-SHA1"
// is SHA1 to a digest lookup): map them to the algorithm's own name.
std::string CanonicalDigestName(const char* name) {
    const EVP_MD* legacy = EVP_get_digestbyname(name);
    return legacy != nullptr ? EVP_MD_get0_name(legacy) : std::string();
}

std::string CanonicalCipherName(const char* name) {
    const EVP_CIPHER* legacy = EVP_get_cipherbyname(name);
    return legacy != nullptr ? EVP_CIPHER_get0_name(legacy) : std::string();
}

// MAC names have no older spelling to try.
std::string NoOtherName(const char*) { return std::string(); }

// Provider ciphers do not report EVP_CIPH_VARIABLE_LENGTH, so ask: a fixed
// key length refuses any other.
bool HasVariableKeyLength(const EVP_CIPHER* cipher, int keyLength) {
    if (keyLength <= 1) return false;
    CipherCtxPtr probe(EVP_CIPHER_CTX_new());
    ERR_set_mark();
    bool variable = probe && EVP_CipherInit_ex2(probe.get(), cipher, nullptr, nullptr, 1, nullptr) == 1 &&
                    EVP_CIPHER_CTX_set_key_length(probe.get(), keyLength - 1) == 1;
    ERR_pop_to_mark();
    return variable;
}

template <class Ptr, class Fetch>
Ptr FetchByName(VKL_t* vkl, const char* name, std::string (*canonical)(const char*), Fetch fetch) {
    // A miss is reported by our own entry naming the algorithm, not by
    // OpenSSL's generic "unsupported" entries.
    ERR_set_mark();
    Ptr fetched(fetch(vkl->libctx.get(), name, nullptr));
    if (!fetched) {
        std::string other = canonical(name);
        if (!other.empty()) fetched.reset(fetch(vkl->libctx.get(), other.c_str(), nullptr));
    }
    ERR_pop_to_mark();
    return fetched;
}

}  // namespace

const VKL_EVP_MD_s* FetchDigest(VKL_t* vkl, const char* name, const char* function) {
    if (vkl == nullptr || name == nullptr) {
        QueueError(std::string(function) + ": no digest name");
        return nullptr;
    }
    const VKL_EVP_MD_s* entry = CachedEntry(vkl, vkl->digests, name, [&] {
        std::unique_ptr<VKL_EVP_MD_s> made;
        MdPtr md = FetchByName<MdPtr>(vkl, name, CanonicalDigestName, EVP_MD_fetch);
        if (md) {
            made = Make<VKL_EVP_MD_s>();
            if (!made) return made;
            made->nid = EVP_MD_get_type(md.get());
            made->size = EVP_MD_get_size(md.get());
            made->blockSize = EVP_MD_get_block_size(md.get());
            made->md = std::move(md);
        }
        return made;
    });
    if (entry == nullptr) QueueError(std::string(function) + ": unknown digest " + name);
    return entry;
}

const VKL_EVP_CIPHER_s* FetchCipher(VKL_t* vkl, const char* name, const char* function) {
    if (vkl == nullptr || name == nullptr) {
        QueueError(std::string(function) + ": no cipher name");
        return nullptr;
    }
    const VKL_EVP_CIPHER_s* entry = CachedEntry(vkl, vkl->ciphers, name, [&] {
        std::unique_ptr<VKL_EVP_CIPHER_s> made;
        CipherPtr cipher = FetchByName<CipherPtr>(vkl, name, CanonicalCipherName, EVP_CIPHER_fetch);
        if (cipher) {
            made = Make<VKL_EVP_CIPHER_s>();
            if (!made) return made;
            made->nid = EVP_CIPHER_get_nid(cipher.get());
            made->keyLength = EVP_CIPHER_get_key_length(cipher.get());
            made->ivLength = EVP_CIPHER_get_iv_length(cipher.get());
            made->blockSize = EVP_CIPHER_get_block_size(cipher.get());
            made->variableKeyLength = HasVariableKeyLength(cipher.get(), made->keyLength);
            made->cipher = std::move(cipher);
        }
        return made;
    });
    if (entry == nullptr) QueueError(std::string(function) + ": unknown cipher " + name);
    return entry;
}

EVP_MAC* FetchMac(VKL_t* vkl, const char* name, const char* function) {
    EVP_MAC* mac = CachedEntry(vkl, vkl->macs, name, [&] {
        return FetchByName<MacPtr>(vkl, name, NoOtherName, EVP_MAC_fetch);
    });
    if (mac == nullptr) QueueError(std::string(function) + ": unknown MAC " + name);
    return mac;
}

}  // namespace vkl

extern "C" {

VKL_t* VKL_CTX_new(void) {
    VKL_ENTER(VKL_t*);
    auto vkl = vkl::Make<VKL_s>();
    if (vkl) vkl->libctx.reset(OSSL_LIB_CTX_new());
    if (!vkl || !vkl->libctx) {
        vkl::QueueErrorIfEmpty(__func__, "cannot create an OpenSSL library context");
        return nullptr;
    }
    // DES-CBC (SNMPv3 privacy) lives in OpenSSL 3's legacy provider.
    vkl->defaultProvider.reset(OSSL_PROVIDER_load(vkl->libctx.get(), "default"));
    vkl->legacyProvider.reset(OSSL_PROVIDER_load(vkl->libctx.get(), "legacy"));
    if (!vkl->defaultProvider) {
        vkl::FillStatus(&vkl->status, VKL_MAJOR_OPENSSL_ERROR, VKL_MINOR_LIBRARY_NOT_FOUND,
                       "OpenSSL default provider not available");
    } else if (!vkl->legacyProvider) {
        vkl::FillStatus(&vkl->status, VKL_MAJOR_WARNING, VKL_MINOR_LIBRARY_NOT_FOUND,
                       "OpenSSL legacy provider not available");
    }
    ERR_clear_error();
    return vkl.release();
}

// The member order of VKL_s releases the fetched algorithms and the providers
// before their library context.
void VKL_CTX_free(VKL_t* vkl) {
    VKL_ENTER(void);
    delete vkl;
}

const char* VKL_Version(VKL_t*) { return OpenSSL_version(OPENSSL_VERSION); }

}  // extern "C"
