#include "uefi/crc32.h"

// By the processor's own instructions for this polynomial (FEAT_CRC32, which ARMv8.1 has always and
// phones' earlier processors have too): the walk of a chain computes one CRC a block.
uint32_t crc32_of(uint32_t crc, const void *data, size_t length) {
    const auto *bytes = static_cast<const unsigned char *>(data);
    crc = ~crc;
    for (; length >= sizeof(uint64_t); length -= sizeof(uint64_t), bytes += sizeof(uint64_t)) {
        uint64_t word;
        __builtin_memcpy(&word, bytes, sizeof(word));
        crc = __builtin_arm_crc32d(crc, word);
    }
    for (; length > 0; --length, ++bytes) {
        crc = __builtin_arm_crc32b(crc, *bytes);
    }
    return ~crc;
}
