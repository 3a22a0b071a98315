// OpenSSL allocates through the stand-in, which counts each allocation and fails the one a test
// names: every "out of memory" path of the stand-in, and of the library above it, can be run.
#include <atomic>
#include <cstdlib>

#include <openssl/crypto.h>

#include <vkl_testing.h>

#include "memory.h"

namespace vkl {
namespace {

std::atomic<unsigned long> g_allocations{0};
// The number of the allocation that fails; 0 for none.
std::atomic<unsigned long> g_failing{0};
bool g_ours = false;

void* Allocate(size_t size, const char*, int) { return AllocationFails() ? nullptr : std::malloc(size); }

void* Reallocate(void* block, size_t size, const char*, int) {
    // A size of 0 frees, as OpenSSL's own does (realloc's answer to 0 is the platform's
    // choice); only a growing block can fail.
    if (size == 0) {
        std::free(block);
        return nullptr;
    }
    return AllocationFails() ? nullptr : std::realloc(block, size);
}

void Release(void* block, const char*, int) { std::free(block); }

// OpenSSL takes an allocator only before its first allocation, so this runs when the stand-in
// is loaded, ahead of any call into it.
__attribute__((constructor)) void TakeOverOpenSslAllocator() {
    g_ours = CRYPTO_set_mem_functions(Allocate, Reallocate, Release) == 1;
}

}  // namespace

bool AllocationFails() {
    // A plain load and store, as the call counts do: a locked add on every OpenSSL allocation
    // would tax every thread for a count that tests read one thread at a time.
    const unsigned long number = g_allocations.load(std::memory_order_relaxed) + 1;
    g_allocations.store(number, std::memory_order_relaxed);
    return number == g_failing.load(std::memory_order_relaxed);
}

void ResetAllocations() {
    g_failing.store(0, std::memory_order_relaxed);
    g_allocations.store(0, std::memory_order_relaxed);
}

}  // namespace vkl

extern "C" {

unsigned long VKLTest_Allocations(void) { return vkl::g_allocations.load(std::memory_order_relaxed); }

int VKLTest_FailAllocation(unsigned long n) {
    vkl::g_failing.store(n == 0 ? 0 : vkl::g_allocations.load(std::memory_order_relaxed) + n,
                         std::memory_order_relaxed);
    return vkl::g_ours;
}

}  // extern "C"
