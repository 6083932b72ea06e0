"""Sessions of a shell in files: each command behind "$ ", then what it prints and does."""

import json
import subprocess


def shell_output(line):
    """What the line prints, with "2> " before standard error and a line for each member of a JSON
    object; and its status where that is not 0."""
    done = subprocess.run(["bash", "-c", line], capture_output=True, text=True, timeout=120,
                          check=False, stdin=subprocess.DEVNULL)
    out = done.stdout.splitlines()
    if done.stdout.startswith("{"):
        out = [f"{key}: {json.dumps(value)}" for key, value in json.loads(done.stdout).items()]
    return [*(f"2> {text}" for text in done.stderr.splitlines()), *out,
            *([f"[{done.returncode}]"] if done.returncode else [])]


def replay(session, run=shell_output):
    """The session as it goes now: its commands and comments, and what comes of the commands."""
    shown = []
    for line in session.splitlines():
        if line.startswith(("$ ", "# ")):
            shown += [line, *(run(line[2:]) if line[0] == "$" else [])]
    return "\n".join(shown) + "\n"
