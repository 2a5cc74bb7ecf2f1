import pickle

import dask.array as da
import numpy as np
import pytest
from distributed import Client, LocalCluster

import tarnio
from tarnio._dask import natural_chunks


def test_chunks_follow_the_stored_pieces():
    assert natural_chunks((64, 2048, 2048), 2, 4 << 20) == (1, 1024, 2048)
    assert natural_chunks((100, 256, 256), 2, 4 << 20) == (32, 256, 256)
    assert natural_chunks((10, 4), 1, 1 << 20) == (10, 4)
    assert natural_chunks((3, 5), 8, 1) == (1, 1)


@pytest.fixture(scope="module")
def stack_file(tmp_path_factory):
    path = tmp_path_factory.mktemp("dask") / "planes.tbf"
    array = np.random.default_rng(3).integers(0, 4000, (24, 256, 512), dtype=np.uint16)
    with tarnio.create(path) as f:
        f.add_stack(array.dtype, array.shape, compression="zlib").write(array)
    return path, array


def test_graph_holds_the_path_not_the_data(stack_file):
    path, array = stack_file
    lazy = tarnio.to_dask(path)
    assert lazy.shape == array.shape and lazy.dtype == array.dtype and lazy.numblocks == (1, 1, 1)
    assert len(pickle.dumps(lazy.__dask_graph__())) < 10_000
    np.testing.assert_array_equal(lazy[5:9, ::3, 100].compute(), array[5:9, ::3, 100])
    other = tarnio.to_dask(path, chunks=(5, 100, 512))
    np.testing.assert_array_equal(other.sum(axis=(1, 2)).compute(), array.sum(axis=(1, 2)))


def test_store_writes_blocks_in_order(stack_file, tmp_path):
    path, array = stack_file
    source = da.from_array(array, chunks=(5, 100, 200)) + 1
    assert tarnio.store(source, tmp_path / "out.tbf", compression="zlib", name="plus") == 0
    assert tarnio.store(source[:, 0], tmp_path / "out.tbf", mode="a") == 1
    with tarnio.open(tmp_path / "out.tbf") as f:
        assert f.stacks[0].name == "plus" and f.stacks[0].compression == "zlib"
        np.testing.assert_array_equal(f.stacks[0].read(), array + 1)
        np.testing.assert_array_equal(f.stacks[1].read(), array[:, 0] + 1)


def test_runs_on_a_cluster_of_processes(stack_file):
    path, array = stack_file
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                      dashboard_address=None) as cluster, Client(cluster) as client:
        lazy = tarnio.to_dask(path, chunks=(4, 128, 512))
        result = client.compute(lazy.max(axis=0)).result(timeout=120)
    np.testing.assert_array_equal(result, array.max(axis=0))
