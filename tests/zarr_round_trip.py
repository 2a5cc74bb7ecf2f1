"""A localization table written by zarr is packed by `tarn pack`, restored by `tarn unpack`
byte for byte, and opens again in zarr with the same values and attributes.

Usage: zarr_round_trip.py TARN_TOOL. Exits 77 (skipped) when the zarr module is missing."""

import json
import os
import subprocess
import sys
import tempfile

try:
    import numpy as np
    import zarr
except ImportError as error:
    print(f"SKIPPED: python3-zarr is not installed ({error}); install it with `make deps`.")
    sys.exit(77)


def write_tree(root, did):
    """A localization group as analysis software writes it: columns in chunks, attributes."""
    group = zarr.open_group(os.path.join(root, "zarr"), mode="w")
    klx = group.create_group("klx")
    klx.attrs["did"] = did
    klx.attrs["software"] = {"name": "fitter", "version": [1, 2]}
    locs = group.create_group("locs")
    random = np.random.default_rng(17)
    n = 50000
    locs.create_dataset("x", data=random.uniform(0, 2048, n), chunks=8192)
    locs.create_dataset("y", data=random.uniform(0, 2048, n).astype("f4"), chunks=8192)
    locs.create_dataset("frame", data=np.sort(random.integers(0, 5000, n)), chunks=8192)
    locs.create_dataset("photons", data=random.poisson(800, n).astype("u2"), chunks=10000,
                        compressor=None)
    locs.attrs["units"] = {"x": "nm", "y": "nm"}
    return group


def files_of(root):
    found = {}
    for directory, subdirectories, names in os.walk(root):
        for name in subdirectories:
            found[os.path.relpath(os.path.join(directory, name), root)] = None
        for name in names:
            path = os.path.join(directory, name)
            with open(path, "rb") as f:
                found[os.path.relpath(path, root)] = f.read()
    return found


def tarn(tool, *arguments):
    run = subprocess.run([tool, *arguments], capture_output=True, text=True)
    if run.returncode != 0:
        sys.exit(f"tarn {' '.join(arguments)} failed ({run.returncode}): {run.stderr}")
    return run.stdout


def main():
    tool = sys.argv[1]
    did = "0f5c2a9e-6a41-4c1b-9d0e-2b7f3c8a1d55"
    with tempfile.TemporaryDirectory() as work:
        tree = os.path.join(work, "tree")
        original = write_tree(tree, did)
        out = os.path.join(work, "locs.tbf")
        restored = os.path.join(work, "restored")
        tarn(tool, "pack", tree, out, "--label", "cell 3", "--compression", "zlib:1")
        tarn(tool, "unpack", out, "--stack", "0", restored)

        stack = json.loads(tarn(tool, "info", "--json", out))["stacks"][0]
        assert stack["kalix"]["did"] == did, stack
        assert stack["kalix"]["label"] == "cell 3", stack
        assert files_of(restored) == files_of(tree), "restored tree differs"

        again = zarr.open_group(os.path.join(restored, "zarr"), mode="r")
        assert again["klx"].attrs.asdict() == original["klx"].attrs.asdict()
        assert again["locs"].attrs["units"] == {"x": "nm", "y": "nm"}
        for name in ("x", "y", "frame", "photons"):
            assert np.array_equal(again["locs"][name][:], original["locs"][name][:]), name
            assert again["locs"][name].dtype == original["locs"][name].dtype, name
    print("zarr tree packed, unpacked byte-exact and opened again")


if __name__ == "__main__":
    main()
