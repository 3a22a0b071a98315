// Ownership of OpenSSL handles inside the stand-in: one deleter per type, so
// that no early return can leak or double-free.
#ifndef VKL_HANDLES_H
#define VKL_HANDLES_H

#include <atomic>
#include <memory>

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/provider.h>

namespace vkl {

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};

// OSSL_PROVIDER_unload returns int; the deleter ignores it on purpose.
inline void UnloadProvider(OSSL_PROVIDER* p) { (void)OSSL_PROVIDER_unload(p); }

using LibCtxPtr = std::unique_ptr<OSSL_LIB_CTX, Deleter<OSSL_LIB_CTX, OSSL_LIB_CTX_free>>;
using ProviderPtr = std::unique_ptr<OSSL_PROVIDER, Deleter<OSSL_PROVIDER, UnloadProvider>>;
using MdPtr = std::unique_ptr<EVP_MD, Deleter<EVP_MD, EVP_MD_free>>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using CipherPtr = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER, EVP_CIPHER_free>>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>>;
using MacPtr = std::unique_ptr<EVP_MAC, Deleter<EVP_MAC, EVP_MAC_free>>;
using MacCtxPtr = std::unique_ptr<EVP_MAC_CTX, Deleter<EVP_MAC_CTX, EVP_MAC_CTX_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, Deleter<BN_CTX, BN_CTX_free>>;
using MontCtxPtr = std::unique_ptr<BN_MONT_CTX, Deleter<BN_MONT_CTX, BN_MONT_CTX_free>>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, Deleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using ParamsPtr = std::unique_ptr<OSSL_PARAM, Deleter<OSSL_PARAM, OSSL_PARAM_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;

// A member of every handle the stand-in hands out: the count of those alive lets a test
// see a leaked handle without a sanitizer (VKLTest_LiveObjects).
struct Live {
    Live() noexcept { Count().fetch_add(1, std::memory_order_relaxed); }
    Live(const Live&) noexcept : Live() {}
    Live& operator=(const Live&) noexcept { return *this; }  // NOLINT(cert-oop54-cpp): the count stays, self or not
    ~Live() { Count().fetch_sub(1, std::memory_order_relaxed); }
    static std::atomic<long>& Count() {
        static std::atomic<long> count{0};
        return count;
    }
};

}  // namespace vkl

#endif  // VKL_HANDLES_H
