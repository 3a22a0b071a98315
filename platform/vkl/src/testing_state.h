// Status records forced through the test-control interface.
#ifndef VKL_TESTING_STATE_H
#define VKL_TESTING_STATE_H

#include <vkl.h>

namespace vkl {

// When a status was forced for `function`, copies it into *status and returns true.
bool ForcedStatus(const char* function, VKL_STATUS_t* status);

}  // namespace vkl

#endif  // VKL_TESTING_STATE_H
