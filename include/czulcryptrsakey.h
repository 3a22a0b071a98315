// An RSA key as up to eight big numbers. VKL records are built from it on
// demand and never kept: the key shares nothing with VKL between calls.
#ifndef CZULCRYPTRSAKEY_H
#define CZULCRYPTRSAKEY_H

#include "czulcryptbignum.h"
#include "czulcryptcontext.h"
#include "zulcryptexport.h"

class ZULCRYPT_API CZulCryptRSAKey {
public:
    // Failed generation attempts that GenerateKey tolerates before giving up.
    static const int ms_MaxKeyAttempts;

    explicit CZulCryptRSAKey(CZulCryptContext& context);
    virtual ~CZulCryptRSAKey();

    CZulCryptRSAKey(const CZulCryptRSAKey&) = delete;
    CZulCryptRSAKey& operator=(const CZulCryptRSAKey&) = delete;

    // Releases every component; the key is empty.
    void ClearKey();
    // Bytes of the modulus as held, 0 without one.
    unsigned int KeySize() const;
    // A new key of all eight components from VKL. Each failed attempt is reported; after
    // ms_MaxKeyAttempts + 1 failures the key is left empty (KeySize() 0).
    void GenerateKey(int bits, unsigned long publicExponent);
    // Copies every component present in the record; the record stays the caller's.
    // A null holder or record, or a context without VKL, is reported and leaves the key unchanged.
    void SetKey(C_VKL_RSA_Wrap* rsa);
    // Puts each component the key holds into the record as a new VKL number (replacing and
    // releasing what the field held); absent components leave their fields alone. The record
    // owns the numbers afterwards. Does nothing for a null holder or record, nor (reported) on a
    // context without VKL. A component VKL did not take leaves its field empty rather than zero.
    void BuildKeyStruct(C_VKL_RSA_Wrap* rsa) const;
    // Takes the two objects over (made with new; either may be null) and nulls the caller's
    // pointers; a key holding n or e is cleared first. Both arguments must be valid addresses.
    void PopulateWithPublic(CZulCryptBigNum** modulus, CZulCryptBigNum** publicExponent);
    // Copies n and e (a null argument leaves the component out); a key holding n or e is cleared first.
    void PopulateWithPublic(const CZulCryptBigNum* modulus, const CZulCryptBigNum* publicExponent);
    // Copies n and d (a null argument leaves the component out); a key holding n or d is cleared first.
    void PopulateWithPrivate(const CZulCryptBigNum* modulus, const CZulCryptBigNum* privateExponent);

private:
    // A copy of number's bytes on this key's context, or null for a null number.
    CZulCryptBigNum* Copy(const CZulCryptBigNum* number) const;

    CZulCryptContext& m_rContext;
    CZulCryptBigNum* m_pN;
    CZulCryptBigNum* m_pP;
    CZulCryptBigNum* m_pQ;
    CZulCryptBigNum* m_pE;
    CZulCryptBigNum* m_pD;
    CZulCryptBigNum* m_pDmp1;
    CZulCryptBigNum* m_pDmq1;
    CZulCryptBigNum* m_pIqmp;
};

#endif  // CZULCRYPTRSAKEY_H
