// Keyed message digests (RFC 2104) built over a message digest context.
#ifndef CZULCRYPTHMAC_H
#define CZULCRYPTHMAC_H

#include <cstdint>

#include "czulcryptcontext.h"
#include "czulcryptmdcontext.h"
#include "zulcryptexport.h"

class ZULCRYPT_API CZulCryptHMAC {
public:
    // The bytes XORed into the padded key for the inner and the outer hash.
    static const unsigned char ms_InPadNum;
    static const unsigned char ms_OutPadNum;

    // Chooses the digest by name and prepares the padded keys from keyLength bytes of key
    // (hashed first when longer than the digest's block). A null name, a refused or unknown
    // digest, a null key with a non-zero length or a failed key hash leave the object not
    // set up: GetHMAC then returns false. Ends the process ("Insufficient memory") when
    // memory runs out.
    CZulCryptHMAC(CZulCryptContext& context, const char* digestName, const unsigned char* key,
                  unsigned int keyLength);
    virtual ~CZulCryptHMAC();

    CZulCryptHMAC(const CZulCryptHMAC&) = delete;
    CZulCryptHMAC& operator=(const CZulCryptHMAC&) = delete;

    // Writes the HMAC of dataLength bytes of data into hmac, which must hold GetDigestSize()
    // bytes, and its length into *hmacLength. False, with *hmacLength untouched, for null data
    // or output, an object not set up, a length too large to add the padded key to, or a VKL
    // failure; a hash that failed half way is started afresh, so the next call never
    // hashes what was left of it.
    bool GetHMAC(unsigned char* data, unsigned int dataLength, unsigned char* hmac, unsigned int* hmacLength);
    // The same into a buffer of GetDigestSize() bytes allocated with malloc, stored in *hmac on
    // success; the caller releases it with free. On failure *hmac is left as it was and
    // *hmacLength becomes 0 (except for a null data or output pointer, or an object not set up,
    // where nothing is written).
    bool GetHMAC(unsigned char* data, unsigned int dataLength, unsigned char** hmac, unsigned int* hmacLength);

    // The digest's length in bytes; -1 when no digest is chosen.
    int GetDigestSize();
    // The digest's block length in bytes; -1 when no digest is chosen.
    int GetDigestBlockSize();
    // VKL's short name of the digest, or null.
    const char* GetType();
    // Whether the embedded digest context is usable (not whether the key was set up).
    bool GetStatus();

private:
    // Hashes input into digest and starts the digest afresh, also when the hash failed.
    bool Hash(unsigned char* input, uint32_t length, unsigned char* digest, unsigned int* digestLength);
    bool Rearm();

    CZulCryptContext& m_rContext;
    CZulCryptMDContext m_MDContext;
    unsigned char* m_pInnerPad;
    unsigned char* m_pOuterPad;
    uint32_t m_PadLength;
    bool m_bStatus;
};

#endif  // CZULCRYPTHMAC_H
