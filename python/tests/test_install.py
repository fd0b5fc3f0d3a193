"""The package imports from an installed prefix (cmake --install), not only from the build tree."""

import os
import pathlib
import re
import subprocess
import sys

import pytest

import blockproc
from conftest import EXAMPLES


def build_dir():
    build = pathlib.Path(os.environ.get("BLOCKPROC_BUILD_DIR") or pathlib.Path(blockproc.__file__).parents[2])
    if not (build / "CMakeCache.txt").is_file():
        pytest.skip("blockproc was not imported from a build tree; set BLOCKPROC_BUILD_DIR to test the install")
    return build


def test_import_from_an_installed_prefix(tmp_path):
    build = build_dir()
    subprocess.run(["cmake", "--install", str(build), "--prefix", str(tmp_path / "prefix")], check=True,
                   stdout=subprocess.DEVNULL)
    cache = (build / "CMakeCache.txt").read_text()
    site = tmp_path / "prefix" / re.search(r"^BLOCKPROC_PYTHON_INSTALL_DIR:\w+=(.*)$", cache, re.M).group(1)
    script = ("import blockproc, sys; d = blockproc.load_definition(sys.argv[1]); "
              "print(blockproc.__file__); print(len(blockproc.to_pandas(d, open(sys.argv[2], 'rb').read(), 'OutBlock1')))")
    result = subprocess.run([sys.executable, "-c", script, str(EXAMPLES / "current_price.xml"),
                             str(EXAMPLES / "current_price.reply")], cwd=tmp_path, capture_output=True, text=True,
                            env=dict(os.environ, PYTHONPATH=str(site)), check=True)
    location, records = result.stdout.split()
    assert pathlib.Path(location).is_relative_to(site) and records == "5"
