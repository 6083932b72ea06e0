#include "config/properties.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <string.h>

#include "tests/support/platform.h"

static const char masked_names[] =
    "dev.deviceimage_large dev.deviceimage_small ro.aa.cidlist ro.aa.maincid ro.aa.mainsku "
    "ro.aa.modelid ro.aa.project ro.aa.skulist ro.build.display.id ro.build.fingerprint "
    "ro.build.product ro.build.project ro.build.mirel.version ro.carrier ro.cid ro.cwkey "
    "ro.hardware ro.mid ro.product.board ro.product.brand ro.product.cpu.abi2 "
    "ro.product.cpu.abi ro.product.device ro.product.display_resolution "
    "ro.product.front_camera ro.product.main_camera ro.product.manufacturer "
    "ro.product.model ro.product.name ro.product.processor ro.product.ram "
    "ro.product.version ro.product.wifi ro.product.wireless ro.watch.appid";

static std::string get(const std::string &key, const char *default_value, int *length) {
    char value[property_value_max];
    memset(value, '#', sizeof(value));
    *length = property_get(key.c_str(), value, default_value);
    return value;
}

DEVICE_TEST(properties, mask_by_caller) {
    const struct {
        uid_t uid;
        bool masked;
    } rows[] = {{0, false},    {10399, false},  {10400, true},
                {99999, true}, {100000, false}, {1010400, true}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.uid);
        platform.uid = row.uid;
        int length = -1;
        for (const std::string &name : android::base::Split(masked_names, " ")) {
            set_property(name, "a value");
            EXPECT_EQ(row.masked ? "unknown" : "a value", get(name, nullptr, &length)) << name;
            EXPECT_EQ(7, length);
            set_property(name, "");
            EXPECT_EQ(row.masked ? "unknown" : "def", get(name, "def", &length)) << name;
            EXPECT_EQ(row.masked ? 7 : 3, length);
        }
        for (const char *name : {"ro.product", "ro.product.model2", "ro.sf"}) {
            set_property(name, "open");
            EXPECT_EQ("open", get(name, nullptr, &length)) << name;
            EXPECT_EQ(4, length);
        }
    }
}

DEVICE_TEST(properties, defaults) {
    const std::string longest(91, 'v');
    const std::string longer(100, 'v');
    const struct {
        const char *name;
        std::string stored;
        const char *default_value;
        std::string value;
    } rows[] = {
        {"unset, no default", "", nullptr, ""},
        {"unset, default", "", "none", "none"},
        {"set, default", "some", "none", "some"},
        {"default of 100", "", longer.c_str(), longest},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        set_property("ro.sf", row.stored);
        int length = -1;
        EXPECT_EQ(row.value, get("ro.sf", row.default_value, &length));
        EXPECT_EQ(static_cast<int>(row.value.size()), length);
    }
}
