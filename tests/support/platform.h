// The device under the code under test: a root file system of the test binary's own, so that the
// rooms' absolute paths are real and nothing of the machine is touched; properties in memory
// (libbase's); the caller's uid, the file system's answers to FIBMAP and FIEMAP, and system calls
// that go wrong when a test says so. The linker leads the rooms' calls here.
#ifndef TARNIX_TESTS_SUPPORT_PLATFORM_H
#define TARNIX_TESTS_SUPPORT_PLATFORM_H

#include <android-base/properties.h>
#include <linux/fiemap.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

// Sets a property as the platform's init would. "" unsets it.
constexpr auto set_property = android::base::SetProperty;

struct fibmap_answer {
    int block;      // device block
    int error = 0;  // errno of a failing call; `block` is left in the caller's variable even so
};

struct test_platform {
    uid_t uid = 1000;                          // what getuid answers
    std::vector<struct fibmap_answer> fibmap;  // by file block, of any file; EINVAL behind the last
    int fibmap_calls = 0;
    std::vector<struct fiemap_extent> extents;  // what FIEMAP answers, in the order of the file
    int fiemap_error = 0;                       // errno with which it fails instead
    // Which call to come of this name fails with EIO, from 1; 0: none.
    std::map<std::string, int> failing;
    // Whether each call is interrupted before it goes through, and each transfer comes in pieces of
    // 0 to 7 bytes.
    bool interrupts = false;
    int calls = 0;  // that went through: open, fsync, statvfs, fstatvfs and ioctl
    std::map<std::string, int> open_flags;  // of each path's last open
};

extern struct test_platform platform;

// Moves the process, for good, into a mount namespace and a root of its own that has the machine's
// programs and libraries and nothing else. Empty, or why the machine does not allow it.
std::string enter_private_root();

// Lays a fresh tmpfs over the directory `path`, made when missing. `options` as for mount -o:
// "size=33G" is had on any machine.
void mount_tmpfs(const char *path, const char *options);

// Makes such a file system larger or smaller, until it has `bytes` of space left. Counted in whole
// blocks of 4096 bytes.
void leave_free(const char *path, uint64_t bytes);

// Runs `body` on a device just started, with nothing in /data, /dev/block and /vendor, and with a
// /proc that has no cmdline and no device-tree. It has a process of its own, so that what one row
// of a table leaves in process-wide variables never meets another. `row` names it in failures.
void on_fresh_device(const std::string &row, const std::function<void()> &body);

// A test whose body has such a device.
#define DEVICE_TEST(suite, name)                \
    static void suite##_##name();               \
    TEST(suite, name) {                         \
        on_fresh_device(#name, suite##_##name); \
    }                                           \
    static void suite##_##name()

#endif
