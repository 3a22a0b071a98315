// The stand-in's side of the error queue: OpenSSL's per-thread queue, plus
// entries of its own whose text is stored as given.
#ifndef VKL_ERRORS_H
#define VKL_ERRORS_H

#include <string>

#include <vkl.h>

namespace vkl {

// Sets the status record, the description cut to its field.
void FillStatus(VKL_STATUS_t* status, int major, int minor, const std::string& description);

// Queues an entry whose text is exactly `text`.
void QueueError(const std::string& text);

// Makes sure a failure leaves a cause: queues "<function>: <cause>" unless
// OpenSSL already queued an entry of its own.
void QueueErrorIfEmpty(const char* function, const char* cause);

}  // namespace vkl

#endif  // VKL_ERRORS_H
