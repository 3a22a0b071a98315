// Incremental message digests with a digest chosen by its VKL name.
#ifndef CZULCRYPTMDCONTEXT_H
#define CZULCRYPTMDCONTEXT_H

#include <vkl.h>

#include "czulcryptcontext.h"
#include "zulcryptexport.h"

// Holder of the digest descriptor chosen by SetType; the descriptor belongs to VKL.
class C_VKL_EVP_MD_Wrap {
public:
    explicit C_VKL_EVP_MD_Wrap(const VKL_EVP_MD_t* pMD) : m_pMD(pMD) {}
    const VKL_EVP_MD_t* m_pMD;
};

class ZULCRYPT_API CZulCryptMDContext {
public:
    // Keeps a reference to context, which must outlive this object, and creates the
    // VKL digest context; GetStatus() tells whether that worked.
    explicit CZulCryptMDContext(CZulCryptContext& context);
    virtual ~CZulCryptMDContext();

    CZulCryptMDContext(const CZulCryptMDContext&) = delete;
    CZulCryptMDContext& operator=(const CZulCryptMDContext&) = delete;

    // Run by the constructor: creates the VKL digest context and sets the status. A second
    // run first releases the context an earlier one made.
    void Initialise();
    // Chooses the digest by name ("SHA1", "SHA256", "RSA-SHA1", ...) and starts a new hash.
    // True on success; false when the policy refuses the name, VKL does not know it or
    // cannot start it. After a failure no digest is chosen (sizes -1, type null) and no hash
    // is in progress, even where VKL only failed to start it.
    bool SetType(const char* name);
    // Hashes length bytes of data. True on success, false when VKL refuses (no digest chosen, null data).
    bool AddData(void* data, unsigned int length);
    // Finishes the hash into digest, which must hold GetDigestSize() bytes, and stores the
    // digest's length in *length. True on success; false for a null buffer or length pointer
    // (the hash then goes on) or when VKL fails.
    bool GetMessageDigest(unsigned char* digest, unsigned int* length);
    // Clears the VKL digest context and forgets the digest; SetType starts afresh.
    // A failed clear leaves the object unusable.
    void ResetMessageDigest();
    // VKL's short name of the chosen digest ("SHA1" for "RSA-SHA1"), owned by VKL and valid
    // for the process's life; null when no digest is chosen.
    const char* GetType();
    // The digest's length in bytes; -1 when no digest is chosen.
    int GetDigestSize();
    // The digest's block length in bytes; -1 when no digest is chosen.
    int GetDigestBlockSize();
    // True while the VKL digest context is usable.
    bool GetStatus();

private:
    VKL_t* Vkl();
    // Releases the VKL digest context and its holder.
    void ReleaseDigestContext();
    // Ends the hash in progress: after a failed SetType, GetMessageDigest would otherwise
    // finish the previous digest, of another length than the object reports.
    void DropHash();

    CZulCryptContext& m_rContext;
    C_VKL_EVP_MD_CTX_Wrap* m_pMDCtxWrap;
    C_VKL_EVP_MD_Wrap* m_pMD;
    bool m_bStatus;
};

#endif  // CZULCRYPTMDCONTEXT_H
