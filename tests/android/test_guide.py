"""The guide's commands, as a new integrator follows them on the emulated device, its links, and its
tables of messages against those in the sources."""

import re
import shutil

from emulated import REPO, device, run
from shell_session import replay
from test_policy import ROOMS

PAGES = {path: path.read_text() for path in (REPO / "README.md", REPO / "emulator/README.md",
                                             *(REPO / "docs").glob("*.md"))}
INTEGRATION, TROUBLE = (PAGES[REPO / "docs" / name] for name in ("integration.md",
                                                                "troubleshooting.md"))
FOLDER = REPO / "build/first-dump"  # the commands'
STRING = r'"(?:[^"\\]|\\.)*"'
PRIORITIES = {"log_info": "I", "log_warn": "W", "log_error": "E", "guard_info": "I",
              "guard_error": "E", "printf": "out", "LOG": "E", "PLOG": "E", "CHECK": "F",
              "next_field": "E"}
# A call up to its last string that is not an argument of a format.
CALL = re.compile(rf"(?<!\*)\b({'|'.join(PRIORITIES)})\([^;\"]*"
                  rf"({STRING}(?:\s*(?:<<)?\s*(?:{STRING}|\w+))*)")
CONVERSION = re.compile(r"%[-#0-9]*(?:l|ll|z)?[diuxsc]")
# What comes before the text of these two.
PREFIXES = {"CHECK": "Check failed: out_val != nullptr ", "next_field": "[libfs_mgr]"}


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


def test_the_emulated_adb_is_as_strict_as_a_phone(tmp_path, monkeypatch, file_regression):
    device("make", tmp_path / "phone", "--size", "64M", "--prop", "ro.sf=1")
    monkeypatch.setenv("ANDROID_SERIAL", str(tmp_path / "phone"))
    monkeypatch.setenv("PATH", f"{REPO}/emulator/phone", prepend=":")
    session = REPO / "tests/android/adb.txt"
    file_regression.check(replay(session.read_text()), fullpath=session)


def test_links_lead_somewhere():
    # A place in a page is a heading, as it is shown on the web.
    headings = {f"{page}#" + re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")
                for page, text in PAGES.items() for heading in re.findall("^#+ (.*)", text, re.M)}
    for page, text in PAGES.items():
        for path, anchor in re.findall(r"\]\(([^)#]*)(#?[^)]*)\)", text):
            there = (page.parent / path).resolve() if path else page
            assert there.exists() and (not anchor or f"{there}{anchor}" in headings), path + anchor


def source_messages():
    """{(text, priority)} of every message that the program can write, with % for what varies."""
    found = set()
    for path in (path for room in ROOMS for path in (REPO / room).glob("*.cpp")):
        text = re.sub(r"//.*", "", path.read_text())
        # The usage is one message of many lines.
        text = re.sub(r'(log_info\("usage.*?;).*?^}', r"\1", text, flags=re.M | re.S)
        for call, arguments in CALL.findall(text):
            strings = re.findall(STRING, re.sub(r"<<\s*\w+", '"%"', arguments))
            message = CONVERSION.sub("%", "".join(text[1:-1] for text in strings))
            found.add((PREFIXES.get(call, "") + message.replace("\\n", "")
                       + (": %" if call == "PLOG" else ""), PRIORITIES[call]))
    return found - {("[libfs_mgr]%", "E")}  # passes on what is found elsewhere


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
    assert explained == messages
