#!/usr/bin/python3
"""Cuts the power of the emulated device at every point of its runs and examines what is left.

Each scenario runs once with every write and flush logged in order. The disk is then rebuilt as a
cut could have left it, at each point of the log, and examined while off; from some of these disks
the device is booted again. Ends with status 1 at a disk that breaks a promise, and keeps it."""

import argparse
import collections
import concurrent.futures
import itertools
import random
import shutil
import struct
import sys
import tempfile

from disks import (BLOCK, CREATE, DATA, DATA_SIZE, MAP, REPO, SERVICE, boot, crash, device,
                   device_of, holds_dump, load_blocks, look_at, newest_dump, save_blocks,
                   write_text)

sys.path.append(f"{REPO}/tests/emulator")
from emulated import compile_for_device

# Somebody else's syncs beside the tool, so that its writes reach the disk in many small steps.
BUSY = """sh -c '(while :; do sync; usleep 2000; done) & "$@"; s=$?; kill $!; exit $s' sh"""

# The service, which starts by the guard.
GUARD = "/vendor/bin/tarnix-guard --"
# f2fs on so small a disk writes in place otherwise.
MOVE = f"""
    [ ! -e /sys/fs/f2fs/vda5/ipu_policy ] || echo 0 >/sys/fs/f2fs/vda5/ipu_policy
    echo 3 >/proc/sys/vm/drop_caches
    move_blocks {MAP}
"""

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
# durable: entries of the log that were flushed; kept: (entry, blocks of it) of those after.
Cut = collections.namedtuple("Cut", "durable kept")
# What the order of the tool's steps leaves open: docs/testing.md.
CLOSED_FILES = "files not opened to others yet"


def read_log(path):
    """The entries of a log: {block: bytes} of a write, None for a flush."""
    with open(path, "rb") as stream:
        log = stream.read()
    _, _, count, sector_size = struct.unpack_from("<QQQI", log)
    position, entries = sector_size, []
    for _ in range(count):
        sector, sectors, flags, _ = struct.unpack_from("<QQQQ", log, position)
        position += sector_size
        size = 0 if flags & 4 else sectors * sector_size  # what is discarded may as well stay
        if size:
            first, rest = divmod(sector * sector_size, BLOCK)
            assert rest == 0 and size % BLOCK == 0
            entries.append({first + at // BLOCK: log[position + at:position + at + BLOCK]
                            for at in range(0, size, BLOCK)})
            position += size
        if flags & 1:
            entries.append(None)
    return entries


def all_cuts(entries, rng, torn, dropped):
    """The cuts of a log, in its order: after each write; inside each write, at up to `torn` places;
    and up to `dropped` subsets of the writes since each flush, all if there are no more, else drawn
    by rng, in any order and torn at any place."""
    base = 0
    for flush in [i for i, entry in enumerate(entries) if entry is None] + [len(entries)]:
        whole = [(i, len(entries[i])) for i in range(base, flush)]
        yield Cut(base, ())
        for n, (i, blocks) in enumerate(whole):
            places = range(1, blocks) if blocks <= torn else rng.sample(range(1, blocks), torn)
            for place in [*sorted(places), blocks]:
                yield Cut(base, (*whole[:n], (i, place)))
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


class Recording:
    """One scenario's run: the disk before, and every write after."""

    def __init__(self, fs, scenario, folder, busy, helper):
        self.fs, self.scenario, self.folder, self.mounted = fs, scenario, folder, 0
        if scenario.dump is not None:
            crash(folder, scenario.dump)
        self.start = load_blocks(f"{folder}/disk.img")
        self.before = write_text(f"{folder}/before", scenario.before)
        boot(folder, "--log-writes", f"{folder}/writes", "--before", self.before,
             "--file", f"/bin/move_blocks={helper}",
             "--wrap", f"{BUSY if busy else ''} {scenario.wrap}", "--", *scenario.arguments)
        self.entries = read_log(f"{folder}/writes")
        self.old_anchor = look_at(fs, self.start, folder).anchor

    def states(self, cuts):
        """(cut, {block: bytes} of the disk that it leaves) of cuts in the order of the log."""
        base, done = dict(self.start), 0
        for cut in cuts:
            for entry in self.entries[done:cut.durable]:
                base.update(entry or {})
            done, blocks = cut.durable, dict(base)
            for i, count in cut.kept:
                blocks.update(itertools.islice(self.entries[i].items(), count))
            yield cut, blocks

    def examine(self, blocks, after_boot=False):
        """Examines a disk that is off. Returns the known limit that it shows, or None."""
        try:
            return self.judge(look_at(self.fs, blocks, self.folder), after_boot)
        except AssertionError:
            # What was synced since f2fs's last checkpoint only a mount brings back.
            if self.fs != "f2fs" or after_boot:
                raise
        self.mounted += 1
        with device_of(self.folder, blocks) as folder:
            boot(folder, "--no-run")
            return self.judge(look_at(self.fs, load_blocks(f"{folder}/disk.img"), folder), False)

    def judge(self, disk, after_boot):
        building = self.scenario.dump is None
        is_old = self.scenario.wrap and disk.anchor[:5] == self.old_anchor[:5]
        if disk.flags is None and not after_boot and (building or self.scenario.wrap):
            assert not any(disk.anchor), "half an anchor"
        elif is_old and not after_boot:
            # The guard was not there yet: the next one goes by the links.
            assert disk.verifies or disk.flags == 1, f"the old chain is lost: {disk.verdict}"
        else:
            assert disk.whole, f"the chain is not whole, or not the map file's: {disk.verdict}"
        if building or disk.flags == 3 and not after_boot:
            assert building or disk.flags == 3 and disk.verifies
            return None
        assert disk.flags in ((None, 1) if self.scenario.wrap and not after_boot else (1,)), disk.flags
        found = {path: len(data) for path, (_, data) in disk.files.items()}
        assert holds_dump(disk, self.scenario.dump), f"the flag is gone, the files are not: {found}"
        modes = {mode for mode, _ in newest_dump(disk).values()}
        assert modes <= {0o600, 0o777}, f"modes {modes}"  # as created, and as granted
        return CLOSED_FILES if 0o600 in modes else None

    def boot_again(self, blocks, limit):
        """Has the service run on a disk that a cut left, and examines what it makes of it."""
        with device_of(self.folder, blocks) as folder:
            boot(folder, "--wrap", self.scenario.wrap, "--", *self.scenario.arguments)
            after = self.examine(load_blocks(f"{folder}/disk.img"), after_boot=True)
            assert after in (None, limit), f"after the next boot: {after}"


def choose(cuts, most, rng):
    return [cuts[i] for i in sorted(rng.sample(range(len(cuts)), min(most, len(cuts))))]


def cut_device(fs, busy, options, folder):
    """Runs the scenarios one after another on one device, and examines their states. Returns what
    was examined, a line for each."""
    device("make", folder, "--fs", fs, "--size", DATA_SIZE)
    helper = compile_for_device(f"{REPO}/tests/device/move_blocks.c", f"{folder}/move_blocks")
    lines = []
    for n, scenario in enumerate(SCENARIOS):
        recording = Recording(fs, scenario, folder, busy, helper)
        limits = collections.Counter()
        name = f"{fs}, {'busy' if busy else 'quiet'}, {scenario.name}"
        rng = random.Random(f"{options.seed} {name}")
        cuts = choose(list(all_cuts(recording.entries, rng, options.torn, options.dropped)),
                      options.states, rng)
        share = options.boots * (n + 1) // len(SCENARIOS) - options.boots * n // len(SCENARIOS)
        booted = choose(cuts, share, rng)
        for cut, blocks in recording.states(cuts):
            try:
                limit = recording.examine(blocks)
                limits.update([limit] if limit else [])
                if cut in booted:
                    recording.boot_again(blocks, limit)
            except AssertionError as error:
                save_blocks(f"{folder}/finding.img", blocks, range(DATA[-1] + 1))
                raise AssertionError(f"{name}, seed {options.seed}, {cut}:\n{error}\nThe disk: "
                                     f"{folder}/finding.img; the log: {folder}/writes") from None
        lines.append(f"{name}: {len(recording.entries)} log entries, {len(cuts)} states, "
                     f"{len(booted)} booted, {recording.mounted} mounted, known limits: "
                     f"{dict(limits)}")
    return lines


def cut_devices(options):
    """Yields what was examined, as it is done; the first finding ends it."""
    folder = tempfile.mkdtemp(dir="/dev/shm", prefix="power-cuts-")
    with concurrent.futures.ProcessPoolExecutor(2) as pool:
        jobs = [pool.submit(cut_device, fs, busy, options, f"{folder}/{fs}-{busy:d}")
                for busy, fs in itertools.product(options.busy, ("ext4", "f2fs"))]
        for job in concurrent.futures.as_completed(jobs):
            yield from job.result()
    shutil.rmtree(folder)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--boots", type=int, default=32, help="for each device (there are 4)")
    parser.add_argument("--states", type=int, default=sys.maxsize,
                        help="of each run (there are 24), at most")
    parser.add_argument("--torn", type=int, default=BLOCK, help="places in each write, at most")
    parser.add_argument("--dropped", type=int, default=128, help="subsets of writes since a flush")
    parser.set_defaults(busy=(False, True))
    try:
        for line in cut_devices(parser.parse_args()):
            print(line, flush=True)
    except AssertionError as error:
        sys.exit(f"FAILED: {error}")


if __name__ == "__main__":
    main()
