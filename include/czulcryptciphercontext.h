// A symmetric cipher by VKL name ("AES-128-CBC", "DES-EDE3-ECB", "RC4"): choose
// cipher, key, IV and direction once, then feed the data in pieces and finish.
#ifndef CZULCRYPTCIPHERCONTEXT_H
#define CZULCRYPTCIPHERCONTEXT_H

#include "czulcryptcontext.h"

#include "zulcryptexport.h"

class ZULCRYPT_API CZulCryptCipherContext {
public:
    // The crypto context must outlive the object. GetStatus() says whether a VKL
    // cipher context was made.
    explicit CZulCryptCipherContext(CZulCryptContext& context);
    virtual ~CZulCryptCipherContext();

    CZulCryptCipherContext(const CZulCryptCipherContext&) = delete;
    CZulCryptCipherContext& operator=(const CZulCryptCipherContext&) = delete;

    // Makes the VKL cipher context; run by the constructor. A second run first releases,
    // wiped, the context an earlier one made.
    void Initialise();

    // Chooses the cipher and keys it for one direction. True when ready; false
    // (reported, except for a policy refusal or a wrong ivLength) otherwise.
    // key holds keyLength bytes (keyLength 0: the cipher's default length). iv holds the
    // cipher's IV length (ivLength is 0 or exactly that); a null iv is all zeros. A
    // non-default length is set before the key goes in, so VKL never reads the key later.
    bool SetType(const char* name, const unsigned char* key, int keyLength, const unsigned char* iv, int ivLength,
                 bool encrypt);
    bool SetEncryptType(const char* name, const unsigned char* key, int keyLength, const unsigned char* iv,
                        int ivLength);
    bool SetEncryptType(const char* name, const unsigned char* key, int keyLength);
    bool SetDecryptType(const char* name, const unsigned char* key, int keyLength, const unsigned char* iv,
                        int ivLength);
    bool SetDecryptType(const char* name, const unsigned char* key, int keyLength);

    // Sizes of a named cipher in bytes; -1 when unusable or the name is unknown (reported).
    int GetDefaultBlockSizeForType(const char* name);
    int GetDefaultKeyLengthForType(const char* name);
    int GetDefaultIvLengthForType(const char* name);

    // After SetType: a new key length (a variable key length cipher is keyed again from
    // VKL's own copy; a length longer than the key given is refused), or padding on or off.
    // True when VKL accepted it; false otherwise (reported unless the object is unusable).
    bool SetKeyLength(int length);
    bool SetPadding(bool padding);

    // Default key length and block size of the keyed cipher; -1 when none.
    int GetKeySize();
    int GetBlockSize();

    // Drops the cipher, key and IV; a failed VKL cleanup makes the object unusable.
    void ResetCipher();
    // VKL's short name of the chosen cipher (owned by VKL), or null.
    const char* GetType();
    bool GetStatus();

    // ---- Streaming ----
    // Output room for one piece of length bytes: length + block size - 1 when
    // encrypting, length + block size when decrypting; -1 without a cipher.
    int GetBufferSize(int length, bool encrypt);
    // Processes one piece into out (GetBufferSize(length, encrypt) bytes); *outLength
    // gets the count written, which may be less than length. False (reported) on
    // an unusable object, a zero length or a VKL failure.
    bool AddData(unsigned char* in, int length, unsigned char* out, int* outLength, bool encrypt);
    bool EncryptData(unsigned char* in, int length, unsigned char* out, int* outLength);
    bool DecryptData(unsigned char* in, int length, unsigned char* out, int* outLength);
    // The last output (out holds one block); false (reported) on bad padding or a
    // partial block without padding.
    bool GetFinal(unsigned char* out, int* outLength, bool encrypt);
    bool EncryptFinal(unsigned char* out, int* outLength);
    bool DecryptFinal(unsigned char* out, int* outLength);

    // ---- One piece into a new buffer ----
    // Stores a zero-filled malloc'd buffer of GetBufferSize(length, ...) bytes in
    // *out and processes in into it; the final step is still the caller's. The
    // caller sets *out to null first and frees it whenever it is not null
    // afterwards, also when the call returned false. False, *out untouched,
    // without a cipher, for a size below 1 or when the allocation fails (reported).
    bool EncryptData(unsigned char* in, int length, unsigned char** out, int* outLength);
    bool DecryptData(unsigned char* in, int length, unsigned char** out, int* outLength);

private:
    bool HasCipher() const;
    int CipherSize(const char* name, int (*query)(VKL_t*, const VKL_EVP_CIPHER_t*));
    int Size(const VKL_EVP_CIPHER_t* cipher, int (*query)(VKL_t*, const VKL_EVP_CIPHER_t*));
    VKL_t* Vkl();
    void ReleaseIv();
    // Releases the VKL cipher context (its key schedule wiped by the reset) and its holder.
    void ReleaseCipherContext();

    CZulCryptContext& m_rContext;
    C_VKL_EVP_CIPHER_CTX_Wrap* m_pCipherCtxWrap;
    const VKL_EVP_CIPHER_t** m_pCipher;
    unsigned char* m_pIv;
    bool m_bStatus;
    // The IV copy's length, so it can be wiped before release.
    int m_ivLength;
};

#endif  // CZULCRYPTCIPHERCONTEXT_H
