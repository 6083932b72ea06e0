"""docs/integration.md: its commands, as a new integrator follows them on the emulated device, and
its tables of messages against those in the sources."""

import re
import shutil

from emulated import REPO, run
from test_build import ROOMS

GUIDE = (REPO / "docs/integration.md").read_text()
FOLDER = REPO / "build/first-dump"  # the commands'
STRING = r'"(?:[^"\\]|\\.)*"'
CALL = re.compile(rf"\b(log_\w+|\w*printf|P?LOG|CHECK|next_field)\(((?:{STRING}|[^;\"])*);")
CONVERSION = re.compile(r"%[-#0-9]*(?:l|ll|z)?[diuxsc]")
PRIORITIES = {"log_info": "I", "log_warn": "W", "log_error": "E", "printf": "out", "LOG": "E",
              "PLOG": "E", "CHECK": "F", "next_field": "E"}


def test_the_commands_end_with_a_dump():
    shutil.rmtree(FOLDER, ignore_errors=True)
    commands = "\n".join(re.findall(r"^```sh\n(.*?)^```$", GUIDE, re.M | re.S))
    shown = run("bash", "-euxo", "pipefail", "-c", commands, cwd=REPO).stdout
    milestones = re.findall("^valid$|Read 262143 blocks successfully|^done$", shown, re.M)
    assert milestones == ["valid", "Read 262143 blocks successfully", "done"], shown
    written, fetched = ({path.name: path.read_bytes() for path in folder.iterdir()}
                        for folder in (FOLDER / "phone/crash", FOLDER / "apq/00"))
    assert written and fetched == written
    collected = (FOLDER / "device.txt").read_text()
    assert all(text in collected for text in ("72644842", "/data ext4", "apq/00", "Linux version"))


def strings(text):
    return "".join(piece[1:-1].replace("\\n", "") for piece in re.findall(STRING, text))


def message_of(call, arguments):
    """The text that a call writes, with % for whatever varies; None for a call that writes none."""
    if call in ("log_info", "log_warn", "log_error", "printf"):
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
    for section in re.split("^### Messages of a .* run$", GUIDE, flags=re.M)[1:]:
        rows = re.search(r"(?:^\|.*\n)+", section, flags=re.M)[0].splitlines()[2:]
        for texts, priorities, *_ in (row.strip("| ").split(" | ") for row in rows):
            sources = {source_of(shown, messages) for shown in re.findall("`([^`]+)`", texts)}
            assert {priority for _, priority in sources} == set(priorities.split(", ")), texts
            explained |= sources
    missing = sorted(messages - explained)
    assert not missing, f"docs/integration.md lacks: {missing}"
