// The platform under the code under test: properties in memory (libbase's), the caller's uid, the
// file system's answers to FIBMAP and FIEMAP, and system calls that go wrong when a test says so.
// The linker leads the rooms' calls here.
#ifndef TARNIX_TESTS_SUPPORT_PLATFORM_H
#define TARNIX_TESTS_SUPPORT_PLATFORM_H

#include <android-base/properties.h>
#include <linux/fiemap.h>
#include <stdint.h>
#include <sys/types.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

// Sets a property as the platform's init would. "" unsets it.
constexpr auto set_property = android::base::SetProperty;

struct fibmap_answer {
    int block;      // device block
    int error = 0;  // errno of a failing call; `block` is left in the caller's variable even so
};

// An answer to one system call: fail with `error`, or transfer no more than `limit` bytes.
struct scripted_call {
    int error;
    size_t limit = SIZE_MAX;
};
constexpr struct scripted_call as_usual = {0};

using call_script = std::deque<struct scripted_call>;
extern const call_script second_fails;           // EIO
extern const call_script interrupted_and_short;  // EINTR and pieces, none of them an error

struct test_platform {
    uid_t uid = 1000;                          // what getuid answers
    std::vector<struct fibmap_answer> fibmap;  // by file block, of any file; EINVAL behind the last
    int fibmap_calls = 0;
    std::vector<struct fiemap_extent> extents;  // what FIEMAP answers, in the order of the file
    int fiemap_error = 0;                       // errno with which it fails instead
    // The calls that come: each takes the front of its queue; with an empty queue, as usual.
    call_script reads;
    call_script writes;
    call_script seeks;
    // Whether each open, fsync, statvfs, fstatvfs and FIBMAP is interrupted before it goes through,
    // and how many went through.
    bool interrupts = false;
    int uninterrupted = 0;
};

extern struct test_platform platform;

// Runs `body` in a process of its own, so that what one row of a table leaves in process-wide
// variables never meets another. `row` names the row in failures.
void in_own_process(const std::string &row, const std::function<void()> &body);

// The same, on a device just started: empty directories.
void on_fresh_device(const std::string &row, const std::function<void()> &body);

// A test whose body has a fresh device and a process of its own, as above.
#define DEVICE_TEST(suite, name)                \
    static void suite##_##name();               \
    TEST(suite, name) {                         \
        on_fresh_device(#name, suite##_##name); \
    }                                           \
    static void suite##_##name()

#endif
