#!/usr/bin/env python3
"""A 200,000-record capture of the 14-field, 120-byte quote layout (written by bench/make_quote_capture)
decoded two ways: the hand-written struct.unpack + bytes.decode("cp949") loop an analyst writes, and
blockproc.to_pandas. Both give the same frame, and its first records equal blockproc.decode's, the tool's
canonical values (checked); prints ns per field of each, the ratio, and the first call's time.

    cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DBLOCKPROC_BUILD_PYTHON=ON -DBLOCKPROC_BUILD_BENCH=ON
    cmake --build build-release -j2 --target _blockproc make_quote_capture
    PYTHONPATH=build-release/python /usr/bin/python3 bench/python_bench.py \
        [--make-capture build-release/bench/make_quote_capture] [--records N] [--repeat K]
"""

import argparse
import os
import struct
import subprocess
import tempfile
import time

import pandas as pd

import blockproc

FIELDS = 14
BLOCK = "OutBlock1"
RECORD = struct.Struct("<12s40s10ss8s6s10s6shqfd4ss")
assert RECORD.size == 120


def capture(tool, records):
    """The definition and the reply make_quote_capture writes: `records` quote records from a fixed seed in
    one count="rest" block OutBlock1 (the same capture the tool's throughput is measured on)."""
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([tool, folder, str(records)], check=True)
        with open(os.path.join(folder, "quotes.xml"), encoding="utf-8") as xml:
            definition = xml.read()
        with open(os.path.join(folder, "quotes.bin"), "rb") as reply:
            return definition, reply.read()


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
    want = blockproc.decode(definition, data[:records * RECORD.size])[BLOCK]
    head = frame.head(records)
    scales = blockproc.scales(head)
    for name in want[0]:
        got = (blockproc.as_decimal(head, name) if name in scales else head[name]).tolist()
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
    parser.add_argument("--make-capture", default=os.path.join(os.path.dirname(__file__), "..", "build-release",
                                                               "bench", "make_quote_capture"),
                        help="the make_quote_capture program (default: build-release/bench/make_quote_capture)")
    parser.add_argument("--records", type=int, default=200_000)
    parser.add_argument("--repeat", type=int, default=3)
    args = parser.parse_args()
    xml, data = capture(args.make_capture, args.records)
    definition = blockproc.load_definition(xml)
    fields = args.records * FIELDS

    first_s, _ = best(lambda: blockproc.to_pandas(definition, data, BLOCK), 1)
    loop_s, expected = best(lambda: handwritten(data), args.repeat)
    ours_s, frame = best(lambda: blockproc.to_pandas(definition, data, BLOCK), args.repeat)

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
