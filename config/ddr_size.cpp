#include "config/ddr_size.h"

#include <string.h>

#include "config/properties.h"

static const uint64_t gib = 0x40000000;

bool read_ddr_size(uint64_t *bytes) {
    char value[property_value_max];
    if (property_get("ro.boot.ddrsize", value, nullptr) == 0) {
        return false;
    }
    const uint64_t digit = static_cast<uint64_t>(static_cast<uint8_t>(value[0])) - '0';
    *bytes = digit * gib + (strncmp(value + 1, ".5", 2) == 0 ? gib / 2 : 0);
    return true;
}
