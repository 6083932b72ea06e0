// A root file system of the test binary's own, so that the rooms' absolute paths are real and
// nothing of the machine is touched.
#ifndef TARNIX_TESTS_SUPPORT_PRIVATE_ROOT_H
#define TARNIX_TESTS_SUPPORT_PRIVATE_ROOT_H

#include <stdint.h>

#include <string>

// Moves the process, for good, into a mount namespace and a root of its own that has the machine's
// programs and libraries and nothing else. Empty, or why the machine does not allow it.
std::string enter_private_root();

// Empties what a device starts with: /data, /dev/block, /vendor, and a /proc that has no cmdline
// and no device-tree, for the test to write.
void empty_device_directories();

// Lays a fresh tmpfs over the directory `path`, made when missing. `options` as for mount -o:
// "size=33G" is had on any machine.
void mount_tmpfs(const char *path, const char *options);

// Makes such a file system larger or smaller, until it has `bytes` of space left. Counted in whole
// blocks of 4096 bytes.
void leave_free(const char *path, uint64_t bytes);

#endif
