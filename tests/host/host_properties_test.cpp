// What the emulated device's runs do not show of the property store of a Linux machine.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/system_properties.h>

static std::string get(const char *name) {
    char value[PROP_VALUE_MAX];
    return std::string(value, static_cast<size_t>(__system_property_get(name, value)));
}

TEST(host_properties, limits) {
    const TemporaryDir store;
    setenv("TARNIX_PROPERTIES", store.path, 1);
    const std::string path = std::string(store.path) + "/a", longest(91, 'v');
    EXPECT_EQ(0, __system_property_set("a", longest.c_str()));
    EXPECT_EQ(-1, __system_property_set("a", (longest + "v").c_str()));
    // A reader never sees a value in parts: a new one is a new file.
    const android::base::unique_fd reader(open(path.c_str(), O_RDONLY));
    EXPECT_EQ(0, __system_property_set("a", "two"));
    std::string read;
    EXPECT_TRUE(android::base::ReadFdToString(reader, &read));
    EXPECT_EQ(longest, read);
    // What a file holds, and the value that it is.
    for (const auto &[content, value] : {std::pair(longest + "v", std::string()),
                                         std::pair(std::string("a\0b", 3), std::string("a")),
                                         std::pair(longest + "\n", longest)}) {
        EXPECT_TRUE(android::base::WriteStringToFile(content, path));
        EXPECT_EQ(value, get("a"));
    }
    for (const char *name : {"", "..", ".hidden", "../outside"}) {
        EXPECT_EQ(-1, __system_property_set(name, "x")) << name;
        EXPECT_EQ("", get(name)) << name;
    }
    EXPECT_EQ("", get("none"));
}
