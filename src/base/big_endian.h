// Unsigned 32-bit words in big-endian (network) byte order, whatever the host's order is.
#ifndef QEL_BASE_BIG_ENDIAN_H
#define QEL_BASE_BIG_ENDIAN_H

#include <cstdint>

// A word as it lies in a message: four bytes, no alignment. It reads and assigns like a number, so a struct
// of such words both declares a layout and reads and writes it. Shifts work on values and not on memory, so
// one code serves both byte orders, and no address is ever misaligned.
class CBigEndian32 {
public:
    CBigEndian32() = default;
    CBigEndian32(uint32_t value) { *this = value; }

    CBigEndian32& operator=(uint32_t value) {
        for (int i = 0; i < 4; ++i) {
            m_aBytes[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
        }
        return *this;
    }

    operator uint32_t() const {
        uint32_t value = 0;
        for (uint8_t byte : m_aBytes) {
            value = value << 8 | byte;
        }
        return value;
    }

private:
    uint8_t m_aBytes[4] = {};
};

static_assert(sizeof(CBigEndian32) == 4 && alignof(CBigEndian32) == 1);

#endif
