"""Fixtures of the browser tests: the built tool, `blockproc view` servers and a headless Chromium.

Run by scripts/test.sh with BLOCKPROC_BUILD_DIR set to the build folder; screenshots go to
<build>/screenshots.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "examples"


def build_dir():
    return pathlib.Path(os.environ.get("BLOCKPROC_BUILD_DIR", ROOT / "build")).resolve()


def sanitized():
    """Whether the build runs under AddressSanitizer, whose shadow memory makes memory figures meaningless."""
    cache = build_dir() / "CMakeCache.txt"
    return cache.exists() and "BLOCKPROC_SANITIZE:BOOL=ON" in cache.read_text()


def tool():
    return build_dir() / "tools" / "blockproc" / "blockproc"


def chromium_available():
    return shutil.which("chromium") and os.path.exists("/usr/bin/chromedriver")


class ViewServer:
    """`blockproc view` started as a process on 127.0.0.1, stopped by its pid."""

    def __init__(self, *args):
        self.proc = subprocess.Popen(
            [str(tool()), "view", *map(str, args)],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.url = self.proc.stdout.readline().strip()
        if not self.url.startswith("http://127.0.0.1:"):
            self.proc.wait(timeout=10)
            why = self.proc.stderr.read()
            self.stop()
            raise RuntimeError("blockproc view did not start: " + why)

    @property
    def pid(self):
        return self.proc.pid

    def base(self):
        return self.url.split("/?", 1)[0]

    def token(self):
        return self.url.split("t=", 1)[1]

    def stop(self):
        if self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(timeout=5)
            except subprocess.TimeoutExpired:
                os.kill(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
        self.proc.stdout.close()
        self.proc.stderr.close()


@pytest.fixture
def serve():
    started = []

    def start(*args):
        server = ViewServer(*args)
        started.append(server)
        return server

    yield start
    for server in started:
        server.stop()


@pytest.fixture(scope="session")
def browser():
    if not chromium_available():
        pytest.skip("chromium and chromium-driver are not installed (scripts/setup.sh test)")
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    profile = tempfile.mkdtemp(prefix="blockproc-chromium-")
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for flag in (
        "--headless",
        "--no-sandbox",
        "--disable-gpu",
        "--disable-quic",
        "--no-first-run",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--window-size=1500,1000",
        "--user-data-dir=" + profile,
    ):
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_page_load_timeout(30)
    yield driver
    driver.quit()
    shutil.rmtree(profile, ignore_errors=True)


@pytest.fixture(scope="session")
def screenshots():
    folder = build_dir() / "screenshots"
    folder.mkdir(parents=True, exist_ok=True)
    return folder
