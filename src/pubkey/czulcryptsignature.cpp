#include <czulcryptsignature.h>

#include <sstream>
#include <string>

#include <czulcryptrsakey.h>

#include "../common/report.h"
#include "../common/vkl_context.h"

static constexpr char kZulFile[] = "czulcryptsignature";

namespace {

std::string Pointer(const void* pointer) {
    if (pointer == nullptr) return "NULL";
    std::ostringstream text;
    text << pointer;
    return text.str();
}

void Trace(const std::string& text, unsigned int level) { CZulCryptContext::HandleDebug(text.c_str(), level); }

// Missing, empty or all zero bytes. With a zero exponent RSA "signs" anything as 00...01.
bool IsZero(const CZulCryptBigNum* number) {
    if (number == nullptr) return true;
    const unsigned char* bytes = number->GetBigNumPacket();
    for (unsigned int i = 0; i < number->GetLen(); ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

}  // namespace

CZulCryptSignature::CZulCryptSignature(CZulCryptContext& context)
    : m_rContext(context),
      m_pMDCtxWrap(nullptr),
      m_pMD(nullptr),
      m_pModulus(nullptr),
      m_pExponent(nullptr),
      m_bStatus(false) {
    Trace("CZulCryptSignature::CZulCryptSignature(" + Pointer(&context) + ")\n", 3);
    Initialise();
}

CZulCryptSignature::~CZulCryptSignature() {
    if (m_pMDCtxWrap != nullptr && m_pMDCtxWrap->m_pMDCtx != nullptr) {
        Trace("CZulCryptSignature::~CZulCryptSignature()\n", 3);
        ResetMessageDigest();
        if (VKL_EVP_MD_CTX_free(Vkl(), m_pMDCtxWrap->m_pMDCtx) == 0) ZUL_REPORT_VKL_ERROR(m_rContext);
    }
    delete m_pMDCtxWrap;
    m_pMDCtxWrap = nullptr;
    delete m_pMD;
    m_pMD = nullptr;
    delete m_pModulus;
    m_pModulus = nullptr;
    delete m_pExponent;
    m_pExponent = nullptr;
}

VKL_t* CZulCryptSignature::Vkl() { return zul::VklOf(m_rContext); }

void CZulCryptSignature::Initialise() {
    // A second run must not lose the digest context it already has.
    if (m_pMDCtxWrap != nullptr && m_pMDCtxWrap->m_pMDCtx != nullptr) return;
    m_bStatus = false;
    VKL_t* vkl = Vkl();
    if (vkl == nullptr) return;
    Trace("CZulCryptSignature::Initialise()\n", 3);
    delete m_pMDCtxWrap;
    m_pMDCtxWrap = new C_VKL_EVP_MD_CTX_Wrap(VKL_EVP_MD_CTX_new(vkl));
    if (m_pMDCtxWrap->m_pMDCtx == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return;
    }
    InitDigestContext();
    m_bStatus = true;
}

bool CZulCryptSignature::SetHashAndKey(const char* hashName, const unsigned char* modulus, unsigned int modulusLength,
                                       const unsigned char* exponent, unsigned int exponentLength) {
    Trace(std::string("CZulCryptSignature::SetHashAndKey(") + (hashName != nullptr ? hashName : "NULL") + ")\n", 4);
    if (!m_rContext.CheckAlgorithmAllowed(eZulCryptUsageSignature, hashName)) return false;
    if (!m_bStatus) {
        ZUL_REPORT("VKL Context in an invalid state");
        return false;
    }
    if (m_pMD == nullptr) m_pMD = new DigestCell{nullptr};
    m_pMD->m_pDigest = VKL_EVP_get_digestbyname(Vkl(), hashName);
    if (m_pMD->m_pDigest == nullptr) {
        m_bStatus = false;
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return false;
    }
    delete m_pModulus;
    delete m_pExponent;
    m_pExponent = nullptr;
    m_pModulus = new CZulCryptBigNum(m_rContext);
    if (!m_pModulus->SetNumber(modulusLength, modulus)) return false;
    m_pExponent = new CZulCryptBigNum(m_rContext);
    return m_pExponent->SetNumber(exponentLength, exponent);
}

const char* CZulCryptSignature::GetType() {
    const char* name = nullptr;
    if (m_bStatus && m_pMD != nullptr && m_pMD->m_pDigest != nullptr) {
        name = VKL_OBJ_nid2sn(Vkl(), VKL_EVP_MD_type(Vkl(), m_pMD->m_pDigest));
        if (name == nullptr) zul::DrainVklErrors(Vkl());
    }
    Trace(std::string("CZulCryptSignature::GetType() returning ") + (name != nullptr ? name : "NULL") + "\n", 4);
    return name;
}

int CZulCryptSignature::GetDigestSize() {
    int size = -1;
    if (m_bStatus && m_pMD != nullptr && m_pMD->m_pDigest != nullptr) {
        size = VKL_EVP_MD_size(Vkl(), m_pMD->m_pDigest);
        if (size < 0) zul::DrainVklErrors(Vkl());
    }
    Trace("CZulCryptSignature::GetDigestSize() returning " + std::to_string(size) + "\n", 4);
    return size;
}

int CZulCryptSignature::GetDigestBlockSize() {
    int size = -1;
    if (m_bStatus && m_pMD != nullptr && m_pMD->m_pDigest != nullptr) {
        size = VKL_EVP_MD_block_size(Vkl(), m_pMD->m_pDigest);
        if (size < 0) zul::DrainVklErrors(Vkl());
    }
    Trace("CZulCryptSignature::GetDigestBlockSize() returning " + std::to_string(size) + "\n", 4);
    return size;
}

int CZulCryptSignature::GetSignatureSize() {
    const int size = m_bStatus && m_pModulus != nullptr ? static_cast<int>(m_pModulus->GetLen()) : -1;
    Trace("CZulCryptSignature::GetSignatureSize() returning " + std::to_string(size) + "\n", 4);
    return size;
}

void CZulCryptSignature::ResetMessageDigest() {
    Trace("CZulCryptSignature::ResetMessageDigest()\n", 4);
    if (!m_bStatus) return;
    if (VKL_EVP_MD_CTX_cleanup(Vkl(), m_pMDCtxWrap->m_pMDCtx) == 0) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        m_bStatus = false;
    }
    InitDigestContext();
    delete m_pMD;
    m_pMD = nullptr;
}

bool CZulCryptSignature::GetStatus() {
    Trace(std::string("CZulCryptSignature::GetStatus() returning ") + (m_bStatus ? "TRUE" : "FALSE") + "\n", 4);
    return m_bStatus;
}

bool CZulCryptSignature::Ready() {
    if (!m_bStatus) {
        ZUL_REPORT("VKL Context in an invalid state");
        return false;
    }
    if (m_pMD == nullptr || m_pMD->m_pDigest == nullptr) {
        ZUL_REPORT("No message digest chosen: SetHashAndKey has not succeeded since construction or reset");
        return false;
    }
    if (IsZero(m_pModulus) || IsZero(m_pExponent)) {
        ZUL_REPORT("No usable RSA key: the modulus or the exponent is missing or zero");
        return false;
    }
    return true;
}

void CZulCryptSignature::InitDigestContext() {
    // Ignored, as every operation starts with its own DigestInit; but its entry goes now.
    zul::DropVklFailure(Vkl(), VKL_EVP_MD_CTX_init(Vkl(), m_pMDCtxWrap->m_pMDCtx));
}

bool CZulCryptSignature::GetSignature(void* data, unsigned int dataLength, unsigned char* signature,
                                      unsigned int* signatureLength) {
    Trace("CZulCryptSignature::GetSignature(" + Pointer(data) + " : " + std::to_string(dataLength) + ")\n", 4);
    if (!Ready()) return false;
    return Run(true, data, dataLength, signature, signatureLength, nullptr, 0);
}

bool CZulCryptSignature::GetSignature(void* data, unsigned int dataLength, unsigned char** signature,
                                      unsigned int* signatureLength) {
    Trace("CZulCryptSignature::GetSignature(" + Pointer(data) + " : " + std::to_string(dataLength) + ")\n", 4);
    const int size = GetSignatureSize();
    // Without a size there is nothing to allocate; the buffer form still says why it fails.
    unsigned char* buffer = size > 0 ? new unsigned char[static_cast<unsigned int>(size)]() : nullptr;
    const bool signedOk = GetSignature(data, dataLength, buffer, signatureLength);
    if (signedOk) {
        *signature = buffer;
    } else {
        delete[] buffer;
        *signature = nullptr;
        *signatureLength = 0;
    }
    return signedOk;
}

bool CZulCryptSignature::VerifySignature(void* data, unsigned int dataLength, void* signature,
                                         unsigned int signatureLength) {
    Trace("CZulCryptSignature::VerifySignature(" + Pointer(data) + " : " + std::to_string(dataLength) + ")\n", 4);
    if (!Ready()) return false;
    return Run(false, data, dataLength, nullptr, nullptr, signature, signatureLength);
}

bool CZulCryptSignature::Run(bool sign, const void* data, unsigned int dataLength, unsigned char* signature,
                             unsigned int* signatureLength, const void* given, unsigned int givenLength) {
    VKL_EVP_PKEY_t* container = VKL_EVP_PKEY_new(Vkl());
    VKL_RSA_t* record = container != nullptr ? VKL_RSA_new(Vkl()) : nullptr;
    // Outlives both VKL objects: they are released first.
    CZulCryptRSAKey key(m_rContext);
    bool result = false;
    if (record == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
    } else {
        if (sign) {
            key.PopulateWithPrivate(m_pModulus, m_pExponent);
        } else {
            key.PopulateWithPublic(m_pModulus, m_pExponent);
        }
        C_VKL_RSA_Wrap wrap(record);
        key.BuildKeyStruct(&wrap);
        VKL_EVP_MD_CTX_t* digestContext = m_pMDCtxWrap->m_pMDCtx;
        unsigned int length = 0;
        if (VKL_EVP_PKEY_set1_RSA(Vkl(), container, record) != 1) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
        } else if (VKL_EVP_DigestInit(Vkl(), digestContext, m_pMD->m_pDigest) != 1) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
        } else if (VKL_EVP_DigestUpdate(Vkl(), digestContext, data, dataLength) != 1) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
        } else if (sign) {
            if (VKL_EVP_SignFinal(Vkl(), digestContext, signature, &length, container) != 1) {
                ZUL_REPORT_VKL_ERROR(m_rContext);
            } else {
                *signatureLength = length;
                result = true;
            }
        } else if (VKL_EVP_VerifyFinal(Vkl(), digestContext, static_cast<const unsigned char*>(given), givenLength,
                                       container) != 1) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
        } else {
            result = true;
        }
    }
    // The container drops its own reference to the record first.
    if (container != nullptr) VKL_EVP_PKEY_free(Vkl(), container);
    if (record != nullptr) VKL_RSA_free(Vkl(), record);
    return result;
}
