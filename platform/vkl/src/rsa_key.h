// RSA inside the VKL stand-in: turning VKL's RSA record into OpenSSL keys, and
// the private operations for records that carry n and d but no e, which
// OpenSSL 3 will not import.
#ifndef VKL_RSA_KEY_H
#define VKL_RSA_KEY_H

#include <cstddef>
#include <memory>

#include <vkl.h>

#include "handles.h"

namespace vkl {

// OpenSSL explains one failure in up to three entries. Callers read one entry per
// failure, so the rest would be taken as the cause of their next failure: a scope keeps
// only the entry that names the cause.
class ErrorScope {
public:
    ErrorScope();
    ~ErrorScope();
    ErrorScope(const ErrorScope&) = delete;
    ErrorScope& operator=(const ErrorScope&) = delete;

    // Leaves the first entry raised since construction (if any) as the only one, then
    // queues "<function>: <cause>" if the queue is empty.
    void Fail(const char* function, const char* cause);
    // Drops every entry raised since construction.
    void Drop();

private:
    // False when the queue was empty at construction: everything on it is then ours.
    bool m_marked;
    bool m_open = true;
};

// Drops one reference to the record; the last one releases it and its (cleared) numbers.
void ReleaseRecord(VKL_RSA_t* rsa);
using RecordPtr = std::unique_ptr<VKL_RSA_t, Deleter<VKL_RSA_t, ReleaseRecord>>;

// An OpenSSL key of the record: n and e, plus d (and the CRT values when all five are
// present) when `withPrivate`. Null with the cause queued as `function`'s.
PkeyPtr ToOpenSslKey(VKL_t* vkl, const VKL_RSA_t* rsa, bool withPrivate, const char* function);

// Whether the record holds what the operation needs; queues "<function>: the key has no ..." if not,
// and "<function>: the key's <modulus|public exponent|private exponent> is negative" for a negative one.
bool HasPublicKey(const VKL_RSA_t* rsa, const char* function);
bool HasPrivateKey(const VKL_RSA_t* rsa, const char* function);

// For a record holding n and d but no e: OpenSSL's complete key, recovered by an earlier
// RecoverKey, kept among the 8 keys used last, and with factors that passed their prime tests.
// Null otherwise; the error queue is left as it was.
PkeyPtr CompleteKey(VKL_t* vkl, const VKL_RSA_t* rsa);

struct SplitKey;
struct Recovered {
    PkeyPtr key;
    std::shared_ptr<const SplitKey> split;
};

// For a record holding n and d but no e: what the key's factors allow, found now when the record
// is met for the first time in this context (and kept), or kept from before. OpenSSL's complete
// key once its factors passed their prime tests (run on the key's 64th use); before that, and for
// good when they fail, the split key for SplitExponentiate. Neither when no usual public exponent
// fits d, the factors are not coprime, the modulus is over 4096 bits, or the recovery failed
// (tried again next time); the caller then exponentiates with d. The error queue is left as it was.
Recovered RecoverKey(VKL_t* vkl, const VKL_RSA_t* rsa, BN_CTX* ctx);

// result = m^d mod n (m below n) from the split key of (n, d), with constant-time exponentiations;
// false when OpenSSL failed or the result fails its check with e (a fault): the caller then
// exponentiates with d.
bool SplitExponentiate(const SplitKey& key, const BIGNUM* m, const BIGNUM* d, const BIGNUM* n, BIGNUM* result,
                       BN_CTX* ctx);

// Modulus length in bytes.
int ModulusBytes(const VKL_RSA_t* rsa);

// The largest modulus VKL works with, OpenSSL's bound for its public operations.
constexpr int kMaxModulusBits = 16384;
// OpenSSL's bound for e in its public operations: at most 64 bits above 3072-bit moduli (its
// headers give them only to code that uses its deprecated API).
constexpr int kSmallModulusBits = 3072;
constexpr int kMaxPublicExponentBits = 64;
// The smallest modulus PKCS #1 v1.5 padding fits: 00, the block type, eight padding bytes and 00.
constexpr int kMinModulusBytes = 11;

// Whether the record's modulus (present) is within both bounds. A larger one queues OpenSSL's
// own "modulus too large", as a public operation on it does; a smaller one queues
// "<function>: the modulus has <n> bits, PKCS #1 v1.5 padding needs at least 88".
bool ModulusSizeUsable(const VKL_RSA_t* rsa, const char* function);

// Whether the record's exponents (n present, and d when `withPrivate`) are within bounds, checked
// before any exponentiation, whose cost follows its exponent's length. An e not below n, or, for a
// public operation only, over 64 bits with a modulus over 3072 bits (OpenSSL's own bound there),
// queues OpenSSL's own "bad e value", as they do; a d longer than n "<function>: the private
// exponent has <d> bits, more than the modulus's <n>".
bool ExponentsUsable(const VKL_RSA_t* rsa, bool withPrivate, const char* function);

// The three checks above, for the operation's key: what it needs, its modulus, its exponents.
inline bool KeyUsable(const VKL_RSA_t* rsa, bool isPrivate, const char* function) {
    return (isPrivate ? HasPrivateKey(rsa, function) : HasPublicKey(rsa, function)) &&
           ModulusSizeUsable(rsa, function) && ExponentsUsable(rsa, isPrivate, function);
}

// out = em^d mod n, as many bytes as the modulus, with a constant-time exponentiation.
// `em` is the modulus length. False with the cause queued.
bool PrivateExponentiate(VKL_t* vkl, const VKL_RSA_t* rsa, const unsigned char* em, unsigned char* out,
                         const char* function);

}  // namespace vkl

#endif  // VKL_RSA_KEY_H
