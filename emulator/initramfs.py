"""The device's initial root file system: a cpio archive, made anew for each boot."""

import os
import stat
import subprocess

ROOM = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(ROOM)
CACHE = os.environ.get("TARNIX_EMULATOR_CACHE", os.path.join(REPO, "build", "emulator"))
SYSROOT = os.path.join(CACHE, "sysroot")

LIBRARY_FOLDERS = ("lib/aarch64-linux-gnu", "usr/lib/aarch64-linux-gnu",
                   "usr/lib/aarch64-linux-gnu/android", "lib", "usr/lib")
ELF_AARCH64 = b"\xb7\0"
INTERPRETER = "ld-linux-aarch64.so.1"

# The Debian releases whose kernels there are, that of the sysroot first.
KERNELS = ("bookworm", "bullseye", "trixie")
# Below kernel/ of the kernel package, in the order in which they need one another. What one of the
# kernels has built in or does not know is left out there.
MACHINE_MODULES = ("drivers/virtio/virtio", "drivers/virtio/virtio_ring",
                   "drivers/virtio/virtio_mmio", "drivers/block/virtio_blk", "fs/netfs/netfs",
                   "fs/fscache/fscache", "net/9p/9pnet", "net/9p/9pnet_virtio", "fs/9p/9p",
                   "lib/reed_solomon/reed_solomon", "fs/pstore/ramoops")
FS_MODULES = {
    "ext4": ("lib/crc16", "fs/mbcache", "fs/jbd2/jbd2", "crypto/crc32c_generic", "fs/ext4/ext4"),
    "f2fs": ("crypto/crc32_generic", "lib/zstd/zstd_compress", "lib/lz4/lz4_compress",
             "lib/lz4/lz4hc_compress", "fs/f2fs/f2fs"),
}
DIRECTORIES = ("proc", "sys", "dev", "tmp", "host", "data", "modules", "lib", "bin", "etc")


def read_file(path):
    with open(path, "rb") as stream:
        return stream.read()


def kernel_folder(kernel):
    return os.path.join(CACHE, "kernel" if kernel == KERNELS[0] else f"kernels/{kernel}/kernel")


def find_library(name):
    for folder in LIBRARY_FOLDERS:
        path = os.path.join(SYSROOT, folder, name)
        if os.path.exists(path):
            return path
    raise FileNotFoundError(f"the sysroot {SYSROOT} has no {name}, which a program needs")


def needed_libraries(programs):
    """Name -> host path of every shared library that the given host files need, at any depth."""
    found, queue = {}, list(programs)
    while queue:
        listing = subprocess.run(["readelf", "-d", queue.pop()], check=True,
                                 capture_output=True, text=True).stdout
        for line in listing.splitlines():
            if "(NEEDED)" in line:
                name = line.split("[", 1)[1].rstrip("]")
                if name not in found:
                    found[name] = find_library(name)
                    queue.append(found[name])
    if found:
        found[INTERPRETER] = find_library(INTERPRETER)
    return found


def is_program(path):
    with open(path, "rb") as stream:
        header = stream.read(20)
    if header[:4] != b"\x7fELF":
        return False
    if header[18:20] != ELF_AARCH64:
        raise OSError(f"{path} is a program of another machine: build it for arm64")
    return True


def collect(fs, kernel, additions):
    """Everything in the root: path without leading slash -> (mode, content)."""
    root = {name: (stat.S_IFDIR | 0o755, b"") for name in DIRECTORIES}
    root["bin/sh"] = (stat.S_IFLNK | 0o777, b"busybox")
    files = {"init": os.path.join(ROOM, "init"),
             "bin/busybox": os.path.join(SYSROOT, "bin/busybox")}
    folder = os.path.join(kernel_folder(kernel), "modules")
    modules = {os.path.basename(module) + ".ko": os.path.join(folder, f"{module}.ko")
               for module in MACHINE_MODULES + FS_MODULES[fs]
               if os.path.exists(os.path.join(folder, f"{module}.ko"))}
    files |= {f"modules/{name}": path for name, path in modules.items()}
    files["modules/order"] = "".join(f"{name}\n" for name in modules).encode()
    files |= {path.lstrip("/"): source for path, source in additions.items()}
    programs = [path for path in additions.values() if isinstance(path, str) and is_program(path)]
    files |= {f"lib/{name}": path for name, path in needed_libraries(programs).items()}
    for path, source in files.items():
        if isinstance(source, bytes):
            root[path] = (stat.S_IFREG | 0o644, source)
        else:
            root[path] = (stat.S_IFREG | os.stat(source).st_mode & 0o777, read_file(source))
    return root


def write_cpio(path, root):
    """Writes the archive in the kernel's format ("newc"), all files owned by root."""
    for name in list(root):
        while name := os.path.dirname(name):
            root.setdefault(name, (stat.S_IFDIR | 0o755, b""))
    with open(path, "wb") as stream:
        # A directory sorts before what is in it, as the kernel needs it.
        for number, name in enumerate(sorted(root) + ["TRAILER!!!"], 1):
            mode, content = root.get(name, (0, b""))
            encoded = name.encode() + b"\0"
            fields = (number, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(encoded), 0)
            header = b"070701" + b"".join(b"%08X" % field for field in fields) + encoded
            stream.write(header + b"\0" * (-len(header) % 4))
            stream.write(content + b"\0" * (-len(content) % 4))


def make(path, fs, kernel, additions):
    """Writes the archive for a device with the given file system and kernel.

    additions: path on the device -> host path, whose mode it keeps, or bytes. Of a host file that
    is a program the shared libraries come with it, from the sysroot."""
    write_cpio(path, collect(fs, kernel, additions))
