#!/usr/bin/env python3
"""A 200,000-record capture of the 14-field, 120-byte quote layout (written by bench/make_quote_capture)
decoded two ways: the hand-written struct.unpack + bytes.decode("cp949") loop an analyst writes, and
blockproc.to_pandas. Both give the same frame, and its first records equal blockproc.decode's, the tool's
canonical values (checked); prints ns per field of each, the ratio, and the first call's time. Then the frame
written back: the hand-written struct.pack loop that undoes the unpack loop against blockproc.encode_frame
(both read back as the same frame, checked). Then the
numbers= forms of to_pandas, as_decimal against the per-value Python loop it replaced, and with --dask the
capture cut into 8 files read by a scheduler and two workers started as processes on 127.0.0.1, against
pandas reading them one after another in one process.

    cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DBLOCKPROC_BUILD_PYTHON=ON -DBLOCKPROC_BUILD_BENCH=ON
    cmake --build build-release -j2 --target _blockproc make_quote_capture
    PYTHONPATH=build-release/python /usr/bin/python3 bench/python_bench.py \
        [--make-capture build-release/bench/make_quote_capture] [--records N] [--repeat K] [--dask]
"""

import argparse
import decimal
import json
import os
import struct
import subprocess
import sys
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
        per.append(r[10] / 100)  # a whole float, 2 decimals: the nearest double to the value shown
        avgprice.append(r[11])
        ticks.append(int(r[12]))
        flag.append(r[13].decode("cp949").rstrip())
    names = ["shcode", "hname", "price", "sign", "change", "drate", "volume", "time", "cvolume", "value", "per",
             "avgprice", "ticks", "flag"]
    return pd.DataFrame(dict(zip(names, cols)))


def handwritten_encode(frame):
    """The loop undone: each record packed from the frame's columns, text encoded and padded, numbers written
    as the capture writes them (a sign on the change and the rate, the rate's point)."""
    names = ["shcode", "hname", "price", "sign", "change", "drate", "volume", "time", "cvolume", "value", "per",
             "avgprice", "ticks", "flag"]
    pack, out = RECORD.pack, []
    for (shcode, hname, price, sign, change, drate, volume, tm, cvolume, value, per, avgprice, ticks,
         flag) in zip(*[frame[name].tolist() for name in names]):
        rate = b"%+05d" % drate
        out.append(pack(shcode.encode("cp949").ljust(12), hname.encode("cp949").ljust(40), b"%010d" % price,
                        sign.encode("cp949").ljust(1), b"%+08d" % change, rate[:3] + b"." + rate[3:],
                        b"%010d" % volume, tm.encode("cp949").ljust(6), cvolume, value, round(per * 100),
                        avgprice, b"%04d" % ticks, flag.encode("cp949").ljust(1)))
    return b"".join(out)


def encode_row(definition, frame, repeat):
    """ns per field of writing the frame back: the struct.pack loop against encode_frame."""
    fields = len(frame) * FIELDS
    loop_s, by_hand = best(lambda: handwritten_encode(frame), repeat)
    ours_s, ours = best(lambda: blockproc.encode_frame(definition, frame, BLOCK), repeat)
    for data in (by_hand, ours):
        pd.testing.assert_frame_equal(blockproc.to_pandas(definition, data, BLOCK), frame)
    print("hand-written struct.pack loop:    %8.1f ns/field  (%.3f s)" % (loop_s * 1e9 / fields, loop_s))
    print("blockproc.encode_frame:           %8.1f ns/field  (%.3f s)" % (ours_s * 1e9 / fields, ours_s))
    print("ratio:                            %8.1f x" % (loop_s / ours_s))


def check_canonical(definition, data, frame, records=2000):
    """The frame's first records against decode's values, which the engine renders as the tool does (float64
    columns as the decimal of their shortest text)."""
    want = blockproc.decode(definition, data[:records * RECORD.size])[BLOCK]
    head = frame.head(records)
    scales = blockproc.scales(definition, BLOCK)
    for name in want[0]:
        if name in scales:
            got = blockproc.as_decimal(head, name).tolist()
        elif head[name].dtype == "float64":
            got = [decimal.Decimal(repr(v)) for v in head[name]]
        else:
            got = head[name].tolist()
        if got != [record[name] for record in want]:
            raise SystemExit("column %s of to_pandas differs from decode" % name)


def old_as_decimal(frame, column, scale):
    """as_decimal as it was: one Decimal made from its text per value, in Python."""
    import pandas as pd
    values = [None if v is pd.NA else decimal.Decimal("%de-%d" % (v, scale)) for v in frame[column]]
    return pd.Series(values, index=frame.index, name=column, dtype=object)


def number_forms(definition, data, frame, repeat):
    """ns per number field of to_pandas in each numbers= form (the whole frame's time less the time of the
    other columns, measured as the scaled form's time less its number columns' share), and as_decimal."""
    scales = blockproc.scales(definition, BLOCK)
    values = len(frame) * len(scales)
    print("number fields: %s, %d values" % (", ".join(scales), values))
    times = {}
    for numbers in ("scaled", "float", "decimal"):
        times[numbers], _ = best(lambda: blockproc.to_pandas(definition, data, BLOCK, numbers=numbers), repeat)
        print("to_pandas(numbers=%-9r):     %8.1f ns/field of the frame" % (numbers, times[numbers] * 1e9
                                                                                / (len(frame) * FIELDS)))
    for numbers in ("float", "decimal"):
        print("  %-8s over scaled:           %+8.1f ns per number field" % (
            numbers, (times[numbers] - times["scaled"]) * 1e9 / values))
    old_s, old = best(lambda: [old_as_decimal(frame, c, s) for c, s in scales.items()], repeat)
    new_s, new = best(lambda: [blockproc.as_decimal(frame, c) for c in scales], repeat)
    if [o.tolist() for o in old] != [n.tolist() for n in new]:
        raise SystemExit("as_decimal differs from the Python loop")
    print("as_decimal, per-value Python loop: %8.1f ns/value" % (old_s * 1e9 / values))
    print("as_decimal, in C++:                %8.1f ns/value  (%.1fx)" % (new_s * 1e9 / values, old_s / new_s))


def cluster(folder):
    """A scheduler and two one-thread workers as processes on 127.0.0.1; gives (address, processes)."""
    scheduler_file = os.path.join(folder, "scheduler.json")
    local = ["--host", "127.0.0.1", "--dashboard-address", "127.0.0.1:0"]
    quiet = dict(stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    processes = [subprocess.Popen([sys.executable, "-m", "distributed.cli.dask_scheduler", "--port", "0",
                                   "--scheduler-file", scheduler_file] + local, **quiet)]
    while not os.path.exists(scheduler_file) or not open(scheduler_file).read().strip():
        time.sleep(0.1)
    address = json.load(open(scheduler_file))["address"]
    for _ in range(2):
        processes.append(subprocess.Popen([sys.executable, "-m", "distributed.cli.dask_worker", address,
                                           "--nthreads", "1", "--no-nanny", "--memory-limit", "0"] + local,
                                          **quiet))
    return address, processes


def scheduler_run(definition, data, records, repeat):
    """8 capture files read by read_captures on a scheduler and two workers, against pandas in one process:
    the whole frame brought back, and a per-item sum of volume (what travels back is then small)."""
    import pandas as pd
    from dask.distributed import Client

    import blockproc.dask

    with tempfile.TemporaryDirectory() as folder:
        paths, step = [], (records // 8) * RECORD.size
        for k in range(8):
            paths.append(os.path.join(folder, "capture%d.bin" % k))
            with open(paths[-1], "wb") as f:
                f.write(data[k * step:(k + 1) * step])
        address, processes = cluster(folder)
        try:
            with Client(address) as client:
                client.wait_for_workers(2, timeout=60)
                frame = blockproc.dask.read_captures(paths, definition, BLOCK, stream=True)
                walls, sums = [], []
                for _ in range(repeat):
                    start = time.perf_counter()
                    got = client.compute(frame).result()
                    walls.append(time.perf_counter() - start)
                    start = time.perf_counter()
                    got_sum = client.compute(frame.groupby("shcode").volume.sum()).result()
                    sums.append(time.perf_counter() - start)
        finally:
            for process in processes:
                os.kill(process.pid, 15)
            for process in processes:
                process.wait()
        alone, alone_sums = [], []
        for _ in range(repeat):
            start = time.perf_counter()
            expected = pd.concat([blockproc.realtime_frame(definition, open(p, "rb").read(), BLOCK) for p in paths])
            alone.append(time.perf_counter() - start)
            start = time.perf_counter()
            expected_sum = pd.concat([blockproc.realtime_frame(definition, open(p, "rb").read(), BLOCK)
                                      for p in paths]).groupby("shcode").volume.sum()
            alone_sums.append(time.perf_counter() - start)
        pd.testing.assert_frame_equal(got.reset_index(drop=True), expected.reset_index(drop=True))
        pd.testing.assert_series_equal(got_sum.sort_index(), expected_sum.sort_index())
    print("8 files, %d records, wall time, best of %d: scheduler + 2 workers / pandas in one process" % (
        8 * (records // 8), repeat))
    print("  the whole frame:        %.2f s / %.2f s" % (min(walls), min(alone)))
    print("  groupby(shcode).volume.sum(): %.2f s / %.2f s" % (min(sums), min(alone_sums)))


def best(fn, repeat):
    """The least CPU time of `repeat` runs (CPU time, so that other work on the machine does not count). The
    previous run's result is freed before the clock starts: freeing a frame is not part of making one."""
    times, result = [], None
    for _ in range(repeat):
        result = None
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
    parser.add_argument("--dask", action="store_true", help="also time a scheduler and two worker processes")
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
    encode_row(definition, frame, args.repeat)
    number_forms(definition, data, frame, args.repeat)
    if args.dask:
        scheduler_run(definition, data, args.records, args.repeat)


if __name__ == "__main__":
    main()
