"""Devices on which the tool has run once, one for each file system."""

import sys
from pathlib import Path

import pytest

sys.path.append(str(Path(__file__).parents[1] / "emulator"))
pytest.register_assert_rewrite("phone")  # its checks show what differs
from emulated import MAP, device, run
from phone import MAP_SIZE, TRACED, Step, boot, chain_of

# Leaves 26 MB free, in pieces of 64 blocks. (Of these, ext4 keeps most for root: free, but not
# available.)
FRAGMENT = """
echo 0 >/sys/fs/ext4/vda5/reserved_clusters
fallocate -l $(( $(stat -f -c %f /data) * 4096 - 54000000 )) /data/filler
for i in $(seq 100 299); do fallocate -l 262144 /data/piece$i; done
rm /data/piece*[02468]
sync
"""


@pytest.fixture(scope="session", params=[
    pytest.param(fs, marks=pytest.mark.xdist_group(fs)) for fs in ("ext4", "f2fs")])
def first_boot(request, tmp_path_factory):
    """The phone, which is not to be booted again, its chain, and its runs."""
    phone = tmp_path_factory.mktemp("first") / "phone"
    device("make", phone, "--size", "400M", "--fs", request.param)
    runs = boot(phone, [
        Step((FRAGMENT if request.param == "ext4" else "") + f"""{TRACED}
             tarnix -s -c {MAP_SIZE} {MAP}
             rm -f /data/filler
             echo 3 >/proc/sys/vm/drop_caches
             stat -c %a {MAP}
             cp {MAP} $results/map"""),
        Step(f"tarnix -i 1FFFFFFFF -s {MAP}"),
        Step(f"{TRACED}seed= tarnix -t {MAP}"),
        Step(f"{TRACED}tarnix -r $results/raw {MAP}")])
    return phone, chain_of(phone), runs


@pytest.fixture
def prepared(first_boot, tmp_path):
    """A phone of one's own with a map and its chain, and the chain's blocks."""
    run("cp", "-r", "--sparse=always", "--reflink=auto", first_boot[0], tmp_path / "phone")
    return tmp_path / "phone", first_boot[1]
