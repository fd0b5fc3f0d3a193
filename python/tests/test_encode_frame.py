"""encode_frame: a frame of every column kind and numbers= form comes back from its bytes as it was; a capture
comes back byte for byte; what a field cannot hold is refused naming the row and the column."""

import decimal
import os
import pathlib
import random
import subprocess

import numpy as np
import pandas as pd
import pytest

import blockproc
from conftest import EXAMPLES, market_rows

D = decimal.Decimal
NUMBERS = ("scaled", "float", "decimal")


def round_trip(definition, frame, block, stream=False, numbers="scaled"):
    data = blockproc.encode_frame(definition, frame, block, stream=stream)
    read = blockproc.realtime_frame if stream else blockproc.to_pandas
    pd.testing.assert_frame_equal(read(definition, data, block, numbers=numbers), frame)
    return data


@pytest.mark.parametrize("numbers", NUMBERS)
@pytest.mark.parametrize("seed, computed", [(1, True), (2, False), (3, True)])
def test_decoded_traffic_comes_back_in_every_form(every_type, numbers, seed, computed):
    frame = blockproc.to_pandas(every_type, market_rows(700, seed, computed), "Rows", numbers=numbers)
    data = round_trip(every_type, frame, "Rows", numbers=numbers)
    # The bytes are the encoder's forms, so a second round gives the same bytes.
    again = blockproc.to_pandas(every_type, data, "Rows", numbers=numbers)
    assert blockproc.encode_frame(every_type, again, "Rows") == data
    round_trip(every_type, frame, "Rows", stream=True, numbers=numbers)


def built_frame(count, seed):
    """A frame made by hand, not decoded: averages with all their places, blanks, negatives, Hangul, the
    extremes of each field, the dtypes to_pandas gives."""
    rng = random.Random(seed)
    names = ["삼성전자", "SK하이닉스", "", "NAVER", "카카오뱅크", "A"]
    rows = []
    for i in range(count):
        trades = [rng.randint(1000, 90000) for _ in range(rng.randint(1, 7))]
        average = sum(trades) / len(trades)
        rows.append({
            "name": names[i % len(names)],
            "qty": pd.NA if i % 9 == 0 else rng.choice([999999, -99999, 0, rng.randint(-99999, 999999)]),
            "price": pd.NA if i % 7 == 0 else rng.choice([9999999, -999999, rng.randint(-999999, 9999999)]),
            "price@attr": rng.choice([0, 255, i % 256]),
            "rate": rng.randint(-99999, 99999),
            "i16": rng.choice([-32768, 32767, rng.randint(-32768, 32767)]),
            "i64": rng.choice([-2**63, 2**63 - 1, rng.randint(-2**63, 2**63 - 1)]),
            "s64": -i,
            "f": float(D(repr(np.float32(average / 7))).scaleb(-2)),  # what a float with 2 places shows
            "d": average / 3,
        })
    frame = pd.DataFrame(rows).astype({"qty": "Int64", "price": "Int64", "price@attr": "uint8", "rate": "Int64",
                                       "i16": "int16", "i64": "int64", "s64": "int64"})
    frame.attrs = {"block": "Rows", "scales": {"qty": 0, "price": 2, "rate": 2}}
    return frame


@pytest.mark.parametrize("seed", [1, 2])
def test_a_frame_made_by_hand_comes_back(every_type, seed):
    frame = built_frame(400, seed)
    round_trip(every_type, frame, "Rows")
    # The same values as float64 and as Decimal objects.
    for numbers in ("float", "decimal"):
        other = frame.copy()
        for column, scale in frame.attrs["scales"].items():
            exact = blockproc.as_decimal(frame, column)
            other[column] = (exact.map(lambda v: np.nan if v is None else float(v)).astype("float64")
                             if numbers == "float" else exact)
        other.attrs = {"block": "Rows", "scales": {}}
        round_trip(every_type, other, "Rows", numbers=numbers)


def test_the_bundled_sample_comes_back_byte_for_byte(sample):
    definition, reply, stream = sample
    parts = [blockproc.encode_frame(definition, blockproc.to_pandas(definition, reply, block), block)
             for block in definition.output_blocks]
    assert b"".join(parts) == reply  # a one-record block, then one counted by its field
    # Its ticks carry a '+' the encoder does not write: the values come back.
    frame = blockproc.realtime_frame(definition, stream, "OutBlock1")
    round_trip(definition, frame, "OutBlock1", stream=True)


def test_a_generated_capture_comes_back_byte_for_byte(tmp_path):
    program = pathlib.Path(os.environ.get("BLOCKPROC_BUILD_DIR", "build")) / "bench" / "make_quote_capture"
    if not program.is_file():
        pytest.skip("make_quote_capture is not built; set BLOCKPROC_BUILD_DIR")
    subprocess.run([program, tmp_path, "5000", "--computed"], check=True)
    definition = blockproc.load_definition(tmp_path / "quotes.xml")
    data = (tmp_path / "quotes.bin").read_bytes()
    for numbers in NUMBERS:
        frame = blockproc.to_pandas(definition, data, "OutBlock1", numbers=numbers)
        assert blockproc.encode_frame(definition, frame, "OutBlock1") == data
        frame = blockproc.realtime_frame(definition, data, "OutBlock1", numbers=numbers)
        assert blockproc.encode_frame(definition, frame, "OutBlock1", stream=True) == data


COUNTED = """<transaction code="T2" occurslen="3">
  <output>
    <block name="Head"><field name="n" type="number" length="4"/></block>
    <block name="Ticks" repeat="5" count="prefix"><field name="p" type="number" length="6" decimals="1"/></block>
  </output>
</transaction>"""


def test_a_block_counted_by_a_prefix_takes_its_count_and_its_repeat():
    definition = blockproc.load_definition(COUNTED)
    head = pd.DataFrame({"n": pd.array([3], dtype="Int64")})
    ticks = pd.DataFrame({"p": pd.array([15, -5, None], dtype="Int64")})
    reply = blockproc.encode_frame(definition, head, "Head") + blockproc.encode_frame(definition, ticks, "Ticks")
    assert reply == b"0003" + b"003" + b"0001.5-000.5      "
    pd.testing.assert_frame_equal(blockproc.to_pandas(definition, reply, "Ticks"), ticks, check_dtype=True,
                                  check_like=True)
    with pytest.raises(ValueError, match=r"block Ticks holds at most 5 records \(its repeat\); the frame has 6 rows"):
        blockproc.encode_frame(definition, pd.concat([ticks, ticks]), "Ticks")
    with pytest.raises(ValueError, match="block Head holds one record; the frame has 2 rows"):
        blockproc.encode_frame(definition, pd.concat([head, head]), "Head")
    assert blockproc.encode_frame(definition, pd.concat([head, head]), "Head", stream=True) == b"00030003"


def frame_of(every_type, **changes):
    frame = blockproc.to_pandas(every_type, market_rows(4, computed=False), "Rows")
    frame.index = ["a", "b", "c", "d"]
    for column, value in changes.items():
        if isinstance(value, tuple):  # (row, value): one value of the column
            frame[column] = frame[column].astype(object)
            frame.loc[frame.index[value[0]], column] = value[1]
        else:
            frame[column] = value
    return frame


@pytest.mark.parametrize("changes, words", [
    ({"price": (1, D("1.234"))}, "row 'b' (record 1), column price: '1.234' has 3 decimal places; the field holds 2"),
    ({"qty": pd.array([1000000] * 4, dtype="Int64")}, "row 'a' (record 0), column qty: '1000000' has 7 digits"),
    ({"qty": pd.array([-100000] * 4, dtype="Int64")}, "column qty: '-100000' has 6 digits"),
    ({"name": (2, "가나다라마바")}, "row 'c' (record 2), column name: '가나다라마바' takes 12 bytes; the field holds 10"),
    ({"name": (0, "x😀")}, "column name: 'x😀' has a character, '😀', that cp949 cannot hold"),
    ({"i16": np.array([32768] * 4)}, "column i16: '32768' lies outside -32,768 to 32,767"),
    ({"i16": pd.array([1, None, 2, 3], dtype="Int64")}, "row 'b' (record 1), column i16: <NA> is blank; an int16 "
                                                        "field has no blank value"),
    ({"d": [1.5, np.nan, 1.0, 2.0]}, "column d: NaN is blank; a double field has no blank value"),
    ({"f": [1.5, np.nan, 1.0, 2.0]}, "column f: NaN is blank; a float field has no blank value"),
    ({"i64": pd.array([1, None, 2, 3], dtype="Int64")}, "column i64: <NA> is blank; an int64 field has no blank"),
    ({"s64": pd.array([1, None, 2, 3], dtype="Int64")}, "column s64: <NA> is blank; an sint64 field has no blank"),
    ({"d": [1.5, np.inf, 1.0, 2.0]}, "column d: inf is not a number"),
    ({"price": [0.1 + 0.2, 1.0, 2.0, 3.0]}, "column price: '0.30000000000000004' has 17 decimal places"),
    ({"price": [2.0**60, 1.0, 2.0, 3.0]}, "stands for no one decimal of 2 places"),
    ({"price@attr": np.array([256] * 4)}, "column price@attr: 256 is no attribute byte (0 to 255)"),
    ({"f": [0.123456789] * 4}, "column f: '0.123456789' is not held exactly by a float"),
    ({"extra": 1}, "the frame's columns 'extra' are no fields of it"),
])
def test_what_a_field_cannot_hold_is_refused_naming_row_and_column(every_type, changes, words):
    with pytest.raises(ValueError) as refused:
        blockproc.encode_frame(every_type, frame_of(every_type, **changes), "Rows")
    assert words in str(refused.value)
    assert str(refused.value).startswith("block Rows")


@pytest.mark.parametrize("call, error, words", [
    (lambda d, f: blockproc.encode_frame(d, f.drop(columns=["rate", "price@attr"]), "Rows"), ValueError,
     "the frame has no column price@attr, rate"),
    (lambda d, f: blockproc.encode_frame(d, pd.concat([f, f["qty"]], axis=1), "Rows"), ValueError,
     "the frame has two columns qty"),
    (lambda d, f: blockproc.encode_frame(d, f.assign(qty=f["qty"].astype("float32")), "Rows"), TypeError,
     "column qty is float32; a number field with 0 decimals takes Int64"),
    (lambda d, f: blockproc.encode_frame(d, f.assign(name=1), "Rows"), TypeError, "column name is int64"),
    (lambda d, f: blockproc.encode_frame(d, f.assign(i64=True), "Rows"), TypeError, "column i64 is bool"),
    (lambda d, f: blockproc.encode_frame(d, f.assign(price=[D(1), "2", D(3), None]), "Rows"), TypeError,
     "row 1, column price: '2' is a str"),
    (lambda d, f: blockproc.encode_frame(d, f.assign(price=[1, 2, 3, 4]).astype({"price": object}), "Rows"),
     TypeError, "1 is an int in an object column"),
    (lambda d, f: blockproc.encode_frame(d, f.assign(name=[D(1), "a", "b", "c"]), "Rows"), TypeError,
     "row 0, column name: Decimal('1') is a Decimal; a text field takes str"),
    (lambda d, f: blockproc.encode_frame(d, f.to_dict(), "Rows"), TypeError, "frame must be a pandas.DataFrame"),
    (lambda d, f: blockproc.encode_frame(d, f, "Rows", stream=1), TypeError, "stream must be True or False"),
    (lambda d, f: blockproc.encode_frame(d, f, "Nope"), KeyError, "no block named 'Nope'"),
    (lambda d, f: blockproc.encode_frame(d, f.assign(qty=f["qty"] * 0), "Rows")
     if f.attrs.update(scales={"qty": 1}) is None else None, ValueError,
     "frame.attrs[\"scales\"] gives column 'qty' the scale 1, but it is scaled by 10**0"),
])
def test_a_frame_that_is_not_the_blocks_is_refused(every_type, call, error, words):
    frame = blockproc.to_pandas(every_type, market_rows(4, computed=False), "Rows")
    with pytest.raises(error) as refused:
        call(every_type, frame)
    assert words in str(refused.value)


def test_blanks_and_text_forms_pandas_gives(every_type):
    frame = blockproc.to_pandas(every_type, market_rows(6, computed=False), "Rows")
    frame["name"] = pd.array(["삼성", None, "", "KB", pd.NA, "LG"], dtype="string")  # blank text, <NA>
    frame["qty"] = [D(5), None, np.nan, pd.NA, D("-0"), D("1E+2")]  # every blank; a Decimal in any form
    data = blockproc.encode_frame(every_type, frame, "Rows")
    back = blockproc.to_pandas(every_type, data, "Rows", numbers="decimal")
    assert back["name"].tolist() == ["삼성", "", "", "KB", "", "LG"]
    assert back["qty"].tolist() == [D(5), None, None, None, D(0), D(100)]
    assert data[10:16] == b"000005" and data[71:77] == b"      "  # a blank number is spaces


def test_numbers_are_read_as_their_base_type_says(every_type):
    class Shown(D):  # a subclass's own text is not the value
        def __str__(self):
            return "1"

    class Wide(int):
        def __repr__(self):
            return "1"
        __str__ = __repr__

    frame = blockproc.to_pandas(every_type, market_rows(2, computed=False), "Rows")
    frame["qty"] = [Shown("7"), D(8)]
    back = blockproc.to_pandas(every_type, blockproc.encode_frame(every_type, frame, "Rows"), "Rows",
                               numbers="decimal")
    assert back["qty"].tolist() == [D(7), D(8)]
    frame["qty"] = [Wide(10**20), 1]
    with pytest.raises(ValueError, match="'100000000000000000000' has 21 digits"):
        blockproc.encode_frame(every_type, frame, "Rows")


# One field a block, each number field a way of laying out its digits: the point shown, implied, no places,
# longer than a word, and too short for its point (every digit written when even the places that are not
# zero have no room).
LAYOUTS = """<transaction code="T3">
  <output>
    <block name="Text"><field name="v" type="text" length="4"/></block>
    <block name="Rate"><field name="v" type="number" length="6" decimals="2"/></block>
    <block name="Change"><field name="v" type="number" length="8" decimals="2" point="implied"/></block>
    <block name="Volume"><field name="v" type="number" length="10"/></block>
    <block name="Nine"><field name="v" type="number" length="9"/></block>
    <block name="Wide"><field name="v" type="number" length="14" decimals="3"/></block>
    <block name="Ticks"><field name="v" type="number" length="4" decimals="3"/></block>
    <block name="Short"><field name="v" type="number" length="3" decimals="1" point="implied"/></block>
  </output>
</transaction>"""


def bytes_or_refusal(definition, block, column):
    try:
        return blockproc.encode_frame(definition, pd.DataFrame({"v": column}), block, stream=True)
    except ValueError as refused:
        return str(refused)


def edge_values(length):
    """0, 1 and 9 at every count of digits up to one more than the field holds, one below each power of ten
    and the power itself, a last digit of 0 and not, each with both signs."""
    values = {0, 1, -1}
    for digits in range(1, length + 2):
        values |= {10**digits - 1, 10**digits, 10**(digits - 1) + 1, 7 * 10**(digits - 1), 123456789 % 10**digits}
    return sorted(values | {-v for v in values})


@pytest.mark.parametrize("block", ["Rate", "Change", "Volume", "Nine", "Wide", "Ticks", "Short"])
def test_scaled_integers_give_the_bytes_of_their_decimals(block):
    # An Int64 column is laid out digit by digit without its text; the same values as Decimal objects go the
    # text way. Every value gives the same bytes or the same refusal both ways.
    definition = blockproc.load_definition(LAYOUTS)
    places = blockproc.scales(definition, block)["v"]
    for value in edge_values({"Rate": 6, "Change": 8, "Volume": 10, "Nine": 9, "Wide": 14, "Ticks": 4,
                              "Short": 3}[block]):
        scaled = pd.array([value], dtype="Int64")
        decimal_form = pd.Series([D(value).scaleb(-places)], dtype=object)
        assert bytes_or_refusal(definition, block, scaled) == bytes_or_refusal(definition, block, decimal_form), value


def test_scaled_integers_at_the_edges_of_their_layouts():
    definition = blockproc.load_definition(LAYOUTS)
    for block, values, want in [
        ("Rate", [99999, -9999, 0, -5], b"999.99-99.99000.00-00.05"),
        ("Change", [9999999, -999999, 12], b"09999999-099999900000012"),
        ("Volume", [9999999999, -999999999, 0], b"9999999999-9999999990000000000"),
        ("Nine", [-99999999, 123], b"-99999999000000123"),
        ("Wide", [-999999999999, 1], b"-999999999.9990000000000.001"),
        ("Ticks", [1898, 999], b"18980999"),
    ]:
        assert blockproc.encode_frame(definition, pd.DataFrame({"v": pd.array(values, dtype="Int64")}), block,
                                      stream=True) == want, block


class Text(str):
    """A str subclass: its characters are not held in the object's compact ASCII form."""


@pytest.mark.parametrize("text", ["", "a", "abc", "abcd", "abcde", "ab ", "a  ", " ", "a\0", "a\0b", " ab", "가"])
def test_ascii_text_gives_the_bytes_of_the_general_way(text):
    definition = blockproc.load_definition(LAYOUTS)
    compact = pd.Series([text], dtype=object)
    general = pd.Series([Text(text)], dtype=object)
    assert bytes_or_refusal(definition, "Text", compact) == bytes_or_refusal(definition, "Text", general)
    if len(text) <= 4 and not text.endswith((" ", "\0")) and text.isascii():
        assert blockproc.encode_frame(definition, pd.DataFrame({"v": compact}), "Text", stream=True) == \
            text.encode().ljust(4)
