"""The short form of power_cuts.py."""

import shutil
import tempfile

import power_cuts
import pytest


@pytest.mark.parametrize("fs", ("ext4", "f2fs"))
def test_power_cuts(fs):
    folder = tempfile.mkdtemp(dir="/dev/shm", prefix="power-cuts-")
    print(*power_cuts.cut_device(fs, False, power_cuts.parse(["--boots=0"]), f"{folder}/device"),
          sep="\n")
    shutil.rmtree(folder)  # after a finding it stays
