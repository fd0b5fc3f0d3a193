#!/usr/bin/env python3
"""Writes the committed seed corpora under fuzz/corpus/<target>/.

The fuzz_ops seeds follow the byte layout its harness reads (FuzzInput draws, in fuzz_ops.cpp order):
a stray field, the block definition, an optional second definition, then operations. Run from anywhere;
it rewrites the seed files and leaves other files in the corpus directories alone.
"""

import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode("utf-8"))


# ---- fuzz_ops ---------------------------------------------------------------------------------------------

def small(v):
    """FuzzInput::number() for -16 <= v <= 239."""
    assert -16 <= v <= 239
    return bytes([0, v + 16])


def field(name, dtype, length, decimals=0, pos=None, flags=0):
    """One field: name index, type index, shape, length, places, [position], flags."""
    shape = 1 | 4 | (0 if pos is not None else 8)
    out = bytes([name, dtype, shape, length % 24, decimals % 6])
    if pos is not None:
        out += small(pos)
    return out + bytes([flags])


def block(fields, repeat=None, attribute=False):
    head = 1 if attribute else 0
    btype = 4 if repeat is not None else 0
    out = bytes([head, btype]) + small(repeat or 0) + bytes([len(fields) - 1])
    for f in fields:
        out += f
    return out + bytes([0])  # no attribute-source keys


def ops_seed(fields, ops, repeat=None, attribute=False):
    stray = field(3, 1, 7, 2, pos=200)
    return stray + block(fields, repeat, attribute) + bytes([0]) + b"".join(ops)


def op_receive(code, payload, start=0):
    return bytes([code, 100, start]) + struct.pack("<H", len(payload)) + payload


def op_read(record, field_index):
    # case 25: index, selector 0 (by field), field draw (block, position)
    return bytes([25, record + 2, 0, 0, field_index])


def op_write(record, field_index, value):
    # case 27: by field, name draw, field draw, index, value as raw bytes
    return bytes([27, 0, 0, 0, 0, field_index, record + 2, 200, len(value)]) + value


ten = [field(0, 0, 3), field(1, 1, 7, 2)]  # text(3) number(7, 2 places)
mixed = [field(0, 0, 4), field(1, 1, 6, 1), field(2, 2, 2), field(3, 3, 8), field(4, 4, 4, 2), field(5, 5, 8),
         field(6, 6, 8)]

write("fuzz_ops", "default_read", ops_seed(ten, [bytes([9]), op_read(0, 0), op_read(0, 1)]))
write("fuzz_ops", "receive_read",
      ops_seed(ten, [op_receive(15, b"AB 0001234" * 3), op_read(1, 1), op_read(2, 0), bytes([19])], repeat=3))
write("fuzz_ops", "reverse_real",
      ops_seed(ten, [bytes([9, 8]), op_receive(17, b"XYZ0000999"), op_receive(16, b"ab 00000.1" * 2),
                     op_read(0, 1)], repeat=2))
write("fuzz_ops", "write_grow",
      ops_seed(mixed, [op_write(0, 0, "가".encode()), op_write(3, 1, b"-12.5"), op_write(1, 3, b"123456789"),
                       op_write(2, 4, b"3.25"), op_read(3, 1), bytes([18])], repeat=2))
write("fuzz_ops", "attr_block",
      ops_seed(ten, [bytes([9]), bytes([31, 0, 0, 2, 0x35, 1]), bytes([34, 0, 0, 2, 1]),
                     bytes([35, 0, 0, 2])], attribute=True))
write("fuzz_ops", "dynamic",
      ops_seed(ten, [op_receive(22, b"0123456789abcde"), bytes([20, 0, 0, 2, 200, 3]) + b"abc",
                     bytes([21, 0, 0, 2]), op_receive(23, b"short")]))

# ---- fuzz_xml ---------------------------------------------------------------------------------------------

write("fuzz_xml", "block.xml",
      '<block name="OutBlock">\n'
      '  <REALAP idx="0" name="price" fieldinfo="1,0,8" exp="price &gt; 0" attrfunc="x.attr_compare(price,sign)"/>\n'
      '  <REALAP name="change" fieldinfo="3,0,8"/>\n'
      '  <DEFAULT idx="2" deflink="0,,3" defconst="&lt;kept&gt;"/>\n'
      '</block>\n')
write("fuzz_xml", "nested.xml",
      '<?xml version="1.0" encoding="UTF-8"?>\n<!-- c -->\n<a name="1" name2="2"><b>text<c/>more</b>'
      '<![CDATA[raw <x>]]><d x="&amp;quot;"/><e>&#x41;&#66;</e></a>')
write("fuzz_xml", "edges.xml",
      '<link name="A" name="B"><REALAP idx="2147483647"/><REALAP idx="-2147483648"/><realap/>'
      '<X fieldinfo="1,2"/><X deflink="99999999999,-99999999999,7,8"/></link>')
write("fuzz_xml", "broken.xml", '<a><b></a>')

# ---- fuzz_codec -------------------------------------------------------------------------------------------

write("fuzz_codec", "ascii", b"\x00plain ASCII text 0123")
write("fuzz_codec", "hangul_utf8", b"\x01" + "가나다 현재가\u3000".encode())
write("fuzz_codec", "hangul_cp949", b"\x00" + "현재가 종목명".encode("cp949"))
write("fuzz_codec", "euckr", b"\x04" + "한글".encode("euc-kr"))
write("fuzz_codec", "latin1", b"\x03caf\xe9 \xa0\xff")
write("fuzz_codec", "bad_utf8", b"\xfa\xc0\x80\xed\xa0\x80\xf4\x90\x80\x80\xe3\x80")
write("fuzz_codec", "all_spaces", b"\xfb" + " \t\u00a0\u2003x\u3000\u205f".encode())

# ---- fuzz_definition --------------------------------------------------------------------------------------

REPLY_MARK = b"\n--reply--\n"
example = open(os.path.join(HERE, "..", "examples", "current_price.xml"), "rb").read()
reply = open(os.path.join(HERE, "..", "examples", "current_price.reply"), "rb").read()
write("fuzz_definition", "current_price", example + REPLY_MARK + reply)
small_def = (
    '<transaction code="T1" occurslen="2">\n'
    ' <output>\n'
    '  <block name="Out"><field name="a" type="text" length="3"/><field name="n" type="number" length="5" '
    'decimals="1"/></block>\n'
    '  <block name="Rows" repeat="3" count="prefix"><field name="v" type="int16"/></block>\n'
    ' </output>\n'
    '</transaction>\n').encode()
write("fuzz_definition", "occurs", small_def + REPLY_MARK + b"abc0012302\x01\x00\x02\x00")
write("fuzz_definition", "short_reply", small_def + REPLY_MARK + b"ab")
rest_def = (
    '<transaction code="T2" encoding="utf-8" datamode=".WSKJson">\n'
    ' <input><block name="In"><field name="k" type="text" length="4" keyenc="true"/></block></input>\n'
    ' <output>\n'
    '  <block name="Head" attr="true"><field name="cnt" type="int16"/><field name="t" type="text" length="2" '
    'pos="4"/></block>\n'
    '  <block name="Mid" repeat="5" count="Head.cnt"><field name="f" type="float" decimals="2"/>'
    '<field name="s" type="sint64" attrref="f"/></block>\n'
    '  <block name="Tail" repeat="9" count="rest"><field name="d" type="double" decimals="3"/></block>\n'
    ' </output>\n'
    '</transaction>\n').encode()
write("fuzz_definition", "rest_and_field_count",
      rest_def + REPLY_MARK + b"\x01\x00 \x00ok " + b"\x00\x00\xc8\x42" + b"\x07" * 8 + b"\x00" * 8)
