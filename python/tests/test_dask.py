"""Many capture files through Dask on a local cluster of two worker processes, against pandas in one process."""

import pandas as pd
import pytest
from dask.distributed import Client, LocalCluster

import blockproc
import blockproc.dask
from conftest import ROW, row


@pytest.fixture(scope="module")
def client():
    with LocalCluster(n_workers=2, processes=True, threads_per_worker=1, dashboard_address=None) as cluster, \
            Client(cluster) as client:
        yield client


def captures(tmp_path, count, records):
    paths = []
    for k in range(count):
        path = tmp_path / ("capture%d.bin" % k)
        path.write_bytes(b"".join(row("종목%d" % (k * 100 + i % 7), b"%6d" % i, b"%8d" % (i * 3 - 50), i % 256,
                                      b"%6.2f" % (i / 4), i - 100, k << 40 | i, -i, i * 4 - 600, i / 8)
                                  for i in range(records)))
        paths.append(path)
    return paths


def test_read_captures_on_a_local_cluster_equals_pandas(client, tmp_path, every_type):
    paths = captures(tmp_path, 4, 300)
    expected = pd.concat([blockproc.realtime_frame(every_type, p.read_bytes(), "Rows") for p in paths],
                         ignore_index=True)
    frame = blockproc.dask.read_captures(paths, every_type, "Rows", stream=True, chunk_bytes=100 * ROW.size)
    assert frame.npartitions == 4 * 3
    got = client.compute(frame).result().reset_index(drop=True)
    pd.testing.assert_frame_equal(got, expected)
    # The reply form: one file a reply, one partition per file.
    replies = blockproc.dask.read_captures(paths, every_type, "Rows")
    assert replies.npartitions == 4
    pd.testing.assert_frame_equal(client.compute(replies).result().reset_index(drop=True), expected)
    assert replies.groupby("name").qty.count().compute().sum() == 4 * 300


def test_a_bad_capture_fails_the_computation_with_its_path(client, tmp_path, every_type):
    paths = captures(tmp_path, 2, 10)
    paths[1].write_bytes(paths[1].read_bytes()[:-1])
    frame = blockproc.dask.read_captures(paths, every_type, "Rows")
    with pytest.raises(ValueError, match="capture1.bin.*not a whole number"):
        client.compute(frame).result()


def test_an_error_in_a_later_stream_partition_names_the_record_in_the_file(client, tmp_path, every_type):
    path = captures(tmp_path, 1, 300)[0]
    data = bytearray(path.read_bytes())
    data[250 * ROW.size:250 * ROW.size + 2] = b"\xff\xfe"
    path.write_bytes(data)
    frame = blockproc.dask.read_captures(path, every_type, "Rows", stream=True, chunk_bytes=100 * ROW.size)
    with pytest.raises(ValueError, match=r"record 250, field name \(byte %d of .*capture0.bin\)" % (250 * ROW.size)):
        client.compute(frame).result()
