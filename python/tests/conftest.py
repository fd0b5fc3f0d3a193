"""Shared fixtures: the bundled sample, a definition holding every field type, and the tool's own values."""

import decimal
import json
import os
import pathlib
import struct
import subprocess

import pytest

import blockproc

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples"

# One record of every type: text in cp949, numbers as text (implied and explicit point, blank; a text field with
# decimals), binary integers and floating point with places, and a field carrying an attribute byte. The block
# takes the rest of a reply, up to 1,000 records.
EVERY_TYPE = """<?xml version="1.0" encoding="UTF-8"?>
<transaction code="T00001" encoding="cp949">
  <output>
    <block name="Rows" repeat="1000" count="rest">
      <field name="name" type="text" length="10"/>
      <field name="qty" type="number" length="6"/>
      <field name="price" type="number" length="8" decimals="2" attr="true"/>
      <field name="rate" type="text" length="6" decimals="2"/>
      <field name="i16" type="int16"/>
      <field name="i64" type="int64"/>
      <field name="s64" type="sint64"/>
      <field name="f" type="float" decimals="2"/>
      <field name="d" type="double" decimals="3"/>
    </block>
  </output>
</transaction>
"""
ROW = struct.Struct("<10s6s8sB6shqqfd")


def row(name, qty, price, attr, rate, i16, i64, s64, f, d):
    return ROW.pack(name.encode("cp949").ljust(10), qty, price, attr, rate, i16, i64, s64, f, d)


@pytest.fixture(scope="session")
def sample():
    definition = blockproc.load_definition(EXAMPLES / "current_price.xml")
    return (definition, (EXAMPLES / "current_price.reply").read_bytes(),
            (EXAMPLES / "current_price.stream").read_bytes())


@pytest.fixture(scope="session")
def every_type():
    return blockproc.load_definition(EVERY_TYPE)


@pytest.fixture(scope="session")
def tool(tmp_path_factory):
    """What `blockproc decode --format json` makes of a reply: {block: [record, ...]}, numbers as int or
    decimal.Decimal and attribute bytes as int, the form decode gives. Takes the definition's path or text."""
    build = os.environ.get("BLOCKPROC_BUILD_DIR")
    program = pathlib.Path(build or ".") / "tools" / "blockproc" / "blockproc"
    if not build or not program.is_file():
        pytest.skip("the blockproc tool is not built; set BLOCKPROC_BUILD_DIR to compare with it")
    folder = tmp_path_factory.mktemp("tool")

    def record(values):
        return {k: int(v, 16) if k.endswith("@attr") else v for k, v in values.items()}

    def run(definition, reply):
        if isinstance(definition, str) and definition.lstrip().startswith("<"):
            (folder / "definition.xml").write_text(definition)
            definition = folder / "definition.xml"
        (folder / "reply.bin").write_bytes(reply)
        done = subprocess.run([program, "decode", "--format", "json", definition, folder / "reply.bin"],
                              capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        blocks = json.loads(done.stdout, parse_float=decimal.Decimal)["blocks"]
        return {name: [record(r) for r in (records if isinstance(records, list) else [records])]
                for name, records in blocks.items()}

    return run


def market_rows(count, seed=1, computed=True):
    """`count` EVERY_TYPE records of real-looking traffic: Hangul and ASCII names, blank and negative numbers,
    extreme integers, and computed averages in the double (more places than its 3) and in the float; with
    computed=False the double and the float hold values within their places instead."""
    import random

    rng = random.Random(seed)
    names = ["삼성전자", "SK하이닉스", "카카오", "NAVER", "현대차", "", "LG에너지솔루션"]
    rows = []
    for i in range(count):
        prices = [rng.randint(1000, 90000) for _ in range(rng.randint(1, 9))]
        qty = b"      " if i % 11 == 0 else b"%6d" % rng.randint(-99999, 999999)
        price = b"        " if i % 13 == 0 else b"%8.2f" % (rng.randint(-999999, 9999999) / 100)
        rate = b"%6.2f" % (rng.randint(-2999, 2999) / 100)
        average = sum(prices) / len(prices)
        f, d = (average / 7, average / 3) if computed else (float(prices[0]), prices[-1] / 8)
        rows.append(row(names[i % len(names)], qty, price, i % 256, rate, rng.randint(-32768, 32767),
                        rng.randint(-2**63, 2**63 - 1), -i, f, d))
    return b"".join(rows)
