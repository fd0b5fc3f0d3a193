#!/usr/bin/env python3
"""A 200,000-record capture of a 14-field, 120-byte quote layout decoded two ways: the hand-written
struct.unpack + bytes.decode("cp949") loop an analyst writes, and blockproc.to_pandas. Both give the same
frame, and its first records equal blockproc.decode's, the tool's canonical values (checked); prints ns per
field of each, the ratio, and the first call's time (which also lays out the definition's blocks).

    cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DBLOCKPROC_BUILD_PYTHON=ON
    cmake --build build-release -j2 --target _blockproc
    PYTHONPATH=build-release/python /usr/bin/python3 bench/python_bench.py [--records N] [--repeat K]
"""

import argparse
import decimal
import random
import struct
import time

import pandas as pd

import blockproc

DEFINITION = """<?xml version="1.0" encoding="UTF-8"?>
<transaction code="Q20200" title="quotes" encoding="cp949">
  <output>
    <block name="Quote" repeat="500000" count="rest">
      <field name="shcode" type="text" length="12"/>
      <field name="hname" type="text" length="40"/>
      <field name="price" type="number" length="10" decimals="2"/>
      <field name="sign" type="text" length="1"/>
      <field name="change" type="number" length="8" decimals="2"/>
      <field name="drate" type="number" length="6" decimals="2"/>
      <field name="volume" type="number" length="10"/>
      <field name="time" type="text" length="6"/>
      <field name="cvolume" type="int16"/>
      <field name="value" type="int64"/>
      <field name="per" type="float" decimals="2"/>
      <field name="avgprice" type="double" decimals="2"/>
      <field name="ticks" type="number" length="4" decimals="3"/>
      <field name="flag" type="text" length="1"/>
    </block>
  </output>
</transaction>
"""
FIELDS = 14
RECORD = struct.Struct("<12s40s10ss8s6s10s6shqfd4ss")
assert RECORD.size == 120

HANGUL = "가나다라마바사아자차카타파하전자화학건설증권은행제약"


def capture(records, seed=20261123):
    """Quote records of 2,000 items through a trading day, in code page 949."""
    rng = random.Random(seed)
    items = []
    for k in range(2000):
        name = "".join(rng.choice(HANGUL) for _ in range(rng.randint(2, 8)))
        if rng.random() < 0.3:
            name += " " + rng.choice(["ETF", "KODEX", "A", "200", "Holdings"])
        items.append((("A%05d" % k).encode(), name.encode("cp949")))
    out = bytearray()
    for i in range(records):
        shcode, hname = items[rng.randrange(len(items))]
        price = rng.randint(100, 99_999_999)
        change = rng.randint(-999_999, 999_999)
        seconds = 9 * 3600 + i * 23400 // records
        out += RECORD.pack(
            shcode.ljust(12), hname.ljust(40), b"%010d" % price, rng.choice(b"12345").to_bytes(1, "little"),
            (b"%+08d" % change), b"%+06.2f" % rng.uniform(-29.99, 29.99), b"%010d" % rng.randint(0, 9_999_999_999),
            b"%02d%02d%02d" % (seconds // 3600, seconds // 60 % 60, seconds % 60), rng.randint(-32768, 32767),
            rng.randint(-2**63, 2**63 - 1), float(rng.randint(-99_999, 99_999)), rng.randint(0, 10_000_000) / 100,
            b"%04d" % rng.randint(0, 9999), rng.choice([b" ", b" ", b" ", b"Y"]))
    return bytes(out)


def handwritten(data):
    """What an analyst writes: unpack each record, decode text, scale numbers to exact integers."""
    cols = [[] for _ in range(FIELDS)]
    (shcode, hname, price, sign, change, drate, volume, tm, cvolume, value, per, avgprice, ticks, flag) = cols
    for r in RECORD.iter_unpack(data):
        shcode.append(r[0].decode("cp949").rstrip())
        hname.append(r[1].decode("cp949").rstrip())
        price.append(int(r[2]))
        sign.append(r[3].decode("cp949").rstrip())
        change.append(int(r[4]))
        drate.append(int(r[5].replace(b".", b"")))
        volume.append(int(r[6]))
        tm.append(r[7].decode("cp949").rstrip())
        cvolume.append(r[8])
        value.append(r[9])
        per.append(int(round(r[10])))
        avgprice.append(round(r[11] * 100))
        ticks.append(int(r[12]))
        flag.append(r[13].decode("cp949").rstrip())
    names = ["shcode", "hname", "price", "sign", "change", "drate", "volume", "time", "cvolume", "value", "per",
             "avgprice", "ticks", "flag"]
    return pd.DataFrame(dict(zip(names, cols)))


def check_canonical(definition, data, frame, records=2000):
    """The frame's first records against decode's values, which the engine renders as the tool does."""
    want = blockproc.decode(definition, data[:records * RECORD.size])["Quote"]
    scales = blockproc.scales(frame)
    for name in want[0]:
        got = frame[name].iloc[:records].tolist()
        if name in scales:
            got = [None if v is pd.NA else decimal.Decimal(int(v)).scaleb(-scales[name]) for v in got]
        if got != [record[name] for record in want]:
            raise SystemExit("column %s of to_pandas differs from decode" % name)


def best(fn, repeat):
    """The least CPU time of `repeat` runs (CPU time, so that other work on the machine does not count)."""
    times = []
    for _ in range(repeat):
        start = time.process_time()
        result = fn()
        times.append(time.process_time() - start)
    return min(times), result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--records", type=int, default=200_000)
    parser.add_argument("--repeat", type=int, default=3)
    args = parser.parse_args()
    definition = blockproc.load_definition(DEFINITION)
    data = capture(args.records)
    fields = args.records * FIELDS

    first_s, _ = best(lambda: blockproc.to_pandas(definition, data, "Quote"), 1)
    loop_s, expected = best(lambda: handwritten(data), args.repeat)
    ours_s, frame = best(lambda: blockproc.to_pandas(definition, data, "Quote"), args.repeat)

    for column in expected.columns:
        got = frame[column]
        if got.dtype == "Int64":
            got = got.astype("int64")
        if not (got.astype(object).tolist() == expected[column].tolist()):
            raise SystemExit("column %s differs between the loop and to_pandas" % column)
    check_canonical(definition, data, frame)

    loop_ns, ours_ns = loop_s * 1e9 / fields, ours_s * 1e9 / fields
    print("%d records x %d fields, %.1f MB, best CPU time of %d" % (args.records, FIELDS, len(data) / 1e6, args.repeat))
    print("hand-written struct + cp949 loop: %8.1f ns/field  (%.3f s)" % (loop_ns, loop_s))
    print("blockproc.to_pandas:              %8.1f ns/field  (%.3f s)" % (ours_ns, ours_s))
    print("ratio:                            %8.1f x" % (loop_ns / ours_ns))
    print("first to_pandas of a definition:  %8.1f ns/field  (%.3f s)" % (first_s * 1e9 / fields, first_s))


if __name__ == "__main__":
    main()
