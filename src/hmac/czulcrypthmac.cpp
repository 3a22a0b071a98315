#include <czulcrypthmac.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <limits>

#include "../common/cleanse.h"
#include "../common/report.h"
#include "../common/sizes.h"
#include "../common/trace.h"

static constexpr char kZulFile[] = "czulcrypthmac";

const unsigned char CZulCryptHMAC::ms_InPadNum = 0x36;
const unsigned char CZulCryptHMAC::ms_OutPadNum = 0x5C;

namespace {

// Every buffer of this class holds key material or is about to; running out
// of memory here is not something a caller could recover from.
unsigned char* Allocate(size_t length, bool zeroed) {
    void* buffer = zeroed ? std::calloc(1, length) : std::malloc(length);
    if (buffer == nullptr) ZUL_REPORT_FATAL("Insufficient memory");
    return static_cast<unsigned char*>(buffer);
}

// VKL writes a digest's real length whatever size it answered: every buffer a digest is finished
// into has room for the longest.
constexpr size_t kDigestRoom = static_cast<size_t>(zul::kDigestSize.most);

// Wipes the first `secret` bytes, then releases the buffer.
void Release(unsigned char* buffer, size_t secret) {
    zul::Cleanse(buffer, secret);
    std::free(buffer);
}

}  // namespace

CZulCryptHMAC::CZulCryptHMAC(CZulCryptContext& context, const char* digestName, const unsigned char* key,
                             unsigned int keyLength)
    : m_rContext(context),
      m_MDContext(m_rContext),
      m_pInnerPad(nullptr),
      m_pOuterPad(nullptr),
      m_PadLength(0),
      m_bStatus(true) {
    if (digestName == nullptr) {
        m_bStatus = false;
        return;
    }
    zul::Trace(3, [&](std::ostream& out) {
        out << "CZulCryptHMAC::CZulCryptHMAC(" << static_cast<const void*>(&context) << ")\n";
    });
    // The key is only read when it has a length; a missing one cannot be padded.
    if (key == nullptr && keyLength != 0) {
        m_bStatus = false;
        return;
    }
    if (!m_MDContext.SetType(digestName)) {
        m_bStatus = false;
        return;
    }
    std::string why;
    VKL_t* vkl = zul::VklOf(m_rContext);
    const int digestSize = zul::CheckedSize(vkl, zul::kDigestSize, m_MDContext.GetDigestSize(), &why);
    const int blockSize =
        digestSize < 0 ? -1 : zul::CheckedSize(vkl, zul::kDigestBlockSize, m_MDContext.GetDigestBlockSize(), &why);
    if (blockSize < 0) {
        ZUL_REPORT(why.c_str());
        m_bStatus = false;
        return;
    }
    const uint32_t block = static_cast<uint32_t>(blockSize);

    unsigned char* k0 = Allocate(block, true);
    m_pInnerPad = Allocate(block, true);
    m_pOuterPad = Allocate(block, true);
    if (keyLength <= block) {
        if (keyLength != 0) std::memcpy(k0, key, keyLength);
        m_PadLength = block;
    } else {
        // RFC 2104: a key longer than the block is replaced by its digest.
        unsigned char* hashed = Allocate(kDigestRoom, true);
        unsigned int hashedLength = 0;
        bool ok = m_MDContext.AddData(const_cast<unsigned char*>(key), keyLength);
        if (ok) ok = m_MDContext.GetMessageDigest(hashed, &hashedLength);
        if (ok) ok = Rearm();
        if (ok) {
            m_PadLength = block;
            std::memcpy(k0, hashed, std::min(hashedLength, block));
        } else {
            m_bStatus = false;
        }
        Release(hashed, kDigestRoom);
    }
    if (m_bStatus) {
        for (uint32_t i = 0; i < m_PadLength; ++i) {
            m_pInnerPad[i] = static_cast<unsigned char>(k0[i] ^ ms_InPadNum);
            m_pOuterPad[i] = static_cast<unsigned char>(k0[i] ^ ms_OutPadNum);
        }
    }
    Release(k0, block);
}

CZulCryptHMAC::~CZulCryptHMAC() {
    CZulCryptContext::HandleDebug("CZulCryptHMAC::~CZulCryptHMAC()\n", 3);
    // The pads are filled only once m_PadLength is set; before that they hold zeros.
    Release(m_pInnerPad, m_PadLength);
    m_pInnerPad = nullptr;
    Release(m_pOuterPad, m_PadLength);
    m_pOuterPad = nullptr;
}

bool CZulCryptHMAC::Hash(unsigned char* input, uint32_t length, unsigned char* digest, unsigned int* digestLength) {
    if (m_MDContext.AddData(input, length) && m_MDContext.GetMessageDigest(digest, digestLength)) return Rearm();
    // A hash abandoned half way would otherwise start the next call's input.
    Rearm();
    return false;
}

bool CZulCryptHMAC::Rearm() {
    // The name belongs to VKL and outlives the reset that forgets the digest.
    const char* name = m_MDContext.GetType();
    m_MDContext.ResetMessageDigest();
    return m_MDContext.SetType(name);
}

bool CZulCryptHMAC::GetHMAC(unsigned char* data, unsigned int dataLength, unsigned char* hmac,
                            unsigned int* hmacLength) {
    CZulCryptContext::HandleDebug("CZulCryptHMAC::GetHMAC()\n", 4);
    if (data == nullptr || hmac == nullptr || hmacLength == nullptr || !m_bStatus) return false;
    // The inner input's length must stay a 32-bit count.
    if (dataLength > std::numeric_limits<uint32_t>::max() - m_PadLength) return false;
    // After a failed re-arm no digest is chosen and the size is -1.
    const int digestSize = m_MDContext.GetDigestSize();
    if (!zul::InRange(zul::kDigestSize, digestSize)) return false;

    const uint32_t innerInputLength = m_PadLength + dataLength;
    // Fully overwritten below, so it needs no zeroing.
    unsigned char* innerInput = Allocate(innerInputLength, false);
    std::memcpy(innerInput, m_pInnerPad, m_PadLength);
    if (dataLength != 0) std::memcpy(innerInput + m_PadLength, data, dataLength);
    unsigned char* innerHash = Allocate(kDigestRoom, true);
    unsigned int innerLength = 0;
    bool ok = Hash(innerInput, innerInputLength, innerHash, &innerLength);
    // Only the padded key is secret to this class; the message is the caller's.
    Release(innerInput, m_PadLength);

    innerLength = std::min(innerLength, static_cast<unsigned int>(digestSize));
    const uint32_t outerInputLength = m_PadLength + innerLength;
    unsigned char* outerInput = Allocate(outerInputLength, false);
    std::memcpy(outerInput, m_pOuterPad, m_PadLength);
    std::memcpy(outerInput + m_PadLength, innerHash, innerLength);
    Release(innerHash, kDigestRoom);

    unsigned int outerLength = 0;
    if (ok) ok = Hash(outerInput, outerInputLength, hmac, &outerLength);
    Release(outerInput, outerInputLength);

    if (ok) *hmacLength = outerLength;
    return ok;
}

bool CZulCryptHMAC::GetHMAC(unsigned char* data, unsigned int dataLength, unsigned char** hmac,
                            unsigned int* hmacLength) {
    CZulCryptContext::HandleDebug("CZulCryptHMAC::GetHMAC()\n", 4);
    if (data == nullptr || hmac == nullptr || hmacLength == nullptr || !m_bStatus) return false;
    const int digestSize = m_MDContext.GetDigestSize();
    if (!zul::InRange(zul::kDigestSize, digestSize)) {
        *hmacLength = 0;
        return false;
    }
    unsigned char* buffer = Allocate(kDigestRoom, true);
    // The caller is given digestSize bytes: a longer MAC is refused rather than cut.
    bool ok = GetHMAC(data, dataLength, buffer, hmacLength) && *hmacLength == static_cast<unsigned int>(digestSize);
    if (ok) {
        *hmac = buffer;
    } else {
        Release(buffer, kDigestRoom);
        *hmacLength = 0;
    }
    return ok;
}

int CZulCryptHMAC::GetDigestSize() { return m_MDContext.GetDigestSize(); }

int CZulCryptHMAC::GetDigestBlockSize() { return m_MDContext.GetDigestBlockSize(); }

const char* CZulCryptHMAC::GetType() { return m_MDContext.GetType(); }

bool CZulCryptHMAC::GetStatus() { return m_MDContext.GetStatus(); }
