#include "config/properties.h"

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
    const std::pair<uid_t, bool> rows[] = {
        {10399, false}, {10400, true}, {99999, true}, {100000, false}, {1010400, true}};
    set_property("ro.product.model", "a value");
    set_property("ro.product.model2", "open");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.first);
        platform.uid = row.first;
        EXPECT_EQ(row.second ? "unknown" : "a value", get("ro.product.model", nullptr));
        EXPECT_EQ(row.second ? "unknown" : "default", get("ro.watch.appid", "default"));
        EXPECT_EQ("open", get("ro.product.model2", "default"));
        EXPECT_EQ("", get("ro.product", nullptr));
    }
    const std::string longest(91, 'v');
    EXPECT_EQ(longest, get("ro.sf", (longest + "v").c_str()));
}
