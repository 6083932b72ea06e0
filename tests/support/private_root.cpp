#include "tests/support/private_root.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "tests/support/files.h"

using android::base::WriteStringToFile;

// Where the new root is put together: a directory that every machine has and no test needs.
static const std::string new_root = "/sys";

// The machine's /proc, for what the sanitizers and gtest read of their own process.
static const char real_proc[] = "/.proc/";

// By its number: so the leak check at the end looks for its own process.
static std::string test_binary_pid;

// Keeps what is mounted from now on inside the process's own namespace. Only a mount point can be
// told so, and inside a chroot "/" is none. So the mount that it lies on is told, from outside of
// the chroot: ".." leads there while the working directory is not below the root.
static bool keep_mounts_private() {
    const android::base::unique_fd root(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (root == -1 || chdir("/") == -1 || chroot(new_root.c_str()) == -1) {
        return false;
    }
    struct stat here = {};
    struct stat above = {};
    do {
        must(stat(".", &here) == 0 && chdir("..") == 0 && stat(".", &above) == 0, "..");
    } while (here.st_dev != above.st_dev || here.st_ino != above.st_ino);
    return mount(nullptr, ".", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && fchdir(root) == 0 &&
           chroot(".") == 0;
}

// Root makes a mount namespace just so; anybody else needs to be root of a user namespace first.
static bool enter_namespace() {
    const std::string uid_map = "0 " + std::to_string(geteuid()) + " 1";
    const std::string gid_map = "0 " + std::to_string(getegid()) + " 1";
    const bool is_root = geteuid() == 0;
    if (unshare(CLONE_NEWNS | (is_root ? 0 : CLONE_NEWUSER)) == -1) {
        return false;
    }
    return (is_root || (WriteStringToFile("deny", "/proc/self/setgroups") &&
                        WriteStringToFile(uid_map, "/proc/self/uid_map") &&
                        WriteStringToFile(gid_map, "/proc/self/gid_map"))) &&
           keep_mounts_private();
}

// Shows a directory of the machine, if it has it, at `place` of the new root.
static bool show(const std::string &path, std::string place) {
    place.insert(0, new_root);
    make_directories(place);
    return mount(path.c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0 ||
           errno == ENOENT;
}

std::string enter_private_root() {
    test_binary_pid = std::to_string(getpid());
    const std::string build_directory = android::base::GetExecutableDirectory();
    if (!enter_namespace() || mount("root", new_root.c_str(), "tmpfs", 0, "mode=755") == -1 ||
        !show("/usr", "/usr") || !show("/etc", "/etc") || !show(build_directory, build_directory) ||
        !show("/proc", real_proc) || chroot(new_root.c_str()) == -1 || chdir("/") == -1) {
        return strerror(errno);
    }
    for (const std::string name : {"bin", "lib", "lib64"}) {
        must(symlink(("usr/" + name).c_str(), name.c_str()) == 0, name);
    }
    make_directories("/tmp");  // where gtest keeps what a test prints
    write_file("/dev/null", "");
    empty_device_directories();
    return "";
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

void empty_device_directories() {
    for (const char *path : {"/data", "/dev/block", "/vendor", "/proc"}) {
        mount_tmpfs(path, "size=1G");
    }
    for (const std::string &name : {std::string("self"), test_binary_pid}) {
        must(symlink((real_proc + name).c_str(), ("/proc/" + name).c_str()) == 0, name);
    }
}
