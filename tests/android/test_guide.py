"""The guide's commands, as a new integrator follows them on the emulated device, its links, and its
tables of messages against those in the sources."""

import os
import re
import shutil

from emulated import REPO, device, run
from test_build import ROOMS

PAGES = {path: path.read_text()
         for path in (REPO / "README.md", REPO / "emulator/README.md", *(REPO / "docs").glob("*.md"))}
INTEGRATION, TROUBLE = (PAGES[REPO / "docs" / name] for name in ("integration.md",
                                                                "troubleshooting.md"))
FOLDER = REPO / "build/first-dump"  # the commands'
STRING = r'"(?:[^"\\]|\\.)*"'
CALL = re.compile(rf"\b((?:log|guard)_\w+|\w*printf|P?LOG|CHECK|next_field)\(((?:{STRING}|[^;\"])*);")
CONVERSION = re.compile(r"%[-#0-9]*(?:l|ll|z)?[diuxsc]")
PLAIN = {"log_info": "I", "log_warn": "W", "log_error": "E", "guard_info": "I", "guard_error": "E",
         "printf": "out"}
PRIORITIES = {**PLAIN, "LOG": "E", "PLOG": "E", "CHECK": "F", "next_field": "E"}


def test_the_commands_end_with_a_dump():
    shutil.rmtree(FOLDER, ignore_errors=True)
    commands = "\n".join(re.findall(r"^```sh\n(.*?)^```$", INTEGRATION + TROUBLE, re.M | re.S))
    shown = run("bash", "-euxo", "pipefail", "-c", commands, cwd=REPO).stdout
    # The first start, its test, the dump's extraction; then the test of the map made anew.
    milestones = re.findall("Read 262143 blocks successfully|main: grant .* finished", shown)
    assert [text[:4] for text in milestones] == ["Read", "main", "Read"], shown
    device("read", FOLDER / "phone", "/data/vendor/ramdump/apq", "-o", FOLDER / "now")
    # What was fetched, and what was extracted once more after its flag was set again.
    written, fetched, again = (
        {path.name: path.read_bytes() for path in (FOLDER / folder).iterdir()}
        for folder in ("phone/crash", "apq/00", "now/data/vendor/ramdump/apq/01"))
    assert written and fetched == written and again == written
    collected = (FOLDER / "device.txt").read_text()
    assert all(text in collected for text in ("72644842", "/data ext4", "apq/00", "Linux version",
                                              "androidboot.qorramdump=1"))


def test_the_emulated_adb_is_as_strict_as_a_phone(tmp_path):
    device("make", tmp_path / "phone", "--size", "64M", "--prop", "ro.sf=1")
    environment = {**os.environ, "ANDROID_SERIAL": str(tmp_path / "phone")}

    def adb(*words):
        result = run(REPO / "emulator/phone/adb", *words, accept=range(256), env=environment)
        return result.returncode, (result.stdout + result.stderr).strip()

    needs_root = {
        "shell echo c > /proc/sysrq-trigger": (1, "sh: can't create /proc/sysrq-trigger: "
                                                  "Permission denied"),
        "shell ls /data/vendor": (1, "ls: /data/vendor: Permission denied"),
        "shell /vendor/bin/tarnix": (126, "/system/bin/sh: /vendor/bin/tarnix: can't execute: "
                                          "Permission denied"),
        "shell setprop vendor.tarnix.start 1": (1, "setprop: failed to set property "
                                                   "'vendor.tarnix.start' to '1'"),
        f"pull /data/vendor {tmp_path}": (1, "adb: error: failed to stat remote object "
                                             "'/data/vendor': Permission denied"),
        "shell getprop persist.vendor.tarnix.map": (0, "")}
    adb("root")
    assert adb("shell", "setprop persist.vendor.tarnix.map kept") == (0, "")
    assert adb("shell", "getprop persist.vendor.tarnix.map") == (0, "kept")
    adb("reboot")
    assert adb("wait-for-device") == (0, "")
    assert "security on" not in adb("logcat", "-d")[1], "the service has run by then"
    assert {words: adb(*words.split(" ", 1)) if words.startswith("shell") else adb(*words.split())
            for words in needs_root} == needs_root
    assert "security on" in adb("logcat", "-d")[1]
    adb("root")
    assert adb("shell", "getprop persist.vendor.tarnix.map") == (0, "kept")


def anchors(text):
    """What a link to a place in the page may name: its headings, as they are shown on the web."""
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")
            for heading in re.findall(r"^#+ (.*)$", text, re.M)}


def test_links_lead_somewhere():
    broken = [f"{page.name}: {target}" for page, text in PAGES.items()
              for target in re.findall(r"\]\(([^)]+)\)", text)
              for path, _, anchor in [target.partition("#")]
              for there in [(page.parent / path).resolve() if path else page]
              if not there.exists() or anchor and anchor not in anchors(PAGES[there])]
    assert not broken


def strings(text):
    return "".join(piece[1:-1].replace("\\n", "") for piece in re.findall(STRING, text))


def message_of(call, arguments):
    """The text that a call writes, with % for whatever varies; None for a call that writes none."""
    if call in PLAIN:
        return CONVERSION.sub("%", strings(re.match(rf"(?:\s*{STRING})+", arguments)[0]))
    if call == "next_field":
        # The message is its last argument. The definition has none.
        return "[libfs_mgr]" + strings(arguments) if arguments.endswith('")') else None
    if call not in PRIORITIES or arguments.endswith("missing"):
        return None  # prints into memory; or what next_field passes on
    condition, *pieces = re.split(r"\s*<<\s*", arguments)
    text = "".join(strings(piece) or "%" for piece in pieces)
    if call == "CHECK":
        return f"Check failed: {condition[:-1]} {text}"
    return text + (": %" if call == "PLOG" else "")


def source_messages():
    """{(text, priority)} of every message that the program can write."""
    found = set()
    for path in (path for room in ROOMS for path in (REPO / room).glob("*.cpp")):
        text = re.sub(r"//.*", "", path.read_text())
        # The usage is one message of many lines.
        text = re.sub(r'(log_info\("usage.*?;).*?^}', r"\1", text, flags=re.M | re.S)
        found |= {(message_of(*call), PRIORITIES.get(call[0])) for call in CALL.findall(text)}
    return {message for message in found if message[0] is not None}


def source_of(shown, messages):
    """The source message that the guide shows: of those that fit, the one with the longest text."""
    fitting = [message for message in messages
               if re.fullmatch(".+".join(map(re.escape, message[0].split("%"))), shown)]
    assert fitting, f"no source writes: {shown}"
    return max(fitting, key=lambda message: len(message[0].replace("%", "")))


def test_every_message_is_explained_and_every_explained_message_exists():
    messages, explained = source_messages(), set()
    tables = re.findall(r"^\| message \| as \|.*\n\|.*\n((?:\|.*\n)+)", TROUBLE, re.M)
    for texts, priority, *_ in (row.strip("| ").split(" | ") for table in tables
                                for row in table.splitlines()):
        sources = {source_of(shown, messages) for shown in re.findall("`([^`]+)`", texts)}
        assert {found for _, found in sources} == {priority}, texts
        explained |= sources
    missing = sorted(messages - explained)
    assert not missing, f"docs/troubleshooting.md lacks: {missing}"
