"""What stands around a run: gates, options, fstab, boot configuration. Nothing is written."""

import pytest
from emulated import MAP, device
from phone import NODES, Step, check, is_untouched, plain

pytestmark = pytest.mark.xdist_group("f2fs")  # one boot for all, in the lighter half

USAGE = """\
I usage: /vendor/bin/tarnix [-p] [-r <out file>] [-c <size>] [-t] [-i <crc>] <block file>
I     -r <out file> read from raw block of <block file> to <out file>
I     -c <size>     also create <block file> of size and convert
I     -t            test block chain integrity
I     -a <in file>  parsing maps to ramdump files
I     -p            print progress
I     -i <crc>      specify initial hex crc value
I Convert between raw blocks and files.  If only <block file> parameter
I is supplied, then just re-write <block file> as raw data.  <block file> must
I exist, otherwise, use the -c option to create the file before
I converting it.""".split("\n")
FIRST, SECOND = "/fstab.virt", "/vendor/etc/fstab.virt"
NO_FILE = "No such file or directory"
READING = "E [libfs_mgr]fs_mgr_read_fstab():"


def with_flags(flags):
    return f"echo '{NODES}userdata /data ext4 noatime {flags}' >{FIRST}; tarnix /data/map"


def on_slot(suffix):
    return plain(node=f"userdata{suffix}", encryptable="no")


# One after another on one phone: a change holds on.
STEPS = {
    "security on": Step("touch /data/map; setprop ro.sf 1; tarnix -x",
                        says=["I tarnix_v3 start!!", "I security on, exit"]),
    "no radio flag": Step("setprop ro.sf 10; rm /dev/__properties__/ro.boot.qorramdump; tarnix -x",
                          says=["E fail to get ro.boot.qorramdump, exit"]),
    "another radio flag": Step("setprop ro.boot.qorramdump '1 '; tarnix -x", says=[
        "E ro.boot.qorramdump (radio flag) is not enabled, exit"]),
    "bad option": Step("setprop ro.boot.qorramdump 1; tarnix -x", 2, USAGE),
    "no path": Step("tarnix", 1, [*USAGE, f"I input_path set to {MAP}",
                                  f"E failed to convert {MAP} to absolute path: {NO_FILE}"]),
    "options that change nothing": Step("tarnix -p -c 1000 -i 1FFFFFFFF /data/map -x",
                                        says=plain(seed="ffffffff")),
    "drawn seed": Step("seed= tarnix /data/map", says=["I Success"]),
    # To an application the hardware's name is masked.
    "application": Step("way='as_user 10400' tarnix /data/map", 1, [
        "E failed to read /fstab.unknown", "E failed to read /vendor/etc/fstab.unknown"]),
    "no hardware": Step("rm /dev/__properties__/ro.hardware; tarnix /data/map", 1,
                        ["E failed to get ro.hardware"] * 2),
    "fallback fstab": Step(f"setprop ro.hardware virt; mv {FIRST} /fstab.qcom; tarnix /data/map",
                           says=[f"{READING} cannot open file: '{FIRST}': {NO_FILE}", *plain()]),
    "second fstab": Step(f"mkdir -p /vendor/etc; mv /fstab.qcom {SECOND}; tarnix /data/map", says=[
        f"{READING} cannot open default file: 'fstab.qcom': {NO_FILE}",
        f"E failed to read {FIRST}", *plain()]),
    "mounted elsewhere": Step(
        f"rm {SECOND}; printf '%s ext4 ro wait\n' 'd /' 'd /data/' 'd /database' >{FIRST}\n"
        "tarnix /data/map", 1, ["E failed to find block device for /data/map"]),
    "a line of 1 MiB": Step(f"printf %1048576s | tr ' ' x >{FIRST}; tarnix /data/map", 1, [
        "E [libfs_mgr]Error parsing mount_point",
        f"{READING} failed to load fstab from : '{FIRST}'", f"E failed to read {SECOND}"]),
    "bad flags on an encrypted disk": Step(
        "setprop ro.crypto.state encrypted\n"
        + with_flags("voldmanaged=a,fileencryption=b:c,encryptable=x"), says=[
            "E [libfs_mgr]Warning: voldmanaged= flag malformed",
            "E [libfs_mgr]Unknown file contents encryption mode: b",
            "E [libfs_mgr]Unknown file names encryption mode: c",
            "I encryptable: yes", "I   encrypted: yes", "I Success"]),
    # The boot's own command line says _a, its device tree _b.
    "slot of the property": Step("setprop ro.boot.slot_suffix _c\n" + with_flags("slotselect"),
                                 says=on_slot("_c")),
    "slot of the command line": Step(
        "rm /dev/__properties__/ro.boot.slot_suffix\n" + with_flags("slotselect"),
        says=on_slot("_a")),
    "slot of the device tree": Step(
        "echo quiet >/tmp/cmdline; mount -o bind /tmp/cmdline /proc/cmdline\n"
        + with_flags("slotselect"), says=on_slot("_b")),
    "no slot": Step(
        "echo androidboot.slot_suffix= >/tmp/cmdline\n" + with_flags("slotselect"), 1,
        ["E [libfs_mgr]Error updating for slotselect", f"E failed to read {SECOND}"]),
}


def steps(_):
    return STEPS


@pytest.fixture(scope="module")
def phone_and_chain(tmp_path_factory):
    phone = tmp_path_factory.mktemp("configuration") / "phone"
    device("make", phone, "--size", "64M", "--cmdline", "androidboot.slot_suffix=_a",
           "--dt", "android/compatible=android,firmware", "--dt", "android/slot_suffix=_b")
    return phone, []


def test_configuration(phone_and_chain, runs, name):
    step, run = runs[name]
    check(step, run)
    assert "initial CRC: 00000000" not in run.text  # also where no seed is given
    assert "persist.vendor.tarnix.map" not in run.properties and is_untouched(phone_and_chain[0])
