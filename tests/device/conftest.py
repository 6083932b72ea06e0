"""Devices on which the tool has run once, one for each file system, and the runs of a module."""

import pytest

pytest.register_assert_rewrite("phone")  # its checks show what differs
from emulated import BLOCK, MAP, device, run
from phone import COUNT, MAP_SIZE, NODES, TRACED, Step, chain_of, found_device, start

# Leaves 26 MB free, in pieces of 64 blocks. (Of these, ext4 keeps most for root: free, but not
# available.)
FRAGMENT = """
echo 0 >/sys/fs/ext4/vda5/reserved_clusters
fallocate -l $(( $(stat -f -c %f /data) * 4096 - 54000000 )) /data/filler
for i in $(seq 100 299); do fallocate -l 262144 /data/piece$i; done
rm /data/piece*[02468]
sync
"""
FIRST_STEPS = {
    "build": Step(f"""[ ! -e /sys/fs/ext4/vda5 ] || {{ {FRAGMENT} }}
        {TRACED}
        tarnix -s -c {MAP_SIZE} {MAP}
        rm -f /data/filler
        echo 3 >/proc/sys/vm/drop_caches
        cp {MAP} $results/map"""),
    "find": Step(f"tarnix -s {MAP}", says=[
        f"E valid map file exists: {MAP}", *found_device(),
        "E main: No ramdump for reading (flag = 0x1)", "I Success"]),
    "walk": Step(f"{TRACED}tarnix -t {MAP}", says=[
        *found_device()[:-1], f"I  block size: {BLOCK} bytes",
        f"I Opened {NODES}userdata for reading", f"I Read {COUNT} blocks successfully"]),
    "copy": Step(f"{TRACED}tarnix -r $results/raw {MAP}", says=[
        *found_device(), f"I Opened {NODES}userdata for reading",
        f"I raw_read_blocks: 1 avail, {COUNT} blocks needed",
        "I Opened /host/4/raw for writing", "I Success"]),
}


@pytest.fixture(scope="session", params=[
    pytest.param(fs, marks=pytest.mark.xdist_group(fs)) for fs in ("ext4", "f2fs")])
def first_boot(request, tmp_path_factory):
    """The phone, which is not to be booted again, its chain, and its runs by their names."""
    phone = tmp_path_factory.mktemp("first") / "phone"
    device("make", phone, "--size", "400M", "--fs", request.param)
    runs = dict(zip(FIRST_STEPS, start(phone, FIRST_STEPS.values()), strict=True))
    return phone, chain_of(phone), runs


def copied(first_boot, folder):
    run("cp", "-r", "--sparse=always", "--reflink=auto", first_boot[0], folder / "phone")
    return folder / "phone", first_boot[1]


@pytest.fixture
def prepared(first_boot, tmp_path):
    """A phone of one's own with a map and its chain, and the chain's blocks."""
    return copied(first_boot, tmp_path)


@pytest.fixture(scope="module")
def runs(request, phone_and_chain):
    """The step and the run by name, of all that the module's steps() gives: one boot."""
    phone, chain = phone_and_chain
    steps = request.module.steps(chain)
    return dict(zip(steps, zip(steps.values(), start(phone, steps.values())), strict=True))


def pytest_generate_tests(metafunc):
    if "name" in metafunc.fixturenames:
        metafunc.parametrize("name", metafunc.module.steps([*range(1000)]))  # any chain's names
