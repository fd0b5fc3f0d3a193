"""The processor and its descriptors from Python: each family of operations, buffers, and descriptor subclasses
written in Python."""

import gc
import mmap

import pytest

import blockproc as bp


def quote_block(records=3, attribute=False):
    block = bp.BlockInfo("Quote")
    block.m_bAttribute = attribute
    block.setRepeat(records)
    block.addField("name", bp.kFieldText, 10)
    block.addField("price", bp.kFieldNumText, 8, 2)
    return block


def test_receives_reads_and_writes():
    proc = bp.KXBlockDataProc(quote_block())
    assert proc.getData() is None and proc.findFieldInfo("price") is not None
    proc.DefaultMemory()
    received = bytearray("한빛전자  00001234AB        00000050".encode("cp949"))
    assert proc.setData(received)
    received[0:10] = b"XXXXXXXXXX"  # the processor took a copy
    price = proc.findFieldInfo("price")
    assert proc.getValidCount() == 2
    assert [proc.getFieldDataFromName("name", 0), proc.getFieldDataFromIndex(1, 0),
            proc.getFieldDataFromInfo(price, 1), proc.getFieldDataFromNameEX("name", 1)] == [
        "한빛전자", "000012.34", "000000.50", "AB"]
    assert proc.getFieldDataAllIdxFromInfo(proc.findFieldInfo("name")) == "한빛전자  AB        "
    assert proc.setDataReverse(bytes(received), 18, 18) and proc.getFieldDataFromName("name", 0) == "AB"
    data = bp.FieldData()
    assert proc.getFieldDataFromInfo(price, 0, data) and data.strData == "000000.50"
    proc.setFieldDataFromName("price", 0, "7.5")
    proc.setFieldDataFromInfoEX(proc.findFieldInfo("name"), 0, "Z")
    assert proc.getStructInputData() == b"Z         00007.50"
    assert proc.getFieldDataFromName("nope", 0) == "" and proc.getFieldIndexFromName("nope") == -1


def test_absent_values_are_none():
    proc = bp.KXBlockDataProc(None)
    assert proc.getBlockInfo() is None and proc.getDataProc() is None and proc.getData() is None
    assert proc.findFieldInfo("x") is None and proc.getLinkInfo(0) is None and proc.getRealAPLinkInfo(5) is None
    assert proc.reSizeBytes(None, 3) == b"   \0"


def test_attributes_links_and_real_time_inserts():
    block = quote_block(2, attribute=True)
    proc = bp.KXBlockDataProc(block)
    proc.DefaultMemory()
    proc.setData(b"A         5" + b"00000100" + b"2", 0, 20)
    price = proc.findFieldInfo("price")
    assert proc.getFieldAttrFromInfo(price, 0) == ord("2")
    proc.setFieldAttrFromName("price", 0, 0x35)
    assert proc.getFieldAttrFromName("price", 0) == 0 and proc.getFieldAttrFromInfo(price, 0) == 0x35
    assert bp.KXBlockDataProc.getAttrValueFromData("-") == ord("5") and bp.KXBlockDataProc.getAttrValueFromData(43) == ord("1")
    proc.setXmlInfo('<link name="Q"><REALAP idx="0" name="price" fieldinfo="1,0,8" exp="a &gt; 0"/>'
                    '<DEFAULT idx="1" deflink="0,0,0" defconst="9"/></link>')
    real = proc.getRealAPLinkInfo(0)
    assert (proc.getBlockName(), real.sFieldName(), real.pFieldInfo(), real.sExpression()) == (
        "Q", "price", [1, 0, 8], "a > 0")
    assert proc.getLinkInfo(0).pLinkIndex == [0, 0, 0] and proc.getLinkInfo(0).szDefaultValue == "9"
    with pytest.raises(ValueError, match="not well-formed"):
        proc.setXmlInfo("<link>")
    proc.initRealBufferIndex()
    assert proc.insertRealData(b"NEW       0000000101") and proc.getFieldDataFromName("name", 0) == "NEW"


def test_received_buffers_are_checked_and_copied():
    proc = bp.KXBlockDataProc(quote_block())
    for args in [(b"abc", 2, 5), (b"abc", -1, 2), (b"abc", 4)]:
        with pytest.raises(ValueError, match="outside"):
            proc.setData(*args)
    for bad in ["text", 42, [1, 2]]:
        with pytest.raises(TypeError, match="bytes-like"):
            proc.insertRealData(bad)
    with pytest.raises(TypeError):
        proc.getFieldDataFromName(3, 0)
    with pytest.raises(ValueError, match="zero character"):
        proc.setFieldDataFromNameEX("name", 0, "a\0b")
    assert proc.resetDataDynamic(memoryview(b"0123456789")) and proc.getBlockDataLen() == 10


def test_buffers_beyond_the_processors_32_bit_sizes_are_refused_not_cut():
    try:
        huge = mmap.mmap(-1, 2**31 + 10)  # anonymous: no page is touched
    except OSError:
        pytest.skip("no 2 GiB of address space")
    proc = bp.KXBlockDataProc(quote_block())
    with huge, memoryview(huge) as view:
        for call in [lambda: proc.setData(view), lambda: proc.insertRealData(view, 5),
                     lambda: proc.resetDataDynamic(view)]:
            with pytest.raises(ValueError, match="at most 2147483647 bytes"):
                call()
        view[2**31 - 10:2**31 + 8] = b"FAR".ljust(10) + b"00000100"  # across the 2 GiB mark
        assert proc.setData(view, 2**31 - 10, 18) and proc.getFieldDataFromName("name", 0) == "FAR"


def test_descriptors_stay_alive_while_the_processor_holds_them():
    proc = bp.KXBlockDataProc(quote_block())
    parent = bp.BaseDataProc(bp.TranInfo())
    proc.setDataProc(parent)
    del parent
    gc.collect()
    proc.DefaultMemory()
    assert proc.getBlockInfo().getFieldCount() == 2 and proc.getDataProc().getTranInfo() is not None
    field = bp.KXBlockDataProc(quote_block()).findFieldInfo("price")
    gc.collect()
    assert field.nLength == 8  # the field keeps its processor, and so its block, alive
    control = object()
    proc.addConnCtl(control)
    proc.addConnCtl(control)
    assert proc.getConnCtlList() == [control]
    proc.removeConnCtl(control)
    assert proc.getConnCtlList() == []


class SecretField(bp.FieldInfo):
    def isPasswordField(self):
        return True


class HarnessBlock(bp.BlockInfo):
    """A client's own block: its fields live in Python, the processor finds them through the virtuals."""

    def __init__(self, fields):
        super().__init__("Harness")
        self.fields = fields

    def getFieldCount(self):
        return len(self.fields)

    def getFieldInfoFromIndex(self, position):
        return self.fields[position] if 0 <= position < len(self.fields) else None

    def getFieldInfoFromName(self, name):
        return next((f for f in self.fields if f.szFieldName == name), None)

    def getRecordMemSize(self):
        return sum(f.nLength for f in self.fields)


def test_python_subclasses_drive_the_processor():
    pin = SecretField("pin", bp.kFieldText, 4)
    pin.nDataPos = 6
    block = HarnessBlock([bp.FieldInfo("acct", bp.kFieldText, 6), pin])
    proc = bp.KXBlockDataProc(block)
    proc.DefaultMemory()
    assert proc.isPasswordField("pin") and not proc.isPasswordField("acct")
    proc.setData(b"123456abcd")
    assert proc.getFieldDataFromName("pin", 0) == "abcd"
    assert proc.getStructInputData() == b"123456abcd"
    assert proc.getBlockInfo() is block


def test_an_override_that_raises_is_raised_from_the_processor_call():
    class Broken(bp.BlockInfo):
        def getRecordMemSize(self):
            raise ZeroDivisionError("from the override")

    block = Broken("B")
    block.addField("a", bp.kFieldText, 4)
    proc = bp.KXBlockDataProc(block)
    with pytest.raises(ZeroDivisionError, match="from the override"):
        proc.setData(b"abcd")
    # The processor went on with the default answer (4 bytes a record).
    assert proc.getData() == b"abcd"

    class WrongType(bp.FieldInfo):
        def isPasswordField(self):
            return "yes"

    with pytest.raises(TypeError, match="wrong type"):
        bp.KXBlockDataProc(HarnessBlock([WrongType("p", 0, 2)])).isPasswordField("p")


def test_inconsistent_overrides_cannot_overrun_the_send_buffer():
    class Growing(HarnessBlock):
        def getFieldInfoFromIndex(self, position):
            field = bp.FieldInfo("f%d" % position, bp.kFieldText, 4 + getattr(self, "calls", 0))
            self.calls = getattr(self, "calls", 0) + 1000
            return field

    block = Growing([bp.FieldInfo("a", 0, 4)])
    proc = bp.KXBlockDataProc(block)
    proc.setData(b"abcd")
    data = proc.getStructInputData()
    assert len(data) == 4 + block.calls - 1000  # asked once in the call: the size the buffer has

    class Mutating(HarnessBlock):
        def getFieldInfoFromIndex(self, position):
            self.fields[0].nLength = 10_000
            return self.fields[0]

    with pytest.raises(TypeError, match="cannot change while a processor call"):
        bp.KXBlockDataProc(Mutating([bp.FieldInfo("a", 0, 4)])).getStructInputData()
