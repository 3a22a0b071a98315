#include <czulcryptrsacalculator.h>

#include <climits>

#include "../common/report.h"
#include "../common/vkl_context.h"

static constexpr char kZulFile[] = "czulcryptrsacalculator";

CZulCryptRSACalculator::CZulCryptRSACalculator(CZulCryptContext& context) : m_rContext(context) {}

CZulCryptRSACalculator::~CZulCryptRSACalculator() {}

int CZulCryptRSACalculator::RSAPublicEncrypt(const unsigned char* from, unsigned int fromLength,
                                             const CZulCryptRSAKey& key, unsigned char* to) {
    return Run(VKL_RSA_public_encrypt, from, fromLength, key, to);
}

int CZulCryptRSACalculator::RSAPublicDecrypt(const unsigned char* from, unsigned int fromLength,
                                             const CZulCryptRSAKey& key, unsigned char* to) {
    return Run(VKL_RSA_public_decrypt, from, fromLength, key, to);
}

int CZulCryptRSACalculator::RSAPrivateEncrypt(const unsigned char* from, unsigned int fromLength,
                                              const CZulCryptRSAKey& key, unsigned char* to) {
    return Run(VKL_RSA_private_encrypt, from, fromLength, key, to);
}

int CZulCryptRSACalculator::RSAPrivateDecrypt(const unsigned char* from, unsigned int fromLength,
                                              const CZulCryptRSAKey& key, unsigned char* to) {
    return Run(VKL_RSA_private_decrypt, from, fromLength, key, to);
}

void CZulCryptRSACalculator::BuildRSAKeyStruct(const CZulCryptRSAKey& key, C_VKL_RSA_Wrap* rsa) {
    key.BuildKeyStruct(rsa);
}

int CZulCryptRSACalculator::Run(Operation operation, const unsigned char* from, unsigned int fromLength,
                                const CZulCryptRSAKey& key, unsigned char* to) {
    VKL_t* vkl = ZUL_VKL_OR_REPORT(m_rContext);
    if (vkl == nullptr) return -1;
    VKL_RSA_t* record = VKL_RSA_new(vkl);
    if (record == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return -1;
    }
    C_VKL_RSA_Wrap wrap(record);
    BuildRSAKeyStruct(key, &wrap);
    // VKL lengths are ints; a longer input could never fit a modulus anyway.
    const int length = fromLength > static_cast<unsigned int>(INT_MAX) ? -1 : static_cast<int>(fromLength);
    const int result = operation(vkl, length, from, to, record, VKL_RSA_PKCS1_PADDING);
    VKL_RSA_free(vkl, record);
    if (result == -1) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
    } else if (result < 0) {
        // Returned as it is, unreported: what VKL queued for it goes now.
        zul::DrainVklErrors(vkl);
    }
    return result;
}
