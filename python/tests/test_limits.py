"""What no caller can do: change a loaded definition behind the workers' backs, make an override lay out or
allocate without bound, or make repeated calls grow the process."""

import os
import pickle

import pytest

import blockproc
import blockproc as bp
from conftest import EXAMPLES, market_rows


@pytest.mark.parametrize("change", [
    lambda d: setattr(d.block("OutBlock1").getFieldInfoFromName("price"), "nDecimalLen", 3),
    lambda d: setattr(d.block("OutBlock1").getFieldInfoFromIndex(0), "nLength", 99),
    lambda d: setattr(d.block("OutBlock1"), "m_nRepeatCount", 5),
    lambda d: setattr(d.block("OutBlock1"), "m_szBlockName", "Other"),
    lambda d: d.block("OutBlock1").setRepeat(5),
    lambda d: d.block("OutBlock1").addField("extra", bp.kFieldText, 4),
    lambda d: d.block("OutBlock").setAttrSource("k", d.block("OutBlock").getFieldInfoFromIndex(0)),
    lambda d: d.tran.findBlock("OutBlock").setRepeat(2),
    lambda d: d.tran.setTrCode("X"),
    lambda d: setattr(d.tran, "m_nOccursLen", 4),
], ids=["decimals", "length", "repeat member", "block name", "setRepeat", "addField", "setAttrSource",
        "through tran", "code", "occurs length"])
def test_a_loaded_definition_refuses_changes_so_a_pickled_one_is_the_same(change):
    definition = blockproc.load_definition(EXAMPLES / "current_price.xml")
    reply = (EXAMPLES / "current_price.reply").read_bytes()
    before = blockproc.to_pandas(definition, reply, "OutBlock1")
    with pytest.raises(TypeError, match="loaded Definition cannot change.*load it again"):
        change(definition)
    shipped = pickle.loads(pickle.dumps(definition))
    assert blockproc.to_pandas(shipped, reply, "OutBlock1").equals(before)
    assert blockproc.to_pandas(definition, reply, "OutBlock1").equals(before)
    # A descriptor made in Python still changes freely.
    block = bp.BlockInfo("Mine")
    block.setRepeat(5)
    block.addField("a", bp.kFieldText, 4).nDecimalLen = 1
    assert block.m_nRepeatCount == 5


class Fields(bp.BlockInfo):
    """A block whose overrides answer what the test says."""

    def __init__(self, count, field=None, record=None):
        super().__init__("Hostile")
        self.count, self.field, self.record = count, field, record

    def getFieldCount(self):
        return self.count

    def getFieldInfoFromIndex(self, position):
        return self.field

    def getRecordMemSize(self):
        return self.record if self.record is not None else super().getRecordMemSize()


CALLS = [
    ("DefaultMemory", lambda p: p.DefaultMemory()),
    ("getStructInputData", lambda p: p.getStructInputData()),
    ("setData", lambda p: p.setData(b"x" * 64)),
    ("getFieldDataFromIndex", lambda p: p.getFieldDataFromIndex(0, 0)),
    ("setFieldDataFromName", lambda p: p.setFieldDataFromName("a", 0, "1")),
    ("calcPacketSize", lambda p: p.calcPacketSize()),
]


@pytest.mark.parametrize("block, words", [
    (lambda: Fields(2**31 - 1), "getFieldCount gives 2147483647; a block has 0 to 65,536 fields"),
    (lambda: Fields(-5), "getFieldCount gives -5"),
    (lambda: Fields(5, bp.FieldInfo("a", bp.kFieldText, 2**31 - 1), record=64),
     "its fields take 10,737,418,235 bytes packed; a record takes at most 67,108,864"),
    (lambda: Fields(1, bp.FieldInfo("a", bp.kFieldText, 4), record=2**31 - 1),
     "getRecordMemSize gives 2147483647; a record takes 0 to 67,108,864 bytes"),
], ids=["huge count", "negative count", "huge packed size", "huge record"])
@pytest.mark.parametrize("name, call", CALLS, ids=[name for name, _ in CALLS])
def test_no_override_makes_a_call_lay_out_beyond_the_bounds(block, words, name, call):
    proc = bp.KXBlockDataProc(block())
    with pytest.raises(ValueError, match="^block 'Hostile': " + words):
        call(proc)


def resident_bytes():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


class FreshFields(bp.BlockInfo):
    """Makes a new field object at every question, as a client's block mapping its own records may."""

    def __init__(self):
        super().__init__("Fresh")

    def getFieldCount(self):
        return 2

    def getFieldInfoFromIndex(self, position):
        # (A descriptor cannot change during a call, so both lie at byte 0.)
        return bp.FieldInfo("ab"[position], bp.kFieldText, 4) if position in (0, 1) else None

    def getFieldInfoFromName(self, name):
        return self.getFieldInfoFromIndex("ab".find(name)) if name in ("a", "b") else None


def entry_points():
    definition = blockproc.load_definition(EXAMPLES / "current_price.xml")
    reply = (EXAMPLES / "current_price.reply").read_bytes()
    xml = (EXAMPLES / "current_price.xml").read_bytes()
    fresh = bp.KXBlockDataProc(FreshFields())
    fresh.setData(b"abcdefgh")
    plain = bp.KXBlockDataProc(FreshFields())
    values = blockproc.decode(definition, reply)
    frame = blockproc.to_pandas(definition, reply, "OutBlock1")
    scaled = frame["price"].to_numpy(dtype="int64")
    bad_frame = frame.assign(hname="x" * 100)  # longer than its field
    # (name, call, calls): 100,000 calls of each, or 20,000 of those taking more than 25 us a call, held to
    # the same growth per call.
    return [
        ("load", lambda: blockproc._load(xml, "x.xml"), 20_000),
        ("pickle", lambda: pickle.loads(pickle.dumps(definition)), 20_000),
        ("reply columns", lambda: blockproc._reply_columns(definition, reply, "OutBlock1", "r", "scaled"), 100_000),
        ("decimal columns", lambda: blockproc._reply_columns(definition, reply, "OutBlock1", "r", "decimal"),
         20_000),
        ("decode", lambda: blockproc._decode(definition, reply, "r", False), 100_000),
        ("encode", lambda: blockproc.encode(definition, values, reply=True), 20_000),
        ("decimals", lambda: blockproc._decimals(scaled, None, 2), 100_000),
        ("encode_frame", lambda: blockproc.encode_frame(definition, frame, "OutBlock1"), 20_000),
        ("a refused frame", lambda: pytest.raises(ValueError, blockproc.encode_frame, definition, bad_frame,
                                                  "OutBlock1"), 20_000),
        ("scales", lambda: blockproc._scales(definition, "OutBlock1"), 100_000),
        ("a refusal", lambda: pytest.raises(ValueError, blockproc._decode, definition, reply[:-1], "r", False),
         20_000),
        ("override by name", lambda: fresh.getFieldDataFromName("b", 0), 100_000),
        ("override block method", lambda: fresh.getBlockInfo().getFieldInfoFromName("a"), 100_000),
        ("struct input", lambda: fresh.getStructInputData(), 100_000),
        ("write", lambda: plain.setFieldDataFromName("a", 0, "zz"), 100_000),
        ("hostile", lambda: pytest.raises(ValueError, bp.KXBlockDataProc(Fields(2**31 - 1)).DefaultMemory),
         20_000),
    ]


@pytest.mark.skipif(bool(os.environ.get("BLOCKPROC_SANITIZED")),
                    reason="the sanitizers' allocator keeps freed memory in quarantine")
def test_100000_calls_of_each_entry_point_grow_the_process_by_less_than_1_mb(capsys):
    grown = {}
    for name, call, calls in entry_points():
        for _ in range(2000):  # caches, interned names and the allocator's first arenas
            call()
        before = resident_bytes()
        for _ in range(calls):
            call()
        grown[name] = (resident_bytes() - before) * 100_000 // calls
    with capsys.disabled():
        print("\nRSS growth per 100,000 calls:", ", ".join("%s %d KB" % (n, g >> 10) for n, g in grown.items()))
    assert {name: growth for name, growth in grown.items() if growth >= 1 << 20} == {}
