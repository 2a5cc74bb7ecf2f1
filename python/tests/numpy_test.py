import threading

import numpy as np
import pytest

import tarnio

RNG = np.random.default_rng(7)


def random_array(dtype, shape):
    dtype = np.dtype(dtype)
    raw = RNG.integers(0, 256, size=int(np.prod(shape)) * dtype.itemsize, dtype=np.uint8)
    if dtype.kind == "b":
        return raw[: int(np.prod(shape))].reshape(shape) > 127
    array = raw.view(dtype).reshape(shape).copy()
    if dtype.kind in "fc":  # no NaNs: they would not compare equal
        array[~np.isfinite(array)] = 0
    return array


def write_file(path, arrays, compression="none", **layout):
    with tarnio.create(path, description="test") as f:
        for array in arrays:
            f.add_stack(array.dtype, array.shape, compression=compression, **layout).write(array)


@pytest.mark.parametrize("compression", ["none", "zlib"])
def test_every_element_type_round_trips(tmp_path, compression):
    types = ["u1", "i1", "<u2", "<i2", "<u4", "<i4", "<u8", "<i8", "<f4", "<f8", "<c8",
             "<c16", "?", tarnio.RGB]
    arrays = [random_array(t, (3, 5, 7)) for t in types]
    write_file(tmp_path / "types.tbf", arrays, compression)
    with tarnio.open(tmp_path / "types.tbf") as f:
        assert len(f.stacks) == len(types) and f.description == "test"
        for array, stack in zip(arrays, f.stacks):
            assert (stack.dtype, stack.shape, stack.compression) == \
                (array.dtype, array.shape, compression)
            np.testing.assert_array_equal(stack.read(), array)
            np.testing.assert_array_equal(np.asarray(stack), array)
            if array.dtype.kind in "iu":  # the library's converters agree with numpy's casts
                out = np.empty(array.shape, np.float64)
                assert stack.read(out=out) is out
                np.testing.assert_array_equal(out, array.astype(np.float64))


def test_rgb32_reads_as_uint32_and_writes_converted(tmp_path):
    with tarnio.create(tmp_path / "c.tbf") as f:
        f.add_stack("rgb32", (2,)).write(np.array([0x00332211, 0x00FFFFFF], np.uint32))
        f.add_stack(np.int16, (3,)).write(np.array([1.9, -2.9, 7], np.float64))
    with tarnio.open(tmp_path / "c.tbf") as f:
        assert f.stacks[0].type_name == "rgb32" and f.stacks[0].dtype == np.uint32
        assert f.stacks[0][0] == 0x00332211
        np.testing.assert_array_equal(f.stacks[1].read(), [1, -2, 7])


def random_key(shape):
    key = []
    for n in shape:
        choice = RNG.integers(0, 4)
        if choice == 0:
            key.append(int(RNG.integers(-n, n)))
        elif choice == 1:
            key.append(slice(None))
        else:
            start, stop = (int(v) if RNG.integers(0, 3) else None for v in RNG.integers(-n - 2, n + 2, 2))
            step = int(RNG.choice([1, 2, 3, -1, -2, 5]))
            key.append(slice(start, stop, step))
    if RNG.integers(0, 3) == 0:
        key[int(RNG.integers(0, len(key)))] = Ellipsis
        key = [k for i, k in enumerate(key) if k is Ellipsis or RNG.integers(0, 2)]
    if RNG.integers(0, 4) == 0:
        key.insert(int(RNG.integers(0, len(key) + 1)), None)
    return tuple(key)


@pytest.mark.parametrize("compression,shape,layout", [
    ("none", (4, 6, 10, 9), {}), ("zlib", (5, 7, 11), {}), ("zlib", (70, 260, 1000), {}),
    ("zlib", (9, 30, 40), {"flush_block_size": 1000}),
    ("zlib", (9, 30, 40), {"chunk_samples": 2400}), ("none", (7, 5, 6), {"chunk_samples": 0})])
def test_slicing_matches_numpy(tmp_path, compression, shape, layout):
    array = RNG.integers(0, 60000, size=shape, dtype=np.uint16)
    write_file(tmp_path / "s.tbf", [array], compression, **layout)
    with tarnio.open(tmp_path / "s.tbf") as f:
        stack = f.stacks[0]
        assert stack.chunk_samples == layout.get("chunk_samples", 0) or \
            layout.get("chunk_samples") == 0 and stack.chunk_samples == 30
        keys = [random_key(shape) for _ in range(60)] + [(1,), (-1, ..., 2), (..., None)]
        for key in keys:
            try:
                expected = array[key]
            except IndexError:  # the stack refuses what numpy refuses
                with pytest.raises(IndexError):
                    stack[key]
                continue
            np.testing.assert_array_equal(stack[key], expected, err_msg=str(key))


def test_appending_keeps_the_stacks_before(tmp_path):
    first, second = random_array("<u2", (4, 3)), random_array("<f4", (2, 2, 2))
    write_file(tmp_path / "a.tbf", [first], "zlib")
    with tarnio.open(tmp_path / "a.tbf", "a") as f:
        f.metadata["note"] = "added"
        stack = f.add_stack(second.dtype, second.shape, name="second")
        stack.lengths, stack.labels, stack.units = [1.0, 2.0, 3.0], ["t", "y", "x"], ["s", "um", "um"]
        stack.tags["before"] = {"exposure": [0.5, 2], "ok": True}
        for plane in second:
            stack.write(plane)
        assert stack.committed
        with pytest.raises(ValueError, match="before its last sample"):
            stack.tags["after"] = "written"
        f.add_stack(np.uint8, (5,)).write(np.zeros(2, np.uint8))  # unfinished: dropped
    with tarnio.open(tmp_path / "a.tbf") as f:
        assert [s.name for s in f.stacks] == ["", "second"] and f.metadata["note"] == "added"
        np.testing.assert_array_equal(f.stacks[0].read(), first)
        np.testing.assert_array_equal(f.stacks[1].read(), second)
        assert f.stacks[1].lengths == [1.0, 2.0, 3.0] and f.stacks[1].labels == ["t", "y", "x"]
        assert dict(f.stacks[1].tags) == {"before": {"exposure": [0.5, 2], "ok": True}}
        images = f.ome["OME"][0]["Image"]  # every stack is described
        assert [image["Pixels"][0]["SizeX"] for image in images] == [3, 2]
        assert images[1]["Name"] == "second" and images[1]["Pixels"][0]["Type"] == "float"
        assert [u.replace("µ", "u") for u in f.stacks[1].units] == ["1 s", "1 um", "1 um"]


def test_errors_carry_the_library_message(tmp_path):
    with pytest.raises(FileNotFoundError, match="Could not open file"):
        tarnio.open(tmp_path / "missing.tbf")
    (tmp_path / "junk.tbf").write_bytes(b"not a file" * 20)
    with pytest.raises(tarnio.Error, match="No TBF file header found."):
        tarnio.open(tmp_path / "junk.tbf")
    write_file(tmp_path / "ok.tbf", [random_array("<u2", (64, 64))])
    data = (tmp_path / "ok.tbf").read_bytes()
    for cut in (len(data) // 2, len(data) - 3):
        (tmp_path / "cut.tbf").write_bytes(data[:cut])
        with pytest.raises(tarnio.Error):
            with tarnio.open(tmp_path / "cut.tbf") as f:
                f.stacks[0].read()
    with tarnio.create(tmp_path / "w.tbf") as f:
        with pytest.raises(ValueError, match="compression"):
            f.add_stack(np.uint8, (4,), compression="lz4")
        stack = f.add_stack(np.uint8, (4,))
        with pytest.raises(ValueError, match="more samples than the stack is long"):
            stack.write(np.zeros(5, np.uint8))
        with pytest.raises(TypeError):
            f.add_stack(np.float16, (4,))
    with tarnio.open(tmp_path / "ok.tbf") as f:
        stack = f.stacks[0]
        with pytest.raises(ValueError, match="Read-only handle"):
            f.add_stack(np.uint8, (1,))
        with pytest.raises(ValueError, match="size"):
            stack.read(out=np.empty(5, np.uint16))
        with pytest.raises(IndexError):
            stack[64]
        with pytest.raises(IndexError):
            stack[[1, 2]]


def test_threads_sharing_a_file_take_turns(tmp_path):
    array = random_array("<u2", (16, 128, 128))
    write_file(tmp_path / "t.tbf", [array], "zlib")
    failures = []
    with tarnio.open(tmp_path / "t.tbf") as f:
        stack = f.stacks[0]

        def reader(k):
            for _ in range(20):
                if not np.array_equal(stack[k], array[k]):
                    failures.append(k)
        threads = [threading.Thread(target=reader, args=(k,)) for k in range(4)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
    assert not failures
