"""Many capture files as one dask.dataframe, decoded where the data is: on the workers of a dask.distributed
cluster when a Client is active, else on the local threads.

    from dask.distributed import Client
    client = Client("tcp://scheduler:8786")          # or Client(LocalCluster(...)), or no client at all
    frame = blockproc.dask.read_captures(paths, definition, "OutBlock1")
    frame.groupby("shcode").volume.max().compute()
"""

import os

import dask.dataframe as dd

import blockproc

_CHUNK_BYTES = 64 << 20


def _empty(definition, block):
    # A frame of no records has every column in its final dtype.
    return blockproc._frame(blockproc._stream_columns(definition, b"", block, "meta"), block)


def _read_part(part, definition, block, stream):
    path, offset, length = part
    with open(path, "rb") as f:
        f.seek(offset)
        data = f.read(length) if length is not None else f.read()
    if stream:
        columns = blockproc._stream_columns(definition, data, block, path, offset)
    else:
        columns = blockproc._reply_columns(definition, data, block, path)
    return blockproc._frame(columns, block)


def _parts(paths, record_size, stream, chunk_bytes):
    parts = []
    for path in paths:
        path = os.fspath(path)
        if not stream:
            parts.append((path, 0, None))
            continue
        size = os.path.getsize(path)
        step = max(chunk_bytes // record_size, 1) * record_size
        for offset in range(0, max(size, 1), step):
            parts.append((path, offset, min(step, size - offset)))
    return parts


def read_captures(paths, definition, block, *, stream=False, chunk_bytes=_CHUNK_BYTES):
    """A dask.dataframe of one block over many capture files, with the columns and values of to_pandas.

    paths: file paths (str or os.PathLike), or one path. definition: a blockproc.Definition (it travels to the
    workers with its text, so they need not have the file). With stream=False each file is a reply and one
    partition; with stream=True each file is a real-time stream of the block's records, cut into partitions of
    about chunk_bytes (whole records). The files must be readable by the workers at the same paths."""
    blockproc._check_definition(definition)
    blockproc._check_block(block)
    if isinstance(paths, (str, os.PathLike)):
        paths = [paths]
    paths = list(paths)
    if not paths:
        raise ValueError("read_captures needs at least one path")
    record_size = definition.block(block).getRecordMemSize()
    meta = _empty(definition, block)
    parts = _parts(paths, record_size, stream, chunk_bytes)
    frame = dd.from_map(_read_part, parts, definition=definition, block=block, stream=stream, meta=meta,
                        enforce_metadata=False)
    return frame
