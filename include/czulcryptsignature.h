// RSA signatures (PKCS #1 v1.5) over a named digest. The key is held as the
// modulus and one exponent: d to sign, e to verify.
#ifndef CZULCRYPTSIGNATURE_H
#define CZULCRYPTSIGNATURE_H

#include "czulcryptbignum.h"
#include "czulcryptcontext.h"
#include "zulcryptexport.h"

class ZULCRYPT_API CZulCryptSignature {
public:
    // Creates the VKL digest context; GetStatus() tells whether that worked.
    explicit CZulCryptSignature(CZulCryptContext& context);
    virtual ~CZulCryptSignature();

    CZulCryptSignature(const CZulCryptSignature&) = delete;
    CZulCryptSignature& operator=(const CZulCryptSignature&) = delete;

    // Run by the constructor; a second call on an object that has its digest context changes nothing.
    void Initialise();
    // Chooses the digest by VKL name ("SHA1", "RSA-SHA256") and copies the key's big-endian bytes.
    // False when the policy refuses the name, the object is disabled, the name is unknown
    // (the object is then disabled) or a number is null or empty (nothing reported for that).
    bool SetHashAndKey(const char* hashName, const unsigned char* modulus, unsigned int modulusLength,
                       const unsigned char* exponent, unsigned int exponentLength);
    // VKL's short name of the chosen digest, or null.
    const char* GetType();
    // The digest's output or block size in bytes, -1 without a chosen digest.
    int GetDigestSize();
    int GetDigestBlockSize();
    // The stored modulus's byte count (the size of a signature buffer), -1 without one.
    int GetSignatureSize();
    // Forgets the chosen digest; the key stays. Disables the object when VKL's cleanup fails.
    void ResetMessageDigest();
    bool GetStatus();

    // Signs dataLength bytes with (n, d) into signature (GetSignatureSize() bytes of room) and
    // stores its length. False, reported, on any failure; *signatureLength is then not written.
    // Both operations refuse (reported) a modulus or exponent that is missing or zero.
    bool GetSignature(void* data, unsigned int dataLength, unsigned char* signature, unsigned int* signatureLength);
    // As above into a buffer of GetSignatureSize() bytes from new[], the caller's to delete[].
    // On failure *signature is null and *signatureLength 0.
    bool GetSignature(void* data, unsigned int dataLength, unsigned char** signature, unsigned int* signatureLength);
    // True only when signature is valid for the data under (n, e) and the digest; a mismatch
    // is reported like any other failure.
    bool VerifySignature(void* data, unsigned int dataLength, void* signature, unsigned int signatureLength);

private:
    struct DigestCell {
        const VKL_EVP_MD_t* m_pDigest;
    };

    // Null on a context without VKL.
    VKL_t* Vkl();
    // VKL_EVP_MD_CTX_init of the digest context, whose failure is ignored.
    void InitDigestContext();
    // True when signing or verifying may go ahead; reports why not otherwise.
    bool Ready();
    // Signs or verifies with a key record built from the stored numbers.
    bool Run(bool sign, const void* data, unsigned int dataLength, unsigned char* signature,
             unsigned int* signatureLength, const void* given, unsigned int givenLength);

    CZulCryptContext& m_rContext;
    C_VKL_EVP_MD_CTX_Wrap* m_pMDCtxWrap;
    DigestCell* m_pMD;
    CZulCryptBigNum* m_pModulus;
    CZulCryptBigNum* m_pExponent;
    bool m_bStatus;
};

#endif  // CZULCRYPTSIGNATURE_H
