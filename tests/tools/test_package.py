"""What is installed with tarnix-chain, and that it says what the tool does."""

import os
import pathlib
import re
import subprocess

import pytest

TOOL = os.environ["TARNIX_CHAIN"]
BUILD = pathlib.Path(TOOL).parents[1]
SOURCE = pathlib.Path(__file__).parents[2]
FILES = {"bin/tarnix-chain", "share/man/man1/tarnix-chain.1",
         "share/bash-completion/completions/tarnix-chain"}


def output(*words, **options):
    return subprocess.run(words, capture_output=True, text=True, check=True, **options).stdout


def options_of(text):
    return set(re.findall(r"--[a-z-]+", text))


def help_of(*command):
    """The options, and what stands under the heading of the commands."""
    lines = output(TOOL, *command, "--help").split("\n\n")
    options = next(part for part in lines if part.startswith("Options:"))
    commands = next((part for part in lines if part.startswith("Subcommands:")), "")
    listed = "\n".join(re.findall(r"^  (\S*--\S+)", options, re.M))
    return options_of(listed), re.findall(r"^  (\w+)", commands, re.M)


COMMANDS = help_of()[1]


@pytest.fixture(name="installed", scope="module")
def install_into_a_folder(tmp_path_factory):
    folder = tmp_path_factory.mktemp("installed")
    output("cmake", "--install", BUILD, "--prefix", folder)
    return folder


def test_installed_files_and_their_version(installed):
    files = {str(path.relative_to(installed)) for path in installed.rglob("*") if path.is_file()}
    assert files == FILES
    version = re.search(r"project\(tarnix VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text())
    assert output(installed / "bin/tarnix-chain", "--version") == f"tarnix-chain {version[1]}\n"
    page = (installed / "share/man/man1/tarnix-chain.1").read_text()
    assert f'"tarnix {version[1]}"' in page


def test_the_manual_page_has_what_the_help_has():
    page = (SOURCE / "tools/tarnix-chain.1.in").read_text().replace("\\-", "-")
    sections = dict(re.findall(r'^\.SH "?([A-Z ]+)"?\n(.*?)(?=^\.SH|\Z)', page, re.M | re.S))
    commands = dict(re.findall(r"^\.SS (\w+)\n(.*?)(?=^\.SS|\Z)", sections["COMMANDS"], re.M | re.S))
    assert list(commands) == COMMANDS
    tagged = {name: options_of("\n".join(re.findall(r"^\.TP\n(.*)", text, re.M)))
              for name, text in {**commands, "": sections["OPTIONS"]}.items()}
    for command in COMMANDS:
        assert help_of(command)[0] | {"--version"} == tagged[command] | tagged[""], command
    assert help_of()[0] <= tagged[""]
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


def test_package_for_debian(tmp_path):
    output("cpack", "-G", "DEB", "--config", BUILD / "CPackConfig.cmake", "-B", tmp_path)
    (package,) = tmp_path.glob("tarnix-chain_*.deb")
    listed = output("dpkg-deb", "-c", package).splitlines()
    assert {line.split("./usr/")[1] for line in listed if line[0] == "-"} == FILES
    depends = output("dpkg-deb", "-f", package, "Depends")
    assert "libfmt" in depends and "zlib1g" in depends
