"""blockproc: the block data processor, its descriptors and the transaction engine, from Python.

The processor (KXBlockDataProc) and the descriptors (BlockInfo, FieldInfo, ...) keep their C++ names. The
engine functions load a transaction definition and turn replies and real-time streams into Python records or
pandas frames:

    definition = blockproc.load_definition("examples/current_price.xml")
    frame = blockproc.to_pandas(definition, open("examples/current_price.reply", "rb").read(), "OutBlock1")

Values are the tool's canonical values (blockproc decode --format json), exactly. Text fields are str.
int16/int64/sint64 fields are integers. A number field, and a float or double field, is a scaled integer in a
frame: the value times 10**decimals, with the scale in frame.attrs["scales"] (blockproc.as_decimal gives
decimal.Decimal values); a blank number field is <NA>. decode gives the same values as Python objects: int,
decimal.Decimal for a field with decimals, str, None for a blank number. Bytes that have no exact value raise
ValueError naming the block, the record, the field and the byte offset.
"""

import decimal as _decimal
import os as _os

from ._blockproc import *  # noqa: F401,F403  (the processor, the descriptors, encode)
from ._blockproc import Definition, encode, _decode, _load, _reply_columns, _stream_columns

_TEXT, _INT16, _INT64, _SCALED, _REAL, _ATTR = range(6)


def load_definition(source):
    """A Definition from a file path (str or os.PathLike) or from XML text (str starting with '<', or bytes).

    A definition that breaks the format raises ValueError "file:line: what is wrong"; a file that cannot be
    read raises OSError."""
    if isinstance(source, (bytes, bytearray, memoryview)):
        return _load(bytes(source), "<string>")
    if isinstance(source, str) and source.lstrip().startswith("<"):
        return _load(source.encode("utf-8"), "<string>")
    if not isinstance(source, (str, _os.PathLike)):
        raise TypeError("load_definition takes a path or XML text, not " + type(source).__name__)
    path = _os.fspath(source)
    with open(path, "rb") as f:
        return _load(f.read(), path)


def _load_text(xml, name):
    # How a pickled Definition is loaded again (on a Dask worker, say): from the text it was loaded from.
    return _load(xml, name)


def _check_definition(definition):
    if not isinstance(definition, Definition):
        raise TypeError("definition must be a blockproc.Definition (from load_definition), not "
                        + type(definition).__name__)


def _check_block(block):
    if not isinstance(block, str):
        raise TypeError("block must be a block name (str), not " + type(block).__name__)


def _frame(columns, block):
    import pandas as pd

    data, scales = {}, {}
    for name, kind, scale, values, mask in columns:
        if kind == _SCALED:
            values = pd.arrays.IntegerArray(values, mask)
        if kind in (_SCALED, _REAL):
            scales[name] = scale
        data[name] = values
    frame = pd.DataFrame(data, copy=False)
    frame.attrs["block"] = block
    frame.attrs["scales"] = scales
    return frame


def to_pandas(definition, reply, block):
    """A pandas.DataFrame of one output block of a reply: one row per record, one column per field (and one
    "<field>@attr" uint8 column per attribute byte). Decoded in C++ in one call."""
    _check_definition(definition)
    _check_block(block)
    return _frame(_reply_columns(definition, reply, block, "the reply"), block)


def realtime_frame(definition, stream, block):
    """A pandas.DataFrame of a captured real-time stream: the block's records back to back, one row per record
    in the order received (the processor's newest record, its record 0, is the last row)."""
    _check_definition(definition)
    _check_block(block)
    return _frame(_stream_columns(definition, stream, block, "the stream"), block)


def decode(definition, reply):
    """The records of every output block of a reply: {block name: [record, ...]}, each record a dict of field
    name to value: str, int, decimal.Decimal for a field with decimals, None for a blank number field, and an
    int for each "<field>@attr". The values of `blockproc decode --format json`."""
    _check_definition(definition)
    return _decode(definition, reply, "the reply")


def scales(frame):
    """The scale of each scaled column of a frame made by to_pandas or realtime_frame: {column: decimals}."""
    return dict(frame.attrs.get("scales", {}))


def as_decimal(frame, column):
    """A scaled column as a pandas Series of decimal.Decimal (None where the field was blank)."""
    import pandas as pd

    scale = frame.attrs["scales"][column]
    # Built from its text, which the decimal context (precision, rounding) never touches: exact at any precision.
    values = [None if v is pd.NA else _decimal.Decimal("%de-%d" % (v, scale)) for v in frame[column]]
    return pd.Series(values, index=frame.index, name=column, dtype=object)
