// Allocations of the stand-in and of OpenSSL under it, counted in one place so that a test can
// make any one of them fail (VKLTest_FailAllocation).
#ifndef VKL_MEMORY_H
#define VKL_MEMORY_H

#include <memory>
#include <new>

namespace vkl {

// Counts one allocation; true when the test-control interface made this one fail.
bool AllocationFails();

// Disarms the failing allocation and counts from 0 again (VKLTest_Reset).
void ResetAllocations();

// A new value-initialised T; null when memory ran out or a test made this allocation fail.
template <class T>
std::unique_ptr<T> Make() {
    if (AllocationFails()) return nullptr;
    return std::unique_ptr<T>(new (std::nothrow) T());
}

}  // namespace vkl

#endif  // VKL_MEMORY_H
