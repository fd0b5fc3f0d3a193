"""The engine from Python: definitions, decode, encode, pandas frames, and what they refuse."""

import decimal
import random
import struct

import pandas as pd
import pytest

import blockproc
from conftest import EVERY_TYPE, EXAMPLES, ROW, row

D = decimal.Decimal


def frame_records(frame):
    """A frame's rows in the form decode gives records: scaled columns as exact numbers, <NA> as None."""
    columns = {c: frame[c].tolist() for c in frame.columns}
    for column in blockproc.scales(frame):
        columns[column] = blockproc.as_decimal(frame, column).tolist()
    return [dict(zip(columns, values)) for values in zip(*columns.values())]


def test_sample_decodes_to_the_tools_values(sample, tool):
    definition, reply, _ = sample
    blocks = blockproc.decode(definition, reply)
    assert list(blocks) == ["OutBlock", "OutBlock1"]
    record = blocks["OutBlock"][0]
    assert record == {
        "hname": "한빛전자", "price": 71000, "price@attr": 0x35, "sign": "5", "change": -500, "rate": D("-0.70"),
        "high": 71800, "low": 70600, "volume": 15234567, "per": D("12.35"), "time": "153000", "cnt": 5}
    assert type(record["price"]) is int and type(record["rate"]) is D and type(record["per"]) is D
    assert blocks == tool(str(EXAMPLES / "current_price.xml"), reply)
    assert frame_records(blockproc.to_pandas(definition, reply, "OutBlock1")) == blocks["OutBlock1"]


def test_every_type_gives_the_tools_values_in_frames_and_records(every_type, tool):
    rows = [row("삼성전자\u3000", b"000123", b"00123456", 0x31, b"+01.50", -32768, -2**63, 2**63 - 1, 1234.0, 0.125),
            row(" A", b"    -5", b"+0001.50", 0, b"   -07", 32767, 2**63 - 1, -1, -50.0, -1e15 / 8),
            row("", b"      ", b"        ", 255, b"      ", 0, 0, 0, 3.0e5, 0.001)]
    data = b"".join(rows)
    frame = blockproc.realtime_frame(every_type, data, "Rows")
    assert frame["name"].tolist() == ["삼성전자\u3000", " A", ""]  # leading and ideographic spaces are text
    assert frame["qty"].tolist() == [123, -5, pd.NA]
    assert frame["price"].tolist() == [123456, 150, pd.NA]
    assert frame["rate"].tolist() == [150, -7, pd.NA]
    assert {c: str(t) for c, t in frame.dtypes.items()} == {
        "name": "object", "qty": "Int64", "price": "Int64", "price@attr": "uint8", "rate": "Int64",
        "i16": "int16", "i64": "int64", "s64": "int64", "f": "int64", "d": "int64"}
    assert blockproc.scales(frame) == {"qty": 0, "price": 2, "rate": 2, "f": 2, "d": 3}
    records = blockproc.decode(every_type, data)["Rows"]
    assert frame_records(frame) == records == tool(EVERY_TYPE, data)["Rows"]


def test_text_columns_give_every_value_whether_it_repeats_or_not(every_type):
    # A column whose values rarely repeat stops looking them up after 1,024 records; one that repeats keeps
    # its table: both give each record's own text.
    for names in ([f"N{i:06d}" for i in range(1500)], ["삼성전자", "A", "삼성전자우"] * 500):
        data = b"".join(row(n, b"1", b"1", 0, b"1", 0, 0, 0, 0.0, 0.0) for n in names)
        assert blockproc.realtime_frame(every_type, data, "Rows")["name"].tolist() == names


def test_float_and_double_columns_equal_the_tools_values(every_type, tool):
    # Whole floats below 2^24 and doubles of at most 3 places below 2^53 take the columns' fast paths; larger
    # ones go through the engine's shortest text (123456792.0 shows as 1234567.90).
    rng = random.Random(7)
    floats = [float(rng.randint(-2**24 + 1, 2**24 - 1)) for _ in range(150)] + [
        float(rng.randint(-2**40, 2**40)) for _ in range(150)] + [16777216.0, 123456792.0, -0.0, 3.0e5]
    doubles = [rng.randint(-10**rng.randint(1, 15), 10**15) / 1000 for _ in range(250)] + [
        float(rng.randint(-2**62, 2**62) // 1000) for _ in range(50)] + [1e15 + 0.5, 9.2e15, -0.0, 2**53]
    data = b"".join(row("x", b"1", b"1", 0, b"1", 0, 0, 0, f, d) for f, d in zip(floats, doubles))
    expected = tool(EVERY_TYPE, data)["Rows"]
    frame = blockproc.realtime_frame(every_type, data, "Rows")
    assert blockproc.as_decimal(frame, "f").tolist() == [r["f"] for r in expected]
    assert blockproc.as_decimal(frame, "d").tolist() == [r["d"] for r in expected]
    assert blockproc.decode(every_type, data)["Rows"] == expected


def test_as_decimal_is_exact_under_a_low_decimal_precision(every_type):
    frame = blockproc.realtime_frame(every_type, row("x", b"1", b"12345678", 0, b"1", 0, 0, 0, 0.0, 0.0), "Rows")
    with decimal.localcontext(prec=4):
        assert blockproc.as_decimal(frame, "price").tolist() == [D("123456.78")]


def test_to_pandas_and_realtime_frame_of_the_sample(sample):
    definition, reply, stream = sample
    frame = blockproc.to_pandas(definition, reply, "OutBlock1")
    assert frame["cvolume"].dtype == "int64" and frame["price"].dtype == "Int64"
    assert frame.attrs == {"block": "OutBlock1", "scales": {"price": 0, "change": 0}}
    # A stream in the order received: the processor's newest record (its record 0) is the last row.
    live = blockproc.realtime_frame(definition, stream, "OutBlock1")
    assert len(live) == len(stream) // definition.block("OutBlock1").getRecordMemSize()
    assert live["chetime"].iloc[0] == "090000" and live["chetime"].iloc[-1] == "090015"


def test_encode_builds_requests_and_replies(sample):
    definition, reply, _ = sample
    assert blockproc.encode(definition, {"InBlock": {"shcode": "005930"}}) == b"005930"
    assert blockproc.encode(definition, {"InBlock": {"shcode": None}}) == b"      "  # left at its default
    values = blockproc.decode(definition, reply)
    assert blockproc.encode(definition, values, reply=True) == reply


@pytest.mark.parametrize("values, error, words", [
    ({"InBlock": {"shcode": "1234567"}}, ValueError, ["block InBlock, record 0, field shcode: '1234567' takes 7"]),
    ({"InBlock": {"shcode": 1.5}}, TypeError, ["block InBlock, record 0, field shcode: a float"]),
    ({"InBlock": {"shcode": True}}, TypeError, ["bool"]),
    ({"InBlock": {"nope": "1"}}, ValueError, ["no field 'nope'"]),
    ({"InBlock": "005930"}, TypeError, ["dict of field values"]),
    (["InBlock"], TypeError, ["dict of block name"]),
])
def test_encode_refuses_what_does_not_fit(sample, values, error, words):
    with pytest.raises(error) as raised:
        blockproc.encode(sample[0], values)
    for word in words:
        assert word in str(raised.value)


def test_encode_names_the_record_of_a_repeated_block(sample):
    definition, reply, _ = sample
    ticks = [{"chetime": "090000", "price": "100"}, {"chetime": "090001", "price": "12x"}]
    with pytest.raises(ValueError, match=r"^block OutBlock1, record 1, field price: '12x' is not a number$"):
        blockproc.encode(definition, {"OutBlock1": ticks}, reply=True)


@pytest.mark.parametrize("text, words", [
    ("<transaction code='X'>\n<output>\n<block name='B'>\n</output></transaction>", ["<string>:4:", "mismatch"]),
    ("<transaction>\n</transaction>", ["<string>:1:", "code"]),
])
def test_bad_definitions_raise_value_error_with_file_and_line(text, words):
    with pytest.raises(ValueError) as raised:
        blockproc.load_definition(text)
    for word in words:
        assert word.lower() in str(raised.value).lower()


def test_definition_file_errors(tmp_path):
    bad = tmp_path / "bad.xml"
    bad.write_text("<transaction code='X'>\n  <output>\n    <block name='B'/>\n  </output>\n</transaction>\n")
    with pytest.raises(ValueError, match=r"bad\.xml:3:"):
        blockproc.load_definition(bad)
    with pytest.raises(OSError):
        blockproc.load_definition(tmp_path / "missing.xml")
    with pytest.raises(TypeError):
        blockproc.load_definition(42)


GOOD = row("ok", b"1", b"1", 0, b"1", 0, 0, 0, 0.0, 0.0)


def patched(at, data):
    """GOOD with `data` written over its bytes from `at`."""
    return GOOD[:at] + data + GOOD[at + len(data):]


@pytest.mark.parametrize("read", [
    lambda d, data: blockproc.realtime_frame(d, data, "Rows"),
    lambda d, data: blockproc.decode(d, data),
], ids=["frame", "decode"])
@pytest.mark.parametrize("bad, why", [
    (patched(0, b"\xff\xfe"), r"field name \(byte 61 of .*\): byte 0 \(0xFF\) is not cp949 text"),
    (patched(9, "전".encode("cp949")[:1]), r"field name \(byte 70 of .*\): byte 9 \(0xC0\) is not cp949 text"),
    (patched(10, b"   12a"), r"field qty \(byte 76 of .*\): byte 5 \(0x61\) is not part of a number"),
    (patched(16, b" 1.234  "), r"field price \(byte 77 of .*\): .* more decimal places than the field's 2"),
    (patched(53, struct.pack("<d", float("nan"))), r"field d \(byte 114 of .*\): .*not a finite number"),
])
def test_bytes_without_an_exact_value_are_refused_naming_block_record_field_offset(every_type, read, bad, why):
    with pytest.raises(ValueError, match="^block Rows, record 1, " + why):
        read(every_type, GOOD + bad)


def test_a_float_or_double_with_more_places_than_its_decimals_is_its_value():
    data = GOOD + patched(53, struct.pack("<d", 0.0625))
    assert blockproc.decode(blockproc.load_definition(EVERY_TYPE), data)["Rows"][1]["d"] == decimal.Decimal("0.0625")
    with pytest.raises(ValueError, match=r"field d \(byte 114 of .*\): 0.0625 has more decimal places than the column"):
        blockproc.realtime_frame(blockproc.load_definition(EVERY_TYPE), data, "Rows")


def test_no_value_writes_a_number_field_blank_as_decode_gives_it():
    definition = blockproc.load_definition(
        "<transaction code='T3'><output><block name='B'><field name='n' type='number' length='5'/>"
        "<field name='i' type='int16'/></block></output></transaction>")
    reply = blockproc.encode(definition, {"B": {"n": None, "i": None}}, reply=True)
    assert reply == b"     \0\0"
    assert blockproc.decode(definition, reply) == {"B": [{"n": None, "i": 0}]}


def test_a_number_beyond_64_bits_is_exact_in_records_and_refused_in_a_frame():
    definition = blockproc.load_definition(
        "<transaction code='T2'><output><block name='B'><field name='n' type='number' length='20'/></block>"
        "</output></transaction>")
    reply = b"-9999999999999999999"
    assert blockproc.decode(definition, reply) == {"B": [{"n": -9999999999999999999}]}
    with pytest.raises(ValueError, match=r"^block B, record 0, field n \(byte 0 of the reply\): -9999999999999999999 "
                                         r"does not fit a 64-bit column"):
        blockproc.to_pandas(definition, reply, "B")
    with pytest.raises(ValueError, match=r"field d \(byte 53 of the stream\): 9300000000000000\.000 does not fit"):
        blockproc.realtime_frame(blockproc.load_definition(EVERY_TYPE), patched(53, struct.pack("<d", 9.3e15)), "Rows")


def test_a_stream_of_part_records_is_refused(every_type):
    with pytest.raises(ValueError, match="not a whole number of %d-byte Rows records" % ROW.size):
        blockproc.realtime_frame(every_type, GOOD[:-1], "Rows")


def test_hostile_arguments_raise_instead_of_crashing(sample):
    definition, reply, _ = sample
    with pytest.raises(ValueError, match="3 remain"):
        blockproc.to_pandas(definition, reply + b"abc", "OutBlock1")
    with pytest.raises(TypeError):
        blockproc.to_pandas(definition, reply.decode("latin1"), "OutBlock1")
    with pytest.raises(TypeError):
        blockproc.to_pandas("current_price.xml", reply, "OutBlock1")
    with pytest.raises(KeyError):
        blockproc.to_pandas(definition, reply, "NoSuchBlock")
    with pytest.raises(KeyError, match="not an output block"):
        blockproc.to_pandas(definition, reply, "InBlock")
    assert blockproc.to_pandas(definition, memoryview(bytearray(reply)), "OutBlock1").shape == (5, 5)


def test_definitions_pickle_with_their_text(sample):
    import pickle

    definition = pickle.loads(pickle.dumps(sample[0]))
    assert definition.code == "Q10100" and definition.output_blocks == ["OutBlock", "OutBlock1"]
    assert blockproc.load_definition(EVERY_TYPE).block("Rows").getRecordMemSize() == ROW.size
