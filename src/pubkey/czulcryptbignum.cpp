#include <czulcryptbignum.h>

#include <cstring>
#include <new>
#include <sstream>
#include <string>

#include "../common/cleanse.h"
#include "../common/report.h"
#include "../common/vkl_context.h"

static constexpr char kZulFile[] = "czulcryptbignum";

CZulCryptBigNum::CZulCryptBigNum(CZulCryptContext& context)
    : m_rContext(context), m_pBigNumPacket(nullptr), m_uLen(0) {
    std::ostringstream trace;
    trace << "CZulCryptBigNum::CZulCryptBigNum(" << static_cast<const void*>(&context) << ")";
    CZulCryptContext::HandleDebug(trace.str().c_str(), 4);
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
    const int bits = VKL_BN_num_bits(vkl, number->m_pBigNum);
    if (!Allocate((static_cast<unsigned int>(bits) + 7) / 8, nullptr)) return false;
    const int written = VKL_BN_bn2bin(vkl, number->m_pBigNum, m_pBigNumPacket);
    if (written < 0 || static_cast<unsigned int>(written) != m_uLen) {
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
    (void)VKL_BN_bin2bn(vkl, m_pBigNumPacket, static_cast<int>(m_uLen), number->m_pBigNum);
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
