// One party's side of a Diffie-Hellman key agreement: the group (Oakley group 2,
// group 14 or generated parameters), this party's key pair, and the shared secret
// computed from the peer's public value. Once an operation fails the object stays failed.
#ifndef CZULCRYPTDH_H
#define CZULCRYPTDH_H

#include "czulcryptbignum.h"
#include "czulcryptcontext.h"
#include "zulcryptexport.h"

// Holder of a VKL DH record. Deleting it never releases the record.
class C_VKL_DH_Wrap {
public:
    explicit C_VKL_DH_Wrap(VKL_DH_t* pDH) : m_pDH(pDH) {}
    VKL_DH_t* m_pDH;
};

class ZULCRYPT_API CZulCryptDH {
public:
    // The MODP primes, big-endian, both with generator 2: the 1024-bit prime of the
    // Second Oakley Group (RFC 2409) and the 2048-bit prime of group 14 (RFC 3526).
    static const unsigned char ms_Oakley2Prime[128];
    static const unsigned char ms_Oakley14Prime[256];

    // An object without group, to be given one by SetOakleyGroup2 or SetOakleyGroup14.
    // GetStatus() is false (reported) when VKL could not make a DH record or the context has no VKL.
    explicit CZulCryptDH(CZulCryptContext& context);
    // An object with generated parameters (a primeBits-bit prime, at least 512, and the
    // generator) and a generated key pair. Generating large primes takes long.
    CZulCryptDH(CZulCryptContext& context, int primeBits, int generator);
    // Releases the record and wipes and releases the shared secret.
    virtual ~CZulCryptDH();

    CZulCryptDH(const CZulCryptDH&) = delete;
    CZulCryptDH& operator=(const CZulCryptDH&) = delete;

    // Sets the group and generates a key pair; returns GetStatus(). A group that cannot be
    // set (reported) returns false without changing the status; a failed object takes the
    // group but generates nothing. A shared secret of the previous group is wiped and dropped.
    bool SetOakleyGroup2();
    bool SetOakleyGroup14();
    // Generates a fresh key pair for the group; failure (reported) fails the object.
    // Does nothing on a failed object.
    void GenerateKey();
    // A new number holding this party's public value, owned by the caller (delete it);
    // null without a key pair.
    CZulCryptBigNum* GetPublicKey();
    // Computes the shared secret with the peer's public value into a buffer of GetSize() bytes
    // (the secret with leading zero bytes kept). A null peer changes nothing. Any other failure
    // (no usable group, a peer value refused by VKL, an empty peer number) fails the object
    // (reported). Ends the process ("Insufficient memory") when the buffer cannot be allocated.
    void ComputeSharedSecret(CZulCryptBigNum* peerPublicKey);
    // The last computed secret, still owned by the object and replaced by the next computation;
    // null before the first. length is set to its size, or to GetSize() when there is none.
    unsigned char* GetSharedSecret(int& length);
    // The prime's size in bytes: 0 without a group, -1 without a DH record.
    int GetSize();
    // True while the object is usable.
    bool GetStatus();

private:
    bool SetOakleyGroup(const unsigned char* prime, int primeLength);
    // Wipes and releases the shared secret.
    void ReleaseSecret();
    VKL_t* Vkl();

    CZulCryptContext& m_rContext;
    C_VKL_DH_Wrap* m_pDHWrap;
    bool m_bStatus;
    unsigned char* m_pSharedSecret;
};

#endif  // CZULCRYPTDH_H
