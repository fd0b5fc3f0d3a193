"""Frames as analysts use them: the numbers= forms, float and double columns, scales that survive pandas, exact
Decimals, masked secrets, and replies of any size."""

import decimal
import mmap
import struct

import numpy as np
import pandas as pd
import pytest

import blockproc
from conftest import ROW, market_rows

D = decimal.Decimal
SCALED = ["qty", "price", "rate"]


@pytest.fixture(scope="module")
def traffic():
    # Values decode renders today; frames of computed averages are tested on their own.
    return market_rows(1000, computed=False)


def test_computed_averages_load_as_float64(every_type):
    data = market_rows(500)
    frame = blockproc.realtime_frame(every_type, data, "Rows")
    stored = [struct.unpack_from("<fd", data, i * ROW.size + ROW.size - 12) for i in range(500)]
    assert frame["d"].tolist() == [d for _, d in stored]
    # A float: its shortest text (numpy's float32 repr) with the point moved 2 places, as the nearest double.
    assert frame["f"].tolist() == [float(D(str(np.float32(f))).scaleb(-2)) for f, _ in stored]


def test_each_number_form_holds_the_values_decode_gives(every_type, traffic):
    records = blockproc.decode(every_type, traffic)["Rows"]
    forms = {numbers: blockproc.realtime_frame(every_type, traffic, "Rows", numbers=numbers)
             for numbers in ("scaled", "float", "decimal")}
    for column in SCALED:
        exact = [r[column] for r in records]
        assert str(forms["scaled"][column].dtype) == "Int64"
        assert str(forms["float"][column].dtype) == "float64"
        assert forms["decimal"][column].dtype == object
        assert blockproc.as_decimal(forms["scaled"], column).tolist() == exact
        assert forms["decimal"][column].tolist() == exact
        # The nearest double to each exact value, NaN for a blank.
        floats = forms["float"][column].tolist()
        assert [None if np.isnan(f) else f for f in floats] == [None if v is None else float(v) for v in exact]
    for frame in forms.values():  # the other columns do not depend on the form
        pd.testing.assert_frame_equal(frame.drop(columns=SCALED), forms["scaled"].drop(columns=SCALED))
    assert forms["decimal"]["price"].map(lambda v: v is None or type(v) is D).all()
    assert forms["float"].attrs["scales"] == {} and forms["scaled"].attrs["scales"] == {"qty": 0, "price": 2,
                                                                                          "rate": 2}


@pytest.mark.parametrize("stored, decimals, shown", [
    # A double is its own value, however many places it has beyond its decimals.
    (struct.pack("<d", 10300.921), 2, 10300.921),
    (struct.pack("<d", 61234.123456789), 3, 61234.123456789),
    (struct.pack("<d", -0.0625), 3, -0.0625),
    (struct.pack("<d", 2.0**58), 2, 2.0**58),
    (struct.pack("<d", 1092378358114.84375), 2, 1092378358114.84375),
    # A float shows its shortest text with the point moved left by its decimals.
    (struct.pack("<f", 1234.0), 2, 12.34),
    (struct.pack("<f", 0.5), 2, 0.005),
    (struct.pack("<f", 0.1), 0, 0.1),  # the value shown, not the float widened (0.10000000149011612)
    (struct.pack("<f", 123456792.0), 2, 1234567.9),  # shortest text 1.2345679e8
    (struct.pack("<f", 3.4028235e38), 3, 3.4028235e35),
])
def test_float_and_double_fields_are_float64_of_the_value_shown(stored, decimals, shown):
    kind = "double" if len(stored) == 8 else "float"
    definition = blockproc.load_definition(
        "<transaction code='T'><output><block name='B'><field name='v' type='%s' decimals='%d'/></block>"
        "</output></transaction>" % (kind, decimals))
    for frame in (blockproc.to_pandas(definition, stored, "B"), blockproc.realtime_frame(definition, stored, "B"),
                  blockproc.to_pandas(definition, stored, "B", numbers="decimal")):
        assert str(frame["v"].dtype) == "float64" and frame["v"].tolist() == [shown]


def test_scales_come_from_the_definition_and_survive_pandas(every_type, traffic):
    frame = blockproc.realtime_frame(every_type, traffic, "Rows")
    scales = blockproc.scales(every_type, "Rows")
    assert scales == {"qty": 0, "price": 2, "rate": 2}
    merged = frame.merge(frame[["name"]].drop_duplicates(), on="name", how="left")  # keeps the rows in order
    summed = frame.groupby("name", as_index=False).agg(price=("price", "sum"))
    assert "scales" not in summed.attrs
    exact = {}
    for r in blockproc.decode(every_type, traffic)["Rows"]:
        exact[r["name"]] = exact.get(r["name"], 0) + (r["price"] or 0)
    got = blockproc.as_decimal(summed, "price", scales["price"])
    assert dict(zip(summed["name"], got)) == exact
    assert blockproc.as_decimal(merged, "rate", scales["rate"]).tolist() == blockproc.as_decimal(
        frame, "rate").tolist()


@pytest.mark.parametrize("call, error, words", [
    (lambda f: blockproc.as_decimal(f.groupby("name").agg(price=("price", "sum")), "price"), ValueError,
     ["'price' has no scale", "scales(definition, block)"]),
    (lambda f: blockproc.as_decimal(f, "i64"), ValueError, ["'i64' has no scale"]),
    (lambda f: blockproc.as_decimal(f, "d", 2), ValueError, ["'d' is float64, not a scaled integer column"]),
    (lambda f: blockproc.as_decimal(f, "name", 2), ValueError, ["'name' is object"]),
    (lambda f: blockproc.as_decimal(f, "nope"), KeyError, ["no column 'nope'"]),
    (lambda f: blockproc.as_decimal(f, "price", "2"), TypeError, ["scale must be an int"]),
    (lambda f: blockproc.as_decimal(f, "price", 19), ValueError, ["scale must be 0 to 18"]),
    (lambda f: blockproc.scales(f, "Rows"), TypeError, ["a Definition and a block name"]),
    (lambda f: blockproc.scales("Rows"), TypeError, ["not str"]),
])
def test_as_decimal_and_scales_say_what_is_wrong(every_type, call, error, words):
    frame = blockproc.realtime_frame(every_type, market_rows(20), "Rows")
    with pytest.raises(error) as raised:
        call(frame)
    for word in words:
        assert word in str(raised.value)


def test_as_decimal_is_exact_at_every_scale_and_sign():
    values = [0, 1, -1, 5, -5, 10**17, -(10**17), 2**63 - 1, -(2**63), 123456789]
    frame = pd.DataFrame({"v": pd.array(values + [None], dtype="Int64")})
    for scale in (0, 1, 2, 9, 18):
        with decimal.localcontext(prec=3) as caller:
            got = blockproc.as_decimal(frame, "v", scale).tolist()
            assert decimal.getcontext() is caller and caller.prec == 3  # the caller's context is back
        assert got == [D(v).scaleb(-scale, decimal.Context(prec=40)) for v in values] + [None]
        assert str(got[2]) == str(D("-1").scaleb(-scale))  # the exponent the scale gives: -0.01, not -1E-2


def test_password_fields_are_masked_unless_secrets_are_asked_for():
    definition = blockproc.load_definition(
        "<transaction code='T'><output><block name='B'><field name='acct' type='text' length='4'/>"
        "<field name='pin' type='text' length='4' password='true'/></block></output></transaction>")
    assert definition.block("B").getFieldInfoFromName("pin").isPasswordField()
    reply = b"1234\xff\xfe99"  # the secret's bytes are not even text: never read, never shown in a message
    assert blockproc.decode(definition, reply) == {"B": [{"acct": "1234", "pin": "********"}]}
    with pytest.raises(ValueError, match="field pin"):
        blockproc.decode(definition, reply, show_secrets=True)
    assert blockproc.decode(definition, b"1234abcd", show_secrets=True) == {"B": [{"acct": "1234", "pin": "abcd"}]}
    with pytest.raises(TypeError, match="show_secrets"):
        blockproc.decode(definition, reply, show_secrets="no")


@pytest.mark.parametrize("call, error, words", [
    (lambda d, r: blockproc.to_pandas(d, None, "Rows"), TypeError, ["reply must be bytes-like", "NoneType"]),
    (lambda d, r: blockproc.decode(d, None), TypeError, ["reply must be bytes-like"]),
    (lambda d, r: blockproc.realtime_frame(d, None, "Rows"), TypeError, ["stream must be bytes-like"]),
    (lambda d, r: blockproc.to_pandas(d, r, b"Rows"), TypeError, ["block must be a block name (str)"]),
    (lambda d, r: blockproc.to_pandas(d, r, "Rows\0x"), ValueError, ["NUL"]),
    (lambda d, r: blockproc.realtime_frame(d, r, "Rows\0"), ValueError, ["NUL"]),
    (lambda d, r: d.block("Rows\0x"), ValueError, ["NUL"]),
    (lambda d, r: blockproc.to_pandas(d, r, "Rows", numbers="floats"), ValueError, ["numbers must be", "'floats'"]),
    (lambda d, r: blockproc.to_pandas(d, r, "Rows", numbers=1), TypeError, ["numbers must be"]),
    (lambda d, r: blockproc.encode(d, {"Rows\0": {}}, reply=True), ValueError, ["NUL"]),
    (lambda d, r: blockproc.encode(d, {"Rows": {"name\0": "x"}}, reply=True), ValueError, ["NUL"]),
    (lambda d, r: blockproc.encode(d, {"Rows": {"price@attr": 2**70}}, reply=True), ValueError,
     ["price@attr must be an attribute byte, 0 to 255, not 1180591620717411303424"]),
    (lambda d, r: blockproc.encode(d, {"Rows": {"price@attr": -1}}, reply=True), ValueError, ["0 to 255"]),
    (lambda d, r: blockproc.encode(d, {"Rows": {"price@attr": "1"}}, reply=True), TypeError, ["must be an int"]),
])
def test_every_argument_is_checked(every_type, call, error, words):
    with pytest.raises(error) as raised:
        call(every_type, market_rows(3))
    for word in words:
        assert word in str(raised.value)


def test_a_reply_beyond_2_gib_is_read_when_its_last_block_takes_the_rest():
    # 2,148 records of 1,000,000 bytes after a 6-byte block: more than the processor takes in one call. The
    # buffer is anonymous memory, whose untouched pages all map the one zero page.
    definition = blockproc.load_definition(
        "<transaction code='T'><output><block name='H'><field name='n' type='number' length='6'/></block>"
        "<block name='R' repeat='3000' count='rest'><field name='t' type='text' length='1000000'/></block>"
        "</output></transaction>")
    records = 2148
    size = 6 + records * 1_000_000
    assert size > 2**31
    reply = mmap.mmap(-1, size)
    try:
        reply[0:6] = b"   42 "
        reply[6:11] = b"first"
        reply[size - 1_000_000:size - 999_996] = b"last"
        frame = blockproc.to_pandas(definition, reply, "R")
        assert len(frame) == records and frame["t"].iloc[0] == "first" and frame["t"].iloc[-1] == "last"
        assert blockproc.to_pandas(definition, reply, "H")["n"].tolist() == [42]
        del frame
        # Without a rest block a reply that long is refused.
        fixed = blockproc.load_definition(
            "<transaction code='T'><output><block name='H'><field name='n' type='number' length='6'/></block>"
            "</output></transaction>")
        with pytest.raises(ValueError, match="a reply of 2,148,000,006 bytes is more than the 2,147,483,647 a reply takes unless"):
            blockproc.to_pandas(fixed, reply, "H")
    finally:
        reply.close()


def test_decimals_stay_exact_when_the_table_of_made_values_overflows():
    # More distinct values than the maker's table holds, each coming back later: every slot is overwritten
    # many times, and a value handed out again must still be the one made for it (run under AddressSanitizer
    # with PYTHONMALLOC=malloc, a Decimal freed too early would be caught here).
    values = [(k * 7919) % 50_000 - 25_000 for k in range(120_000)]
    frame = pd.DataFrame({"v": pd.array(values, dtype="Int64")})
    got = blockproc.as_decimal(frame, "v", 3)
    assert got.tolist() == [D(v).scaleb(-3) for v in values]
    repeated = blockproc.as_decimal(frame.head(1_000) % 100, "v", 3)
    assert len({id(d) for d in repeated}) <= 100  # values seen before are shared, not made again
