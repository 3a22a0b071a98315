// The big-number packet reader: any packet that the input holds whole is read
// back byte for byte, and survives the trip through a VKL number.
#include <cstdint>
#include <cstring>
#include <vector>

#include <czulcryptbignum.h>
#include <czulcryptcontext.h>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CZulCryptContext* context = &zulfuzz::Context();
    if (size < 2) return 0;
    size_t bits = static_cast<size_t>(data[0]) << 8 | data[1];
    size_t bytes = (bits + 7) / 8;
    // The reader trusts the packet's bit count, as the wire format does: only
    // whole packets are the reader's business.
    if (size < 2 + bytes) return 0;
    std::vector<unsigned char> packet(data, data + 2 + bytes);

    CZulCryptBigNum number(*context);
    if (!number.SetNumber(packet.data())) return 0;
    if (number.GetLen() != bytes) __builtin_trap();
    if (bytes > 0 && std::memcmp(number.GetBigNumPacket(), packet.data() + 2, bytes) != 0) __builtin_trap();

    C_VKL_BIGNUM_Wrap* built = number.BuildNumber();
    if (built == nullptr) return 0;
    CZulCryptBigNum back(*context);
    bool read = back.SetNumber(built);
    VKL_BN_clear_free(context->GetContext()->m_pCtx, built->m_pBigNum);
    delete built;
    // A VKL number drops leading zero bytes; the value must be the same.
    size_t zeros = 0;
    while (zeros < bytes && packet[2 + zeros] == 0) ++zeros;
    if (read) {
        if (back.GetLen() != bytes - zeros) __builtin_trap();
        if (back.GetLen() > 0 && std::memcmp(back.GetBigNumPacket(), packet.data() + 2 + zeros, back.GetLen()) != 0)
            __builtin_trap();
    }
    return 0;
}
