"""Eight threads sharing one processor and one definition: every call gives what it gives alone (run under
ThreadSanitizer in CI)."""

import threading

import blockproc
import blockproc as bp
from conftest import market_rows

THREADS = 8


def run_together(work, rounds):
    errors = []
    start = threading.Barrier(THREADS)

    def thread(k):
        try:
            start.wait()
            for i in range(rounds):
                work(k, i)
        except BaseException as error:  # reported by the test, not lost in the thread
            errors.append(error)

    threads = [threading.Thread(target=thread, args=(k,)) for k in range(THREADS)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert errors == []


def test_threads_sharing_a_definition_decode_as_one_thread_does(every_type):
    data = market_rows(200, computed=False)
    expected = blockproc.realtime_frame(every_type, data, "Rows")
    records = blockproc.decode(every_type, data)
    numbers = ["scaled", "float", "decimal"]
    alone = {n: blockproc.to_pandas(every_type, data, "Rows", numbers=n) for n in numbers}

    def work(k, i):
        form = numbers[(k + i) % 3]
        assert blockproc.to_pandas(every_type, data, "Rows", numbers=form).equals(alone[form])
        if k % 2:
            assert blockproc.decode(every_type, data) == records
        else:
            assert blockproc.realtime_frame(every_type, data, "Rows").equals(expected)

    run_together(work, 20)


def test_threads_sharing_a_processor_read_and_write_it():
    block = bp.BlockInfo("Quote")
    block.setRepeat(THREADS)
    block.addField("name", bp.kFieldText, 10)
    block.addField("price", bp.kFieldNumText, 8, 2)
    proc = bp.KXBlockDataProc(block)
    proc.DefaultMemory()
    proc.setData(b"".join(b"T%-9d%08d" % (k, k) for k in range(THREADS)))

    def work(k, i):
        # Each thread writes its own record and reads every one; a record holds one thread's whole value.
        proc.setFieldDataFromName("price", k, "%d.%02d" % (i, k))
        assert proc.getFieldDataFromName("name", k) == "T%d" % k
        for other in range(THREADS):
            whole, cents = proc.getFieldDataFromName("price", other).split(".")
            assert int(cents) in (0, other) and proc.getFieldAttrFromName("price", other) >= 0
        assert len(proc.getStructInputData()) == 18

    run_together(work, 50)
