// An unsigned big integer held as its big-endian bytes, exactly as they were
// set (leading zero bytes kept, no sign). The currency of RSA key components,
// Diffie-Hellman public values and signature keys.
#ifndef CZULCRYPTBIGNUM_H
#define CZULCRYPTBIGNUM_H

#include "czulcryptcontext.h"
#include "zulcryptexport.h"

class ZULCRYPT_API CZulCryptBigNum {
public:
    // The context is used only for VKL calls (conversions, random fill); it must outlive the number.
    // On a context without VKL those calls are refused ("VKL Context in an invalid state"), value unchanged.
    explicit CZulCryptBigNum(CZulCryptContext& context);
    virtual ~CZulCryptBigNum();

    CZulCryptBigNum(const CZulCryptBigNum&) = delete;
    CZulCryptBigNum& operator=(const CZulCryptBigNum&) = delete;

    // Copies the magnitude of a VKL number. False for a null holder or number (value unchanged),
    // or when VKL wrote another count than its bit length promised ("Failed to create big num";
    // the value then holds only as many of the written bytes as the bit length promised).
    bool SetNumber(const C_VKL_BIGNUM_Wrap* number);
    // Copies length raw bytes, which may be this number's own. False, value unchanged, for null
    // bytes or a length of 0.
    bool SetNumber(unsigned int length, const unsigned char* bytes);
    // Reads a packet: a 16-bit big-endian bit count, then (bits + 7) / 8 bytes; it may lie in
    // this number's own bytes. False, value unchanged, for a null packet.
    bool SetNumber(const unsigned char* packet);

    // Number of bytes held.
    unsigned int GetLen() const;
    // The held bytes (no length prefix); valid until the next setter or destruction. Null when never set.
    const unsigned char* GetBigNumPacket() const;

    // A new VKL number with the held value in a new holder, both the caller's
    // (release the number with VKL_BN_clear_free, then delete the holder). Null for an empty number.
    C_VKL_BIGNUM_Wrap* BuildNumber() const;
    // Writes the held value into the holder's existing VKL number. False for a null holder, a
    // holder without a number, or a value VKL did not take (it would stand as zero).
    bool PopulateNumber(C_VKL_BIGNUM_Wrap* number) const;
    // Replaces the value with (bits + 7) / 8 random bytes (all bits random); 0 bits keeps the value.
    void PopulateRandom(unsigned int bits);
    // Hex dump of the held bytes to standard output; "NULL" when empty.
    void Dump() const;

private:
    // Wipes and frees the held bytes; the number is then empty.
    void Release();
    // Holds length bytes copied from source (zeros for a null source), then releases the old
    // bytes, which may be the source. False (empty number, reported) when memory runs out.
    bool Allocate(unsigned int length, const unsigned char* source);

    CZulCryptContext& m_rContext;
    unsigned char* m_pBigNumPacket;
    unsigned int m_uLen;
};

#endif  // CZULCRYPTBIGNUM_H
