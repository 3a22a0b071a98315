// The crypto context: the library's link to VKL, its diagnostics and its
// algorithm policy. Every other object of the library is built on one.
#ifndef CZULCRYPTCONTEXT_H
#define CZULCRYPTCONTEXT_H

#include <string>

#include <vkl.h>

#include "zulcryptexport.h"

// VKL's 268-byte status record: major code, minor code, NUL-terminated description.
using C_VKL_STATUS_Wrap = VKL_STATUS_t;
static_assert(sizeof(C_VKL_STATUS_Wrap) == 268, "VKL status records are 268 bytes");

// Holders of VKL objects. Deleting a holder never releases what it holds.
class C_VKL_CTX_Wrap {
public:
    explicit C_VKL_CTX_Wrap(VKL_t* pCtx) : m_pCtx(pCtx) {}
    VKL_t* m_pCtx;
};

class C_VKL_EVP_MD_CTX_Wrap {
public:
    explicit C_VKL_EVP_MD_CTX_Wrap(VKL_EVP_MD_CTX_t* pMDCtx) : m_pMDCtx(pMDCtx) {}
    VKL_EVP_MD_CTX_t* m_pMDCtx;
};

class C_VKL_EVP_CIPHER_CTX_Wrap {
public:
    explicit C_VKL_EVP_CIPHER_CTX_Wrap(VKL_EVP_CIPHER_CTX_t* pCipherCtx) : m_pCipherCtx(pCipherCtx) {}
    VKL_EVP_CIPHER_CTX_t* m_pCipherCtx;
};

class C_VKL_BIGNUM_Wrap {
public:
    explicit C_VKL_BIGNUM_Wrap(VKL_BIGNUM_t* pBigNum) : m_pBigNum(pBigNum) {}
    VKL_BIGNUM_t* m_pBigNum;
};

class C_VKL_RSA_Wrap {
public:
    explicit C_VKL_RSA_Wrap(VKL_RSA_t* pRSA) : m_pRSA(pRSA) {}
    VKL_RSA_t* m_pRSA;
};

// What an algorithm name is wanted for, as the FIPS policy sees it. The fixed type makes
// other values (-1, 4) well defined: the policy treats them as on no list.
enum EZulCryptAlgorithmUsage : int {
    eZulCryptUsageCipher = 0,
    eZulCryptUsageDigest = 1,
    eZulCryptUsageSignature = 2,
    eZulCryptUsageOther = 3
};

class ZULCRYPT_API CZulCryptContext {
public:
    // Obtains and checks the VKL context (self-test, 64-byte seeding); never throws.
    // GetStatus() tells whether it all succeeded.
    CZulCryptContext();
    virtual ~CZulCryptContext();

    CZulCryptContext(const CZulCryptContext&) = delete;
    CZulCryptContext& operator=(const CZulCryptContext&) = delete;

    // Run by the constructor; sets the status. A second run replaces the holder of the first.
    void Initialise();
    // True when VKL's self-test status is clean; false (reported) otherwise or without VKL context.
    bool SelfTest();
    // Always true.
    bool OpenAlgorithms();
    // True when 64 seed bytes were generated and mixed into VKL's generator.
    bool SetRandomSeed();

    // The VKL context holder, null when none was obtained.
    C_VKL_CTX_Wrap* GetContext();
    // True while the VKL context is usable.
    bool GetStatus();

    // ---- Diagnostics (process-wide) ----
    static void SetLogLevel(unsigned int level);
    static void SetDebugResponseFn(void (*fn)(const char* text, unsigned int level));
    static void SetErrorResponseFn(void (*fn)(const char* file, unsigned int line, const char* text, bool fatal));
    // Trace: to the callback when installed, else to standard output when level <= the log level.
    // A null text goes to the stream as "(null)" (also a null file below), which keeps it usable.
    static void HandleDebug(const char* text, unsigned int level);
    // Error: to the callback when installed, else "FILE:<file> LINE:<line> DESC:<text>" on standard error;
    // a fatal error then ends the process with exit status -1.
    static void HandleError(const char* file, unsigned int line, const char* text, bool fatal);
    // Hex dump of length bytes to standard output, 16 to a row; "NULL" for no data. The stream's
    // format flags and fill are the caller's again afterwards.
    static void PrintData(const unsigned char* data, unsigned int length);

    // True when the record is clean; otherwise false with the decoded text appended to text.
    bool GetStatus(C_VKL_STATUS_Wrap* status, std::string& text);
    // VKL's current status decoded as GetStatus does; false without a VKL call when the context is unusable.
    bool CheckStatus(std::string& text);
    // Appends the text of the oldest entry of VKL's error queue (removing it) to text.
    void GetError(std::string& text);

    // ---- Algorithm policy ----
    // Whether name is on the FIPS list for usage; false for a null name.
    bool IsAlgorithmFIPS(EZulCryptAlgorithmUsage usage, const char* name);
    // Whether name may be used now; a non-FIPS name on a FIPS host is reported and
    // allowed only while the override is on. False for a null name.
    bool CheckAlgorithmAllowed(EZulCryptAlgorithmUsage usage, const char* name);
    void SetIsNonFIPSAllowedInFIPS(bool allowed);

    static unsigned int m_LogLevel;
    static void (*m_DebugResponseFn)(const char*, unsigned int);
    static void (*m_ErrorResponseFn)(const char*, unsigned int, const char*, bool);

private:
    C_VKL_CTX_Wrap* m_pCtxWrap;
    bool m_bStatus;
    bool m_bNonFIPSAllowedInFIPS;
};

#endif  // CZULCRYPTCONTEXT_H
