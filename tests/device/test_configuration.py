"""What stands around a run: gates, options, fstab, boot configuration. Nothing is written."""

import pytest

from phone import (MAP, NODES, SEED, START, USAGE, Phone, Step, plain, set_property)

FILE = "/data/map"
FIRST, SECOND, FALLBACK = "/fstab.virt", "/vendor/etc/fstab.virt", "/fstab.qcom"
HARMLESS = f"-i {SEED:x} {FILE}"
FIRST_IS_BACK = f"rm -rf {FIRST}\ncp /tmp/fstab {FIRST}\n"
NO_SUFFIX = "E [libfs_mgr]Error updating for slotselect"


def missing(path):
    return (f"E [libfs_mgr]fs_mgr_read_fstab(): cannot open file: '{path}': "
            "No such file or directory")


def unusable(path):
    return [f"E [libfs_mgr]fs_mgr_read_fstab(): failed to load fstab from : '{path}'",
            f"E failed to read {path}"]


def nowhere(path):
    return [missing(path), "E [libfs_mgr]fs_mgr_read_fstab(): cannot open default file: "
            "'fstab.qcom': No such file or directory", f"E failed to read {path}"]


def fstab(text, status, *log, before=""):
    """A run with an fstab of the shell's making in the first place; there is none in the second."""
    return Step(HARMLESS, status, [*START, *log], before=f"{before}\nrm -rf {FIRST}\n{text}\n",
                after=FIRST_IS_BACK)


def entry(options="defaults", device=f"{NODES}userdata", mount_options="noatime"):
    return f"echo '{device} /data ext4 {mount_options} {options}' >{FIRST}"


def rejected(*reason):
    return [*reason, *unusable(FIRST), *nowhere(SECOND)]


def gate(before, *log):
    return Step(f"-x {HARMLESS}", 0, log, before=before,
                after="rm -f /dev/__properties__/ro.sf\n" + set_property("ro.boot.qorramdump", "1"))


NOT_ENABLED = "E ro.boot.qorramdump (radio flag) is not enabled, exit"
GATES_AND_OPTIONS = [
    gate(f"touch {FILE}; cp {FIRST} /tmp/fstab\n" + set_property("ro.sf", "1"),
         START[0], "I security on, exit"),
    gate("rm /dev/__properties__/ro.boot.qorramdump", *START,
         "E fail to get ro.boot.qorramdump, exit"),
    gate(set_property("ro.boot.qorramdump", ""), *START, "E fail to get ro.boot.qorramdump, exit"),
    gate(set_property("ro.boot.qorramdump", "1 "), *START, NOT_ENABLED),
    gate(set_property("ro.boot.qorramdump", "true"), *START, NOT_ENABLED),
    Step("-x", 2, [*START, *USAGE]),
    Step(f"-p {HARMLESS} -r", 2, [*START, *USAGE]),
    Step("", 1, [*START, *USAGE, f"I input_path set to {MAP}",
                 f"E failed to convert {MAP} to absolute path: No such file or directory\\"]),
    Step(f"-p -c 1000 -i 1FFFFFFFF {FILE} ignored", 0, [*START, *plain(0xffffffff)],
         before=set_property("ro.sf", "10")),
    Step(HARMLESS, 0, [*START, *plain(encrypted="yes")],
         before=set_property("ro.crypto.state", "encrypted"),
         after=set_property("ro.crypto.state", "unencrypted")),
    Step(HARMLESS, 1, [*START, *["E failed to get ro.hardware"] * 2],
         before="rm /dev/__properties__/ro.hardware"),
    Step(HARMLESS, 1, [*START, *nowhere("/fstab." + "/.." * 30),
                       *nowhere("/vendor/etc/fstab." + "/.." * 30)],
         before=set_property("ro.hardware", "/.." * 30), after=set_property("ro.hardware", "virt")),
]
FSTABS = [
    Step(HARMLESS, 0, [*START, *nowhere(FIRST), *plain()],
         before=f"mkdir -p /vendor/etc\nmv {FIRST} {SECOND}"),
    Step(HARMLESS, 0, [*START, missing(FIRST), *plain()], before=f"mv {SECOND} {FALLBACK}"),
    Step(HARMLESS, 1, [*START, *nowhere(FIRST), *nowhere(SECOND)], before=f"rm {FALLBACK}",
         after=FIRST_IS_BACK),
    fstab(f"echo 'd / ext4 ro wait\nd /data/ ext4 ro wait\nd /database ext4 ro wait' >{FIRST}", 1,
          f"E failed to find block device for {FILE}\\"),
    fstab(f": >{FIRST}", 1, *rejected("E [libfs_mgr]No entries found in fstab")),
    fstab(f"mkdir {FIRST}", 1, *rejected("E [libfs_mgr]No entries found in fstab")),
    fstab(f"echo 'd /data ext4 ro' >{FIRST}", 1,
          *rejected("E [libfs_mgr]Error parsing fs_mgr_options")),
    # One line of 1 MiB: as the first field, as a mount option, as an option.
    fstab(f"printf %1048576s | tr ' ' x >{FIRST}", 1,
          *rejected("E [libfs_mgr]Error parsing mount_point")),
    fstab(entry(mount_options="$x").replace("'", '"'), 0, *plain(encryptable="no"),
          before="x=$(printf %1048576s | tr ' ' x)"),
    fstab(entry("$x").replace("'", '"'), 0, "E [libfs_mgr]Warning: unknown flag x...",
          *plain(encryptable="no"), before="x=$(printf %1048576s | tr ' ' x)"),
    fstab(rf"printf 'd\0 /data ext4 ro wait\n\377\376' >{FIRST}", 1,
          *rejected("E [libfs_mgr]Error parsing mount_point")),
    fstab(entry("reservedsize=17179869184G"), 134),
    fstab(entry("voldmanaged=a,fileencryption=b:c,encryptable=x"), 0,
          "E [libfs_mgr]Warning: voldmanaged= flag malformed",
          "E [libfs_mgr]Unknown file contents encryption mode: b",
          "E [libfs_mgr]Unknown file names encryption mode: c", *plain()),
]


def cmdline(text):
    return f"umount /proc/cmdline 2>/dev/null || :\n{text} >/tmp/cmdline\n" \
        "mount -o bind /tmp/cmdline /proc/cmdline\n"


def slot(suffix, before=""):
    """A run with an entry that wants the slot's suffix; None: there is none to be had."""
    if suffix is None:
        return fstab(entry("slotselect"), 1, *rejected(NO_SUFFIX), before=before)
    return fstab(entry("slotselect"), 0, *plain(node=f"userdata{suffix}", encryptable="no"),
                 before=before)


TREE = "/proc/device-tree/firmware/android"
OTHER_TREE = "echo androidboot.android_dt_dir=/tmp/tree"
# The boot's own command line says _a, its device tree _b.
SLOTS = [
    slot("_c", set_property("ro.boot.slot_suffix", "_c")),
    slot("_a", "rm /dev/__properties__/ro.boot.slot_suffix"),
    slot("_b", cmdline("echo androidboot.slot_suffix=_a=x quiet")),
    slot(None, cmdline("echo androidboot.slot_suffix=")),
    slot("_d", cmdline("echo '  androidboot.slot_suffix=_d   androidboot.slot_suffix=_e '")),
    slot("_b", cmdline("printf %2048s | tr ' ' =")),
    slot("_b", cmdline(":")),
    slot(None, cmdline(OTHER_TREE)),
    slot("_f", f"cp -r {TREE} /tmp/tree\nprintf _f/ >/tmp/tree/slot_suffix"),
    slot(None, ": >/tmp/tree/slot_suffix"),
    slot(None, "rm /tmp/tree/slot_suffix; mkdir /tmp/tree/slot_suffix"),
    slot(None, "rmdir /tmp/tree/slot_suffix; printf _f/ >/tmp/tree/slot_suffix\n"
         "printf android,firmware >/tmp/tree/compatible"),
    slot(None, ": >/tmp/tree/compatible"),
]


@pytest.mark.xdist_group("configuration")
def test_configuration(tmp_path):
    phone = Phone.make(tmp_path / "phone", "--cmdline", "androidboot.slot_suffix=_a",
                       "--dt", "android/compatible=android,firmware",
                       "--dt", "android/slot_suffix=_b")
    kept = phone.kept_bytes()
    runs = phone.boot([*GATES_AND_OPTIONS, *FSTABS, *SLOTS])
    assert not any("persist.vendor.tarnix.map" in run.properties for run in runs)
    assert phone.kept_bytes() == kept
