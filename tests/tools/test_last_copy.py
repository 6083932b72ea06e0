"""The only copy of a dump, damaged, cut, swapped: what is said of it, and what is saved."""

import json
import os
import re
import resource
import signal
import subprocess

import pytest
from chain_image import Image

TOOL = os.environ["TARNIX_CHAIN"]
PAYLOAD = 4096 - 12
FILES = {"first": b"1" * 5000, "long": b"2" * (100 * PAYLOAD), "last": b"3" * 5000}


def run(command, image, *arguments, **options):
    return subprocess.run([TOOL, command, *image.arguments, *arguments], capture_output=True,
                          text=True, timeout=60, check=False, **options)


def pulled(folder):
    return {path.name: path.read_bytes() for path in folder.iterdir()}


@pytest.fixture(name="image")
def image_with_a_dump(tmp_path):
    image = Image(tmp_path, list(range(100, 400)))
    words = []
    for name, data in FILES.items():
        (tmp_path / name).write_bytes(data)
        words.append(f"{name}={tmp_path / name}")
    assert run("write", image, *words).returncode == 0
    return image


def cut(blocks):
    return lambda image: os.truncate(image.data, blocks * 4096 + 100)


def swap(image):
    image.arguments = ["--misc", image.data, "--data", image.misc]


def write_that_failed(image):
    """The flag cleared, the first of the new dump's blocks written."""
    image.set_anchor()
    image.poke(100, b"F1Le" + b"new".ljust(20, b"\0") + (50 * PAYLOAD).to_bytes(8, "little"), 12)


# What is done to a chain of 300 blocks; what verify and pull say of it, what neither says, what is
# saved and with which status.
SHORT = "this copy is short"
DELETE = "delete the map"
CASES = {
    "cut behind the first file": (
        cut(150), f"{SHORT} (614500 of at least 1232896 bytes)", DELETE,
        {"first": 5000, "long.partial": 50 * PAYLOAD - 5000 - 2 * 40}, 1),
    "cut behind the dump": (cut(350), f"{SHORT} (1433700 of at least 1437696 bytes)", DELETE,
                            {name: len(data) for name, data in FILES.items()}, 0),
    "cut before the chain": (cut(50), SHORT, DELETE, None, 1),
    "swapped": (swap, "misc and the data partition are swapped", "start the device", None, 1),
    "data of another device": (lambda image: image.data.write_bytes(bytes(2048 * 4096)),
                               "next: first see that misc and the data", DELETE, {}, 1),
    "misc of another device": (lambda image: image.set_anchor(first=77, seed=1, flags=3),
                               "next: first see that misc and the data", DELETE, {}, 1),
    "damaged before the dump is saved": (
        lambda image: image.poke(200, b"gone"), "next: save with pull", DELETE,
        {"first": 5000, "long.partial": 100 * PAYLOAD - 5000 - 2 * 40}, 1),
    "comes back": (
        lambda image: image.set_link(20, 105), "comes back to a block", DELETE,
        {"first": 5000, "long.partial": 21 * PAYLOAD - 5000 - 2 * 40}, 1),
    "comes back behind a damage": (
        lambda image: (image.set_link(20, 105), image.poke(102, b"\1\2\3\4", 8)),
        "does not match its CRC", DELETE,
        {"first": 5000, "long.partial": 21 * PAYLOAD - 5000 - 2 * 40}, 1),
    "torn": (write_that_failed, "", "0 incomplete",
             {"new": 50 * PAYLOAD}, 1),
}


@pytest.mark.parametrize("case", CASES)
def test_what_is_said_and_saved(case, image, tmp_path):
    damage, says, never, saved, code = CASES[case]
    damage(image)
    before = image.digest()
    verified = run("verify", image)
    done = run("pull", image, tmp_path / "out")
    told = json.loads(run("status", image, "--json").stdout)
    said = run("status", image).stdout.replace("next  ", "next:")
    assert done.returncode == code and image.digest() == before
    assert says in re.sub(" +", " ", verified.stderr + verified.stdout)
    assert says in re.sub(" +", " ", said)
    assert never not in verified.stderr + done.stderr + done.stdout + said
    if saved is None:
        assert not (tmp_path / "out").exists() and "dump" not in told
        return
    assert {name: len(data) for name, data in pulled(tmp_path / "out").items()} == saved
    assert told["dump"]["whole"] == (code == 0)
    assert json.loads(run("pull", image, tmp_path / "new", "--json").stdout)["dump"]["whole"] == (
        code == 0)


def test_pull_goes_on_where_it_was_left(image, tmp_path):
    out = tmp_path / "out"
    assert run("pull", image, out).returncode == 0
    (out / "first").unlink()
    kept = (out / "long").stat()
    again = run("pull", image, out)
    assert again.returncode == 0 and "1 written to" in again.stdout
    assert "2 already there" in again.stdout and (out / "long").stat() == kept
    for other in (b"4" * 5000, b"4"):
        (out / "last").write_bytes(other)
        assert run("pull", image, out).returncode == 1
        assert pulled(out) == {**FILES, "last": other}
    assert run("pull", image, out, "--force").returncode == 0 and pulled(out) == FILES


def test_force_spares_the_image(image, tmp_path):
    (tmp_path / "first").unlink()
    os.link(image.misc, tmp_path / "first")
    (tmp_path / "last").unlink()
    (tmp_path / "last").symlink_to(image.data)
    before = image.digest()
    done = run("pull", image, tmp_path, "--force")
    assert done.returncode == 1 and "first is the image that is read" in done.stderr
    assert image.digest() == before
    assert (tmp_path / "first").samefile(image.misc) and not (tmp_path / "last").is_symlink()


def test_a_file_that_cannot_be_written_leaves_nothing(image, tmp_path):
    limit = (20000, 20000)
    done = run("pull", image, tmp_path / "out",
               preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, limit))
    assert done.returncode == 3 and "2 written to" in done.stdout and "1 not written" in done.stdout
    assert pulled(tmp_path / "out") == {name: FILES[name] for name in ("first", "last")}


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_leaves_nothing(number, tmp_path):
    image, out = Image(tmp_path, list(range(100, 2000))), tmp_path / "out"
    (tmp_path / "large").write_bytes(b"x" * (1800 * PAYLOAD))
    assert run("write", image, f"large={tmp_path / 'large'}").returncode == 0
    for _ in range(50):
        # Again where it was done before the signal could reach it.
        for path in out.glob("*"):
            path.unlink()
        out.mkdir(exist_ok=True)
        with subprocess.Popen([TOOL, "pull", *image.arguments, out]) as tool:
            while not list(out.iterdir()) and tool.poll() is None:
                pass
            tool.send_signal(number)
        if tool.returncode != 0:
            break
    assert tool.returncode == -number and not list(out.iterdir())
