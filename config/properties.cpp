#include "config/properties.h"

#include <string.h>
#include <sys/system_properties.h>
#include <unistd.h>

static_assert(property_value_max == PROP_VALUE_MAX, "the platform's limit");

// A uid is user * 100000 + application id.
static const uid_t uids_per_user = 100000;

// First application id that sees the mask. Applications start at 10000; the first 400 of them are
// the ones that ship with the device, and see the real values on purpose.
static const uid_t first_masked_application_id = 10400;

static const char *const masked_property_names[] = {
    "dev.deviceimage_large",
    "dev.deviceimage_small",
    "ro.aa.cidlist",
    "ro.aa.maincid",
    "ro.aa.mainsku",
    "ro.aa.modelid",
    "ro.aa.project",
    "ro.aa.skulist",
    "ro.build.display.id",
    "ro.build.fingerprint",
    "ro.build.product",
    "ro.build.project",
    "ro.build.mirel.version",
    "ro.carrier",
    "ro.cid",
    "ro.cwkey",
    "ro.hardware",
    "ro.mid",
    "ro.product.board",
    "ro.product.brand",
    "ro.product.cpu.abi2",
    "ro.product.cpu.abi",
    "ro.product.device",
    "ro.product.display_resolution",
    "ro.product.front_camera",
    "ro.product.main_camera",
    "ro.product.manufacturer",
    "ro.product.model",
    "ro.product.name",
    "ro.product.processor",
    "ro.product.ram",
    "ro.product.version",
    "ro.product.wifi",
    "ro.product.wireless",
    "ro.watch.appid",
};

static bool is_masked(const char *key) {
    if (getuid() % uids_per_user < first_masked_application_id) {
        return false;
    }
    for (const char *name : masked_property_names) {
        if (strcmp(key, name) == 0) {
            return true;
        }
    }
    return false;
}

int property_get(const char *key, char *value, const char *default_value) {
    const int len = __system_property_get(key, value);
    if (is_masked(key)) {
        static const char masked_value[] = "unknown";
        memcpy(value, masked_value, sizeof(masked_value));
        return sizeof(masked_value) - 1;
    }
    if (default_value == nullptr || len > 0) {
        return len;
    }
    const size_t default_length = strnlen(default_value, property_value_max - 1);
    memcpy(value, default_value, default_length);
    value[default_length] = '\0';
    return static_cast<int>(default_length);
}

int property_set(const char *key, const char *value) {
    return __system_property_set(key, value);
}
