// Status decoding of arbitrary 268-byte records, descriptions unterminated included.
#include <cstdint>
#include <cstring>
#include <string>

#include <czulcryptcontext.h>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CZulCryptContext* context = &zulfuzz::Context();
    C_VKL_STATUS_Wrap status;
    std::memset(&status, 0, sizeof status);
    std::memcpy(&status, data, size < sizeof status ? size : sizeof status);
    std::string text;
    bool clean = context->GetStatus(&status, text);
    if (clean != (status.major == 0 && status.minor == 0)) __builtin_trap();
    if (!clean && text.compare(0, 7, "MAJOR: ") != 0) __builtin_trap();
    if (text.size() > 64 + sizeof status.description) __builtin_trap();
    return 0;
}
