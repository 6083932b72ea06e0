"""What is installed with tarnix-chain, and that it says what the tool does."""

import os
import re
import subprocess
from pathlib import Path

import pytest

TOOL = os.environ["TARNIX_CHAIN"]
BUILD = Path(TOOL).parents[1]
SOURCE = Path(__file__).parents[2]


def output(*words, **options):
    return subprocess.run(words, capture_output=True, text=True, check=True, **options).stdout


def options_of(text):
    return set(re.findall(r"--[a-z-]+", text))


def help_of(*command):
    """The options, and what stands under the heading of the commands."""
    text = output(TOOL, *command, "--help")
    commands = re.search(r"^Subcommands:\n((?:  .*\n)*)", text, re.M)
    return (options_of("\n".join(re.findall(r"^  (\S*--\S+)", text, re.M))),
            re.findall(r"^  (\w+)", commands[1], re.M) if commands else [])


COMMANDS = help_of()[1]


@pytest.fixture(name="installed", scope="module")
def install_package(tmp_path_factory):
    folder = tmp_path_factory.mktemp("package")
    output("cpack", "-G", "DEB", "--config", BUILD / "CPackConfig.cmake", "-B", folder)
    package, = folder.glob("tarnix-chain_*.deb")
    depends = output("dpkg-deb", "-f", package, "Depends")
    assert "libfmt" in depends and "zlib1g" in depends
    output("dpkg-deb", "-x", package, folder / "root")
    return folder / "root/usr"


def test_files_and_their_version(installed):
    files = {str(path.relative_to(installed)) for path in installed.rglob("*") if path.is_file()}
    assert files == {"bin/tarnix-chain", "share/man/man1/tarnix-chain.1",
                     "share/bash-completion/completions/tarnix-chain"}
    version = re.search(r"project\(tarnix VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())
    assert output(installed / "bin/tarnix-chain", "--version") == f"tarnix-chain {version[1]}\n"
    page = (installed / "share/man/man1/tarnix-chain.1").read_text()
    assert f'"tarnix {version[1]}"' in page


def test_the_manual_page_has_what_the_help_has():
    page = (SOURCE / "tools/tarnix-chain.1.in").read_text().replace("\\-", "-")
    sections = dict(re.findall(r'^\.SH "?([A-Z ]+)"?\n(.*?)(?=^\.SH|\Z)', page, re.M | re.S))
    parts = dict(re.findall(r"^\.SS (\w+)\n(.*?)(?=^\.SS|\Z)", sections["COMMANDS"], re.M | re.S))
    assert list(parts) == COMMANDS
    tagged = {name: options_of("\n".join(re.findall(r"^\.TP\n(.*)", text, re.M)))
              for name, text in {**parts, "": sections["OPTIONS"]}.items()}
    for command in COMMANDS:
        assert help_of(command)[0] | {"--version"} == tagged[command] | tagged[""], command
    told = re.search(r"Exit status: (.*)\.  status", output(TOOL, "--help"), re.S)[1]
    assert re.findall(r"^\.B (\d)$", sections["EXIT STATUS"], re.M) == re.findall(r"\b\d\b", told)


@pytest.mark.parametrize("words", ["", "st", "pull --", "pull --disk image --p", "verify --d"])
def test_completion_offers_what_the_help_has(words, installed):
    words = ["tarnix-chain", *words.split(" ")]
    script = (f"source {installed}/share/bash-completion/completions/tarnix-chain\n"
              f"COMP_WORDS=({' '.join(words)} '') COMP_CWORD={len(words) - 1}\n"
              "_tarnix_chain\nprintf '%s\\n' \"${COMPREPLY[@]}\"")
    offered = output("bash", "-c", script,
                     env={**os.environ, "PATH": f"{installed}/bin:{os.environ['PATH']}"}).split()
    known = COMMANDS if len(words) == 2 else help_of(words[1])[0]
    assert offered and set(offered) == {word for word in known if word.startswith(words[-1])}
