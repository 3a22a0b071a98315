// Containers for keys, passwords and the data they protect: every block they
// release, on growth as on destruction, is wiped first.
#ifndef ZULCRYPT_TOOL_SECRET_H
#define ZULCRYPT_TOOL_SECRET_H

#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include <cleanse.h>

namespace zulcrypt {

template <class T>
struct WipingAllocator {
    using value_type = T;
    WipingAllocator() = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U>&) {}
    T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) {
        zul::Cleanse(p, n * sizeof(T));
        ::operator delete(p);
    }
    template <class U>
    bool operator==(const WipingAllocator<U>&) const { return true; }
    template <class U>
    bool operator!=(const WipingAllocator<U>&) const { return false; }
};

using Bytes = std::vector<unsigned char, WipingAllocator<unsigned char>>;
// Short texts live inside the object, where the allocator never sees them: only
// for hex of at least 8 bytes, which never fits there.
using SecretText = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;

// Wipes a string the parser filled (a password or key given as an argument).
inline void Wipe(std::string& text) { zul::Cleanse(&text[0], text.size()); }

}  // namespace zulcrypt

#endif  // ZULCRYPT_TOOL_SECRET_H
