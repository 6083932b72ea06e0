#!/usr/bin/python3
"""Cuts the power of the emulated device at every point of its runs and examines what is left.

Each scenario runs once with every write and flush logged in order. The disk is then rebuilt as a
cut could have left it, at each point of the log. The boot side must find no anchor, or one with a
whole chain; and from some of these disks the device is started again, and must end well. Ends with
status 1 at a disk that breaks a promise, and keeps it."""

import argparse
import collections
import concurrent.futures
import itertools
import random
import shutil
import sys
import tempfile

from disks import (CREATE, DATA_SIZE, SERVICE, anchor_of, chain_of, device_of, dump_files,
                   load_blocks, save_blocks, start)
from emulated import MAP, MOVE, crash, device, read_log, write_text

# Somebody else's syncs beside the tool, so that its writes reach the disk in many small steps.
BUSY = """sh -c '(while :; do sync; usleep 2000; done) & "$@"; s=$?; kill $!; exit $s' sh"""

# The service, which starts by the guard.
GUARD = "/vendor/bin/tarnix-guard --"

# One after another on one device. dump: the crash to extract, None where a chain is built. wrap: by
# the guard, where somebody or the file system has done something to the map file, in `before`.
Scenario = collections.namedtuple("Scenario", "name arguments before dump wrap", defaults=("",))
SCENARIOS = (
    Scenario("first run", CREATE, "", None),
    Scenario("extraction", SERVICE, "", 0),
    Scenario("rotation", SERVICE, "", 1),
    Scenario("map deleted", CREATE, f"rm {MAP}", None, GUARD),
    Scenario("map moved", CREATE, MOVE, None, GUARD),
    Scenario("map moved after a crash", CREATE, MOVE, 2, GUARD),
)
# start: the disk before; entries: the log of what was written to it.
Recording = collections.namedtuple("Recording", "scenario folder start entries")
# durable: entries of the log that were flushed; kept: (entry, blocks of it) of those after.
Cut = collections.namedtuple("Cut", "durable kept")
# What the order of the tool's steps leaves open: docs/testing.md.
CLOSED_FILES = "files not opened to others yet"


def all_cuts(entries, rng, dropped):
    """The cuts of a log, in its order: after each block of each write; and up to `dropped` subsets
    of the writes since each flush, all if there are no more, else drawn by rng, in any order and
    torn at any place."""
    base = 0
    for flush in [i for i, entry in enumerate(entries) if entry is None] + [len(entries)]:
        whole = [(i, len(entries[i])) for i in range(base, flush)]
        yield Cut(base, ())
        for n, (i, blocks) in enumerate(whole):
            yield from (Cut(base, (*whole[:n], (i, place))) for place in range(1, blocks + 1))
        if 2 ** len(whole) <= dropped:
            for length in range(1, len(whole)):
                yield from (Cut(base, kept) for kept in itertools.combinations(whole, length)
                            if list(kept) != whole[:length])
        elif len(whole) > 1:
            for _ in range(dropped):
                some = rng.sample(whole, rng.randint(1, len(whole)))
                yield Cut(base, tuple((i, rng.choice((blocks, rng.randint(1, blocks))))
                                      for i, blocks in some))
        base = flush + 1


def record(scenario, folder, busy):
    """One scenario's run: the disk before, and every write after."""
    if scenario.dump is not None:
        crash(folder, dump_files(scenario.dump))
    blocks = load_blocks(folder)
    log = device("boot", folder, "--log-writes", f"{folder}/writes",
                 "--before", write_text(f"{folder}/before", scenario.before), "--wrap",
                 f"{BUSY if busy else ''} {scenario.wrap}", "--", *scenario.arguments).stderr
    assert ("anchor and map file are gone" in log) == bool(scenario.wrap), log
    return Recording(scenario, folder, blocks, read_log(f"{folder}/writes"))


def disk_after(recording, cut):
    """The disk that a cut leaves, as load_blocks() says."""
    blocks = dict(recording.start)
    for entry in recording.entries[:cut.durable]:
        blocks.update(entry or {})
    for at, count in cut.kept:
        blocks.update(itertools.islice(recording.entries[at].items(), count))
    return blocks


def judge_anchor(recording, blocks):
    """What the boot side would find: no anchor at all, or one that leads through a whole chain."""
    scenario, anchor, old = recording.scenario, anchor_of(blocks), anchor_of(recording.start)
    if not any(anchor):
        assert scenario.dump is None or scenario.wrap, "the anchor is gone"
    elif anchor != old or not scenario.wrap or anchor[5] == 3:
        assert chain_of(blocks)[1], f"an anchor without its chain: {anchor}"
    # Else the map is not the chain's any more, and the guard was not there yet.


def start_again(recording, blocks):
    """Has the service run on a disk that a cut left. Returns what came of it."""
    scenario = recording.scenario
    with device_of(recording.folder, blocks) as folder:
        phone = start(folder, "--wrap", scenario.wrap, "--", *scenario.arguments)
    assert phone.whole, "the chain is not whole, or not the map file's"
    if scenario.dump is None:
        return "good"
    assert phone.flags == 1, f"flags {phone.flags}"
    sizes = {name: len(content) for name, content in phone.dump.items()}
    assert phone.dump == dump_files(scenario.dump), f"the flag is gone, the files are not: {sizes}"
    # As granted, or as created, where the flag was gone already.
    may_be = {"777"} if anchor_of(blocks)[5] == 3 else {"777", "600"}
    assert phone.modes <= may_be, f"modes {phone.modes}"
    return CLOSED_FILES if "600" in phone.modes else "good"


def cut_device(fs, busy, options, folder):
    """Runs the scenarios one after another on one device, and examines their states. Returns what
    was examined, a line for each."""
    device("make", folder, "--fs", fs, "--size", DATA_SIZE)
    lines = []
    for scenario in SCENARIOS:
        recording = record(scenario, folder, busy)
        name = f"{fs}, {'busy' if busy else 'quiet'}, {scenario.name}"
        rng = random.Random(f"{options.seed} {name}")
        # In an order in which the first one with a new anchor has little else.
        cuts = sorted(all_cuts(recording.entries, rng, options.dropped),
                      key=lambda cut: (cut.durable, len(cut.kept)))
        drawn = rng.sample(cuts, min(options.boots // len(SCENARIOS), len(cuts)))
        anchors, counts = {anchor_of(recording.start)}, collections.Counter()
        for cut in cuts:
            blocks = disk_after(recording, cut)
            try:
                judge_anchor(recording, blocks)
                if cut in drawn or anchor_of(blocks) not in anchors:
                    counts[start_again(recording, blocks)] += 1
            except AssertionError as error:
                save_blocks(f"{folder}/finding.img", blocks)
                raise AssertionError(f"{name}, seed {options.seed}, {cut}:\n{error}\nThe disk: "
                                     f"{folder}/finding.img; the log: {folder}/writes") from None
            anchors.add(anchor_of(blocks))
        lines.append(f"{name}: {len(recording.entries)} log entries, {len(cuts)} states, "
                     f"of these booted: {dict(counts)}")
    return lines


def cut_devices(options):
    """Yields what was examined, as it is done; the first finding ends it."""
    folder = tempfile.mkdtemp(dir="/dev/shm", prefix="power-cuts-")
    with concurrent.futures.ProcessPoolExecutor(2) as pool:
        jobs = [pool.submit(cut_device, fs, busy, options, f"{folder}/{fs}-{busy:d}")
                for busy, fs in itertools.product((False, True), ("ext4", "f2fs"))]
        for job in concurrent.futures.as_completed(jobs):
            yield from job.result()
    shutil.rmtree(folder)


def parse(words):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--boots", type=int, default=30,
                        help="for each device (there are 4), beside those of a new anchor")
    parser.add_argument("--dropped", type=int, default=128, help="subsets of writes since a flush")
    return parser.parse_args(words)


def main():
    try:
        for line in cut_devices(parse(sys.argv[1:])):
            print(line, flush=True)
    except AssertionError as error:
        sys.exit(f"FAILED: {error}")


if __name__ == "__main__":
    main()
