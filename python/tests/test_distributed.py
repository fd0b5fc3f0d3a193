"""A scheduler and two workers started as separate processes on 127.0.0.1 (Debian's python3-distributed), as
an analyst's cluster runs: what they compute equals what one process computes."""

import json
import os
import subprocess
import sys
import time

import pandas as pd
import pytest

import blockproc
import blockproc.dask
from conftest import EXAMPLES, ROW, market_rows

distributed = pytest.importorskip("distributed")

LOCAL = ["--host", "127.0.0.1", "--dashboard-address", "127.0.0.1:0"]


def start(arguments, log):
    return subprocess.Popen([sys.executable, "-m"] + arguments, stdout=log, stderr=subprocess.STDOUT,
                            env=dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path)))


def stop(processes):
    """Each process by its id: asked to end, then ended."""
    for process in processes:
        if process.poll() is None:
            os.kill(process.pid, 15)
    for process in processes:
        try:
            process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            os.kill(process.pid, 9)
            process.wait()


@pytest.fixture(scope="module")
def client(tmp_path_factory):
    folder = tmp_path_factory.mktemp("cluster")
    scheduler_file = folder / "scheduler.json"
    log = open(folder / "cluster.log", "wb")
    processes = [start(["distributed.cli.dask_scheduler", "--port", "0", "--scheduler-file", str(scheduler_file)]
                       + LOCAL, log)]
    try:
        deadline = time.monotonic() + 60
        while not scheduler_file.exists() or not scheduler_file.read_text().strip():
            assert processes[0].poll() is None and time.monotonic() < deadline, \
                (folder / "cluster.log").read_text()
            time.sleep(0.1)
        address = json.loads(scheduler_file.read_text())["address"]
        assert address.startswith("tcp://127.0.0.1:")
        for _ in range(2):
            processes.append(start(["distributed.cli.dask_worker", address, "--nthreads", "1", "--no-nanny",
                                    "--memory-limit", "0"] + LOCAL, log))
        with distributed.Client(address) as connected:
            connected.wait_for_workers(2, timeout=60)
            # Every process of the cluster listens on 127.0.0.1 only.
            info = connected.scheduler_info()
            assert all(w.startswith("tcp://127.0.0.1:") for w in info["workers"])
            yield connected
    finally:
        stop(processes)
        log.close()


def write_captures(folder, count, records):
    paths = []
    for k in range(count):
        path = folder / ("capture%d.bin" % k)
        path.write_bytes(market_rows(records, seed=k))
        paths.append(path)
    return paths


@pytest.mark.filterwarnings("ignore:Running on a single-machine scheduler")
@pytest.mark.parametrize("numbers", ["scaled", "float", "decimal"])
def test_the_cluster_computes_what_one_process_computes(client, tmp_path, every_type, numbers):
    paths = write_captures(tmp_path, 4, 700)
    expected = pd.concat([blockproc.realtime_frame(every_type, p.read_bytes(), "Rows", numbers=numbers)
                          for p in paths], ignore_index=True)
    frame = blockproc.dask.read_captures(paths, every_type, "Rows", stream=True, chunk_bytes=300 * ROW.size,
                                         numbers=numbers)
    assert frame.npartitions == 4 * 3
    got = client.compute(frame).result().reset_index(drop=True)
    pd.testing.assert_frame_equal(got, expected)
    local = frame.compute(scheduler="sync").reset_index(drop=True)
    pd.testing.assert_frame_equal(local, got)
    if numbers == "scaled":
        sums = frame.groupby("name").price.sum()
        assert client.compute(sums).result().to_dict() == sums.compute(scheduler="sync").to_dict()


def test_a_definition_used_on_the_workers_is_the_one_used_here(client, tmp_path):
    # The definition cannot be changed in memory, so a worker's copy, loaded from the text it travels as,
    # decodes as this process does.
    definition = blockproc.load_definition(EXAMPLES / "current_price.xml")
    with pytest.raises(TypeError, match="loaded Definition cannot change"):
        definition.block("OutBlock").getFieldInfoFromName("rate").nDecimalLen = 3
    reply = tmp_path / "reply.bin"
    reply.write_bytes((EXAMPLES / "current_price.reply").read_bytes())
    frame = blockproc.dask.read_captures([reply, reply], definition, "OutBlock")
    got = client.compute(frame).result().reset_index(drop=True)
    one = blockproc.to_pandas(definition, reply.read_bytes(), "OutBlock")
    pd.testing.assert_frame_equal(got, pd.concat([one, one], ignore_index=True))
    remote_scales = client.submit(blockproc.scales, definition, "OutBlock").result()
    assert remote_scales == blockproc.scales(definition, "OutBlock") == {"price": 0, "change": 0, "rate": 2,
                                                                         "high": 0, "low": 0}


@pytest.mark.parametrize("change, error, words", [
    (dict(chunk_bytes=0), ValueError, ["chunk_bytes must be at least 4,096, not 0"]),
    (dict(chunk_bytes=2.5), TypeError, ["chunk_bytes must be an int"]),
    (dict(stream="yes"), TypeError, ["stream must be True or False"]),
    (dict(numbers="int"), ValueError, ["numbers must be"]),
    (dict(paths=[]), ValueError, ["at least one path"]),
    (dict(paths=[3]), TypeError, ["paths must be str or os.PathLike, not int"]),
    (dict(paths=5), TypeError, ["paths must be a path or an iterable of paths"]),
    (dict(block="Rows\0"), ValueError, ["NUL"]),
])
def test_read_captures_checks_its_arguments(tmp_path, every_type, change, error, words):
    arguments = dict(paths=write_captures(tmp_path, 1, 10), definition=every_type, block="Rows", stream=True)
    arguments.update(change)
    with pytest.raises(error) as raised:
        blockproc.dask.read_captures(arguments.pop("paths"), **arguments)
    for word in words:
        assert word in str(raised.value)


def test_a_stream_that_is_not_whole_records_is_refused_naming_the_file_its_size_and_the_offset(tmp_path,
                                                                                               every_type):
    path = write_captures(tmp_path, 1, 300)[0]
    path.write_bytes(path.read_bytes() + b"xyz")
    size = 300 * ROW.size + 3
    with pytest.raises(ValueError) as raised:
        blockproc.dask.read_captures(path, every_type, "Rows", stream=True, chunk_bytes=100 * ROW.size)
    assert str(raised.value) == "%s: the file holds %s bytes, not a whole number of %d-byte Rows records (3 bytes " \
        "left over from byte %s)" % (path, format(size, ","), ROW.size, format(size - 3, ","))
