"""What is installed with tarnix-chain, and that it says what the tool does."""

import os
import re
import subprocess
from pathlib import Path

import pytest

TOOL = os.environ["TARNIX_CHAIN"]
ROOT = Path(__file__).parents[2]
COMPLETION = "share/bash-completion/completions/tarnix-chain"


def output(*words, **options):
    return subprocess.run(words, capture_output=True, text=True, check=True, **options).stdout


def help_of(*command):
    """The options and the commands that lines begin with."""
    text = output(TOOL, *command, "--help")
    return (set(re.findall(r"^  \S*?(--[a-z-]+)", text, re.M)),
            re.findall(r"^  ([a-z]+) ", text, re.M))


COMMANDS = help_of()[1]


@pytest.fixture(name="installed", scope="module")
def install_package(tmp_path_factory):
    folder = tmp_path_factory.mktemp("package")
    output("cpack", "-G", "DEB", "--config", Path(TOOL).parents[1] / "CPackConfig.cmake", "-B",
           folder)
    package, = folder.glob("tarnix-chain_*.deb")
    assert re.search("libfmt.*zlib1g", output("dpkg-deb", "-f", package, "Depends"))
    output("dpkg-deb", "-x", package, folder / "root")
    return folder / "root/usr"


def test_files_and_their_version(installed):
    files = {str(path.relative_to(installed)) for path in installed.rglob("*") if path.is_file()}
    assert files == {"bin/tarnix-chain", "share/man/man1/tarnix-chain.1", COMPLETION}
    version = re.search(r"project\(tarnix VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())[1]
    assert output(installed / "bin/tarnix-chain", "--version") == f"tarnix-chain {version}\n"
    assert f'"tarnix {version}"' in (installed / "share/man/man1/tarnix-chain.1").read_text()


def test_the_manual_page_has_what_the_help_has():
    page = (ROOT / "tools/tarnix-chain.1.in").read_text().replace("\\-", "-")
    parts = dict(re.findall(r'^\.S[HS] "?(\w+)[^\n]*\n(.*?)(?=^\.S|\Z)', page, re.M | re.S))
    assert [name for name in parts if name.islower()] == COMMANDS
    tagged = {name: set(re.findall(r"^\.TP\n.*?(--[a-z-]+)", text, re.M))
              for name, text in parts.items()}
    for command in COMMANDS:
        told = tagged[command] | tagged["OPTIONS"]
        assert help_of(command)[0] | {"--version"} == told, command
    told = re.search(r"Exit status: (.*)\.  status", output(TOOL, "--help"), re.S)[1]
    assert re.findall(r"^\.B (\d)$", parts["EXIT"], re.M) == re.findall(r"\b\d\b", told)


@pytest.mark.parametrize("words", ["", "st", "pull --", "pull --disk image --p", "verify --d"])
def test_completion_offers_what_the_help_has(words, installed):
    words = ["tarnix-chain", *words.split(" ")]
    script = (f"source {installed / COMPLETION}\n"
              f"COMP_WORDS=({' '.join(words)} '') COMP_CWORD={len(words) - 1}\n"
              "_tarnix_chain\nprintf '%s\\n' \"${COMPREPLY[@]}\"")
    offered = output("bash", "-c", script,
                     env={**os.environ, "PATH": f"{installed}/bin:{os.environ['PATH']}"}).split()
    known = COMMANDS if len(words) == 2 else help_of(words[1])[0]
    assert offered and set(offered) == {word for word in known if word.startswith(words[-1])}
