#include <czulcryptbignum.h>

#include <cstring>
#include <new>
#include <string>

#include "../common/cleanse.h"
#include "../common/report.h"
#include "../common/sizes.h"
#include "../common/trace.h"
#include "../common/vkl_context.h"

static constexpr char kZulFile[] = "czulcryptbignum";

// The most a packet's bit count can state, in bytes.
static constexpr unsigned int kScratchBytes = (zul::kBigNumBits.most + 7) / 8;

CZulCryptBigNum::CZulCryptBigNum(CZulCryptContext& context)
    : m_rContext(context), m_pBigNumPacket(nullptr), m_uLen(0) {
    zul::Trace(4, [&](std::ostream& out) {
        out << "CZulCryptBigNum::CZulCryptBigNum(" << static_cast<const void*>(&context) << ")";
    });
}

CZulCryptBigNum::~CZulCryptBigNum() {
    if (m_pBigNumPacket != nullptr) {
        CZulCryptContext::HandleDebug("CZulCryptBigNum::~CZulCryptBigNum()", 4);
        Release();
    }
}

void CZulCryptBigNum::Release() {
    // Numbers carry private exponents and primes.
    zul::Cleanse(m_pBigNumPacket, m_uLen);
    delete[] m_pBigNumPacket;
    m_pBigNumPacket = nullptr;
    m_uLen = 0;
}

bool CZulCryptBigNum::Allocate(unsigned int length, const unsigned char* source) {
    unsigned char* bytes = new (std::nothrow) unsigned char[length];
    if (bytes != nullptr) {
        if (source != nullptr) {
            std::memcpy(bytes, source, length);
        } else {
            std::memset(bytes, 0, length);
        }
    }
    // Only now: the source may be the bytes held so far.
    Release();
    if (bytes == nullptr) {
        ZUL_REPORT("Insufficient memory");
        return false;
    }
    m_pBigNumPacket = bytes;
    m_uLen = length;
    return true;
}

bool CZulCryptBigNum::SetNumber(const C_VKL_BIGNUM_Wrap* number) {
    if (number == nullptr || number->m_pBigNum == nullptr) return false;
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return false;
    const int bits = ZUL_SIZE(BigNumBits, vkl, number->m_pBigNum);
    if (bits < 0) return false;
    const unsigned int length = (static_cast<unsigned int>(bits) + 7) / 8;
    // VKL writes as many bytes as the number has, whatever its bit count said. Written into
    // room for the largest number a packet can carry (larger than any RSA or DH number),
    // a count that says too little cannot make it write past the end.
    unsigned char* scratch = new (std::nothrow) unsigned char[kScratchBytes]();
    if (scratch == nullptr) {
        Release();
        ZUL_REPORT("Insufficient memory");
        return false;
    }
    const int written = VKL_BN_bn2bin(vkl, number->m_pBigNum, scratch);
    const bool copied = Allocate(length, scratch);
    zul::Cleanse(scratch, kScratchBytes);
    delete[] scratch;
    if (!copied) return false;
    if (written < 0 || static_cast<unsigned int>(written) != length) {
        zul::DrainVklErrors(vkl);
        ZUL_REPORT("Failed to create big num");
        return false;
    }
    return true;
}

bool CZulCryptBigNum::SetNumber(unsigned int length, const unsigned char* bytes) {
    if (bytes == nullptr || length == 0) return false;
    return Allocate(length, bytes);
}

bool CZulCryptBigNum::SetNumber(const unsigned char* packet) {
    if (packet == nullptr) return false;
    // Two single bytes: the prefix may sit at any alignment.
    const unsigned int bits = (static_cast<unsigned int>(packet[0]) << 8) | packet[1];
    return Allocate((bits + 7) / 8, packet + 2);
}

unsigned int CZulCryptBigNum::GetLen() const { return m_uLen; }

const unsigned char* CZulCryptBigNum::GetBigNumPacket() const { return m_pBigNumPacket; }

C_VKL_BIGNUM_Wrap* CZulCryptBigNum::BuildNumber() const {
    if (m_uLen == 0) return nullptr;
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return nullptr;
    return new C_VKL_BIGNUM_Wrap(VKL_BN_bin2bn(vkl, m_pBigNumPacket, static_cast<int>(m_uLen), nullptr));
}

bool CZulCryptBigNum::PopulateNumber(C_VKL_BIGNUM_Wrap* number) const {
    // A holder of null would make VKL create a number that nobody owns.
    if (number == nullptr || number->m_pBigNum == nullptr) return false;
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return false;
    // A number VKL did not take stands as zero, and a zero exponent turns every RSA
    // operation into a wrong "success": the caller must hear of it.
    if (VKL_BN_bin2bn(vkl, m_pBigNumPacket, static_cast<int>(m_uLen), number->m_pBigNum) == nullptr) {
        zul::DrainVklErrors(vkl);
        return false;
    }
    return true;
}

void CZulCryptBigNum::PopulateRandom(unsigned int bits) {
    if (bits == 0) return;
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return;
    if (!Allocate((bits + 7) / 8, nullptr)) return;
    if (VKL_RAND_bytes(vkl, m_pBigNumPacket, static_cast<int>(m_uLen)) != 1) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
    }
}

void CZulCryptBigNum::Dump() const { CZulCryptContext::PrintData(m_pBigNumPacket, m_uLen); }
