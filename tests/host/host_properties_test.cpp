// The property store of a Linux machine, in a directory that the build makes
// (tests/CMakeLists.txt).
#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>

using android::base::GetProperty;
using android::base::WriteStringToFile;

static const std::string store = TARNIX_TEST_STORE;

// Before the store is read, which is before main.
__attribute__((constructor(101))) static void name_the_store() {
    setenv("TARNIX_PROPERTIES", TARNIX_TEST_STORE, 1);
}

static std::string get(const char *name) {
    char value[PROP_VALUE_MAX];
    const int length = __system_property_get(name, value);
    EXPECT_EQ(static_cast<int>(strlen(value)), length) << name;
    return value;
}

TEST(host_properties, a_file_a_property) {
    EXPECT_EQ("", get("ro.unset"));
    EXPECT_EQ(0, __system_property_set("persist.a", "one"));
    EXPECT_EQ("one", GetProperty("persist.a", ""));
    // A reader never sees a value in parts: a new one is a new file.
    const android::base::unique_fd reader(open((store + "/persist.a").c_str(), O_RDONLY));
    EXPECT_EQ(0, __system_property_set("persist.a", "two"));
    std::string read;
    EXPECT_TRUE(android::base::ReadFdToString(reader, &read));
    EXPECT_EQ("one", read);
    EXPECT_EQ("two", get("persist.a"));
    // What another process stores is seen as well; by libbase, what was there before main.
    EXPECT_TRUE(WriteStringToFile("three", store + "/persist.a"));
    EXPECT_EQ("three", get("persist.a"));
    EXPECT_EQ("from the store", GetProperty("ro.before.main", ""));
}

TEST(host_properties, limits) {
    const std::string longest(91, 'v');
    EXPECT_EQ(0, __system_property_set("long", longest.c_str()));
    EXPECT_EQ(-1, __system_property_set("long", (longest + "v").c_str()));
    EXPECT_EQ(longest, get("long"));
    // What a file holds, and the value that it is.
    for (const auto &[content, value] : {std::pair(longest + "v", std::string()),
                                         std::pair(std::string("a\0b", 3), std::string("a")),
                                         std::pair(longest + "\n", longest)}) {
        EXPECT_TRUE(WriteStringToFile(content, store + "/file"));
        EXPECT_EQ(value, get("file"));
    }
    for (const char *name : {"", "..", ".hidden", "../outside"}) {
        EXPECT_EQ(-1, __system_property_set(name, "x")) << name;
        EXPECT_EQ("", get(name)) << name;
    }
    // A store that is gone.
    setenv("TARNIX_PROPERTIES", (store + "/none").c_str(), 1);
    EXPECT_EQ(-1, __system_property_set("long", "x"));
    EXPECT_EQ("", get("long"));
}
