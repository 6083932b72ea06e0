"""docs/integration.md, as a new integrator follows it: each command as printed, the emulated device
being the phone."""

import shutil
import subprocess

from guide import REPO, commands

FOLDER = REPO / "build/first-dump"


def test_the_guides_commands_end_with_a_dump():
    shutil.rmtree(FOLDER, ignore_errors=True)
    result = subprocess.run(["bash", "-euxo", "pipefail", "-c", commands()], cwd=REPO, text=True,
                            capture_output=True, errors="replace", check=False)
    trouble = result.stdout + result.stderr
    assert result.returncode == 0, trouble
    shown = [line for line in result.stdout.splitlines() if line in ("valid", "done")]
    assert shown == ["valid", "done"], trouble
    assert "Read 262143 blocks successfully" in result.stdout, trouble
    written, fetched = ({path.name: path.read_bytes() for path in folder.iterdir()}
                        for folder in (FOLDER / "phone/crash", FOLDER / "apq/00"))
    assert written and fetched == written
    collected = (FOLDER / "device.txt").read_text()
    assert all(text in collected for text in ("72644842", "/data ext4", "apq/00", "Linux version"))
