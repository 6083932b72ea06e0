#include "tests/support/platform.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/statvfs.h>
#include <sys/system_properties.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/captured_log.h"
#include "tests/support/private_root.h"

struct test_platform platform;

const call_script second_fails = {as_usual, {EIO}};
const call_script interrupted_and_short = {{EINTR}, {0, 5}, {0, 0}, {EINTR}, {EINTR}, {0, 1}};

void in_own_process(const std::string &row, const std::function<void()> &body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        SCOPED_TRACE(row);
        // Failures of the rows before this one are counted in the child too.
        const testing::TestResult *result =
            testing::UnitTest::GetInstance()->current_test_info()->result();
        const int failures_before = result->total_part_count();
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
        empty_device_directories();
        body();
    });
}

int __system_property_get(const char *name, char *value) {
    const std::string stored = android::base::GetProperty(name, "");
    memcpy(value, stored.c_str(), stored.size() + 1);
    return static_cast<int>(stored.size());
}

int __system_property_set(const char *name, const char *value) {
    set_property(name, value);
    add_to_log(std::string("P ") + name + "=" + value + "\n");
    return 0;
}

// Takes the script's next call; one that fails leaves its error in errno.
static struct scripted_call next_call(call_script *script) {
    struct scripted_call call = as_usual;
    if (!script->empty()) {
        call = script->front();
        script->pop_front();
    }
    errno = call.error != 0 ? call.error : errno;
    return call;
}

// Says so, with EINTR in errno, of every other call.
static bool is_interrupted() {
    static bool last = false;
    last = platform.interrupts && !last;
    errno = last ? EINTR : errno;
    platform.uninterrupted += last ? 0 : 1;
    return last;
}

static int answer_fibmap(int *block) {
    ++platform.fibmap_calls;
    const auto index = static_cast<size_t>(*block);
    const struct fibmap_answer answer =
        index < platform.fibmap.size() ? platform.fibmap[index] : fibmap_answer{*block, EINVAL};
    *block = answer.block;
    errno = answer.error != 0 ? answer.error : errno;
    return answer.error != 0 ? -1 : 0;
}

// As file systems do: from the extent on that holds the first byte, as many as there is room for.
static int answer_fiemap(struct fiemap *map) {
    map->fm_mapped_extents = 0;
    for (const struct fiemap_extent &extent : platform.extents) {
        const bool is_before =
            extent.fe_length > 0 && extent.fe_logical + extent.fe_length <= map->fm_start;
        if (!is_before && map->fm_mapped_extents < map->fm_extent_count) {
            map->fm_extents[map->fm_mapped_extents++] = extent;
        }
    }
    errno = platform.fiemap_error != 0 ? platform.fiemap_error : errno;
    return platform.fiemap_error != 0 ? -1 : 0;
}

extern "C" {

// The C library's names of these where all files are large.
#ifdef __GLIBC__
#define __real_open __real_open64
#define __wrap_open __wrap_open64
#define __real_statvfs __real_statvfs64
#define __wrap_statvfs __wrap_statvfs64
#define __real_fstatvfs __real_fstatvfs64
#define __wrap_fstatvfs __wrap_fstatvfs64
#endif

// Without a mode in the call it is what happens to be there, and not looked at.
int __real_open(const char *path, int flags, mode_t mode);
int __wrap_open(const char *path, int flags, mode_t mode) {
    return is_interrupted() ? -1 : __real_open(path, flags, mode);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    return is_interrupted() ? -1 : __real_fsync(fd);
}

int __real_statvfs(const char *path, struct statvfs *space);
int __wrap_statvfs(const char *path, struct statvfs *space) {
    return is_interrupted() ? -1 : __real_statvfs(path, space);
}

int __real_fstatvfs(int fd, struct statvfs *space);
int __wrap_fstatvfs(int fd, struct statvfs *space) {
    return is_interrupted() ? -1 : __real_fstatvfs(fd, space);
}

ssize_t __real_read(int fd, void *buffer, size_t length);
ssize_t __wrap_read(int fd, void *buffer, size_t length) {
    const struct scripted_call call = next_call(&platform.reads);
    return call.error != 0 ? -1 : __real_read(fd, buffer, std::min(length, call.limit));
}

ssize_t __real_write(int fd, const void *buffer, size_t length);
ssize_t __wrap_write(int fd, const void *buffer, size_t length) {
    const struct scripted_call call = next_call(&platform.writes);
    return call.error != 0 ? -1 : __real_write(fd, buffer, std::min(length, call.limit));
}

off64_t __real_lseek64(int fd, off64_t offset, int whence);
off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
    return next_call(&platform.seeks).error != 0 ? -1 : __real_lseek64(fd, offset, whence);
}

uid_t __wrap_getuid() {
    return platform.uid;
}

int __wrap_ioctl(int /* fd */, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (is_interrupted()) {
        if (request == FIBMAP) {
            *static_cast<int *>(argument) = 0;  // as the kernel leaves it
        }
        return -1;
    }
    if (request == FS_IOC_FIEMAP) {
        return answer_fiemap(static_cast<struct fiemap *>(argument));
    }
    EXPECT_EQ(static_cast<unsigned long>(FIBMAP), request);
    return answer_fibmap(static_cast<int *>(argument));
}

}  // extern "C"
