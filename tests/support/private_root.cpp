#include "tests/support/private_root.h"

#include <errno.h>
#include <glob.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "tests/support/files.h"

// Where the new root is put together: a directory that every machine has and no test needs.
static const char new_root[] = "/sys";

// The machine's /proc, for what the sanitizers and gtest read of their own process.
static const char real_proc[] = "/.proc";

// By its number: so the leak check at the end looks for its own process.
static std::string test_binary_pid;

static bool has_failed(int result, const char *step, std::string *reason) {
    if (result == -1) {
        *reason = std::string(step) + ": " + strerror(errno);
    }
    return result == -1;
}

static bool write_map(const char *path, const std::string &text) {
    FILE *file = fopen(path, "w");
    return file != nullptr && fputs(text.c_str(), file) >= 0 && fclose(file) == 0;
}

// Root makes a mount namespace just so; anybody else needs to be root of a user namespace first.
static std::string enter_namespace() {
    std::string reason;
    uid_t uid = geteuid();
    gid_t gid = getegid();
    int user_namespace = uid == 0 ? 0 : CLONE_NEWUSER;
    if (has_failed(unshare(CLONE_NEWNS | user_namespace), "no mount namespace", &reason)) {
        return reason;
    }
    if (user_namespace != 0 &&
        (!write_map("/proc/self/setgroups", "deny") ||
         !write_map("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
         !write_map("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"))) {
        return std::string("no user namespace: ") + strerror(errno);
    }
    has_failed(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount --make-private /",
               &reason);
    return reason;
}

// Shows `path` of the machine at the same place of the new root, or at `place`.
static std::string show(const std::string &path, std::string place = "") {
    place = new_root + (place.empty() ? path : place);
    struct stat seen;
    struct stat unused;
    std::string reason;
    char link[PATH_MAX] = {};
    if (lstat(path.c_str(), &seen) == -1 || lstat(place.c_str(), &unused) == 0) {
        return "";  // the machine has none, or it came with the directory above it
    }
    if (S_ISLNK(seen.st_mode)) {
        if (readlink(path.c_str(), link, sizeof(link) - 1) == -1 ||
            symlink(link, place.c_str()) == -1) {
            reason = "symlink " + place + ": " + strerror(errno);
        }
        return reason;
    }
    if (S_ISDIR(seen.st_mode)) {
        make_directories(place);
    } else {
        write_file(place, "");
    }
    has_failed(mount(path.c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
               ("mount --bind " + path).c_str(), &reason);
    return reason;
}

std::string enter_private_root() {
    test_binary_pid = std::to_string(getpid());
    char program[PATH_MAX] = {};
    if (readlink("/proc/self/exe", program, sizeof(program) - 1) == -1) {
        return std::string("readlink /proc/self/exe: ") + strerror(errno);
    }
    std::string reason = enter_namespace();
    if (!reason.empty() ||
        has_failed(mount("root", new_root, "tmpfs", 0, "mode=755"), "mount tmpfs", &reason)) {
        return reason;
    }
    for (const char *path : {"/usr", "/lib", "/lib64", "/bin", "/etc", "/dev/null", "/dev/full"}) {
        reason = reason.empty() ? show(path) : reason;
    }
    std::string build_directory(program, strrchr(program, '/'));
    reason = reason.empty() ? show(build_directory) : reason;
    reason = reason.empty() ? show("/proc", real_proc) : reason;
    if (reason.empty() && !has_failed(chroot(new_root), "chroot", &reason)) {
        empty_device_directories();
    }
    return reason;
}

void mount_tmpfs(const char *path, const char *options) {
    make_directories(path);
    umount2(path, MNT_DETACH);  // what an earlier call put there, if anything
    if (mount("device", path, "tmpfs", 0, options) == -1) {
        perror(path);
        abort();
    }
}

void leave_free(const char *path, uint64_t bytes) {
    struct statvfs space;
    // A size of 0 would lift the limit; the root directory takes no block itself.
    bool done = statvfs(path, &space) == 0;
    uint64_t size = (space.f_blocks - space.f_bfree) * space.f_frsize + bytes;
    done = done && size != 0 &&
           mount(nullptr, path, nullptr, MS_REMOUNT, ("size=" + std::to_string(size)).c_str()) == 0;
    if (!done) {
        perror(path);
        abort();
    }
}

void empty_device_directories() {
    if (chdir("/") == -1) {
        abort();
    }
    mount_tmpfs("/data", "size=1G,mode=755");
    mount_tmpfs("/dev/block", "");
    mount_tmpfs("/vendor", "");
    make_directories("/tmp");  // where gtest keeps what a death test prints
    mount_tmpfs("/proc", "");
    for (const std::string &name : {std::string("self"), test_binary_pid}) {
        if (symlink((real_proc + ("/" + name)).c_str(), ("/proc/" + name).c_str()) == -1) {
            abort();
        }
    }
    glob_t fstabs;
    if (glob("/fstab.*", 0, nullptr, &fstabs) == 0) {
        for (size_t i = 0; i < fstabs.gl_pathc; i++) {
            unlink(fstabs.gl_pathv[i]);
        }
        globfree(&fstabs);
    }
}
