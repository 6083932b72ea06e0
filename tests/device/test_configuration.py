"""What stands around a run: gates, options, fstab, boot configuration. Nothing is written."""

from emulated import MAP, device
from phone import NODES, START, Step, boot, is_untouched, plain

FILE = "/data/map"
FIRST, SECOND, FALLBACK = "/fstab.virt", "/vendor/etc/fstab.virt", "/fstab.qcom"
USAGE = ("I usage: /vendor/bin/tarnix [-p] [-r <out file>] [-c <size>] [-t] [-i <crc>] "
         "<block file>")


def missing(path):
    return (f"E [libfs_mgr]fs_mgr_read_fstab(): cannot open file: '{path}': "
            "No such file or directory")


def nowhere(path):
    return [missing(path), "E [libfs_mgr]fs_mgr_read_fstab(): cannot open default file: "
            "'fstab.qcom': No such file or directory", f"E failed to read {path}"]


def rejected(reason):
    """What is said of a bad table in the first place, where there is none in the second."""
    return [f"E [libfs_mgr]{reason}",
            f"E [libfs_mgr]fs_mgr_read_fstab(): failed to load fstab from : '{FIRST}'",
            f"E failed to read {FIRST}", *nowhere(SECOND)]


def step(before, status, *log, after=""):
    return Step(f"{before}\ntarnix {FILE}\n{after}", status, [*START, *log])


def gate(before, *log):
    """Before the options are looked at, of which one is bad."""
    return Step(f"{before}\ntarnix -x\nsetprop ro.sf 10\nsetprop ro.boot.qorramdump 1", 0, log)


GATES_AND_OPTIONS = [
    gate(f"touch {FILE}; cp {FIRST} /tmp/fstab; setprop ro.sf 1", START[0], "I security on, exit"),
    gate("rm /dev/__properties__/ro.boot.qorramdump", *START,
         "E fail to get ro.boot.qorramdump, exit"),
    gate("setprop ro.boot.qorramdump '1 '", *START,
         "E ro.boot.qorramdump (radio flag) is not enabled, exit"),
    Step("tarnix -x", 2, [*START, USAGE]),
    Step("tarnix", 1, [*START, USAGE, f"I input_path set to {MAP}",
                       f"E failed to convert {MAP} to absolute path: No such file or directory\\"]),
    Step(f"tarnix -p -c 1000 -i 1FFFFFFFF {FILE} ignored", 0, [*START, *plain(0xffffffff)]),
    # An application, to which the hardware's name is masked.
    step("way='as_user 10400'", 1, *nowhere("/fstab.unknown"),
         *nowhere("/vendor/etc/fstab.unknown")),
    step("rm /dev/__properties__/ro.hardware", 1, *["E failed to get ro.hardware"] * 2,
         after="setprop ro.hardware virt"),
]


def fstab(text, status, *log):
    """With an fstab of the shell's making in the first place; there is none in the second."""
    return step(f"{text} >{FIRST}", status, *log, after=f"cp /tmp/fstab {FIRST}")


def entry(options):
    return f"echo '{NODES}userdata /data ext4 noatime {options}'"


FSTABS = [
    step(f"mkdir -p /vendor/etc; mv {FIRST} {SECOND}", 0, *nowhere(FIRST), *plain()),
    step(f"mv {SECOND} {FALLBACK}", 0, missing(FIRST), *plain()),
    step(f"rm {FALLBACK}", 1, *nowhere(FIRST), *nowhere(SECOND)),
    fstab("echo 'd / ext4 ro wait\nd /data/ ext4 ro wait\nd /database ext4 ro wait'", 1,
          f"E failed to find block device for {FILE}\\"),
    # One line, of 1 MiB.
    fstab("printf %1048576s | tr ' ' x", 1, *rejected("Error parsing mount_point")),
    fstab(entry("voldmanaged=a,fileencryption=b:c,encryptable=x"), 0,
          "E [libfs_mgr]Warning: voldmanaged= flag malformed",
          "E [libfs_mgr]Unknown file contents encryption mode: b",
          "E [libfs_mgr]Unknown file names encryption mode: c", *plain()),
]


def slot(before, suffix):
    """With an entry that wants the slot's suffix; None: there is none to be had."""
    log = rejected("Error updating for slotselect") if suffix is None else \
        plain(node=f"userdata{suffix}", encryptable="no")
    return fstab(f"{before}\n{entry('slotselect')}", int(suffix is None), *log)


# The boot's own command line says _a, its device tree _b.
SLOTS = [
    slot("setprop ro.boot.slot_suffix _c", "_c"),
    slot("rm /dev/__properties__/ro.boot.slot_suffix", "_a"),
    slot("echo quiet >/tmp/cmdline; mount -o bind /tmp/cmdline /proc/cmdline", "_b"),
    slot("echo androidboot.slot_suffix= >/tmp/cmdline", None),
]


def test_configuration(tmp_path):
    phone = tmp_path / "phone"
    device("make", phone, "--size", "64M", "--cmdline", "androidboot.slot_suffix=_a",
           "--dt", "android/compatible=android,firmware", "--dt", "android/slot_suffix=_b")
    runs = boot(phone, [*GATES_AND_OPTIONS, *FSTABS, *SLOTS])
    assert not any("persist.vendor.tarnix.map" in run.properties for run in runs)
    assert is_untouched(phone)
