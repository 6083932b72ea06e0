#include "tests/support/platform.h"

#include <android-base/properties.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/system_properties.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "tests/support/captured_log.h"
#include "tests/support/private_root.h"

struct test_platform platform;

const call_script undisturbed;
const call_script second_fails = {as_usual, {EIO}};
const call_script interrupted_and_short = {{EINTR}, {0, 5}, {EINTR}, {EINTR}, {0, 1}};

static std::map<std::string, std::string> properties;

void set_property(const std::string &key, const std::string &value) {
    properties[key] = value;
    android::base::SetProperty(key, value);
}

void start_fresh_device() {
    umask(022);
    empty_device_directories();
    for (const auto &property : std::map<std::string, std::string>(properties)) {
        set_property(property.first, "");
    }
    platform = {};
    take_log();
}

void in_own_process(const std::string &row, const std::function<void()> &body) {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        SCOPED_TRACE(row);
        // Failures of the rows before this one are counted in the child too.
        const testing::TestResult *result =
            testing::UnitTest::GetInstance()->current_test_info()->result();
        int failures_before = result->total_part_count();
        body();
        fflush(nullptr);
        _exit(result->total_part_count() > failures_before ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status) << "row \"" << row << "\" failed above, or ended by a signal";
}

void on_fresh_device(const std::string &row, const std::function<void()> &body) {
    in_own_process(row, [&body] {
        start_fresh_device();
        body();
    });
}

int __system_property_get(const char *name, char *value) {
    const std::string &stored = properties[name];
    memcpy(value, stored.c_str(), stored.size() + 1);
    return static_cast<int>(stored.size());
}

int __system_property_set(const char *name, const char *value) {
    if (platform.refuses_property_sets) {
        return -1;
    }
    set_property(name, value);
    add_to_log(std::string("P ") + name + "=" + value + "\n");
    return 0;
}

// Whether the call fails, with errno set; else `length` is cut as the script says.
static bool scripted_failure(call_script *script, size_t *length) {
    scripted_call call = as_usual;
    if (!script->empty()) {
        call = script->front();
        script->pop_front();
    }
    *length = std::min(*length, call.limit);
    errno = call.error != 0 ? call.error : errno;
    return call.error != 0;
}

extern "C" {

ssize_t __real_read(int fd, void *buffer, size_t length);
ssize_t __wrap_read(int fd, void *buffer, size_t length) {
    return scripted_failure(&platform.reads, &length) ? -1 : __real_read(fd, buffer, length);
}

ssize_t __real_write(int fd, const void *buffer, size_t length);
ssize_t __wrap_write(int fd, const void *buffer, size_t length) {
    return scripted_failure(&platform.writes, &length) ? -1 : __real_write(fd, buffer, length);
}

off64_t __real_lseek64(int fd, off64_t offset, int whence);
off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
    size_t unused = 0;
    return scripted_failure(&platform.seeks, &unused) ? -1 : __real_lseek64(fd, offset, whence);
}

int __real_fstatvfs64(int fd, struct statvfs *result);
int __wrap_fstatvfs64(int fd, struct statvfs *result) {
    size_t unused = 0;
    return scripted_failure(&platform.fstatvfs_calls, &unused) ? -1 : __real_fstatvfs64(fd, result);
}

uid_t __wrap_getuid() {
    return platform.uid;
}

int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (request != FIBMAP) {
        return __real_ioctl(fd, request, argument);
    }
    platform.fibmap_calls++;
    int *block = static_cast<int *>(argument);
    if (*block < 0 || static_cast<size_t>(*block) >= platform.fibmap.size()) {
        errno = EINVAL;
        return -1;
    }
    const fibmap_answer &answer = platform.fibmap[static_cast<size_t>(*block)];
    *block = answer.block;
    errno = answer.error != 0 ? answer.error : errno;
    return answer.error != 0 ? -1 : 0;
}

}  // extern "C"
