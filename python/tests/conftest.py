"""Shared fixtures: the bundled sample and a definition holding every field type."""

import pathlib
import struct

import pytest

import blockproc

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples"

# One record of every type: text in cp949, numbers as text (implied and explicit point, blank), binary integers
# and floating point with places printed, and a field carrying an attribute byte.
EVERY_TYPE = """<?xml version="1.0" encoding="UTF-8"?>
<transaction code="T00001" encoding="cp949">
  <output>
    <block name="Rows" repeat="1" count="rest">
      <field name="name" type="text" length="10"/>
      <field name="qty" type="number" length="6"/>
      <field name="price" type="number" length="8" decimals="2" attr="true"/>
      <field name="i16" type="int16"/>
      <field name="i64" type="int64"/>
      <field name="s64" type="sint64"/>
      <field name="f" type="float" decimals="2"/>
      <field name="d" type="double" decimals="3"/>
    </block>
  </output>
</transaction>
"""
ROW = struct.Struct("<10s6s8sBhqqfd")


def row(name, qty, price, attr, i16, i64, s64, f, d):
    return ROW.pack(name.encode("cp949").ljust(10), qty, price, attr, i16, i64, s64, f, d)


@pytest.fixture(scope="session")
def sample():
    definition = blockproc.load_definition(EXAMPLES / "current_price.xml")
    return (definition, (EXAMPLES / "current_price.reply").read_bytes(),
            (EXAMPLES / "current_price.stream").read_bytes())


@pytest.fixture(scope="session")
def every_type():
    return blockproc.load_definition(EVERY_TYPE)
