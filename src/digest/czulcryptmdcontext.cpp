#include <czulcryptmdcontext.h>

#include <string>

#include "../common/report.h"
#include "../common/trace.h"

static constexpr char kZulFile[] = "czulcryptmdcontext";

namespace {


// Calls and the values they return are traced at this level.
constexpr unsigned int kValueTrace = 4;

}  // namespace

CZulCryptMDContext::CZulCryptMDContext(CZulCryptContext& context)
    : m_rContext(context), m_pMDCtxWrap(nullptr), m_pMD(nullptr), m_bStatus(false) {
    zul::Trace(kValueTrace, [&](std::ostream& out) {
        out << "CZulCryptMDContext::CZulCryptMDContext(" << static_cast<const void*>(&context) << ")\n";
    });
    Initialise();
}

CZulCryptMDContext::~CZulCryptMDContext() {
    if (m_pMDCtxWrap != nullptr) CZulCryptContext::HandleDebug("CZulCryptMDContext::~CZulCryptMDContext()\n", 4);
    ReleaseDigestContext();
    delete m_pMD;
    m_pMD = nullptr;
}

void CZulCryptMDContext::ReleaseDigestContext() {
    if (m_pMDCtxWrap != nullptr) {
        ResetMessageDigest();
        if (m_pMDCtxWrap->m_pMDCtx != nullptr && VKL_EVP_MD_CTX_free(Vkl(), m_pMDCtxWrap->m_pMDCtx) == 0) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
        }
    }
    delete m_pMDCtxWrap;
    m_pMDCtxWrap = nullptr;
}

VKL_t* CZulCryptMDContext::Vkl() { return m_rContext.GetContext()->m_pCtx; }

void CZulCryptMDContext::Initialise() {
    // A second run replaces what the first made, hash in progress or not.
    ReleaseDigestContext();
    m_bStatus = false;
    if (m_rContext.GetContext() == nullptr || m_rContext.GetContext()->m_pCtx == nullptr) return;
    CZulCryptContext::HandleDebug("CZulCryptMDContext::Initialise()\n", 3);
    // The holder is kept even around a null context, so that the destructor still traces.
    m_pMDCtxWrap = new C_VKL_EVP_MD_CTX_Wrap(VKL_EVP_MD_CTX_new(Vkl()));
    if (m_pMDCtxWrap->m_pMDCtx == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return;
    }
    zul::DropVklFailure(Vkl(), VKL_EVP_MD_CTX_init(Vkl(), m_pMDCtxWrap->m_pMDCtx));
    m_bStatus = true;
}

bool CZulCryptMDContext::SetType(const char* name) {
    zul::Trace(kValueTrace, [&](std::ostream& out) {
        out << "CZulCryptMDContext::SetType(" << zul::OrNull(name) << ")\n";
    });
    if (!m_rContext.CheckAlgorithmAllowed(eZulCryptUsageDigest, name)) return false;
    if (!m_bStatus) {
        ZUL_REPORT("VKL Context in an invalid state");
        return false;
    }
    delete m_pMD;
    m_pMD = new C_VKL_EVP_MD_Wrap(nullptr);
    m_pMD->m_pMD = VKL_EVP_get_digestbyname(Vkl(), name);
    if (m_pMD->m_pMD == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        DropHash();
        return false;
    }
    if (VKL_EVP_DigestInit(Vkl(), m_pMDCtxWrap->m_pMDCtx, m_pMD->m_pMD) != 1) {
        // Sizes taken from the new descriptor would not match the hash left running.
        m_pMD->m_pMD = nullptr;
        ZUL_REPORT_VKL_ERROR(m_rContext);
        DropHash();
        return false;
    }
    return true;
}

void CZulCryptMDContext::DropHash() {
    VKL_EVP_MD_CTX_t* ctx = m_pMDCtxWrap->m_pMDCtx;
    zul::DropVklFailure(Vkl(), VKL_EVP_MD_CTX_cleanup(Vkl(), ctx));
    zul::DropVklFailure(Vkl(), VKL_EVP_MD_CTX_init(Vkl(), ctx));
}

bool CZulCryptMDContext::AddData(void* data, unsigned int length) {
    zul::Trace(kValueTrace, [&](std::ostream& out) {
        out << "CZulCryptMDContext::AddData(";
        if (data != nullptr) {
            out << data;
        } else {
            out << "NULL";
        }
        out << ")\n";
    });
    if (!m_bStatus) {
        ZUL_REPORT("VKL Context in an invalid state");
        return false;
    }
    if (VKL_EVP_DigestUpdate(Vkl(), m_pMDCtxWrap->m_pMDCtx, data, length) != 1) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return false;
    }
    return true;
}

bool CZulCryptMDContext::GetMessageDigest(unsigned char* digest, unsigned int* length) {
    CZulCryptContext::HandleDebug("CZulCryptMDContext::GetMessageDigest()\n", 4);
    if (!m_bStatus) {
        ZUL_REPORT("VKL Context in an invalid state");
        return false;
    }
    if (digest == nullptr || length == nullptr) {
        ZUL_REPORT("Provided message digest buffer is invalid");
        return false;
    }
    if (VKL_EVP_DigestFinal(Vkl(), m_pMDCtxWrap->m_pMDCtx, digest, length) != 1) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return false;
    }
    return true;
}

void CZulCryptMDContext::ResetMessageDigest() {
    CZulCryptContext::HandleDebug("CZulCryptMDContext::ResetMessageDigest()\n", 4);
    if (!m_bStatus) return;
    if (VKL_EVP_MD_CTX_cleanup(Vkl(), m_pMDCtxWrap->m_pMDCtx) == 0) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        m_bStatus = false;
    }
    zul::DropVklFailure(Vkl(), VKL_EVP_MD_CTX_init(Vkl(), m_pMDCtxWrap->m_pMDCtx));
    delete m_pMD;
    m_pMD = nullptr;
}

const char* CZulCryptMDContext::GetType() {
    const char* name = nullptr;
    if (m_bStatus && m_pMD != nullptr && m_pMD->m_pMD != nullptr) {
        name = VKL_OBJ_nid2sn(Vkl(), VKL_EVP_MD_type(Vkl(), m_pMD->m_pMD));
    }
    zul::Trace(kValueTrace, [&](std::ostream& out) {
        out << "CZulCryptMDContext::GetType() returning " << zul::OrNull(name) << "\n";
    });
    return name;
}

int CZulCryptMDContext::GetDigestSize() {
    int size = -1;
    if (m_bStatus && m_pMD != nullptr && m_pMD->m_pMD != nullptr) size = VKL_EVP_MD_size(Vkl(), m_pMD->m_pMD);
    zul::Trace(kValueTrace, [&](std::ostream& out) {
        out << "CZulCryptMDContext::GetDigestSize() returning " << size << "\n";
    });
    return size;
}

int CZulCryptMDContext::GetDigestBlockSize() {
    int size = -1;
    if (m_bStatus && m_pMD != nullptr && m_pMD->m_pMD != nullptr) size = VKL_EVP_MD_block_size(Vkl(), m_pMD->m_pMD);
    zul::Trace(kValueTrace, [&](std::ostream& out) {
        out << "CZulCryptMDContext::GetBlockSize() returning " << size << "\n";
    });
    return size;
}

bool CZulCryptMDContext::GetStatus() {
    CZulCryptContext::HandleDebug(m_bStatus ? "CZulCryptMDContext::GetStatus() returning TRUE)\n"
                                            : "CZulCryptMDContext::GetStatus() returning FALSE)\n",
                                  4);
    return m_bStatus;
}
