// Status records forced through the test-control interface.
#ifndef VKL_TESTING_STATE_H
#define VKL_TESTING_STATE_H

#include <atomic>

#include <vkl.h>

namespace vkl {

// When a status was forced for `function`, copies it into *status and returns true.
bool ForcedStatus(const char* function, VKL_STATUS_t* status);

// How often VKLTest_Reset ran: keys a context recovered before a reset are forgotten, so that
// each test sees the recovery of its keys.
extern std::atomic<unsigned long> g_resets;

}  // namespace vkl

#endif  // VKL_TESTING_STATE_H
