"""One session of the device: what it finds when it boots, what it does, and what it leaves.

A device folder holds device.json and disk.img; root/, files of its root file system; persist/, its
persist.* properties; boot/, what the last boot saw as /host, and its log, stdout, console and
result.json; and read/, the /host of the last reading."""

import json
import os
import shlex
import shutil
import time

import firmware
import initramfs
import machine
import service

HARDWARE = "virt"
FSTAB = f"/fstab.{HARDWARE}"
FSTAB_LINE = "{links}/userdata /data {fs} noatime,nosuid,nodev wait,check,encryptable=footer\n"
COMMAND_LINE = f"androidboot.hardware={HARDWARE} androidboot.qorramdump=1"
PROPERTIES = {"ro.crypto.state": "unencrypted"}
MOUNT_OPTIONS = "noatime,nosuid,nodev"
READ_TIMEOUT = 120  # seconds


class SessionError(Exception):
    """The session ended early on the device; the message is the device's reason."""


def write_file(path, content):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as stream:
        stream.write(content)


def make_root(device, fs, links, files, with_fstab):
    """Fills a new device's root/ with its fstab and files: path on the device -> host file."""
    root = os.path.join(device, "root")
    os.makedirs(root, exist_ok=True)
    if with_fstab:
        write_file(root + FSTAB, FSTAB_LINE.format(links=links, fs=fs).encode())
    for path, source in files.items():
        write_file(os.path.join(root, path.lstrip("/")), initramfs.read_file(source))
        shutil.copymode(source, os.path.join(root, path.lstrip("/")))


def folder_files(folder):
    """Relative path -> host path of each file below the folder."""
    return {os.path.relpath(os.path.join(parent, name), folder): os.path.join(parent, name)
            for parent, _, names in os.walk(folder) for name in names}


def start(device, shared, description, script, additions, run):
    """Boots the device for one session. shared: the folder that it mounts at /host, made anew.

    script: what it does, in terms of init's functions. additions: files of its root besides those
    of root/, path on the device -> host path or bytes. run: runs the machine with the shared
    folder, the command line and the device tree, and its result is returned."""
    shutil.rmtree(shared, ignore_errors=True)
    os.makedirs(shared)
    script = f"link_partitions {description['links']}\n{script}"
    initrd = os.path.join(shared, "initrd")
    kernel = description["kernel"]
    os.symlink(os.path.join(initramfs.kernel_folder(kernel), "Image"),
               os.path.join(shared, "Image"))
    files = {**folder_files(os.path.join(device, "root")), **additions,
             "emulator/session": script.encode()}
    initramfs.make(initrd, description["fs"], kernel, files)
    tree = {name: bytes.fromhex(value) for name, value in description["device_tree"].items()}
    try:
        result = run(shared, description["cmdline"], tree)
    finally:
        os.remove(initrd)
    finished = os.path.join(shared, "finished")
    reason = initramfs.read_file(finished).decode().strip() if os.path.exists(finished) else ""
    if reason:
        raise SessionError(f"on the device: {reason}")
    return result


def service_script(fs, runs, uid, wrap, scripts):
    """What the device does at a start. runs: number -> command line of the run. The rest as boot()
    takes it."""
    lines = ["fill_properties", f"mount_data {fs} {MOUNT_OPTIONS}"]
    lines += [f"make_directory {path} {mode:o} {owner}"
              for path, mode, owner in service.DIRECTORIES]
    lines += ["script before"] if "before" in scripts else []
    lines += [shlex.join(["run", str(number), str(uid), *wrap, *command])
              for number, command in runs.items()]
    lines += ["script after"] if "after" in scripts else []
    lines += ["list_properties /host/properties", "is_up"]
    return "\n".join(lines) + "\n"


def number_runs(runs, events, cut_power):
    """For each start of the device what ends it, and number -> command line of its runs:
    all of them, unless it crashes before the service or power is cut before the system starts."""
    starts, count = [], 0
    for event in [*events, "off"]:
        without = event == "early-panic" or event == "off" and cut_power
        starts.append((event, {} if without else dict(enumerate(runs, count + 1))))
        count += len(starts[-1][1])
    return starts


def session_script(fs, starts, uid, wrap, scripts):
    """starts: as number_runs() gives them. The rest as boot() takes it."""
    script = "case $starts in\n"
    for number, (event, runs) in enumerate(starts, 1):
        script += f"{number})\n"
        script += service_script(fs, runs, uid, wrap, scripts) if event != "early-panic" else ""
        script += f"leave_by {event}\n" if event != "off" else ""
        script += ";;\n"
    return script + "esac\n"


def parse_properties(path):
    lines = initramfs.read_file(path).decode(errors="replace").splitlines()
    return dict(line.split("=", 1) for line in lines)


def run_result(folder, arguments):
    def words(name):
        return initramfs.read_file(os.path.join(folder, name)).decode().split()
    start_time, end_time = words("uptime")
    return {"arguments": arguments, "status": int(words("status")[0]),
            # busybox takes the kernel's KiB for pages of 4 KiB.
            "rss_kib": int(words("rss")[-1]) // 4,
            "seconds": round(float(end_time) - float(start_time), 2),
            "properties": parse_properties(os.path.join(folder, "properties"))}


def collect_output(device):
    """Joins the runs' output, of an unfinished session too, into the folder's log and stdout."""
    shared = os.path.join(device, "boot")
    runs = sorted((name for name in os.listdir(shared) if name.isdigit()), key=int)
    for output in ("log", "stdout"):
        paths = [os.path.join(shared, run, output) for run in runs]
        write_file(os.path.join(device, output),
                   b"".join(initramfs.read_file(path) for path in paths if os.path.exists(path)))
    if os.path.exists(os.path.join(shared, "console")):
        shutil.copy(os.path.join(shared, "console"), os.path.join(device, "console"))


def stored_properties(device, description):
    """What the store holds at start besides androidboot.*: the persistent ones win."""
    persistent = {key: initramfs.read_file(path).decode()
                  for key, path in folder_files(os.path.join(device, "persist")).items()}
    return {**description["properties"], **persistent}


def boot(device, description, run, commands, *, uid=0, wrap=(), scripts=None, files=None,
         properties=None, events=(), cut_power=False):
    """Boots the device and returns the tool's exit status: with several runs the first that is not 0.

    run: starts the machine, as start() takes it; what it returns is stored as "resets".
    commands: the command lines of the runs. uid, wrap: the user that they run as, and the words
    before each. scripts: "before" and "after" the runs -> host file. files: path on the device ->
    host path. properties: key -> value, beside those of the store.
    events, cut_power: what ends each start but the last, and whether the last one is cut short."""
    scripts = scripts or {}
    starts = number_runs(commands, events, cut_power)
    stored = {**stored_properties(device, description), **(properties or {})}
    additions = {**(files or {}), **{f"emulator/{name}": path for name, path in scripts.items()},
                 **{f"emulator/properties/{key}": value.encode() for key, value in stored.items()}}
    for stale in ("log", "stdout", "console", "result.json"):
        if os.path.exists(os.path.join(device, stale)):
            os.remove(os.path.join(device, stale))
    shared = os.path.join(device, "boot")
    start_time = time.monotonic()
    try:
        resets = start(device, shared, description,
                       session_script(description["fs"], starts, uid, wrap, scripts), additions, run)
    finally:
        seconds = round(time.monotonic() - start_time, 2)
        collect_output(device)
    results = [run_result(os.path.join(shared, str(number)), command[1:])
               for _, numbered in starts for number, command in numbered.items()]
    properties = parse_properties(os.path.join(shared, "properties"))
    for key, value in properties.items():
        if key.startswith("persist."):
            write_file(os.path.join(device, "persist", key), value.encode())
    status = next((result["status"] for result in results if result["status"] != 0), 0)
    result = {"status": status, "runs": results, "properties": properties, "seconds": seconds}
    if resets is not None:
        result["resets"] = resets
        result["boot_application"] = firmware.application_lines(os.path.join(device, "console"))
    write_file(os.path.join(device, "result.json"), json.dumps(result, indent=1).encode())
    return status


def read(device, description, paths, with_content):
    """Has the device list what lies at and below the paths of userdata; its disk does not change.

    Returns [(mode, uid, gid, size, path)], a folder before what is in it, and the host folder that
    then holds the files' bytes below their paths."""
    words = shlex.join(paths) + "\n"
    script = f"mount_data {description['fs']} ro\nlist_files {words}"
    script += f"copy_files {words}" if with_content else ""
    shared = os.path.join(device, "read")
    disk = machine.disk_options(os.path.join(device, "disk.img"), snapshot=True)
    start(device, shared, description, script, {},
          lambda folder, command_line, tree: machine.run(folder, command_line, disk, tree,
                                                         READ_TIMEOUT))
    lines = initramfs.read_file(os.path.join(shared, "list")).decode(errors="surrogateescape")
    entries = [line.split(" ", 4) for line in lines.splitlines()]
    return ([(int(mode, 16), int(uid), int(gid), int(size), path)
             for mode, uid, gid, size, path in entries], os.path.join(shared, "files"))
