"""The reference service and the SDK set up against it, for the tests of the kivsdk package.

The service is the built kiv-service (KIV_SERVICE_PROGRAM), started once for the session on a free loopback
port with a fresh data folder, and stopped at the end; a service that stopped by itself or reported a fault
in its log fails the run. The SDK keeps its data in a folder of the session's own.
"""

import contextlib
import os
import pathlib
import select
import signal
import subprocess
import sys
import threading
import time
from dataclasses import dataclass

import pytest

import kivsdk

TOKEN = "kivapi-test-token"
# Bounds generous enough for a loaded machine running sanitized builds.
START_BOUND = 60
STOP_BOUND = 30
LISTENING = "listening on https://127.0.0.1:"


@dataclass
class Service:
    base_url: str
    ca_file: str
    token: str
    log_file: pathlib.Path


def read_port(process):
    """The port the service prints once it listens; fails after START_BOUND seconds."""
    output = b""
    deadline = time.monotonic() + START_BOUND
    while time.monotonic() < deadline:
        text = output.decode(errors="replace")
        found = text.find(LISTENING)
        if found >= 0 and "\n" in text[found:]:
            return int(text[found + len(LISTENING):].split("\n")[0])
        readable, _, _ = select.select([process.stdout], [], [], max(deadline - time.monotonic(), 0))
        block = os.read(process.stdout.fileno(), 4096) if readable else b""
        if not block:
            break
        output += block
    raise RuntimeError(f"kiv-service did not report its port; it printed: {output!r}")


def stop(process, log_file):
    process.send_signal(signal.SIGTERM)
    try:
        status = process.wait(timeout=STOP_BOUND)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        status = "killed after SIGTERM was ignored"
    log = log_file.read_text(errors="replace")
    assert status == 0 and "Sanitizer" not in log and "runtime error:" not in log, (
        f"kiv-service ended with {status}; its log:\n{log}")


@pytest.fixture(scope="session")
def service(tmp_path_factory):
    data = tmp_path_factory.mktemp("service") / "data"
    data.mkdir()
    log_file = data / "service.log"
    # The service is a program of its own: it gets no preloaded sanitizer runtime meant for python.
    environment = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
    with open(log_file, "wb") as log:
        process = subprocess.Popen(
            [os.environ["KIV_SERVICE_PROGRAM"], "--data", str(data), "--port", "0", "--token", TOKEN],
            stdout=subprocess.PIPE, stderr=log, env=environment)
    try:
        port = read_port(process)
        process.stdout.close()
    except BaseException:
        process.kill()
        process.wait()
        raise
    yield Service(f"https://127.0.0.1:{port}", str(data / "ca.pem"), TOKEN, log_file)
    stop(process, log_file)


@pytest.fixture(scope="session")
def sdk(service, tmp_path_factory):
    """The kivsdk module talking to the test service, with a data folder of its own."""
    kivsdk.set_data_directory(str(tmp_path_factory.mktemp("application")))
    kivsdk.use_service(service.base_url, service.ca_file)
    kivsdk.setup(service.token)
    kivsdk.load_from_store()  # sets the store up, as a host does at start-up
    return kivsdk


@pytest.fixture
def media(tmp_path):
    """Writes a media file of `size` bytes (or given `content`) and answers its path."""
    def write(name, size=1000, content=None):
        path = tmp_path / name
        path.write_bytes(content if content is not None else bytes(i % 251 for i in range(size)))
        return str(path)
    return write


class Unraisable:
    """What callbacks on the SDK's threads raised, each (exception, where), while `watching()`."""

    def __init__(self):
        self.reported = []
        self._arrived = threading.Condition()

    def _hook(self, report):
        with self._arrived:
            self.reported.append((report.exc_value, str(report.object)))
            self._arrived.notify_all()

    @contextlib.contextmanager
    def watching(self):
        # Entered in the test's body, so that it comes after pytest's own hook for the test.
        before, sys.unraisablehook = sys.unraisablehook, self._hook
        try:
            yield self
        finally:
            sys.unraisablehook = before

    def wait_for(self, count, bound=90):
        with self._arrived:
            return self._arrived.wait_for(lambda: len(self.reported) >= count, timeout=bound)


@pytest.fixture
def unraisable():
    return Unraisable()
