#include <czulcryptcontext.h>

#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <iostream>

#include <wexcrypt.h>

#include "../common/cleanse.h"
#include "../common/report.h"

namespace {

constexpr char kZulFile[] = "czulcryptcontext";
constexpr int kSeedLength = 64;

const char* MajorText(int32_t code) {
    switch (code) {
        case 0: return "MAJOR: VKL OK, ";
        case 1: return "MAJOR: VKL WARNING, ";
        case 2: return "MAJOR: VKL ERROR, ";
        case 3: return "MAJOR: VKL OPENSSL ERROR, ";
        case 4: return "MAJOR: VKL OS ERROR, ";
        default: return nullptr;
    }
}

const char* MinorText(int32_t code) {
    switch (code) {
        case 0: return "MINOR: NULL PARAMETER";
        case 1: return "MINOR: UNSUPPORTED VALUE ID ";
        case 2: return "MINOR: UNSUPPORTED VALUE";
        case 3: return "MINOR: LIBRARY NOT FOUND";
        case 4: return "MINOR: LIBRARY VERIFICATION FAILED";
        case 5: return "MINOR: INCOMPATIBLE LIBRARY";
        case 6: return "MINOR: INVALID STATE";
        case 7: return "MINOR: VALUE NOT SET";
        case 8: return "MINOR: VALUE TRUNCATED";
        case 10: return "MINOR: NOT INITIALISED";
        case 11: return "MINOR: DISABLED";
        case 12: return "MINOR: MEMORY FUNCTIONS ISSUE";
        case 14: return "MINOR: UNABLE TO SET VALUE";
        default: return nullptr;  // 9 and 13 are unassigned
    }
}

// A null string written to a stream sets its failbit, which silences every later
// report of the process.
const char* Printable(const char* text) { return text != nullptr ? text : "(null)"; }

bool IsFipsCipher(const char* name) {
    return std::strncmp(name, "DES", 3) == 0 || std::strncmp(name, "AES", 3) == 0 ||
           std::strcmp(name, "RSA-SHA1-2") == 0;
}

bool IsFipsDigestOrSignature(const char* name) {
    static const char* const kNames[] = {"SHA1", "RSA-SHA1", "RSA-MD5", "DH", "DSA"};
    for (const char* fips : kNames) {
        if (std::strcmp(name, fips) == 0) return true;
    }
    return false;
}

}  // namespace

unsigned int CZulCryptContext::m_LogLevel = 0;
void (*CZulCryptContext::m_DebugResponseFn)(const char*, unsigned int) = nullptr;
void (*CZulCryptContext::m_ErrorResponseFn)(const char*, unsigned int, const char*, bool) = nullptr;

// ---- Life of the VKL context ----

CZulCryptContext::CZulCryptContext() : m_pCtxWrap(nullptr), m_bStatus(false), m_bNonFIPSAllowedInFIPS(true) {
    HandleDebug("CZulCryptContext::CZulCryptContext()\n", 3);
    Initialise();
}

CZulCryptContext::~CZulCryptContext() {
    HandleDebug("CZulCryptContext::~CZulCryptContext()\n", 3);
    // The VKL context belongs to libwexcrypt: only our holder goes.
    delete m_pCtxWrap;
    m_pCtxWrap = nullptr;
}

void CZulCryptContext::Initialise() {
    HandleDebug("CZulCryptContext::Initialise()\n", 3);
    // A second run replaces the holder the first made (never the VKL context itself).
    delete m_pCtxWrap;
    m_pCtxWrap = nullptr;
    VKL_t* vkl = nullptr;
    long long result = WEXCryptGetContext(&vkl);
    std::string message;
    if (result == WEXCRYPT_CONTEXT_AVAILABLE) {
        m_bStatus = true;
        m_pCtxWrap = new C_VKL_CTX_Wrap(vkl);
        m_bStatus = CheckStatus(message);
    } else {
        m_bStatus = false;
        message = "VKL Context not started.";
    }
    if (!m_bStatus) {
        ZUL_REPORT(message.c_str());
        return;
    }
    m_bStatus = SelfTest();
    if (m_bStatus) m_bStatus = OpenAlgorithms();
    if (m_bStatus) m_bStatus = SetRandomSeed();
}

bool CZulCryptContext::SelfTest() {
    HandleDebug("CZulCryptContext::SelfTest()\n", 3);
    if (m_pCtxWrap == nullptr) return false;
    C_VKL_STATUS_Wrap status;
    std::memset(&status, 0, sizeof status);
    zul::DropVklFailure(m_pCtxWrap->m_pCtx, VKL_SelfTest(m_pCtxWrap->m_pCtx, &status));
    std::string text;
    bool clean = GetStatus(&status, text);
    if (!clean) ZUL_REPORT(text.c_str());
    return clean;
}

bool CZulCryptContext::OpenAlgorithms() {
    HandleDebug("CZulCryptContext::OpenAlgorithms()\n", 3);
    return true;
}

bool CZulCryptContext::SetRandomSeed() {
    HandleDebug("CZulCryptContext::SetRandomSeed()\n", 3);
    if (m_pCtxWrap == nullptr) return false;
    unsigned char seed[kSeedLength];
    C_VKL_STATUS_Wrap status;
    std::memset(seed, 0, sizeof seed);
    std::memset(&status, 0, sizeof status);
    zul::DropVklFailure(m_pCtxWrap->m_pCtx, VKL_GenerateRandomSeed(m_pCtxWrap->m_pCtx, &status, kSeedLength, seed));
    std::string text;
    bool clean = GetStatus(&status, text);
    if (clean) {
        zul::DropVklFailure(m_pCtxWrap->m_pCtx, VKL_RAND_seed(m_pCtxWrap->m_pCtx, seed, kSeedLength));
    } else {
        ZUL_REPORT(text.c_str());
    }
    zul::Cleanse(seed, sizeof seed);
    return clean;
}

C_VKL_CTX_Wrap* CZulCryptContext::GetContext() { return m_pCtxWrap; }

bool CZulCryptContext::GetStatus() { return m_bStatus; }

// ---- Diagnostics ----

void CZulCryptContext::SetLogLevel(unsigned int level) { m_LogLevel = level; }

void CZulCryptContext::SetDebugResponseFn(void (*fn)(const char*, unsigned int)) { m_DebugResponseFn = fn; }

void CZulCryptContext::SetErrorResponseFn(void (*fn)(const char*, unsigned int, const char*, bool)) {
    m_ErrorResponseFn = fn;
}

void CZulCryptContext::HandleDebug(const char* text, unsigned int level) {
    if (m_DebugResponseFn != nullptr) {
        m_DebugResponseFn(text, level);
    } else if (level <= m_LogLevel) {
        std::cout << Printable(text) << std::endl;
    }
}

void CZulCryptContext::HandleError(const char* file, unsigned int line, const char* text, bool fatal) {
    if (m_ErrorResponseFn != nullptr) {
        m_ErrorResponseFn(file, line, text, fatal);
    } else {
        std::cerr << "FILE:" << Printable(file) << " LINE:" << line << " DESC:" << Printable(text) << std::endl;
    }
    if (fatal) std::exit(-1);  // NOLINT(concurrency-mt-unsafe): a fatal error ends the process, threads and all
}

void CZulCryptContext::PrintData(const unsigned char* data, unsigned int length) {
    if (data == nullptr || length == 0) {
        std::cout << "NULL\n";
        return;
    }
    // The dump needs right-aligned hex whatever the application left set; it gets its
    // own flags back afterwards.
    const std::ios_base::fmtflags flags = std::cout.flags();
    std::cout.flags(std::ios_base::hex | std::ios_base::right | std::ios_base::skipws);
    std::cout << "    00-01-02-03-04-05-06-07___08-09-0A-0B-0C-0D-0E-0F\n00  ";
    const char fill = std::cout.fill('0');
    // A row's separator or label goes before its next byte, so the last row ends
    // without an empty label after it.
    for (unsigned int i = 0; i < length; ++i) {
        if (i % 16 == 0 && i > 0) {
            std::cout << std::endl << std::setw(2) << i / 16 << "  ";
        } else if (i % 8 == 0 && i > 0) {
            std::cout << "  ";
        }
        std::cout << std::setw(2) << static_cast<unsigned int>(data[i]) << ' ';
    }
    std::cout.fill(fill);
    std::cout.flags(flags);
    std::cout << std::endl;
}

bool CZulCryptContext::GetStatus(C_VKL_STATUS_Wrap* status, std::string& text) {
    HandleDebug("CZulCryptContext::GetStatus()\n", 4);
    if (status == nullptr) {
        text += "NULL Status object.";
        return false;
    }
    if (status->major == 0 && status->minor == 0) return true;
    if (const char* major = MajorText(status->major)) {
        text += major;
    } else {
        ZUL_REPORT("Unsupported major VKL status error type.");
        text += "MAJOR: UNKNOWN " + std::to_string(status->major) + ", ";
    }
    if (const char* minor = MinorText(status->minor)) {
        text += minor;
    } else {
        ZUL_REPORT("Unsupported minor VKL status error type.");
        text += "MINOR: UNKNOWN " + std::to_string(status->minor);
    }
    text += ", DESC:";
    // VKL terminates the description; the bound only guards a record it did not.
    text.append(status->description, strnlen(status->description, sizeof status->description));
    return false;
}

bool CZulCryptContext::CheckStatus(std::string& text) {
    if (!m_bStatus) return false;
    C_VKL_STATUS_Wrap status;
    std::memset(&status, 0, sizeof status);
    VKL_GetStatus(m_pCtxWrap->m_pCtx, &status);
    return GetStatus(&status, text);
}

void CZulCryptContext::GetError(std::string& text) {
    HandleDebug("CZulCryptContext::GetError()\n", 4);
    if (m_pCtxWrap == nullptr) return;
    VKL_t* vkl = m_pCtxWrap->m_pCtx;
    unsigned long code = VKL_ERR_get_error(vkl);
    char buffer[512] = {};
    VKL_ERR_error_string_n(vkl, code, buffer, sizeof buffer);
    text += buffer;
}

// ---- Algorithm policy ----

bool CZulCryptContext::IsAlgorithmFIPS(EZulCryptAlgorithmUsage usage, const char* name) {
    if (name == nullptr) return false;
    switch (usage) {
        case eZulCryptUsageCipher: return IsFipsCipher(name);
        case eZulCryptUsageDigest:
        case eZulCryptUsageSignature:
        case eZulCryptUsageOther: return IsFipsDigestOrSignature(name);
        default: return false;
    }
}

bool CZulCryptContext::CheckAlgorithmAllowed(EZulCryptAlgorithmUsage usage, const char* name) {
    if (name == nullptr) return false;
    if (WEXUTILSIsSystemFips() != 1) return true;
    if (IsAlgorithmFIPS(usage, name)) return true;
    std::string message = std::string("Non FIPS algorithm ") + name + " called in a FIPS context.\n";
    ZUL_REPORT(message.c_str());
    return m_bNonFIPSAllowedInFIPS;
}

void CZulCryptContext::SetIsNonFIPSAllowedInFIPS(bool allowed) { m_bNonFIPSAllowedInFIPS = allowed; }
