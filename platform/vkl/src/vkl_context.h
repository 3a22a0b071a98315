// The VKL context of the stand-in and the algorithm descriptors it hands out.
#ifndef VKL_CONTEXT_H
#define VKL_CONTEXT_H

#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <vkl.h>

#include <array>

#include <openssl/crypto.h>

#include "handles.h"

namespace vkl {

// A complete RSA key recovered from n and d, named by SHA-256 over both; no key when no usual
// public exponent fits d. The name is derived from d, so it is wiped with the entry.
using KeyId = std::array<unsigned char, 32>;

// A key recovered from n and d whose factors have not passed their prime tests: p > q, p − 1,
// q − 1, d reduced modulo each, q⁻¹ mod p and q⁻¹·R² mod p (R of p's Montgomery context), both
// contexts and the e found. Every number is in secure memory.
struct SplitKey {
    BnPtr p, q, pLess, qLess, dp, dq, qinv, qinvR2;
    MontCtxPtr montP, montQ;
    unsigned long e = 0;
};

struct RecoveredKey {
    KeyId id{};
    // OpenSSL's key once the factors passed their tests; until then (and for good when they
    // fail) the split key, shared with the operations using it. `uses` counts operations before
    // the tests; `tested` is set when a thread takes them on.
    PkeyPtr key;
    std::shared_ptr<const SplitKey> split;
    unsigned uses = 0;
    bool tested = false;
    RecoveredKey() = default;
    RecoveredKey(const RecoveredKey&) = delete;
    RecoveredKey& operator=(const RecoveredKey&) = delete;
    ~RecoveredKey() { OPENSSL_cleanse(id.data(), id.size()); }
};

}  // namespace vkl

// A digest as VKL hands it out: fetched once per context, with the queries
// callers repeat on every message answered from fields.
struct VKL_EVP_MD_s {
    vkl::MdPtr md;
    int nid = 0;
    int size = 0;
    int blockSize = 0;
};

struct VKL_EVP_CIPHER_s {
    vkl::CipherPtr cipher;
    int nid = 0;
    int keyLength = 0;
    int ivLength = 0;
    int blockSize = 0;
    bool variableKeyLength = false;
};

struct VKL_s {
    vkl::LibCtxPtr libctx;
    vkl::ProviderPtr defaultProvider;
    vkl::ProviderPtr legacyProvider;
    VKL_STATUS_t status{};
    vkl::Live live;

    // Fetched algorithms, kept for the context's life: OpenSSL 3's implicit
    // fetch by name costs more than hashing a short message. Objects of one
    // context may be used on several threads, hence the lock; lookups share it.
    std::shared_mutex cacheLock;
    std::unordered_map<std::string, std::unique_ptr<VKL_EVP_MD_s>> digests;
    std::unordered_map<std::string, std::unique_ptr<VKL_EVP_CIPHER_s>> ciphers;
    std::unordered_map<std::string, vkl::MacPtr> macs;

    // Public RSA keys imported for verification and public-key operations, keyed by
    // n and e: callers rebuild the same key for every message, and the import costs
    // more than the verification. Never holds private material.
    std::mutex publicKeyLock;
    std::vector<std::pair<std::string, vkl::PkeyPtr>> publicKeys;
    size_t nextPublicKey = 0;

    // Complete keys recovered from records holding n and d, most recently used first
    // (see rsa_key.h); `keysReset` is the test reset they were made after.
    std::mutex privateKeyLock;
    std::list<vkl::RecoveredKey> privateKeys;
    unsigned long keysReset = 0;
};

namespace vkl {

// The digest named `name` (any name or alias OpenSSL knows), fetched on first use.
// Null, with "<function>: unknown digest <name>" queued, when there is none.
const VKL_EVP_MD_s* FetchDigest(VKL_t* vkl, const char* name, const char* function);

// The same for ciphers ("<function>: unknown cipher <name>").
const VKL_EVP_CIPHER_s* FetchCipher(VKL_t* vkl, const char* name, const char* function);

// The MAC algorithm named `name` ("HMAC"), fetched on first use; null with an entry queued.
EVP_MAC* FetchMac(VKL_t* vkl, const char* name, const char* function);

}  // namespace vkl

#endif  // VKL_CONTEXT_H
