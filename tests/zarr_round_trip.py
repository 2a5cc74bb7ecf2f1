# A localization table written by zarr is packed by `tarn pack`, restored by `tarn unpack`
# byte for byte, and opens again in zarr with the same values and attributes.
#
# Usage: zarr_round_trip.py TARN_TOOL. Exits 77 (skipped) when the zarr module is missing.

import filecmp
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

DID = "0f5c2a9e-6a41-4c1b-9d0e-2b7f3c8a1d55"


def tarn(*arguments):
    run = subprocess.run([sys.argv[1], *arguments], capture_output=True, text=True)
    if run.returncode != 0:
        sys.exit(f"tarn {' '.join(arguments)} failed ({run.returncode}): {run.stderr}")
    return run.stdout


# Same names, and files byte for byte alike, at every level.
def same_trees(a, b):
    compared = filecmp.dircmp(a, b)
    _, mismatch, errors = filecmp.cmpfiles(a, b, compared.common_files, shallow=False)
    return (not compared.left_only and not compared.right_only and not mismatch and not errors
            and all(same_trees(os.path.join(a, d), os.path.join(b, d)) for d in compared.common_dirs))


with tempfile.TemporaryDirectory() as work:
    tree, out, restored = (os.path.join(work, name) for name in ("tree", "locs.tbf", "restored"))
    # A localization group as analysis software writes it: columns in chunks, attributes.
    group = zarr.open_group(os.path.join(tree, "zarr"), mode="w")
    group.create_group("klx").attrs["did"] = DID
    locs = group.create_group("locs")
    locs.attrs["units"] = {"x": "nm", "y": "nm"}
    random = np.random.default_rng(17)
    columns = {"x": random.uniform(0, 2048, 50000), "y": random.uniform(0, 2048, 50000).astype("f4"),
               "frame": np.sort(random.integers(0, 5000, 50000))}
    for name, values in columns.items():
        locs.create_dataset(name, data=values, chunks=8192)
    locs.create_dataset("photons", data=random.poisson(800, 50000).astype("u2"), compressor=None)

    tarn("pack", tree, out, "--label", "cell 3", "--compression", "zlib:1")
    tarn("unpack", out, "--stack", "0", restored)
    kalix = json.loads(tarn("info", "--json", out))["stacks"][0]["kalix"]
    assert kalix["did"] == DID and kalix["label"] == "cell 3", kalix
    assert same_trees(tree, restored), "the restored tree differs"

    again = zarr.open_group(os.path.join(restored, "zarr"), mode="r")
    assert again["klx"].attrs["did"] == DID and again["locs"].attrs["units"]["x"] == "nm"
    for name in ("x", "y", "frame", "photons"):
        assert again["locs"][name].dtype == locs[name].dtype, name
        assert np.array_equal(again["locs"][name][:], locs[name][:]), name
print("zarr tree packed, unpacked byte-exact and opened again")
