"""The short form of power_cuts.py."""

import argparse

import power_cuts


def test_power_cuts():
    options = argparse.Namespace(seed=1, boots=1, states=30, torn=3, dropped=8, busy=(False,))
    for line in power_cuts.cut_devices(options):
        print(line)
