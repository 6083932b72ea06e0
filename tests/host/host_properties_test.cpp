// The property store of a Linux machine, in a directory of the test's own.
#include <android-base/file.h>
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>
#include <sys/wait.h>
#include <unistd.h>

static std::string store() {
    const char *directory = getenv("TARNIX_PROPERTIES");
    return directory != nullptr ? directory : "";
}

static std::string get(const char *name) {
    char value[PROP_VALUE_MAX];
    memset(value, '#', sizeof(value));
    int length = __system_property_get(name, value);
    EXPECT_EQ(static_cast<int>(strlen(value)), length) << name;
    return value;
}

TEST(host_properties, a_file_a_property) {
    EXPECT_EQ("", get("ro.unset"));
    EXPECT_EQ(0, __system_property_set("persist.a", "one"));
    std::string content;
    EXPECT_TRUE(android::base::ReadFileToString(store() + "/persist.a", &content));
    EXPECT_EQ("one", content);
    // What another process stores is seen as well.
    EXPECT_TRUE(android::base::WriteStringToFile("two", store() + "/persist.a"));
    EXPECT_EQ("two", get("persist.a"));
}

TEST(host_properties, limits) {
    const std::string longest(91, 'v');
    EXPECT_EQ(0, __system_property_set("long", longest.c_str()));
    EXPECT_EQ(longest, get("long"));
    EXPECT_EQ(-1, __system_property_set("long", (longest + "v").c_str()));
    EXPECT_EQ(longest, get("long"));
    // A file that no property can be.
    EXPECT_TRUE(android::base::WriteStringToFile(longest + "v", store() + "/too.long"));
    EXPECT_EQ("", get("too.long"));
    EXPECT_TRUE(android::base::WriteStringToFile(std::string("a\0b", 3), store() + "/nul"));
    EXPECT_EQ("a", get("nul"));
    for (const char *name : {"", "..", ".hidden", "../outside"}) {
        EXPECT_EQ(-1, __system_property_set(name, "x")) << name;
        EXPECT_EQ("", get(name)) << name;
    }
}

TEST(host_properties, libbase_sees_them) {
    EXPECT_EQ("from the store", android::base::GetProperty("ro.before.main", ""));
    EXPECT_EQ(0, __system_property_set("debug.mirrored", "now"));
    EXPECT_EQ("now", android::base::GetProperty("debug.mirrored", ""));
}

TEST(host_properties, a_reader_sees_no_value_in_parts) {
    const std::string values[] = {std::string(91, 'a'), std::string(1, 'b')};
    ASSERT_EQ(0, __system_property_set("swap", values[0].c_str()));
    pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0;; i++) {
            __system_property_set("swap", values[i % 2].c_str());
        }
    }
    int seen[2] = {};
    for (int i = 0; i < 5000; i++) {
        std::string value = get("swap");
        ASSERT_TRUE(value == values[0] || value == values[1]) << value;
        seen[value == values[1]]++;
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_TRUE(seen[0] > 0 && seen[1] > 0);
}

TEST(host_properties, a_store_that_is_gone) {
    std::string before = store();
    setenv("TARNIX_PROPERTIES", (before + "/none").c_str(), 1);
    EXPECT_EQ(-1, __system_property_set("a", "x"));
    EXPECT_EQ("", get("a"));
    setenv("TARNIX_PROPERTIES", before.c_str(), 1);
}

int main(int argc, char *argv[]) {
    // The store is read before main, so the test starts itself anew with one that is filled.
    if (getenv("TARNIX_PROPERTIES") == nullptr) {
        char directory[] = "/tmp/host_properties.XXXXXX";
        if (mkdtemp(directory) == nullptr ||
            !android::base::WriteStringToFile("from the store",
                                              std::string(directory) + "/ro.before.main")) {
            perror(directory);
            return 1;
        }
        setenv("TARNIX_PROPERTIES", directory, 1);
        execv("/proc/self/exe", argv);
        perror("/proc/self/exe");
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    int status = RUN_ALL_TESTS();
    if (system("rm -r \"$TARNIX_PROPERTIES\"") != 0) {
        printf("%s is left behind\n", store().c_str());
    }
    return status;
}
