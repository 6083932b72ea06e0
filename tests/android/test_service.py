"""android/tarnix.rc and android/sepolicy/ against what the tool does on the emulated device."""

import os
import re
import subprocess

from guide import REPO, table
from test_build import compile_policy

CHAIN = os.environ.get("TARNIX_CHAIN", REPO / "build/native/tools/tarnix-chain")
SYSROOT = REPO / "build/emulator/sysroot"
MAP = "/data/vendor/ramdump/ramdump.map"
CREATE = f"--run=-a 1048576 {MAP}"


def device(command, folder, *arguments, status=0):
    result = subprocess.run([REPO / "emulator/device", command, folder, *arguments], check=False,
                            capture_output=True, text=True, errors="replace")
    assert result.returncode == status, result.stderr
    return result.stdout + result.stderr


def crash(phone):
    subprocess.run([CHAIN, "write", "--disk", phone / "disk.img", f"a.bin={__file__}"], check=True)


def test_sizes_are_those_of_the_guide(tmp_path):
    phone = tmp_path / "phone"
    device("make", phone, "--size", "64M")
    device("boot", phone, CREATE)
    crash(phone)
    # The service's own command line, with a dump pending and then without a map file.
    twice = f"""sh -c '"$@"; mv {MAP} /data/m; "$@"; s=$?; mv /data/m {MAP}; exit $s' sh"""
    for ram, *sizes, one_kept, two_kept in table("Space"):
        map_size, dump, free = (int(cell.replace(",", "")) for cell in sizes)
        ram_size = [] if ram == "none" else ["--prop", f"ro.boot.ddrsize={ram}"]
        log = device("boot", phone, "--wrap", twice, *ram_size, status=255)
        assert re.findall(r"requested size: (\d+)", log) == [str(free), str(map_size)], ram
        assert dump == map_size // 4096 * 4084
        assert [one_kept, two_kept] == [f"{round((map_size + kept * free) / (1 << 30), 3):g} GiB"
                                        for kept in (1, 2)]


# What the emulated device's paths are to the policy; the first that fits.
TYPES = (("/data/vendor/ramdump", "tarnix_data_file"), ("/data/vendor", "vendor_data_file"),
         ("/dev/vda5", "userdata_block_device"), ("/dev/vda1", "misc_block_device"),
         ("/fstab.", "rootfs"), ("/vendor/etc", "vendor_configs_file"),
         ("/proc/cmdline", "proc_cmdline"),
         ("/sys/firmware/devicetree/base/firmware/android", "sysfs_dt_firmware_android"))
PERMISSIONS = {"openat": "open", "fchmodat": "setattr", "newfstatat": "getattr", "read": "read",
               "write": "write", "getdents64": "read", "mkdirat": "create"}


def type_of(path):
    return next((name for prefix, name in TYPES if path.startswith(prefix)), None)


def needs(trace):
    """(type, class, permission) of what traced runs of the tool did to files of those types."""
    found = set()
    for call, line in re.findall(r"^\d+ +(\w+)\((.* = [^-].*)$", trace, flags=re.M):
        # Rather what a descriptor stands for, as the one that was opened, than a name with links.
        paths = re.findall(r'[<"](/[^">]*)[">]', line)
        path = next((path for path in reversed(paths) if type_of(path)), None)
        if path is None:
            continue
        kind = "blk_file" if path.startswith("/dev/") else \
            "file" if re.search(r"\.\w+$|^/fstab|^/proc|^/sys", path) else "dir"
        found |= {(name, "dir", "search") for name in {type_of(os.path.dirname(path))} if name}
        if call == "unlinkat":
            found.add((type_of(path), *(("dir", "rmdir") if "REMOVEDIR" in line
                                        else ("file", "unlink"))))
            found.add((type_of(path), "dir", "remove_name"))
        elif call == "statfs":
            found.add(("labeledfs", "filesystem", "getattr"))
        elif "FIBMAP" in line:
            found.add(("self", "capability", "sys_rawio"))
        elif call in PERMISSIONS:
            found.add((type_of(path), kind, PERMISSIONS[call]))
        if call == "mkdirat" or "O_CREAT" in line:
            found |= {(type_of(path), *rule) for rule in ((kind, "create"), ("dir", "add_name"))}
        if '"/dev/block/' in line:
            found |= {("block_device", "lnk_file", "read"), ("block_device", "dir", "search")}
        if '"/proc/device-tree/' in line:
            found.add(("proc", "lnk_file", "read"))
    return found


def test_capability_and_policy_are_enough_and_needed(tmp_path):
    keep, phone, log, trace = tmp_path / "keep", tmp_path / "phone", "", ""
    subprocess.run(["clang", "--target=aarch64-linux-gnu", f"--sysroot={SYSROOT}", "-fuse-ld=lld",
                    "-Wall", "-Werror", "-o", keep, REPO / "tests/android/keep_capabilities.c"],
                   check=True)
    name = re.search(r"\n +user root\n(?: .*\n)* +capabilities (\w+)\n",
                     (REPO / "android/tarnix.rc").read_text())[1]
    number = re.search(rf"define CAP_{name}\s+(\d+)",
                       (SYSROOT / "usr/include/linux/capability.h").read_text())[1]
    fstab = tmp_path / "fstab"  # its device's name is whole with the slot's suffix only
    fstab.write_text("/dev/block/bootdevice/by-name/user /data ext4 defaults slotselect\n")
    device("make", phone, "--size", "400M", "--file", f"/bin/keep={keep}",
           "--file", f"/bin/strace={SYSROOT}/usr/bin/strace", "--no-fstab",
           "--file", f"/vendor/etc/fstab.virt={fstab}", "--dt",
           "android/compatible=android,firmware", "--dt", "android/slot_suffix=data")
    # A chain, its test, a first dump, and a second one that takes the first one's place.
    for runs in ([CREATE, f"--run=-t {MAP}", "--file", f"/fstab.virt={fstab}"], [], []):
        log += device("boot", phone, "--wrap", f"strace -f -y -A -o /host/trace /bin/keep {number}",
                      *runs)
        trace += (phone / "boot/trace").read_text()
        crash(phone)
    log = re.sub(r".*fstab\..*\n", "", log)  # the table that is not in /
    assert log.count("Success") == 3 and not re.search("fail|cannot|rror:", log), log
    log = device("boot", phone, "--wrap", "/bin/keep -1", "--run=-a 4096 /data/vendor/ramdump/new",
                 status=255)
    assert "failed to find block 0" in log

    asked = sorted(" ".join(need) for need in needs(trace))
    assert len(asked) > 35, asked
    rules = [f"neverallow tarnix {type_}:{kind} {permission};"
             for type_, kind, permission in map(str.split, asked)]
    # Each of these rules must contradict the policy.
    result = compile_policy("userdebug", tmp_path / "policy", "\n".join(["", *rules]))
    allowed = re.findall(r"violated by allow tarnix (\w+):(\w+) \{ (.*?) \}", result.stderr)
    granted = {f"{type_} {kind} {permission}".replace("tarnix capability", "self capability")
               for type_, kind, permissions in allowed for permission in permissions.split()}
    assert not set(asked) - granted, result.stderr
