"""Runs the emulated machine once: QEMU's `virt` machine with one disk and one shared folder."""

import os
import subprocess

# One processor: two make a boot slower, and much slower when another device runs beside it.
MACHINE = ["-M", "virt,gic-version=2", "-cpu", "cortex-a57", "-smp", "1", "-m", "512",
           "-nodefaults", "-nic", "none", "-display", "none"]
# The kernel tests its ciphers and moves itself for a fifth of the time of a boot otherwise.
COMMAND_LINE = "console=ttyAMA0 quiet panic=-1 cryptomgr.notests nokaslr"


class MachineError(Exception):
    """The machine did not run to its end; the message says how far it came."""


def write_device_tree(path, properties):
    """Writes the machine's device tree with the given properties below /firmware added.

    properties: "android/compatible" -> bytes, as /proc/device-tree shows them."""
    subprocess.run(["qemu-system-aarch64", *MACHINE, "-M", f"dumpdtb={option_path(path)}"],
                   check=True, capture_output=True, text=True)
    source = subprocess.run(["dtc", "-q", "-I", "dtb", "-O", "dts", path], check=True,
                            capture_output=True, text=True).stdout
    for name, value in properties.items():
        *nodes, leaf = ["firmware", *name.split("/")]
        cells = f" = [{value.hex()}]" if value else ""
        source += "/ { " + " { ".join([*nodes, f"{leaf}{cells};"]) + " };" * len(nodes) + " };\n"
    subprocess.run(["dtc", "-q", "-I", "dts", "-O", "dtb", "-o", path], input=source, text=True,
                   check=True)


def option_path(path):
    """A path inside one of QEMU's options, whose parts end at a single comma."""
    return path.replace(",", ",,")


def disk_options(disk, log_writes=None, blkdebug=None, snapshot=False):
    """QEMU's options for the disk image.

    log_writes: file that receives every write and flush of the device, in order.
    blkdebug: file with the rules of QEMU's blkdebug driver, which injects I/O errors.
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
    if blkdebug:
        options += ["-blockdev", f"driver=blkdebug,node-name=faulty,image={top},"
                                 f"config={option_path(blkdebug)}"]
        top = "faulty"
    return options + ["-device", f"virtio-blk-device,drive={top},logical_block_size=4096,"
                                 "physical_block_size=4096"]


def run(shared, command_line, disk, device_tree, timeout):
    """Boots and waits for the end. shared: folder that holds the kernel, `Image`, and `initrd`,
    receives `console`, and that the device mounts at /host. disk: disk_options(). device_tree: as
    write_device_tree() takes it.

    Raises MachineError when the device does not reach the end of its session in timeout seconds."""
    console = os.path.join(shared, "console")
    options = ["qemu-system-aarch64", *MACHINE, "-global", "virtio-mmio.force-legacy=false",
               "-no-reboot", "-kernel", os.path.join(shared, "Image"), "-serial", "chardev:console",
               "-chardev", f"file,id=console,path={option_path(console)}",
               "-initrd", os.path.join(shared, "initrd"),
               "-append", f"{COMMAND_LINE} {command_line}", *disk,
               "-fsdev", f"local,id=host,path={option_path(shared)},security_model=none",
               "-device", "virtio-9p-device,fsdev=host,mount_tag=host"]
    if device_tree:
        tree = os.path.join(shared, "dtb")
        write_device_tree(tree, device_tree)
        options += ["-dtb", tree]
    try:
        result = subprocess.run(options, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, timeout=timeout, check=False)
    except subprocess.TimeoutExpired:
        raise MachineError(f"the device was still running after {timeout} s and was ended"
                           ) from None
    if result.returncode != 0:
        raise MachineError(f"QEMU ended with status {result.returncode}: "
                           + result.stdout.decode(errors="replace"))
    if not os.path.exists(os.path.join(shared, "finished")):
        raise MachineError("the device stopped before the end of its session")
