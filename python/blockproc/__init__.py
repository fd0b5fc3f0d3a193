"""blockproc: the block data processor, its descriptors and the transaction engine, from Python.

The processor (KXBlockDataProc) and the descriptors (BlockInfo, FieldInfo, ...) keep their C++ names. The
engine functions load a transaction definition and turn replies and real-time streams into Python records or
pandas frames:

    definition = blockproc.load_definition("examples/current_price.xml")
    frame = blockproc.to_pandas(definition, open("examples/current_price.reply", "rb").read(), "OutBlock1")

Values are the tool's canonical values (blockproc decode --format json), exactly. Text fields are str.
int16/int64/sint64 fields are integers. A number field is, in a frame, by numbers=:
  "scaled" (the default)  an exact Int64 column of the value times 10**decimals, <NA> for a blank; the scales
                          are blockproc.scales(definition, block) (also frame.attrs["scales"], which pandas
                          drops in groupby and merge); blockproc.as_decimal gives decimal.Decimal values
  "float"                 float64 in the field's units (the nearest double), NaN for a blank
  "decimal"               decimal.Decimal objects, exact, None for a blank
A float or double field is a float64 column: the double itself, or the value a float shows. decode gives the
values as Python objects: int, decimal.Decimal for a field with decimals (a float or double: the tool's text),
str, None for a blank number; a field flagged as a password is "********" unless show_secrets=True. Bytes that
have no exact value raise ValueError naming the block, the record, the field and the byte offset.

encode_frame writes such a frame back into bytes: to_pandas(definition, encode_frame(definition, frame, block),
block) equals the frame, in any numbers= form; a value the field cannot hold exactly raises ValueError naming
the block, the row and the column.

A loaded Definition does not change: setting a member of its blocks or fields raises TypeError. It is pickled
(to Dask workers) as the text it was loaded from, so every process uses the same definition; to change one,
change its XML and load it again.
"""

import os as _os

from ._blockproc import *  # noqa: F401,F403  (the processor, the descriptors, encode)
from ._blockproc import (Definition, encode, _decimals, _decode, _encode_frame, _load, _reply_columns, _scales,
                         _stream_columns)

_TEXT, _INT16, _INT64, _SCALED, _REAL, _ATTR, _FLOAT, _DECIMAL = range(8)
_NUMBERS = ("scaled", "float", "decimal")


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
    if "\0" in block:
        raise ValueError("block must be a block name; %r holds a NUL character" % block)


def _check_numbers(numbers):
    if not isinstance(numbers, str):
        raise TypeError('numbers must be "scaled", "float" or "decimal", not ' + type(numbers).__name__)
    if numbers not in _NUMBERS:
        raise ValueError('numbers must be "scaled", "float" or "decimal", not %r' % numbers)


def _frame(columns, block):
    import pandas as pd

    data, scales = {}, {}
    for name, kind, scale, values, mask in columns:
        if kind == _SCALED:
            values = pd.arrays.IntegerArray(values, mask)
            scales[name] = scale
        data[name] = values
    frame = pd.DataFrame(data, copy=False)
    frame.attrs["block"] = block
    frame.attrs["scales"] = scales
    return frame


def to_pandas(definition, reply, block, *, numbers="scaled"):
    """A pandas.DataFrame of one output block of a reply (bytes-like, any size): one row per record, one column
    per field (and one "<field>@attr" uint8 column per attribute byte). Decoded in C++ in one call. numbers:
    "scaled", "float" or "decimal", the form of the number columns (see the module's help)."""
    _check_definition(definition)
    _check_block(block)
    _check_numbers(numbers)
    return _frame(_reply_columns(definition, reply, block, "the reply", numbers), block)


def realtime_frame(definition, stream, block, *, numbers="scaled"):
    """A pandas.DataFrame of a captured real-time stream: the block's records back to back, one row per record
    in the order received (the processor's newest record, its record 0, is the last row)."""
    _check_definition(definition)
    _check_block(block)
    _check_numbers(numbers)
    return _frame(_stream_columns(definition, stream, block, "the stream", 0, numbers), block)


def decode(definition, reply, *, show_secrets=False):
    """The records of every output block of a reply: {block name: [record, ...]}, each record a dict of field
    name to value: str, int, decimal.Decimal for a field with decimals, None for a blank number field, and an
    int for each "<field>@attr". The values of `blockproc decode --format json`; a field flagged as a password
    is "********" unless show_secrets=True."""
    _check_definition(definition)
    if not isinstance(show_secrets, bool):
        raise TypeError("show_secrets must be True or False, not " + type(show_secrets).__name__)
    return _decode(definition, reply, "the reply", show_secrets)


def scales(definition, block=None):
    """The scale of each scaled column: {column: decimals}. From the definition and a block name (what pandas
    does to a frame cannot lose it), or from a frame made by to_pandas or realtime_frame (its attrs)."""
    if isinstance(definition, Definition):
        _check_block(block)
        return _scales(definition, block)
    if block is not None:
        raise TypeError("scales takes a Definition and a block name, or a frame alone")
    attrs = getattr(definition, "attrs", None)
    if not isinstance(attrs, dict):
        raise TypeError("scales takes a Definition and a block name, or a frame, not "
                        + type(definition).__name__)
    return dict(attrs.get("scales", {}))


def as_decimal(frame, column, scale=None):
    """A scaled column as a pandas Series of decimal.Decimal (None where the field was blank), exact at any
    decimal precision. The scale is `scale` when given (say blockproc.scales(definition, block)[column]), else
    the frame's attrs; ValueError when neither has one or the column is not a scaled integer column."""
    import pandas as pd

    if column not in frame.columns:
        raise KeyError("the frame has no column %r" % (column,))
    if scale is None:
        known = frame.attrs.get("scales", {})
        if column not in known:
            raise ValueError(
                "column %r has no scale: it is not a scaled column of this frame, or pandas dropped the frame's "
                "attrs (groupby, merge); give scale=blockproc.scales(definition, block)[%r]" % (column, column))
        scale = known[column]
    if isinstance(scale, bool) or not isinstance(scale, int):
        raise TypeError("scale must be an int, not " + type(scale).__name__)
    series = frame[column]
    if not pd.api.types.is_integer_dtype(series.dtype):
        raise ValueError("column %r is %s, not a scaled integer column (an Int64 column of to_pandas with "
                         "numbers=\"scaled\")" % (column, series.dtype))
    blank = series.isna().to_numpy() if series.hasnans else None
    values = series.to_numpy(dtype="int64", na_value=0)
    return pd.Series(_decimals(values, blank, scale), index=frame.index, name=column, dtype=object)


def _column_arrays(frame):
    """(name, values, mask) of each column of a frame: numpy arrays read in place by the encoder, the mask of a
    nullable column's missing values or None."""
    import numpy as np
    import pandas as pd

    masked = (pd.arrays.IntegerArray, pd.arrays.FloatingArray, pd.arrays.BooleanArray)
    columns = []
    for name, series in frame.items():
        array = series.array
        if isinstance(series.dtype, np.dtype):
            values, mask = series.to_numpy(), None
            if values.dtype.kind == "U":
                values = values.astype(object)
        elif isinstance(array, masked):
            # The values and the mask of the missing ones (whose places hold any number), as the array keeps
            # them where it has them, else copied.
            values, mask = getattr(array, "_data", None), getattr(array, "_mask", None)
            if not (isinstance(values, np.ndarray) and isinstance(mask, np.ndarray)):
                mask = np.asarray(array.isna())
                values = array.to_numpy(dtype=array.dtype.numpy_dtype,
                                        na_value=np.nan if array.dtype.kind == "f" else 0)
        else:
            values, mask = series.to_numpy(dtype=object), None  # str, categories, other extension arrays
        columns.append((name, values, mask))
    return columns


def encode_frame(definition, frame, block, stream=False):
    """The bytes of a block's records from a pandas.DataFrame with the columns to_pandas gives (one per field,
    "<field>@attr" for each attribute byte, in any order): the block's part of a reply as to_pandas reads it
    (its record-count prefix first when it has one; a one-record block takes one row, a repeated block at most
    its repeat), or with stream=True a real-time stream of its records back to back, as realtime_frame reads
    it. Encoded in C++ in one call.

    A number field's column is Int64 of the value times 10**decimals (blockproc.scales(definition, block);
    frame.attrs["scales"], when there, must agree), float64 standing for the decimal of at most its decimals
    nearest to it, or decimal.Decimal objects; <NA>, NaN or None is a blank number, which is written as spaces.
    Text is str (None or <NA> for blank text); int16/int64 fields take integers, float/double fields float64;
    "<field>@attr" an integer 0 to 255. A value a field cannot hold exactly (too long, too many places, out of
    range, a float64 standing for no one decimal, a blank in a field without one) raises ValueError naming the
    block, the row (its index label), the column and why; so do a missing or unknown column and a frame with
    more rows than the block holds. A column or value of a type no field takes raises TypeError."""
    import pandas as pd

    _check_definition(definition)
    _check_block(block)
    if not isinstance(frame, pd.DataFrame):
        raise TypeError("frame must be a pandas.DataFrame, not " + type(frame).__name__)
    if not isinstance(stream, bool):
        raise TypeError("stream must be True or False, not " + type(stream).__name__)
    known = frame.attrs.get("scales")
    if known is not None:
        scale_of = _scales(definition, block)
        for column, scale in dict(known).items():
            if scale_of.get(column) != scale:
                why = ("is scaled by 10**%d" % scale_of[column] if column in scale_of
                       else "is not a number field's scaled column")
                raise ValueError("block %s: frame.attrs[\"scales\"] gives column %r the scale %r, but it %s in "
                                 "the definition" % (block, column, scale, why))
    return _encode_frame(definition, _column_arrays(frame), frame.index, block, stream)
