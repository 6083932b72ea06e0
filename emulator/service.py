"""What the platform's init takes from the service's rc file: its directories and command line."""

import os

RC = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "android/tarnix.rc")
IDS = {"root": 0, "system": 1000}  # the platform's numbers


def read_rc(path):
    """The directories, as (path, mode, owner:group), and the service's command line."""
    directories, command = [], []
    with open(path, encoding="utf-8") as stream:
        lines = [line.split() for line in stream]
    for words in lines:
        if words[:1] == ["mkdir"]:
            _, directory, mode, owner, group = words
            directories.append((directory, int(mode, 8), f"{IDS[owner]}:{IDS[group]}"))
        elif words[:1] == ["service"]:
            command = words[2:]
    return directories, command


# The directories are made on userdata in this order before the service starts.
DIRECTORIES, COMMAND = read_rc(RC)
# The guard comes first; what follows "--" is the tool's, which it starts.
GUARD = COMMAND[0]
TOOL = COMMAND[COMMAND.index("--") + 1]
