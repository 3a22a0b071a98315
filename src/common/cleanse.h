// Wiping secrets (keys, pads, seeds) before their memory is released or reused.
#ifndef ZUL_CLEANSE_H
#define ZUL_CLEANSE_H

#include <cstddef>
#include <string.h>

namespace zul {

// explicit_bzero is never optimised away as a dead store, unlike memset.
inline void Cleanse(void* data, std::size_t length) {
    if (data != nullptr) explicit_bzero(data, length);
}

}  // namespace zul

#endif  // ZUL_CLEANSE_H
