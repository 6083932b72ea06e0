#include "config/dump_gates.h"

#include <string.h>

#include "config/log.h"
#include "config/properties.h"

bool dumps_are_allowed() {
    char value[property_value_max];
    property_get("ro.sf", value, nullptr);
    if (strcmp(value, "1") == 0) {
        log_info("security on, exit\n");
        return false;
    }
    log_info("security off, continue tarnix jobs\n");

    if (property_get("ro.boot.qorramdump", value, "") == 0) {
        log_error("fail to get ro.boot.qorramdump, exit\n");
        return false;
    }
    if (strcmp(value, "1") != 0) {
        log_error("ro.boot.qorramdump (radio flag) is not enabled, exit\n");
        return false;
    }
    return true;
}
