"""What only the real system puts around a run: boot configuration, applications, C library."""

import pytest
from emulated import device
from phone import NODES, Step, check, is_untouched, plain

pytestmark = pytest.mark.xdist_group("f2fs")  # one boot for all, in the lighter half

FIRST = "/fstab.virt"
NO_FILE = "No such file or directory"
READING = "E [libfs_mgr]fs_mgr_read_fstab():"
ON_SLOT = f"echo '{NODES}userdata /data ext4 noatime slotselect' >{FIRST}; tarnix /data/map"


def on_slot(suffix):
    return plain(node=f"userdata{suffix}", encryptable="no")


# One after another on one phone: a change holds on.
STEPS = {
    "options behind the path": Step("touch /data/map; tarnix -p -c 1000 -i 1FFFFFFFF /data/map -x",
                                    says=plain(seed="ffffffff")),
    # To an application the hardware's name is masked.
    "application": Step("way='as_user 10400' tarnix /data/map", 1, [
        line for fstab in ("/fstab.unknown", "/vendor/etc/fstab.unknown") for line in (
            f"{READING} cannot open file: '{fstab}': {NO_FILE}",
            f"{READING} cannot open default file: 'fstab.qcom': {NO_FILE}",
            f"E failed to read {fstab}")]),
    "fallback fstab": Step(f"mv {FIRST} /fstab.qcom; seed= tarnix /data/map", says=[
        f"{READING} cannot open file: '{FIRST}': {NO_FILE}", "I Success"]),
    # The boot's own command line says _a, its device tree _b.
    "slot of the property": Step(f"setprop ro.boot.slot_suffix _c; {ON_SLOT}", says=on_slot("_c")),
    "slot of the command line": Step(
        f"rm /dev/__properties__/ro.boot.slot_suffix; {ON_SLOT}", says=on_slot("_a")),
    "slot of the device tree": Step(
        f"echo quiet >/tmp/cmdline; mount -o bind /tmp/cmdline /proc/cmdline; {ON_SLOT}",
        says=on_slot("_b")),
    "no slot": Step(f"echo androidboot.slot_suffix= >/tmp/cmdline; {ON_SLOT}", says=[
        "E [libfs_mgr]Error updating for slotselect", f"E failed to read {FIRST}", *plain()]),
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
