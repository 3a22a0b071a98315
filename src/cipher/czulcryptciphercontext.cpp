#include <czulcryptciphercontext.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../common/cleanse.h"
#include "../common/report.h"
#include "../common/sizes.h"
#include "../common/trace.h"

namespace {

constexpr char kZulFile[] = "czulcryptciphercontext";
constexpr char kInvalidState[] = "VKL Context in an invalid state";
constexpr int kIvRoom = zul::kCipherIvLength.most;

const char* DataOrNull(const unsigned char* data) { return data != nullptr ? "DATA" : "NULL"; }

// Operation traces are built only when someone will see them: the streaming
// calls run once per piece of data.
constexpr unsigned int kOperationTrace = 4;

bool Tracing() { return zul::TraceWanted(kOperationTrace); }

void Trace(const std::string& text) { CZulCryptContext::HandleDebug(text.c_str(), kOperationTrace); }

std::string DataTrace(const char* operation, const unsigned char* in, int length, const char* separator) {
    return std::string("CZulCryptCipherContext::") + operation + "(" + DataOrNull(in) + separator +
           std::to_string(length) + ")\n";
}

}  // namespace

CZulCryptCipherContext::CZulCryptCipherContext(CZulCryptContext& context)
    : m_rContext(context), m_pCipherCtxWrap(nullptr), m_pCipher(nullptr), m_pIv(nullptr), m_bStatus(false),
      m_ivLength(0) {
    zul::Trace(1, [&](std::ostream& out) {
        out << "CZulCryptCipherContext::CZulCryptCipherContext(" << static_cast<const void*>(&context) << ")";
    });
    Initialise();
}

CZulCryptCipherContext::~CZulCryptCipherContext() {
    if (m_pCipherCtxWrap != nullptr) {
        CZulCryptContext::HandleDebug("CZulCryptCipherContext::~CZulCryptCipherContext()", 3);
    }
    ReleaseCipherContext();
    delete m_pCipher;
    m_pCipher = nullptr;
}

void CZulCryptCipherContext::ReleaseCipherContext() {
    if (m_pCipherCtxWrap != nullptr) {
        // The reset wipes the key schedule before the context goes.
        ResetCipher();
        if (m_pCipherCtxWrap->m_pCipherCtx != nullptr &&
            VKL_EVP_CIPHER_CTX_free(Vkl(), m_pCipherCtxWrap->m_pCipherCtx) == 0) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
        }
    }
    delete m_pCipherCtxWrap;
    m_pCipherCtxWrap = nullptr;
}

VKL_t* CZulCryptCipherContext::Vkl() { return m_rContext.GetContext()->m_pCtx; }

bool CZulCryptCipherContext::HasCipher() const { return m_pCipher != nullptr && *m_pCipher != nullptr; }

void CZulCryptCipherContext::Initialise() {
    // A second run replaces what the first made, keyed or not.
    ReleaseCipherContext();
    m_bStatus = false;
    if (m_rContext.GetContext() == nullptr) return;
    CZulCryptContext::HandleDebug("CZulCryptCipherContext::Initialise()", 3);
    m_pCipherCtxWrap = new C_VKL_EVP_CIPHER_CTX_Wrap(VKL_EVP_CIPHER_CTX_new(Vkl()));
    if (m_pCipherCtxWrap->m_pCipherCtx == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return;
    }
    zul::DropVklFailure(Vkl(), VKL_EVP_CIPHER_CTX_init(Vkl(), m_pCipherCtxWrap->m_pCipherCtx));
    m_bStatus = true;
}

// ---- Set-up and parameters ----

void CZulCryptCipherContext::ReleaseIv() {
    zul::Cleanse(m_pIv, static_cast<size_t>(m_ivLength));
    delete[] m_pIv;
    m_pIv = nullptr;
    m_ivLength = 0;
}

bool CZulCryptCipherContext::SetType(const char* name, const unsigned char* key, int keyLength,
                                     const unsigned char* iv, int ivLength, bool encrypt) {
    if (Tracing()) Trace(std::string("CZulCryptCipherContext::SetType(") + zul::OrNull(name) + ")\n");
    if (!m_rContext.CheckAlgorithmAllowed(eZulCryptUsageCipher, name)) return false;
    if (HasCipher()) ResetCipher();
    if (!m_bStatus) {
        ZUL_REPORT(kInvalidState);
        return false;
    }
    if (m_pCipher == nullptr) m_pCipher = new const VKL_EVP_CIPHER_t*(nullptr);
    VKL_t* vkl = Vkl();
    *m_pCipher = VKL_EVP_get_cipherbyname(vkl, name);
    if (*m_pCipher == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return false;
    }
    // As many bytes of the caller's IV are read.
    const int required = ZUL_SIZE(CipherIvLength, vkl, *m_pCipher);
    if (required < 0) return false;
    if (ivLength != 0 && ivLength != required) return false;
    ReleaseIv();
    // Room for the longest IV, zeros past the one given: VKL reads what its cipher needs,
    // whatever length it answered.
    m_pIv = new unsigned char[kIvRoom]();
    m_ivLength = kIvRoom;
    if (iv != nullptr) std::memcpy(m_pIv, iv, static_cast<size_t>(required));
    const int defaultLength = keyLength != 0 ? ZUL_SIZE(CipherKeyLength, vkl, *m_pCipher) : 0;
    if (defaultLength < 0) return false;
    VKL_EVP_CIPHER_CTX_t* ctx = m_pCipherCtxWrap->m_pCipherCtx;
    auto init = encrypt ? VKL_EVP_EncryptInit : VKL_EVP_DecryptInit;
    // A non-default length is set between an init without the key and the init that brings
    // it (OpenSSL's order): VKL reads the key only during that init, exactly keyLength bytes.
    const bool otherLength = keyLength != defaultLength;
    if (otherLength && init(vkl, ctx, *m_pCipher, nullptr, m_pIv) != 1) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return false;
    }
    if (otherLength && VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, keyLength) != 1) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return false;
    }
    if (init(vkl, ctx, otherLength ? nullptr : *m_pCipher, key, m_pIv) != 1) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return false;
    }
    return true;
}

bool CZulCryptCipherContext::SetEncryptType(const char* name, const unsigned char* key, int keyLength,
                                            const unsigned char* iv, int ivLength) {
    // No closing parenthesis in this one trace: log readers match it as it stands.
    if (Tracing()) Trace(std::string("CZulCryptCipherContext::SetEncryptType(") + zul::OrNull(name) + "\n");
    return SetType(name, key, keyLength, iv, ivLength, true);
}

bool CZulCryptCipherContext::SetEncryptType(const char* name, const unsigned char* key, int keyLength) {
    if (Tracing()) Trace(std::string("CZulCryptCipherContext::SetEncryptType(") + zul::OrNull(name) + ")\n");
    return SetType(name, key, keyLength, nullptr, 0, true);
}

bool CZulCryptCipherContext::SetDecryptType(const char* name, const unsigned char* key, int keyLength,
                                            const unsigned char* iv, int ivLength) {
    if (Tracing()) Trace(std::string("CZulCryptCipherContext::SetDecryptType(") + zul::OrNull(name) + ")\n");
    return SetType(name, key, keyLength, iv, ivLength, false);
}

bool CZulCryptCipherContext::SetDecryptType(const char* name, const unsigned char* key, int keyLength) {
    if (Tracing()) Trace(std::string("CZulCryptCipherContext::SetDecryptType(") + zul::OrNull(name) + ")\n");
    return SetType(name, key, keyLength, nullptr, 0, false);
}

int CZulCryptCipherContext::CipherSize(const char* name, int (*query)(VKL_t*, const VKL_EVP_CIPHER_t*)) {
    if (!m_bStatus) return -1;
    const VKL_EVP_CIPHER_t* cipher = VKL_EVP_get_cipherbyname(Vkl(), name);
    if (cipher == nullptr) {
        ZUL_REPORT_VKL_ERROR(m_rContext);
        return -1;
    }
    return Size(cipher, query);
}

// A failed query answers -1 (or VKL's negative result) and takes its queue entry with it.
int CZulCryptCipherContext::Size(const VKL_EVP_CIPHER_t* cipher, int (*query)(VKL_t*, const VKL_EVP_CIPHER_t*)) {
    const int size = cipher != nullptr ? query(Vkl(), cipher) : -1;
    if (size < 0) zul::DrainVklErrors(Vkl());
    return size;
}

int CZulCryptCipherContext::GetDefaultBlockSizeForType(const char* name) {
    return CipherSize(name, VKL_EVP_CIPHER_block_size);
}

int CZulCryptCipherContext::GetDefaultKeyLengthForType(const char* name) {
    return CipherSize(name, VKL_EVP_CIPHER_key_length);
}

int CZulCryptCipherContext::GetDefaultIvLengthForType(const char* name) {
    return CipherSize(name, VKL_EVP_CIPHER_iv_length);
}

bool CZulCryptCipherContext::SetKeyLength(int length) {
    if (!m_bStatus) return false;
    if (VKL_EVP_CIPHER_CTX_set_key_length(Vkl(), m_pCipherCtxWrap->m_pCipherCtx, length) == 1) return true;
    ZUL_REPORT_VKL_ERROR(m_rContext);
    return false;
}

bool CZulCryptCipherContext::SetPadding(bool padding) {
    if (!m_bStatus) return false;
    if (VKL_EVP_CIPHER_CTX_set_padding(Vkl(), m_pCipherCtxWrap->m_pCipherCtx, padding) == 1) return true;
    ZUL_REPORT_VKL_ERROR(m_rContext);
    return false;
}

int CZulCryptCipherContext::GetKeySize() {
    if (m_pCipherCtxWrap == nullptr || m_pCipherCtxWrap->m_pCipherCtx == nullptr) return -1;
    return Size(VKL_EVP_CIPHER_CTX_cipher(Vkl(), m_pCipherCtxWrap->m_pCipherCtx), VKL_EVP_CIPHER_key_length);
}

int CZulCryptCipherContext::GetBlockSize() {
    if (m_pCipherCtxWrap == nullptr || m_pCipherCtxWrap->m_pCipherCtx == nullptr) return -1;
    return Size(VKL_EVP_CIPHER_CTX_cipher(Vkl(), m_pCipherCtxWrap->m_pCipherCtx), VKL_EVP_CIPHER_block_size);
}

void CZulCryptCipherContext::ResetCipher() {
    Trace("CZulCryptCipherContext::ResetCipher()\n");
    if (m_bStatus) {
        VKL_EVP_CIPHER_CTX_t* ctx = m_pCipherCtxWrap->m_pCipherCtx;
        if (VKL_EVP_CIPHER_CTX_cleanup(Vkl(), ctx) == 0) {
            ZUL_REPORT_VKL_ERROR(m_rContext);
            m_bStatus = false;
        }
        zul::DropVklFailure(Vkl(), VKL_EVP_CIPHER_CTX_init(Vkl(), ctx));
        delete m_pCipher;
        m_pCipher = nullptr;
    }
    ReleaseIv();
}

const char* CZulCryptCipherContext::GetType() {
    const char* type = nullptr;
    if (m_bStatus && HasCipher()) {
        const int nid = VKL_EVP_CIPHER_type(Vkl(), *m_pCipher);
        if (nid == 0) zul::DrainVklErrors(Vkl());
        type = VKL_OBJ_nid2sn(Vkl(), nid);
    }
    // No blank after "returning": log readers match the text as it stands.
    if (Tracing()) {
        Trace(std::string("CZulCryptCipherContext::GetType() returning") +
              (type != nullptr ? std::string(type) + ")\n" : std::string()));
    }
    return type;
}

bool CZulCryptCipherContext::GetStatus() {
    Trace(m_bStatus ? "CZulCryptCipherContext::GetStatus() returning TRUE\n"
                    : "CZulCryptCipherContext::GetStatus() returning FALSE\n");
    return m_bStatus;
}

// ---- Streaming ----

int CZulCryptCipherContext::GetBufferSize(int length, bool encrypt) {
    int size = -1;
    const int block = HasCipher() ? ZUL_SIZE(CipherBlockSize, Vkl(), *m_pCipher) : -1;
    if (block > 0) {
        const long long wanted = static_cast<long long>(block) + length - (encrypt ? 1 : 0);
        // A size that does not fit an int cannot be answered.
        if (wanted <= INT_MAX) size = static_cast<int>(wanted);
    }
    if (Tracing()) {
        Trace("CZulCryptCipherContext::GetBufferSize(" + std::to_string(length) + ") returning " +
              std::to_string(size) + "\n");
    }
    return size;
}

bool CZulCryptCipherContext::AddData(unsigned char* in, int length, unsigned char* out, int* outLength,
                                     bool encrypt) {
    if (Tracing()) Trace(DataTrace("AddData", in, length, ","));
    if (!m_bStatus) {
        ZUL_REPORT(kInvalidState);
        return false;
    }
    if (length == 0) {
        ZUL_REPORT("Attempt to process zero length data");
        return false;
    }
    VKL_EVP_CIPHER_CTX_t* ctx = m_pCipherCtxWrap->m_pCipherCtx;
    int done = encrypt ? VKL_EVP_EncryptUpdate(Vkl(), ctx, out, outLength, in, length)
                       : VKL_EVP_DecryptUpdate(Vkl(), ctx, out, outLength, in, length);
    if (done == 1) return true;
    ZUL_REPORT_VKL_ERROR(m_rContext);
    return false;
}

bool CZulCryptCipherContext::EncryptData(unsigned char* in, int length, unsigned char* out, int* outLength) {
    if (Tracing()) Trace(DataTrace("EncryptData", in, length, ""));
    return AddData(in, length, out, outLength, true);
}

bool CZulCryptCipherContext::DecryptData(unsigned char* in, int length, unsigned char* out, int* outLength) {
    if (Tracing()) Trace(DataTrace("DecryptData", in, length, ""));
    return AddData(in, length, out, outLength, false);
}

bool CZulCryptCipherContext::GetFinal(unsigned char* out, int* outLength, bool encrypt) {
    Trace("CZulCryptCipherContext::GetFinal()\n");
    if (!m_bStatus) {
        ZUL_REPORT(kInvalidState);
        return false;
    }
    if (out == nullptr || outLength == nullptr) {
        ZUL_REPORT("Provided message cipher buffer is invalid");
        return false;
    }
    VKL_EVP_CIPHER_CTX_t* ctx = m_pCipherCtxWrap->m_pCipherCtx;
    int done = encrypt ? VKL_EVP_EncryptFinal(Vkl(), ctx, out, outLength)
                       : VKL_EVP_DecryptFinal(Vkl(), ctx, out, outLength);
    if (done == 1) return true;
    ZUL_REPORT_VKL_ERROR(m_rContext);
    return false;
}

bool CZulCryptCipherContext::EncryptFinal(unsigned char* out, int* outLength) {
    Trace("CZulCryptCipherContext::EncryptFinal()\n");
    return GetFinal(out, outLength, true);
}

bool CZulCryptCipherContext::DecryptFinal(unsigned char* out, int* outLength) {
    Trace("CZulCryptCipherContext::DecryptFinal()\n");
    return GetFinal(out, outLength, false);
}

// ---- One piece into a new buffer ----

bool CZulCryptCipherContext::EncryptData(unsigned char* in, int length, unsigned char** out, int* outLength) {
    if (Tracing()) Trace(DataTrace("EncryptData", in, length, ""));
    if (m_pCipher == nullptr) return false;
    int size = GetBufferSize(length, true);
    if (size < 1) {
        ZUL_REPORT("Buffer size is invalid");
        return false;
    }
    auto* buffer = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(size), 1));
    if (buffer == nullptr) {
        ZUL_REPORT("Insufficient memory");
        return false;
    }
    *out = buffer;
    const std::string sized = "CZulCryptCipherContext::EncryptData( BufferSize:" + std::to_string(size) + ")\n";
    if (Tracing()) Trace(sized);
    bool done = AddData(in, length, *out, outLength, true);
    if (Tracing()) Trace(sized);
    return done;
}

bool CZulCryptCipherContext::DecryptData(unsigned char* in, int length, unsigned char** out, int* outLength) {
    if (Tracing()) Trace(DataTrace("DecryptData", in, length, ""));
    if (!HasCipher()) return false;
    int size = GetBufferSize(length, false);
    if (size < 1) return false;
    auto* buffer = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(size), 1));
    if (buffer == nullptr) {
        ZUL_REPORT("Insufficient memory");
        return false;
    }
    *out = buffer;
    return AddData(in, length, *out, outLength, false);
}
