#include "tests/support/platform.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/system_properties.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/captured_log.h"
#include "tests/support/files.h"

using android::base::WriteStringToFile;

// The machine's /proc, for what the sanitizers and gtest read of their own process.
static const char real_proc[] = "/.proc/";

// By its number: so the leak check at the end looks for its own process.
static std::string test_binary_pid;

// Root makes a mount namespace just so; anybody else needs to be root of a user namespace first.
static bool enter_namespace() {
    const std::string uid_map = "0 " + std::to_string(geteuid()) + " 1";
    const std::string gid_map = "0 " + std::to_string(getegid()) + " 1";
    const bool is_root = geteuid() == 0;
    if (unshare(CLONE_NEWNS | (is_root ? 0 : CLONE_NEWUSER)) == -1) {
        return false;
    }
    return is_root || (WriteStringToFile("deny", "/proc/self/setgroups") &&
                       WriteStringToFile(uid_map, "/proc/self/uid_map") &&
                       WriteStringToFile(gid_map, "/proc/self/gid_map"));
}

void mount_tmpfs(const char *path, const char *options) {
    make_directories(path);
    umount2(path, MNT_DETACH);  // what an earlier call put there, if anything
    must(mount("device", path, "tmpfs", 0, options) == 0, path);
}

void leave_free(const char *path, uint64_t bytes) {
    struct statvfs space = {};
    must(statvfs(path, &space) == 0, path);
    const uint64_t size = (space.f_blocks - space.f_bfree) * space.f_frsize + bytes;
    // A size of 0 would lift the limit; the root directory takes no block itself.
    must(size != 0 && mount(nullptr, path, nullptr, MS_REMOUNT,
                            ("size=" + std::to_string(size)).c_str()) == 0,
         path);
}

static void empty_device_directories() {
    for (const char *path : {"/data", "/dev/block", "/vendor", "/proc"}) {
        mount_tmpfs(path, "size=1G");
    }
    for (const std::string &name : {std::string("self"), test_binary_pid}) {
        must(symlink((real_proc + name).c_str(), ("/proc/" + name).c_str()) == 0, name);
    }
}

std::string enter_private_root() {
    // Below /proc, as that is a mount point inside a chroot too: only such a place can be told to
    // keep what is mounted below it inside the process's own namespace.
    const std::string new_root = "/proc/sys";
    test_binary_pid = std::to_string(getpid());
    if (!enter_namespace() ||
        mount(nullptr, "/proc", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1 ||
        mount("root", new_root.c_str(), "tmpfs", 0, "mode=755") == -1) {
        return strerror(errno);
    }
    for (const std::string &path : {std::string("/usr"), std::string("/etc"), std::string("/proc"),
                                    android::base::GetExecutableDirectory()}) {
        const std::string place = new_root + (path == "/proc" ? real_proc : path);
        make_directories(place);
        // The emulated device has not all of them.
        if (mount(path.c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == -1 &&
            errno != ENOENT) {
            return strerror(errno);
        }
    }
    must(chroot(new_root.c_str()) == 0 && chdir("/") == 0, new_root);
    for (const std::string name : {"bin", "lib", "lib64"}) {
        must(symlink(("usr/" + name).c_str(), name.c_str()) == 0, name);
    }
    make_directories("/tmp");  // where gtest keeps what a test prints
    write_file("/dev/null", "");
    empty_device_directories();
    return "";
}

void on_fresh_device(const std::string &row, const std::function<void()> &body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        SCOPED_TRACE(row);
        // Failures of the rows before this one are counted in the child too.
        const testing::TestResult *result =
            testing::UnitTest::GetInstance()->current_test_info()->result();
        const int failures_before = result->total_part_count();
        empty_device_directories();
        body();
        fflush(nullptr);
        _exit(result->total_part_count() > failures_before ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status) << "row \"" << row << "\" failed above, or ended by a signal";
}

struct test_platform platform;

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

// Whether the call at hand is to fail, with its error in errno: every other one where calls are
// interrupted, and the one that platform.failing tells.
static bool fails(const std::string &call) {
    static bool interrupted = false;
    interrupted = platform.interrupts && !interrupted;
    const bool broken = platform.failing[call]-- == 1;
    errno = interrupted ? EINTR : broken ? EIO : errno;
    return interrupted || broken;
}

// The same for a call that is counted.
static bool counted_fails(const std::string &call) {
    const bool failed = fails(call);
    platform.calls += failed ? 0 : 1;
    return failed;
}

// How many bytes of a transfer go through.
static size_t piece_of(size_t length) {
    static size_t pieces = 0;
    return platform.interrupts ? std::min(length, ++pieces % 8) : length;
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
    platform.open_flags[path] = flags;
    return counted_fails("open") ? -1 : __real_open(path, flags, mode);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    return counted_fails("fsync") ? -1 : __real_fsync(fd);
}

int __real_statvfs(const char *path, struct statvfs *space);
int __wrap_statvfs(const char *path, struct statvfs *space) {
    return counted_fails("statvfs") ? -1 : __real_statvfs(path, space);
}

int __real_fstatvfs(int fd, struct statvfs *space);
int __wrap_fstatvfs(int fd, struct statvfs *space) {
    return counted_fails("fstatvfs") ? -1 : __real_fstatvfs(fd, space);
}

ssize_t __real_read(int fd, void *buffer, size_t length);
ssize_t __wrap_read(int fd, void *buffer, size_t length) {
    return fails("read") ? -1 : __real_read(fd, buffer, piece_of(length));
}

ssize_t __real_write(int fd, const void *buffer, size_t length);
ssize_t __wrap_write(int fd, const void *buffer, size_t length) {
    return fails("write") ? -1 : __real_write(fd, buffer, piece_of(length));
}

off64_t __real_lseek64(int fd, off64_t offset, int whence);
off64_t __wrap_lseek64(int fd, off64_t offset, int whence) {
    return fails("lseek") ? -1 : __real_lseek64(fd, offset, whence);
}

uid_t __wrap_getuid() {
    return platform.uid;
}

int __wrap_ioctl(int /* fd */, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (counted_fails("ioctl")) {
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
