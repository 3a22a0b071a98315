#include <czulcryptrsakey.h>

#include <string>
#include <utility>

#include "../common/report.h"
#include "../common/vkl_context.h"

static constexpr char kZulFile[] = "czulcryptrsakey";

const int CZulCryptRSAKey::ms_MaxKeyAttempts = 10;

CZulCryptRSAKey::CZulCryptRSAKey(CZulCryptContext& context)
    : m_rContext(context),
      m_pN(nullptr),
      m_pP(nullptr),
      m_pQ(nullptr),
      m_pE(nullptr),
      m_pD(nullptr),
      m_pDmp1(nullptr),
      m_pDmq1(nullptr),
      m_pIqmp(nullptr) {}

CZulCryptRSAKey::~CZulCryptRSAKey() { ClearKey(); }

void CZulCryptRSAKey::ClearKey() {
    // The numbers wipe their own bytes (d, the primes and the CRT values are secrets).
    for (CZulCryptBigNum** component : {&m_pN, &m_pP, &m_pQ, &m_pE, &m_pD, &m_pDmp1, &m_pDmq1, &m_pIqmp}) {
        delete *component;
        *component = nullptr;
    }
}

unsigned int CZulCryptRSAKey::KeySize() const { return m_pN != nullptr ? m_pN->GetLen() : 0; }

void CZulCryptRSAKey::GenerateKey(int bits, unsigned long publicExponent) {
    ClearKey();
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return;
    for (int failures = 0; failures <= ms_MaxKeyAttempts; ++failures) {
        VKL_RSA_t* rsa = VKL_RSA_generate_key(vkl, bits, publicExponent, nullptr, nullptr);
        if (rsa == nullptr) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
            continue;
        }
        if (VKL_RSA_check_key(vkl, rsa) == 1) {
            C_VKL_RSA_Wrap wrap(rsa);
            SetKey(&wrap);
            VKL_RSA_free(vkl, rsa);
            return;
        }
        ZUL_REPORT_VKL_ERROR(m_rContext);
        VKL_RSA_free(vkl, rsa);
    }
    // Each failed attempt took its entries with its report, so nothing is left to drain here.
    std::string text = "Exceeded max attempts to produce RSAKey: ";
    m_rContext.GetError(text);
    ZUL_REPORT(text.c_str());
}

void CZulCryptRSAKey::SetKey(C_VKL_RSA_Wrap* rsa) {
    if (rsa == nullptr || rsa->m_pRSA == nullptr) {
        ZUL_REPORT("Tried to set the CZulCryptRSAKey with a NULL RSA structure.");
        return;
    }
    // Reported once here rather than by every component's copy.
    if (ZUL_VKL_OR_REPORT(m_rContext) == nullptr) return;
    VKL_RSA_t* record = rsa->m_pRSA;
    const std::pair<CZulCryptBigNum**, VKL_BIGNUM_t*> components[] = {
        {&m_pN, record->n},       {&m_pP, record->p},       {&m_pQ, record->q},       {&m_pE, record->e},
        {&m_pD, record->d},       {&m_pDmp1, record->dmp1}, {&m_pDmq1, record->dmq1}, {&m_pIqmp, record->iqmp}};
    for (const auto& component : components) {
        if (component.second == nullptr) continue;
        CZulCryptBigNum* number = new CZulCryptBigNum(m_rContext);
        C_VKL_BIGNUM_Wrap value(component.second);
        (void)number->SetNumber(&value);
        delete *component.first;
        *component.first = number;
    }
}

void CZulCryptRSAKey::BuildKeyStruct(C_VKL_RSA_Wrap* rsa) const {
    if (rsa == nullptr || rsa->m_pRSA == nullptr) return;
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return;
    VKL_RSA_t* record = rsa->m_pRSA;
    const std::pair<const CZulCryptBigNum*, VKL_BIGNUM_t**> components[] = {
        {m_pN, &record->n},       {m_pP, &record->p},       {m_pQ, &record->q},       {m_pE, &record->e},
        {m_pD, &record->d},       {m_pDmp1, &record->dmp1}, {m_pDmq1, &record->dmq1}, {m_pIqmp, &record->iqmp}};
    for (const auto& component : components) {
        if (component.first == nullptr) continue;
        // What the field held goes either way: left in place, a reused record would operate with
        // another key's number (its d, say); missing, the operation fails.
        if (*component.second != nullptr) VKL_BN_clear_free(vkl, *component.second);
        *component.second = VKL_BN_new(vkl);
        VKL_BIGNUM_t* number = *component.second;
        if (number == nullptr) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
            continue;
        }
        C_VKL_BIGNUM_Wrap wrap(number);
        if (!component.first->PopulateNumber(&wrap)) {
            // Left as zero it would be used as a zero exponent; missing, the operation fails.
            VKL_BN_clear_free(vkl, number);
            *component.second = nullptr;
        }
    }
}

CZulCryptBigNum* CZulCryptRSAKey::Copy(const CZulCryptBigNum* number) const {
    if (number == nullptr) return nullptr;
    CZulCryptBigNum* copy = new CZulCryptBigNum(m_rContext);
    (void)copy->SetNumber(number->GetLen(), number->GetBigNumPacket());
    return copy;
}

void CZulCryptRSAKey::PopulateWithPublic(CZulCryptBigNum** modulus, CZulCryptBigNum** publicExponent) {
    if (m_pN != nullptr || m_pE != nullptr) ClearKey();
    m_pN = *modulus;
    m_pE = *publicExponent;
    *modulus = nullptr;
    *publicExponent = nullptr;
}

void CZulCryptRSAKey::PopulateWithPublic(const CZulCryptBigNum* modulus, const CZulCryptBigNum* publicExponent) {
    if (m_pN != nullptr || m_pE != nullptr) ClearKey();
    m_pN = Copy(modulus);
    m_pE = Copy(publicExponent);
}

void CZulCryptRSAKey::PopulateWithPrivate(const CZulCryptBigNum* modulus, const CZulCryptBigNum* privateExponent) {
    if (m_pN != nullptr || m_pD != nullptr) ClearKey();
    m_pN = Copy(modulus);
    m_pD = Copy(privateExponent);
}
