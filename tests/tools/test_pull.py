"""Any dump, over blocks in any order, in a copy of the partition that ends anywhere: write lays it
as the layout says, pull saves what is there, and nothing else."""

import os
import random
import subprocess

from chain_image import BLOCK, PAYLOAD, Image, dump_stream
from hypothesis import given, settings
from hypothesis import strategies as st

TOOL = os.environ["TARNIX_CHAIN"]
# Around the places where the next header just fits into a payload, and does not.
EDGES = st.builds(lambda blocks, left: blocks * PAYLOAD - left, st.integers(1, 3),
                  st.integers(-1, 1) | st.integers(38, 42) | st.integers(78, 82))


@settings(derandomize=True, deadline=None, max_examples=40)
@given(chain=st.lists(st.integers(1, 40), min_size=20, max_size=20, unique=True),
       sizes=st.lists(st.integers(1, 3 * PAYLOAD) | EDGES, min_size=1, max_size=6),
       cut=st.integers(1, 41))
def test_a_dump_cut_anywhere(tmp_path_factory, chain, sizes, cut):
    folder = tmp_path_factory.mktemp("cut")
    image, out = Image(folder, chain), folder / "out"
    files = [(b"%d" % number, random.Random(number).randbytes(size))
             for number, size in enumerate(sizes)]
    for name, data in files:
        (folder / name.decode()).write_bytes(data)
    images = ["--misc", image.misc, "--data", image.data]
    subprocess.run([TOOL, "write", *images, *(f"{name}={folder / name}" for name in
                                              (name.decode() for name, _ in files))], check=True)
    data = image.data.read_bytes()
    stream, places = dump_stream(files)
    assert b"".join(data[block * BLOCK + 12:][:PAYLOAD] for block in chain).startswith(stream)
    os.truncate(image.data, cut * BLOCK)
    done = subprocess.run([TOOL, "pull", *images, out], check=False)
    there = PAYLOAD * next((at for at, block in enumerate(chain) if block >= cut), len(chain))
    expected = {name.decode() + (".partial" if there < place + len(data) else ""):
                data[:there - place] for (name, data), place in zip(files, places) if place < there}
    saved = {path.name: path.read_bytes() for path in out.glob("*")}
    assert saved == expected and done.returncode == int(there < len(stream))
