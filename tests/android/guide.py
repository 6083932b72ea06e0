"""docs/integration.md as the tests read it."""

import re
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
TEXT = (REPO / "docs/integration.md").read_text()


def table(heading):
    """The rows of the first table below a heading, as lists of cells."""
    section = re.split(rf"^#+ {re.escape(heading)}$", TEXT, flags=re.M)[1]
    rows = re.search(r"(?:^\|.*\n)+", section, flags=re.M)[0].splitlines()[2:]
    return [[cell.strip() for cell in row.strip("|").split(" | ")] for row in rows]


def commands():
    """The blocks of shell commands, in order, as one script."""
    return "\n".join(re.findall(r"^```sh\n(.*?)^```$", TEXT, flags=re.M | re.S))
