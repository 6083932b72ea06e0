#include "config/properties.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <string.h>

#include "tests/support/platform.h"

static std::string get(const char *key, const char *default_value) {
    char value[property_value_max];
    const int length = property_get(key, value, default_value);
    EXPECT_EQ(strlen(value), static_cast<size_t>(length)) << key;
    return value;
}

DEVICE_TEST(properties, mask_by_caller_and_defaults) {
    const char masked[] =
        "dev.deviceimage_large dev.deviceimage_small ro.aa.cidlist ro.aa.maincid ro.aa.mainsku "
        "ro.aa.modelid ro.aa.project ro.aa.skulist ro.build.display.id ro.build.fingerprint "
        "ro.build.product ro.build.project ro.build.mirel.version ro.carrier ro.cid ro.cwkey "
        "ro.hardware ro.mid ro.product.board ro.product.brand ro.product.cpu.abi2 "
        "ro.product.cpu.abi ro.product.device ro.product.display_resolution "
        "ro.product.front_camera ro.product.main_camera ro.product.manufacturer ro.product.model "
        "ro.product.name ro.product.processor ro.product.ram ro.product.version ro.product.wifi "
        "ro.product.wireless ro.watch.appid";
    const std::pair<uid_t, bool> rows[] = {
        {10399, false}, {10400, true}, {99999, true}, {100000, false}, {1010400, true}};
    set_property("ro.cid", "a value");
    set_property("ro.product.model2", "open");
    for (const auto &[uid, is_masked] : rows) {
        SCOPED_TRACE(uid);
        platform.uid = uid;
        for (const std::string &name : android::base::Split(masked, " ")) {
            const char *clear = name == "ro.cid" ? "a value" : "default";
            EXPECT_EQ(is_masked ? "unknown" : clear, get(name.c_str(), "default")) << name;
        }
        EXPECT_EQ("open", get("ro.product.model2", "default"));
        EXPECT_EQ("", get("ro.product", nullptr));
    }
    const std::string longest(91, 'v');
    EXPECT_EQ(longest, get("ro.sf", (longest + "v").c_str()));
}
