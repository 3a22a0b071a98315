#include <atomic>
#include <fstream>
#include <memory>

#include <wexcrypt.h>
#include <wexcrypt_testing.h>

namespace {

struct VklDeleter {
    void operator()(VKL_t* vkl) const { VKL_CTX_free(vkl); }
};

// The process's one VKL context, made on first request and released at exit.
VKL_t* ProcessContext() {
    static std::unique_ptr<VKL_t, VklDeleter> context(VKL_CTX_new());
    return context.get();
}

std::atomic<long long> g_getContextResult{WEXCRYPT_CONTEXT_AVAILABLE};
std::atomic<int> g_forcedFips{-1};

// The host's mode is fixed at boot; reading the file costs microseconds and
// callers ask before every algorithm they accept.
int HostFips() {
    static const int fips = [] {
        std::ifstream in("/proc/sys/crypto/fips_enabled");
        int value = 0;
        return (in >> value) && value == 1;
    }();
    return fips;
}

}  // namespace

extern "C" {

long long WEXCryptGetContext(VKL_t** context) {
    long long result = g_getContextResult.load(std::memory_order_relaxed);
    if (result != WEXCRYPT_CONTEXT_AVAILABLE) return result;
    VKL_t* vkl = ProcessContext();
    if (vkl == nullptr || context == nullptr) return 0;
    *context = vkl;
    return WEXCRYPT_CONTEXT_AVAILABLE;
}

int WEXUTILSIsSystemFips(void) {
    int forced = g_forcedFips.load(std::memory_order_relaxed);
    return forced >= 0 ? forced : HostFips();
}

void WEXTest_SetGetContextResult(long long result) { g_getContextResult.store(result, std::memory_order_relaxed); }

void WEXTest_SetSystemFips(int value) { g_forcedFips.store(value, std::memory_order_relaxed); }

}  // extern "C"
