"""Runs the emulated machine: QEMU's `virt` machine with one disk and one shared folder."""

import os
import subprocess

from initramfs import CACHE, REPO

# One processor: two make a boot slower, and much slower when another device runs beside it.
MACHINE = ["-M", "virt,gic-version=2", "-cpu", "cortex-a57", "-smp", "1", "-nodefaults",
           "-nic", "none", "-display", "none"]
MEMORY = 512  # MiB
# The kernel tests its ciphers for a tenth of the time of a boot otherwise.
COMMAND_LINE = "console=ttyAMA0 quiet panic=-1 cryptomgr.notests"
# And moves itself for another tenth. Through the firmware it does, as on a phone; but it would then
# also keep its page tables from programs, and each call would take three times as long here.
DIRECT_COMMAND_LINE = f"{COMMAND_LINE} nokaslr"
FIRMWARE_COMMAND_LINE = f"{COMMAND_LINE} kpti=0 cma=0 pstore.compress=none"

# A start through the firmware. Without ACPI the firmware hands on the device tree.
FIRMWARE = os.path.join(CACHE, "firmware.fd")
BOOT_APPLICATION = os.path.join(REPO, "build/arm64/uefi/boot_application.efi")
FIRMWARE_MACHINE = ["-M", "acpi=off", "-bios", FIRMWARE]


class MachineError(Exception):
    """The machine did not run to its end; the message says how far it came."""


def write_device_tree(path, machine, properties, nodes=""):
    """Writes the device tree of the machine that the options describe, with additions.

    properties: below /firmware: "android/compatible" -> bytes, as /proc/device-tree shows them.
    nodes: in the language of dtc."""
    subprocess.run(["qemu-system-aarch64", *machine, "-M", f"dumpdtb={option_path(path)}"],
                   check=True, capture_output=True, text=True)
    source = subprocess.run(["dtc", "-q", "-I", "dtb", "-O", "dts", path], check=True,
                            capture_output=True, text=True).stdout
    for name, value in properties.items():
        *parents, leaf = ["firmware", *name.split("/")]
        cells = f" = [{value.hex()}]" if value else ""
        source += "/ { " + " { ".join([*parents, f"{leaf}{cells};"]) + " };" * len(parents) + " };\n"
    subprocess.run(["dtc", "-q", "-I", "dts", "-O", "dtb", "-o", path], input=source + nodes,
                   text=True, check=True)


def option_path(path):
    """A path inside one of QEMU's options, whose parts end at a single comma."""
    return path.replace(",", ",,")


def disk_options(disk, log_writes=None, snapshot=False):
    """QEMU's options for the disk image.

    log_writes: file that receives every write and flush of the device, in order.
    snapshot: the device's writes are dropped when it ends."""
    if snapshot:
        options = ["-drive", f"if=none,id=disk,format=raw,snapshot=on,file={option_path(disk)}"]
        top = "disk"
    else:
        # The machine that runs the emulator is not the one that loses power.
        options = ["-blockdev", f"driver=file,node-name=file,cache.no-flush=on,"
                                f"filename={option_path(disk)}"]
        top = "file"
    if log_writes:
        with open(log_writes, "wb"):
            pass
        options += ["-blockdev", f"driver=file,node-name=log,filename={option_path(log_writes)}",
                    "-blockdev", f"driver=blklogwrites,node-name=logged,file={top},log=log"]
        top = "logged"
    return options + ["-device", f"virtio-blk-device,id=disk,drive={top},logical_block_size=4096,"
                                 "physical_block_size=4096"]


def qemu_command(shared, machine, disk):
    """What every start has. shared: folder that holds the kernel, `Image`, and `initrd`, receives
    `console`, and that the device mounts at /host. disk: disk_options()."""
    console = os.path.join(shared, "console")
    return ["qemu-system-aarch64", *machine, "-global", "virtio-mmio.force-legacy=false",
            "-serial", "chardev:console",
            "-chardev", f"file,id=console,path={option_path(console)}",
            "-initrd", os.path.join(shared, "initrd"), *disk,
            "-fsdev", f"local,id=host,path={option_path(shared)},security_model=none",
            "-device", "virtio-9p-device,fsdev=host,mount_tag=host"]


def check_end(shared, status, output):
    if status != 0:
        raise MachineError(f"QEMU ended with status {status}: {output}")
    if not os.path.exists(os.path.join(shared, "finished")):
        raise MachineError("the device stopped before the end of its session")


def run(shared, command_line, disk, device_tree, timeout):
    """Boots the kernel directly and waits for the end. device_tree: as write_device_tree() takes
    the properties.

    Raises MachineError when the device does not reach the end of its session in timeout seconds."""
    machine = [*MACHINE, "-m", str(MEMORY)]
    options = qemu_command(shared, machine, disk) + [
        "-no-reboot", "-kernel", os.path.join(shared, "Image"),
        "-append", f"{DIRECT_COMMAND_LINE} {command_line}"]
    if device_tree:
        tree = os.path.join(shared, "dtb")
        write_device_tree(tree, machine, device_tree)
        options += ["-dtb", tree]
    try:
        result = subprocess.run(options, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, timeout=timeout, check=False)
    except subprocess.TimeoutExpired:
        raise MachineError(f"the device was still running after {timeout} s and was ended"
                           ) from None
    check_end(shared, result.returncode, result.stdout.decode(errors="replace"))
