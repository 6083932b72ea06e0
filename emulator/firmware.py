"""Starts the emulated machine through the firmware, and lets it crash: QEMU keeps its RAM over a
reset, the boot application saves it, and the device starts again, all in one QEMU process."""

import contextlib
import dataclasses
import json
import os
import queue
import re
import subprocess
import threading
import time

import machine

MIB = 1 << 20
RAM_START = 0x40000000
# The parts of the RAM that the firmware writes to on its way to the boot application, with room to
# spare: kept from the system, as a phone's maker would. The last of them ends with the RAM.
FIRMWARE_RAM = ((RAM_START, MIB), (0x44000000, MIB), (0x47000000, 16 * MIB))
FIRMWARE_TOP = 64 * MIB
# What the boot application and the system share.
CRASH_PAGE, CRASH_PAGE_SIZE = 0x43f00000, 0x1000
LOG, LOG_SIZE = 0x43f10000, 0x10000

APPLICATION_LINE = re.compile(r"ramdump: [^\r\n]*")
# While power is cut in the middle of a dump, the disk takes so many bytes a second.
SLOW_DISK = 64 * MIB


@dataclasses.dataclass
class Running:
    """A QEMU process that is told what to do in QEMU's machine protocol, over its standard input
    and output."""
    process: subprocess.Popen
    lines: queue.Queue  # of what it says; None is its end
    errors: str  # file of its error messages
    events: list  # that came while a command's answer was awaited


def reserved_nodes(memory):
    """The nodes of memory that is not the system's, of a machine with so many MiB. The firmware's
    runtime services run in its part, so the system must be able to map it; the crash page must not
    be mapped, since /dev/mem gives nothing else out."""
    ranges = [*FIRMWARE_RAM, (RAM_START + memory * MIB - FIRMWARE_TOP, FIRMWARE_TOP)]
    nodes = "".join(f"firmware@{start:x} {{ reg = <0 {start:#x} 0 {size:#x}>; }};\n"
                    for start, size in ranges)
    return f"""/ {{ reserved-memory {{
#address-cells = <2>; #size-cells = <2>; ranges;
{nodes}
crash-page@{CRASH_PAGE:x} {{
    compatible = "tarnix,crash-page"; no-map; reg = <0 {CRASH_PAGE:#x} 0 {CRASH_PAGE_SIZE:#x}>;
}};
ramoops@{LOG:x} {{
    compatible = "ramoops"; record-size = <{LOG_SIZE // 2:#x}>;
    console-size = <{LOG_SIZE // 2:#x}>; reg = <0 {LOG:#x} 0 {LOG_SIZE:#x}>;
}};
}}; }};
"""


@contextlib.contextmanager
def running(command, errors, timeout):
    with open(errors, "wb") as stream, \
            subprocess.Popen([*command, "-chardev", "stdio,id=protocol",
                              "-mon", "chardev=protocol,mode=control"], text=True, stderr=stream,
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
        lines = queue.Queue()

        def listen():
            for line in process.stdout:
                lines.put(json.loads(line))
            lines.put(None)

        threading.Thread(target=listen, daemon=True).start()
        timer = threading.Timer(timeout, process.kill)
        timer.start()
        try:
            yield Running(process, lines, errors, [])
        finally:
            timer.cancel()
            process.kill()


def next_line(qemu, seconds):
    """What QEMU says next, or None if it says nothing for so long."""
    try:
        line = qemu.lines.get(timeout=seconds)
    except queue.Empty:
        return None
    if line is None:
        with open(qemu.errors, encoding="utf-8", errors="replace") as stream:
            raise machine.MachineError("QEMU ended, or was still running at the time limit and was "
                                       f"ended: {stream.read()}")
    return line


def execute(qemu, command, **arguments):
    """Returns the command's result."""
    qemu.process.stdin.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
    qemu.process.stdin.flush()
    while True:
        line = next_line(qemu, None)
        if "return" in line:
            return line["return"]
        if "error" in line:
            raise machine.MachineError(f"QEMU refused {command}: {line['error']['desc']}")
        qemu.events.append(line)


def next_event(qemu, name, is_asked=lambda: False):
    """Waits for the event and returns its data, or None once is_asked() says so."""
    while not is_asked():
        line = qemu.events.pop(0) if qemu.events else next_line(qemu, 0.05)
        if line and line.get("event") == name:
            return line["data"]
    return None


def wait_for_stop(qemu, hang):
    """Waits until the device powers off, resets or hangs, for which it makes the file `hang`. The
    machine stands still then. Returns whether it has powered off."""
    data = next_event(qemu, "SHUTDOWN", lambda: os.path.exists(hang))
    if data is None:
        os.remove(hang)
        execute(qemu, "stop")
    return data is not None and data["reason"] != "guest-reset"


def written_bytes(qemu):
    return execute(qemu, "query-blockstats")[0]["stats"]["wr_bytes"]


def limit_disk(qemu, reads, writes):
    """Lets the disk take no more than these bytes a second; 0: as many as it can."""
    execute(qemu, "block_set_io_throttle", id="disk", bps=0, bps_rd=reads, bps_wr=writes, iops=0,
            iops_rd=0, iops_wr=0)


def end_in_dump(qemu, memory):
    """Lets the machine start and ends it when about half of the RAM has been saved."""
    before = written_bytes(qemu)
    limit_disk(qemu, 0, SLOW_DISK)
    go_on(qemu)
    while written_bytes(qemu) - before < memory * MIB // 2:
        time.sleep(0.05)


def go_on(qemu):
    """A reset, and the start after it."""
    execute(qemu, "set-action", reboot="reset")
    execute(qemu, "system_reset")
    next_event(qemu, "RESET")
    execute(qemu, "set-action", reboot="shutdown")
    execute(qemu, "cont")


def run(shared, command_line, disk, device_tree, *, boot_application, memory, events, disk_speed,
        save_ram, cut_power, timeout):
    """Starts the machine, and again after each crash, until the device powers off.

    boot_application: what the firmware starts. memory: MiB. events: what the device is going to do,
    "off" at the end left out. disk_speed: as limit_disk() takes it, or None. save_ram: folder that
    receives the RAM as it was at each reset, as 1.bin and so on, or None. cut_power: whether QEMU
    ends in the middle of the dump of the last crash. timeout: seconds.
    Returns for each reset the event and how many bytes had been written to the disk until then."""
    own_machine = [*machine.MACHINE, *machine.FIRMWARE_MACHINE, "-m", str(memory)]
    tree = os.path.join(shared, "dtb")
    machine.write_device_tree(tree, own_machine, device_tree, reserved_nodes(memory))
    kernel = machine.option_path(os.path.join(shared, "Image"))
    command = machine.qemu_command(shared, own_machine, disk) + [
        "-dtb", tree, "-kernel", boot_application,
        "-fw_cfg", f"name=opt/tarnix/kernel,file={kernel}",
        "-append", f"{machine.FIRMWARE_COMMAND_LINE} {command_line}",
        # To look at the RAM before it goes on.
        "-action", "reboot=shutdown,shutdown=pause"]
    resets = []
    with running(command, os.path.join(shared, "errors"), timeout) as qemu:
        execute(qemu, "qmp_capabilities")
        if disk_speed:
            limit_disk(qemu, *disk_speed)
        while not wait_for_stop(qemu, os.path.join(shared, "hang")):
            if len(resets) == len(events):
                raise machine.MachineError("the device was reset once more than it was told to")
            resets.append({"event": events[len(resets)],
                           "written_bytes": written_bytes(qemu)})
            if save_ram:
                execute(qemu, "pmemsave", val=RAM_START, size=memory * MIB,
                        filename=os.path.join(save_ram, f"{len(resets)}.bin"))
            if cut_power and len(resets) == len(events):
                end_in_dump(qemu, memory)
                return resets
            go_on(qemu)
    machine.check_end(shared, 0, "")
    return resets


def application_lines(console):
    """What the boot application has printed, of all starts."""
    with open(console, encoding="utf-8", errors="replace", newline="") as stream:
        return APPLICATION_LINE.findall(stream.read())
