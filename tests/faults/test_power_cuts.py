"""The short form of power_cuts.py."""

import argparse
import shutil
import tempfile

import pytest

import power_cuts


@pytest.mark.parametrize("fs", ("ext4", "f2fs"))
def test_power_cuts(fs):
    options = argparse.Namespace(seed=1, boots=5, states=30, torn=3, dropped=8)
    folder = tempfile.mkdtemp(dir="/dev/shm", prefix="power-cuts-")
    print(*power_cuts.cut_device(fs, False, options, f"{folder}/device"), sep="\n")
    shutil.rmtree(folder)  # after a finding it stays
