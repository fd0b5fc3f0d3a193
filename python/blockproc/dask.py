"""Many capture files as one dask.dataframe, decoded where the data is: on the workers of a dask.distributed
cluster when a Client is active, else on the local threads.

    from dask.distributed import Client
    if __name__ == "__main__":                        # a script that starts processes needs the guard
        client = Client("tcp://127.0.0.1:8786")       # or Client(LocalCluster(...)), or no client at all
        frame = blockproc.dask.read_captures(paths, definition, "OutBlock1")
        frame.groupby("shcode").volume.max().compute()
"""

import os

import dask.dataframe as dd

import blockproc

_CHUNK_BYTES = 64 << 20
_MIN_CHUNK_BYTES = 4096


def _empty(definition, block, numbers):
    # A frame of no records has every column in its final dtype.
    return blockproc._frame(blockproc._stream_columns(definition, b"", block, "meta", 0, numbers), block)


def _read_part(part, definition, block, stream, numbers):
    path, offset, length = part
    with open(path, "rb") as f:
        f.seek(offset)
        data = f.read(length) if length is not None else f.read()
    if stream:
        if length is not None and len(data) != length:
            raise ValueError("%s: the file ends at byte %d, inside the piece of bytes %d to %d it held when the "
                             "partitions were made" % (path, offset + len(data), offset, offset + length))
        columns = blockproc._stream_columns(definition, data, block, path, offset, numbers)
    else:
        columns = blockproc._reply_columns(definition, data, block, path, numbers)
    return blockproc._frame(columns, block)


def _parts(paths, record_size, block, stream, chunk_bytes):
    parts = []
    for path in paths:
        if not stream:
            parts.append((path, 0, None))
            continue
        size = os.path.getsize(path)
        if size % record_size:
            whole = size - size % record_size
            raise ValueError("%s: the file holds %s bytes, not a whole number of %s-byte %s records (%s bytes "
                             "left over from byte %s)" % (path, format(size, ","), format(record_size, ","),
                                                         block, format(size - whole, ","), format(whole, ",")))
        step = max(chunk_bytes // record_size, 1) * record_size
        for offset in range(0, max(size, 1), step):
            parts.append((path, offset, min(step, size - offset)))
    return parts


def _check_paths(paths):
    if isinstance(paths, (str, bytes, os.PathLike)):
        paths = [paths]
    try:
        paths = list(paths)
    except TypeError:
        raise TypeError("paths must be a path or an iterable of paths, not " + type(paths).__name__) from None
    checked = []
    for path in paths:
        if not isinstance(path, (str, os.PathLike)):
            raise TypeError("paths must be str or os.PathLike, not " + type(path).__name__)
        path = os.fspath(path)
        if not isinstance(path, str) or "\0" in path:
            raise ValueError("paths must be str file paths without NUL characters: %r" % (path,))
        checked.append(path)
    if not checked:
        raise ValueError("read_captures needs at least one path")
    return checked


def read_captures(paths, definition, block, *, stream=False, chunk_bytes=_CHUNK_BYTES, numbers="scaled"):
    """A dask.dataframe of one block over many capture files, with the columns and values of to_pandas.

    paths: file paths (str or os.PathLike), or one path. definition: a blockproc.Definition (it travels to the
    workers with its text, so they need not have the file). With stream=False each file is a reply and one
    partition; with stream=True each file is a real-time stream of the block's records, cut into partitions of
    about chunk_bytes (whole records, at least 4,096 bytes). The files must be readable by the workers at the
    same paths. numbers: the form of number columns, as in blockproc.to_pandas."""
    blockproc._check_definition(definition)
    blockproc._check_block(block)
    blockproc._check_numbers(numbers)
    if not isinstance(stream, bool):
        raise TypeError("stream must be True or False, not " + type(stream).__name__)
    if isinstance(chunk_bytes, bool) or not isinstance(chunk_bytes, int):
        raise TypeError("chunk_bytes must be an int, not " + type(chunk_bytes).__name__)
    if chunk_bytes < _MIN_CHUNK_BYTES:
        raise ValueError("chunk_bytes must be at least %s, not %d" % (format(_MIN_CHUNK_BYTES, ","), chunk_bytes))
    paths = _check_paths(paths)
    record_size = definition.block(block).getRecordMemSize()
    meta = _empty(definition, block, numbers)
    parts = _parts(paths, record_size, block, stream, chunk_bytes)
    frame = dd.from_map(_read_part, parts, definition=definition, block=block, stream=stream, numbers=numbers,
                        meta=meta, enforce_metadata=False)
    return frame
