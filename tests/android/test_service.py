"""android/tarnix.rc and android/sepolicy/ against what the tool does on the emulated device."""

import os
import re

from emulated import MAP, REPO, SYSROOT, crash, device, run, write_text
from test_policy import compile_policy

CREATE = f"--run=-a 1048576 {MAP}"
# What the emulated device's paths are to the policy; the first that fits.
TYPES = (("/data/vendor/ramdump", "tarnix_data_file"), ("/data/vendor", "vendor_data_file"),
         ("/dev/vda5", "userdata_block_device"), ("/dev/vda1", "misc_block_device"),
         ("/fstab.", "rootfs"), ("/vendor/etc", "vendor_configs_file"),
         ("/vendor/bin/tarnix", "tarnix_exec"), ("/proc/cmdline", "proc_cmdline"),
         ("/sys/firmware/devicetree/base/firmware/android", "sysfs_dt_firmware_android"))
# What a call that is traced so needs: (type, class, permission), None for those of its path.
RULES = (("^execve", (None, None, "execute_no_trans")), ("^openat", (None, None, "open")),
         ("^fchmodat", (None, None, "setattr")), ("^newfstatat", (None, None, "getattr")),
         ("^(read|pread64|getdents64)\\(", (None, None, "read")),
         ("^write\\(", (None, None, "write")),
         ("^mkdirat|O_CREAT", (None, None, "create"), (None, "dir", "add_name")),
         ("^unlinkat.*REMOVEDIR", (None, "dir", "rmdir"), (None, "dir", "remove_name")),
         ("^unlinkat(?!.*REMOVEDIR)", (None, "file", "unlink"), (None, "dir", "remove_name")),
         ("^statfs\\(", ("labeledfs", "filesystem", "getattr")),
         ("FIBMAP", ("self", "capability", "sys_rawio")),
         ('"/dev/block/', ("block_device", "lnk_file", "read"), ("block_device", "dir", "search")),
         ('"/proc/device-tree/', ("proc", "lnk_file", "read")))


def type_of(path):
    return next((name for prefix, name in TYPES if path.startswith(prefix)), None)


def needs(trace):
    """(type, class, permission) of what traced runs of the tool did to files of those types."""
    found = set()
    for line in re.findall(r"^\d+ +(\w+\(.* = [^-].*)$", trace, flags=re.M):
        # Rather what a descriptor stands for, as the one that was opened, than a name with links.
        paths = re.findall(r'[<"](/[^">]*)[">]', line)
        if line.startswith("execve"):
            del paths[1:]  # the program, not what it is given
        path = next((path for path in reversed(paths) if type_of(path)), None)
        if path is None:
            continue
        kind = "blk_file" if path.startswith("/dev/") else \
            "file" if re.search(r"\.\w+$|^/fstab|^/proc|^/sys|^/vendor/bin", path) else "dir"
        found |= {(name, "dir", "search") for name in {type_of(os.path.dirname(path))} if name}
        found |= {(type_ or type_of(path), class_ or kind, permission)
                  for pattern, *needed in RULES if re.search(pattern, line)
                  for type_, class_, permission in needed}
    return found


def test_capability_and_policy_are_enough_and_needed(tmp_path):
    phone, keep, log, trace = tmp_path / "phone", tmp_path / "keep", "", ""
    run(REPO / "emulator/fetch-arm64")
    run("clang", "--target=aarch64-linux-gnu", f"--sysroot={SYSROOT}", "-fuse-ld=lld", "-Wall",
        "-Werror", "-o", keep, REPO / "tests/android/keep_capabilities.c")
    name = re.search(r"\n +user root\n(?: .*\n)* +capabilities (\w+)\n",
                     (REPO / "android/tarnix.rc").read_text())[1]
    with open(f"{SYSROOT}/usr/include/linux/capability.h", encoding="utf-8") as stream:
        number = re.search(rf"define CAP_{name}\s+(\d+)", stream.read())[1]
    # The device's name in it is whole with the slot's suffix only.
    fstab = write_text(tmp_path / "fstab",
                       "/dev/block/bootdevice/by-name/user /data ext4 defaults slotselect\n")
    device("make", phone, "--size", "400M", "--file", f"/bin/keep={keep}",
           "--file", f"/bin/strace={SYSROOT}/usr/bin/strace", "--no-fstab",
           "--file", f"/vendor/etc/fstab.virt={fstab}", "--dt",
           "android/compatible=android,firmware", "--dt", "android/slot_suffix=data")
    cut_map = ["--before", write_text(tmp_path / "cut", f"truncate -s 8192 {MAP}"), CREATE]
    # A chain, its test, a first dump, a second one that takes the first one's place, and one that
    # the guard saves, since the map file is no longer the chain's.
    for runs, guard in (([CREATE, f"--run=-t {MAP}", "--file", f"/fstab.virt={fstab}"], ""),
                        ([], ""), ([], ""), (cut_map, "/vendor/bin/tarnix-guard --")):
        log += device("boot", phone, *runs, "--wrap",
                      f"strace -f -y -A -o /host/trace /bin/keep {number} {guard}").stderr
        trace += (phone / "boot/trace").read_text()
        crash(phone, {"a.bin": bytes(5000)})
    log = re.sub(r".*fstab\..*\n", "", log)  # the table that is not in /
    assert log.count("Success") == 4 and not re.search("fail|cannot|rror:", log), log
    log = device("boot", phone, "--wrap", "/bin/keep -1",
                 "--run=-a 4096 /data/vendor/ramdump/new", accept=[255]).stderr
    assert "failed to find block 0" in log

    asked = needs(trace)
    assert len(asked) > 35, asked
    # Each of these rules must contradict the policy.
    rules = "".join(f"\nneverallow tarnix {type_}:{kind} {permission};"
                    for type_, kind, permission in asked)
    result = compile_policy("userdebug", tmp_path / "policy", rules)
    allowed = re.findall(r"violated by allow tarnix (\w+):(\w+) \{ (.*?) \}", result.stderr)
    granted = {(type_.replace("tarnix", "self") if kind == "capability" else type_, kind, word)
               for type_, kind, words in allowed for word in words.split()}
    assert not asked - granted, result.stderr
