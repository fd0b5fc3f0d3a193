"""The engine from Python: definitions, decode, encode, pandas frames, and what they refuse."""

import decimal
import random
import struct

import pandas as pd
import pytest

import blockproc
from conftest import EVERY_TYPE, ROW, row

D = decimal.Decimal


def processor_display(definition, data, block):
    """The processor's display string of every field of every record of a rest block, for comparison."""
    info = definition.block(block)
    proc = blockproc.KXBlockDataProc(info)
    proc.setData(data)
    return [{info.getFieldInfoFromIndex(j).szFieldName: proc.getFieldDataFromIndex(j, i)
             for j in range(info.getFieldCount())} for i in range(proc.getValidCount())]


def test_sample_decodes_to_exact_values(sample):
    definition, reply, _ = sample
    blocks = blockproc.decode(definition, reply)
    assert list(blocks) == ["OutBlock", "OutBlock1"]
    assert blocks["OutBlock"] == [{
        "hname": "한빛전자", "price": 71000, "price@attr": 0x35, "sign": "5", "change": -500, "rate": D("-0.70"),
        "high": 71800, "low": 70600, "volume": 15234567, "per": D("12.35"), "time": "153000", "cnt": 5}]
    assert len(blocks["OutBlock1"]) == 5
    assert blocks["OutBlock1"][0] == {"chetime": "153000", "price": 71000, "sign": "5", "change": -500,
                                      "cvolume": 1204}


def test_every_type_is_exact_and_equals_the_processor_display(every_type):
    rows = [row("삼성전자", b"000123", b"00123456", 0x31, -32768, -2**63, 2**63 - 1, 1234.0, 0.0625),
            row("A", b"    -5", b"+0001.50", 0, 32767, 2**63 - 1, -1, -0.5, -1e15 / 7),
            row("", b"      ", b"        ", 255, 0, 0, 0, 3.0e5, 0.0005)]
    data = b"".join(rows)
    frame = blockproc.realtime_frame(every_type, data, "Rows")
    assert frame["name"].tolist() == ["삼성전자", "A", ""]
    assert frame["qty"].tolist() == [123, -5, pd.NA]
    assert frame["price"].tolist() == [123456, 150, pd.NA]
    assert frame["price@attr"].tolist() == [0x31, 0, 255]
    assert frame["i16"].tolist() == [-32768, 32767, 0]
    assert frame["i64"].tolist() == [-2**63, 2**63 - 1, 0]
    assert frame["s64"].tolist() == [2**63 - 1, -1, 0]
    assert frame["f"].tolist() == [1234, 0, 300000]  # 12.34, -0.00, 3000.00
    # The exact binary values rounded half to even: 0.0625 -> 0.062; -1e15/7 is ...142.84375; 0.0005 is above
    # one half of the last place.
    assert frame["d"].tolist() == [62, -142857142857142844, 1]
    assert {c: str(t) for c, t in frame.dtypes.items()} == {
        "name": "object", "qty": "Int64", "price": "Int64", "price@attr": "uint8", "i16": "int16",
        "i64": "int64", "s64": "int64", "f": "int64", "d": "int64"}
    assert blockproc.scales(frame) == {"qty": 0, "price": 2, "f": 2, "d": 3}
    for record, shown in zip(frame.itertuples(index=False), processor_display(every_type, data, "Rows")):
        values = record._asdict()
        assert values["name"] == shown["name"]
        for column, scale in blockproc.scales(frame).items():
            if values[column] is not pd.NA:  # a blank number field, which the processor shows as 0
                assert D(int(values[column])).scaleb(-scale) == D(shown[column]), column


def test_floating_point_scaling_matches_the_processor_on_random_values(every_type):
    rng = random.Random(7)
    doubles = [rng.uniform(-1e6, 1e6) for _ in range(300)] + [k / 16 for k in range(-80, 80)] + [
        2.0**-30, 1e15 + 0.5, 123456789.0125, -0.0, 5e-324, 2.5e-3, 9.2e15]
    floats = [struct.unpack("<f", struct.pack("<f", rng.uniform(-1e7, 1e7)))[0] for _ in range(300)]
    data = b"".join(row("x", b"1", b"1", 0, 0, 0, 0, f, d) for f, d in zip(floats * 2, doubles))
    frame = blockproc.realtime_frame(every_type, data, "Rows")
    shown = processor_display(every_type, data, "Rows")
    assert [D(int(v)).scaleb(-2) for v in frame["f"]] == [D(s["f"]) for s in shown]
    assert [D(int(v)).scaleb(-3) for v in frame["d"]] == [D(s["d"]) for s in shown]


def test_to_pandas_and_realtime_frame_of_the_sample(sample):
    definition, reply, stream = sample
    frame = blockproc.to_pandas(definition, reply, "OutBlock1")
    assert frame["chetime"].tolist() == ["153000", "152958", "152955", "152951", "152947"]
    assert frame["cvolume"].dtype == "int64" and frame["price"].dtype == "Int64"
    assert frame.attrs == {"block": "OutBlock1", "scales": {"price": 0, "change": 0}}
    assert blockproc.as_decimal(blockproc.to_pandas(definition, reply, "OutBlock"), "rate").tolist() == [D("-0.70")]
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
    ("<transaction code='X'><output><block name='B'><field name='a' type='nubmer' length='3'/></block>"
     "</output></transaction>", ["<string>:1:", "nubmer"]),
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


def test_bad_bytes_are_refused_with_block_record_field_and_offset(every_type):
    good = row("ok", b"1", b"1", 0, 0, 0, 0, 0.0, 0.0)
    with pytest.raises(ValueError, match=r"block Rows, record 1, field 'name' \(byte 55 of the stream\).*cp949"):
        blockproc.realtime_frame(every_type, good + b"\xff\xfe" + good[2:], "Rows")
    with pytest.raises(ValueError, match=r"record 0, field 'qty' \(byte 10 .*'12a' is not a number"):
        blockproc.realtime_frame(every_type, good[:10] + b"   12a" + good[16:], "Rows")
    with pytest.raises(ValueError, match=r"field 'price'.*3 decimal places; the field declares 2"):
        blockproc.realtime_frame(every_type, good[:16] + b"  1.234 " + good[24:], "Rows")
    with pytest.raises(ValueError, match=r"field 'd'.*not a finite number"):
        blockproc.realtime_frame(every_type, good[:-8] + struct.pack("<d", float("nan")), "Rows")
    with pytest.raises(ValueError, match="not a whole number of 55-byte Rows records"):
        blockproc.realtime_frame(every_type, good[:-1], "Rows")


def test_hostile_arguments_raise_instead_of_crashing(sample):
    definition, reply, _ = sample
    with pytest.raises(ValueError, match="3 remain"):
        blockproc.to_pandas(definition, reply + b"abc", "OutBlock1")
    with pytest.raises(ValueError, match="needs"):
        blockproc.decode(definition, reply[:100])
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
