// Raw RSA with PKCS #1 v1.5 padding over a CZulCryptRSAKey. Every call builds
// a fresh VKL RSA record from the key and releases it before returning.
#ifndef CZULCRYPTRSACALCULATOR_H
#define CZULCRYPTRSACALCULATOR_H

#include "czulcryptcontext.h"
#include "czulcryptrsakey.h"
#include "zulcryptexport.h"

class ZULCRYPT_API CZulCryptRSACalculator {
public:
    explicit CZulCryptRSACalculator(CZulCryptContext& context);
    virtual ~CZulCryptRSACalculator();

    CZulCryptRSACalculator(const CZulCryptRSACalculator&) = delete;
    CZulCryptRSACalculator& operator=(const CZulCryptRSACalculator&) = delete;

    // Each returns the bytes written to `to`, which needs room for key.KeySize() bytes, or -1
    // with VKL's cause reported. The public forms need n and e; the private forms need n and d
    // (and use the CRT values when the key has all of them). Encryption takes at most
    // KeySize() - 11 bytes; decryption checks and removes the padding.
    int RSAPublicEncrypt(const unsigned char* from, unsigned int fromLength, const CZulCryptRSAKey& key,
                         unsigned char* to);
    int RSAPublicDecrypt(const unsigned char* from, unsigned int fromLength, const CZulCryptRSAKey& key,
                         unsigned char* to);
    int RSAPrivateEncrypt(const unsigned char* from, unsigned int fromLength, const CZulCryptRSAKey& key,
                          unsigned char* to);
    int RSAPrivateDecrypt(const unsigned char* from, unsigned int fromLength, const CZulCryptRSAKey& key,
                          unsigned char* to);

    // Puts the key's components into the wrapped record (CZulCryptRSAKey::BuildKeyStruct).
    void BuildRSAKeyStruct(const CZulCryptRSAKey& key, C_VKL_RSA_Wrap* rsa);

private:
    using Operation = int (*)(VKL_t*, int, const unsigned char*, unsigned char*, VKL_RSA_t*, int);
    int Run(Operation operation, const unsigned char* from, unsigned int fromLength, const CZulCryptRSAKey& key,
            unsigned char* to);

    CZulCryptContext& m_rContext;
};

#endif  // CZULCRYPTRSACALCULATOR_H
