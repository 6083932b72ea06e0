"""Devices on which the tool has run once, one for each file system."""

from types import SimpleNamespace

import pytest

pytest.register_assert_rewrite("phone")  # its checks show what differs
from phone import MAP, SEED, TRACED, Phone, Step

MAP_SIZE = (3 << 20) + 70000  # neither whole chunks of the fill nor whole blocks
# Leaves 26 MB free, in pieces of 64 blocks. (Of these, ext4 keeps most for root: free, but not
# available.)
FRAGMENT = """
echo 0 >/sys/fs/ext4/vda5/reserved_clusters
fallocate -l $(( $(stat -f -c %f /data) * 4096 - 54000000 )) /data/filler
i=100
while [ $i -lt 300 ]; do fallocate -l 262144 /data/piece$i; i=$((i + 1)); done
rm /data/piece*[02468]
sync
"""


@pytest.fixture(scope="session", params=[
    pytest.param(fs, marks=pytest.mark.xdist_group(fs)) for fs in ("ext4", "f2fs")])
def fs(request):
    return request.param


@pytest.fixture(scope="session")
def first_boot(fs, tmp_path_factory):
    """The phone and its runs: build, a second start, -t and -r. Not to be booted again."""
    device = Phone.make(tmp_path_factory.mktemp(fs) / "phone", "--fs", fs)
    kept = device.kept_bytes()
    runs = device.boot([
        Step(f"-s -c {MAP_SIZE} -i {SEED:x} {MAP}", way=TRACED,
             before=FRAGMENT if fs == "ext4" else "",
             after=f"rm -f /data/filler\necho 3 >/proc/sys/vm/drop_caches\n"
             f"stat -c %a {MAP}\ncp {MAP} $results/map"),
        Step(f"-i 1FFFFFFFF -s {MAP}"),
        Step(f"-t {MAP}", way=TRACED),
        Step(f"-r /data/raw {MAP}", way=TRACED, after="mv /data/raw $results/raw")])
    return SimpleNamespace(phone=device, kept=kept, chain=device.chain(),
                           **dict(zip(("build", "again", "walk", "copy"), runs, strict=True)))


@pytest.fixture
def prepared(first_boot, tmp_path):
    """A phone of one's own with a map and its chain, and the chain's blocks."""
    return SimpleNamespace(phone=first_boot.phone.copy(tmp_path / "phone"), chain=first_boot.chain)
