#include <czulcryptdh.h>
#include <algorithm>

#include <cstdlib>
#include <cstring>

#include "../common/cleanse.h"
#include "../common/report.h"
#include "../common/sizes.h"
#include "../common/trace.h"
#include "../common/vkl_context.h"

static constexpr char kZulFile[] = "czulcryptdh";

// RFC 2409 section 6.2: 2^1024 - 2^960 - 1 + 2^64 * ([2^894 pi] + 129093).
const unsigned char CZulCryptDH::ms_Oakley2Prime[128] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xC9, 0x0F, 0xDA, 0xA2,
    0x21, 0x68, 0xC2, 0x34, 0xC4, 0xC6, 0x62, 0x8B, 0x80, 0xDC, 0x1C, 0xD1,
    0x29, 0x02, 0x4E, 0x08, 0x8A, 0x67, 0xCC, 0x74, 0x02, 0x0B, 0xBE, 0xA6,
    0x3B, 0x13, 0x9B, 0x22, 0x51, 0x4A, 0x08, 0x79, 0x8E, 0x34, 0x04, 0xDD,
    0xEF, 0x95, 0x19, 0xB3, 0xCD, 0x3A, 0x43, 0x1B, 0x30, 0x2B, 0x0A, 0x6D,
    0xF2, 0x5F, 0x14, 0x37, 0x4F, 0xE1, 0x35, 0x6D, 0x6D, 0x51, 0xC2, 0x45,
    0xE4, 0x85, 0xB5, 0x76, 0x62, 0x5E, 0x7E, 0xC6, 0xF4, 0x4C, 0x42, 0xE9,
    0xA6, 0x37, 0xED, 0x6B, 0x0B, 0xFF, 0x5C, 0xB6, 0xF4, 0x06, 0xB7, 0xED,
    0xEE, 0x38, 0x6B, 0xFB, 0x5A, 0x89, 0x9F, 0xA5, 0xAE, 0x9F, 0x24, 0x11,
    0x7C, 0x4B, 0x1F, 0xE6, 0x49, 0x28, 0x66, 0x51, 0xEC, 0xE6, 0x53, 0x81,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
};

// RFC 3526 section 3: 2^2048 - 2^1984 - 1 + 2^64 * ([2^1918 pi] + 124476).
const unsigned char CZulCryptDH::ms_Oakley14Prime[256] = {
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xC9, 0x0F, 0xDA, 0xA2,
    0x21, 0x68, 0xC2, 0x34, 0xC4, 0xC6, 0x62, 0x8B, 0x80, 0xDC, 0x1C, 0xD1,
    0x29, 0x02, 0x4E, 0x08, 0x8A, 0x67, 0xCC, 0x74, 0x02, 0x0B, 0xBE, 0xA6,
    0x3B, 0x13, 0x9B, 0x22, 0x51, 0x4A, 0x08, 0x79, 0x8E, 0x34, 0x04, 0xDD,
    0xEF, 0x95, 0x19, 0xB3, 0xCD, 0x3A, 0x43, 0x1B, 0x30, 0x2B, 0x0A, 0x6D,
    0xF2, 0x5F, 0x14, 0x37, 0x4F, 0xE1, 0x35, 0x6D, 0x6D, 0x51, 0xC2, 0x45,
    0xE4, 0x85, 0xB5, 0x76, 0x62, 0x5E, 0x7E, 0xC6, 0xF4, 0x4C, 0x42, 0xE9,
    0xA6, 0x37, 0xED, 0x6B, 0x0B, 0xFF, 0x5C, 0xB6, 0xF4, 0x06, 0xB7, 0xED,
    0xEE, 0x38, 0x6B, 0xFB, 0x5A, 0x89, 0x9F, 0xA5, 0xAE, 0x9F, 0x24, 0x11,
    0x7C, 0x4B, 0x1F, 0xE6, 0x49, 0x28, 0x66, 0x51, 0xEC, 0xE4, 0x5B, 0x3D,
    0xC2, 0x00, 0x7C, 0xB8, 0xA1, 0x63, 0xBF, 0x05, 0x98, 0xDA, 0x48, 0x36,
    0x1C, 0x55, 0xD3, 0x9A, 0x69, 0x16, 0x3F, 0xA8, 0xFD, 0x24, 0xCF, 0x5F,
    0x83, 0x65, 0x5D, 0x23, 0xDC, 0xA3, 0xAD, 0x96, 0x1C, 0x62, 0xF3, 0x56,
    0x20, 0x85, 0x52, 0xBB, 0x9E, 0xD5, 0x29, 0x07, 0x70, 0x96, 0x96, 0x6D,
    0x67, 0x0C, 0x35, 0x4E, 0x4A, 0xBC, 0x98, 0x04, 0xF1, 0x74, 0x6C, 0x08,
    0xCA, 0x18, 0x21, 0x7C, 0x32, 0x90, 0x5E, 0x46, 0x2E, 0x36, 0xCE, 0x3B,
    0xE3, 0x9E, 0x77, 0x2C, 0x18, 0x0E, 0x86, 0x03, 0x9B, 0x27, 0x83, 0xA2,
    0xEC, 0x07, 0xA2, 0x8F, 0xB5, 0xC5, 0x5D, 0xF0, 0x6F, 0x4C, 0x52, 0xC9,
    0xDE, 0x2B, 0xCB, 0xF6, 0x95, 0x58, 0x17, 0x18, 0x39, 0x95, 0x49, 0x7C,
    0xEA, 0x95, 0x6A, 0xE5, 0x15, 0xD2, 0x26, 0x18, 0x98, 0xFA, 0x05, 0x10,
    0x15, 0x72, 0x8E, 0x5A, 0x8A, 0xAC, 0xAA, 0x68, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF,
};

namespace {

const unsigned char kGenerator = 0x02;

void TraceConstruction(const CZulCryptContext& context) {
    zul::Trace(3, [&](std::ostream& out) {
        out << "CZulCryptDH::CZulCryptDH(" << static_cast<const void*>(&context) << ")\n";
    });
}

}  // namespace

CZulCryptDH::CZulCryptDH(CZulCryptContext& context)
    : m_rContext(context), m_pDHWrap(nullptr), m_bStatus(false), m_pSharedSecret(nullptr) {
    TraceConstruction(context);
    m_pDHWrap = new C_VKL_DH_Wrap(nullptr);
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return;
    m_pDHWrap->m_pDH = VKL_DH_new(vkl);
    if (m_pDHWrap->m_pDH == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return;
    }
    m_bStatus = true;
}

CZulCryptDH::CZulCryptDH(CZulCryptContext& context, int primeBits, int generator)
    : m_rContext(context), m_pDHWrap(nullptr), m_bStatus(false), m_pSharedSecret(nullptr) {
    TraceConstruction(context);
    m_pDHWrap = new C_VKL_DH_Wrap(nullptr);
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return;
    m_pDHWrap->m_pDH = VKL_DH_generate_parameters(vkl, primeBits, generator, nullptr, nullptr);
    if (m_pDHWrap->m_pDH == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return;
    }
    m_bStatus = true;
    GenerateKey();
}

CZulCryptDH::~CZulCryptDH() {
    if (m_pDHWrap->m_pDH != nullptr) {
        CZulCryptContext::HandleDebug("CZulCryptDH::~CZulCryptDH()\n", 3);
        if (m_pSharedSecret != nullptr) ReleaseSecret();
        VKL_DH_free(Vkl(), m_pDHWrap->m_pDH);
    }
    delete m_pDHWrap;
}

// Only an object with a DH record calls VKL, and it has one only from a context with VKL.
VKL_t* CZulCryptDH::Vkl() { return zul::VklOf(m_rContext); }

namespace {

// The secret's block starts with the secret's length: its wipe and its size as handed out
// must not depend on VKL answering the same size again later. Not a member: callers build
// this class, so its layout is part of the library's interface.
constexpr size_t kLengthField = sizeof(size_t);

size_t SecretLength(const unsigned char* secret) {
    size_t length = 0;
    std::memcpy(&length, secret - kLengthField, sizeof length);
    return length;
}

}  // namespace

void CZulCryptDH::ReleaseSecret() {
    unsigned char* block = m_pSharedSecret - kLengthField;
    zul::Cleanse(block, kLengthField + SecretLength(m_pSharedSecret));
    std::free(block);
    m_pSharedSecret = nullptr;
}

bool CZulCryptDH::SetOakleyGroup2() { return SetOakleyGroup(ms_Oakley2Prime, sizeof ms_Oakley2Prime); }

bool CZulCryptDH::SetOakleyGroup14() { return SetOakleyGroup(ms_Oakley14Prime, sizeof ms_Oakley14Prime); }

bool CZulCryptDH::SetOakleyGroup(const unsigned char* prime, int primeLength) {
    VKL_DH_t* dh = m_pDHWrap->m_pDH;
    if (dh == nullptr) return false;
    VKL_t* vkl = Vkl();
    // A secret of the old prime would not match the size GetSharedSecret gives for the new one.
    if (m_pSharedSecret != nullptr) ReleaseSecret();

    // Existing numbers are overwritten in place; new ones belong to us until stored.
    VKL_BIGNUM_t* g = VKL_BN_bin2bn(vkl, &kGenerator, 1, dh->g);
    if (g == nullptr) ZUL_REPORT_VKL_ERROR(m_rContext);
    VKL_BIGNUM_t* p = VKL_BN_bin2bn(vkl, prime, primeLength, dh->p);
    if (p == nullptr) ZUL_REPORT_VKL_ERROR(m_rContext);
    if (g == nullptr || p == nullptr) {
        if (g != nullptr && dh->g == nullptr) VKL_BN_clear_free(vkl, g);
        if (p != nullptr && dh->p == nullptr) VKL_BN_clear_free(vkl, p);
        return false;
    }
    dh->g = g;
    dh->p = p;
    GenerateKey();
    return m_bStatus;
}

void CZulCryptDH::GenerateKey() {
    if (m_pDHWrap == nullptr || m_pDHWrap->m_pDH == nullptr || !m_bStatus) return;
    if (VKL_DH_generate_key(Vkl(), m_pDHWrap->m_pDH) != 1) {
        m_bStatus = false;
        ZUL_REPORT_VKL_ERROR(m_rContext);
    }
}

CZulCryptBigNum* CZulCryptDH::GetPublicKey() {
    if (m_pDHWrap->m_pDH == nullptr || m_pDHWrap->m_pDH->pub_key == nullptr) return nullptr;
    CZulCryptBigNum* number = new CZulCryptBigNum(m_rContext);
    C_VKL_BIGNUM_Wrap pub(m_pDHWrap->m_pDH->pub_key);
    if (!number->SetNumber(&pub)) {
        delete number;
        return nullptr;
    }
    return number;
}

void CZulCryptDH::ComputeSharedSecret(CZulCryptBigNum* peerPublicKey) {
    if (m_pDHWrap->m_pDH == nullptr || !m_bStatus || peerPublicKey == nullptr) return;
    const int size = ZUL_SIZE(DhSize, Vkl(), m_pDHWrap->m_pDH);
    if (size < 1) {
        m_bStatus = false;
        return;
    }
    if (m_pSharedSecret != nullptr) ReleaseSecret();
    const size_t length = static_cast<size_t>(size);
    auto* block = static_cast<unsigned char*>(std::calloc(kLengthField + length, 1));
    if (block == nullptr) {
        ZUL_REPORT_FATAL("Insufficient memory");
        m_bStatus = false;
        return;
    }
    std::memcpy(block, &length, sizeof length);
    m_pSharedSecret = block + kLengthField;

    C_VKL_BIGNUM_Wrap* peer = peerPublicKey->BuildNumber();
    // Nothing computed yet: anything but the full size is a failure. VKL writes the group's real
    // size whatever it answered above, so it computes into room for the largest modulus.
    unsigned char computed[zul::kModulusSize.most];
    int result = 0;
    if (peer != nullptr && peer->m_pBigNum != nullptr) {
        result = VKL_DH_compute_key(Vkl(), computed, peer->m_pBigNum, m_pDHWrap->m_pDH);
        VKL_BN_clear_free(Vkl(), peer->m_pBigNum);
    } else {
        m_bStatus = false;
        ZUL_REPORT_VKL_ERROR(m_rContext);
    }
    delete peer;
    // Only the full size counts: VKL pads, so a shorter result is a failure, not a short secret,
    // and a longer one means the size answered was wrong.
    if (result == size) {
        std::memcpy(m_pSharedSecret, computed, length);
    } else if (result > size) {
        m_bStatus = false;
        zul::DrainVklErrors(Vkl());
        ZUL_REPORT("VKL computed a longer shared secret than its size");
    } else {
        m_bStatus = false;
        ZUL_REPORT_VKL_ERROR(m_rContext);
    }
    zul::Cleanse(computed, sizeof computed);
}

unsigned char* CZulCryptDH::GetSharedSecret(int& length) {
    length = m_pSharedSecret != nullptr ? static_cast<int>(SecretLength(m_pSharedSecret)) : GetSize();
    return m_pSharedSecret;
}

int CZulCryptDH::GetSize() {
    if (m_pDHWrap->m_pDH == nullptr) return -1;
    const int size = VKL_DH_size(Vkl(), m_pDHWrap->m_pDH);
    if (size == 0) {
        // No group yet is an answer; nothing it queued may be blamed for a later failure.
        zul::DrainVklErrors(Vkl());
        return 0;
    }
    std::string why;
    return zul::ReportedSize(zul::CheckedSize(Vkl(), zul::kModulusSize, size, &why), why, kZulFile, __LINE__);
}

bool CZulCryptDH::GetStatus() {
    CZulCryptContext::HandleDebug(m_bStatus ? "CZulCryptDH::GetStatus() returning TRUE\n"
                                            : "CZulCryptDH::GetStatus() returning FALSE\n",
                                  4);
    return m_bStatus;
}
