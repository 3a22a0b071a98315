#include "errors.h"

#include <cstdio>
#include <cstring>

#include <openssl/err.h>

#include <vkl.h>

#include "probe.h"

namespace vkl {
namespace {

// The reason code of the stand-in's own entries; their text travels as the
// entry's data and is handed back verbatim.
constexpr int kOwnReason = 1;

// The text of the entry VKL_ERR_get_error took last on this thread: OpenSSL
// drops an entry's data once it is taken, but callers ask for the text after.
struct TakenEntry {
    unsigned long code = 0;
    std::string text;
};
thread_local TakenEntry t_taken;

}  // namespace

void FillStatus(VKL_STATUS_t* status, int major, int minor, const std::string& description) {
    status->major = major;
    status->minor = minor;
    static_cast<void>(std::snprintf(status->description, sizeof status->description, "%s", description.c_str()));
}

void QueueError(const std::string& text) {
    ERR_raise_data(ERR_LIB_USER, kOwnReason, "%s", text.c_str());
}

void QueueErrorIfEmpty(const char* function, const char* cause) {
    if (ERR_peek_error() == 0) QueueError(std::string(function) + ": " + cause);
}

}  // namespace vkl

extern "C" {

unsigned long VKL_ERR_get_error(VKL_t*) {
    VKL_ENTER(unsigned long);
    const char* data = nullptr;
    int flags = 0;
    unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags);
    if (code == 0) return 0;
    bool hasText = data != nullptr && (flags & ERR_TXT_STRING) != 0 && *data != '\0';
    if (ERR_GET_LIB(code) == ERR_LIB_USER && ERR_GET_REASON(code) == vkl::kOwnReason && hasText) {
        vkl::t_taken.text = data;
    } else {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        vkl::t_taken.text = buffer;
        if (hasText) vkl::t_taken.text.append(":").append(data);
    }
    vkl::t_taken.code = code;
    return code;
}

void VKL_ERR_error_string_n(VKL_t*, unsigned long code, char* buffer, size_t length) {
    VKL_ENTER_LEN(void, length);
    if (buffer == nullptr || length == 0) return;
    if (code == 0) {
        buffer[0] = '\0';
    } else if (code == vkl::t_taken.code) {
        static_cast<void>(std::snprintf(buffer, length, "%s", vkl::t_taken.text.c_str()));
    } else {
        ERR_error_string_n(code, buffer, length);
    }
}

}  // extern "C"
