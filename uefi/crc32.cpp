#include "uefi/crc32.h"

struct crc_table {
    uint32_t of_byte[256];
};

static constexpr struct crc_table make_table() {
    struct crc_table table = {};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xedb88320U : 0U);
        }
        table.of_byte[byte] = crc;
    }
    return table;
}

static constexpr struct crc_table table = make_table();

uint32_t crc32_of(uint32_t crc, const void *data, size_t length) {
    const auto *bytes = static_cast<const unsigned char *>(data);
    crc = ~crc;
    for (size_t i = 0; i < length; ++i) {
        crc = table.of_byte[(crc ^ bytes[i]) & 0xff] ^ (crc >> 8);
    }
    return ~crc;
}
