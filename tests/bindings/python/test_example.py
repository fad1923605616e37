"""examples/python/evidence_flow.py run as a user runs it, against the test service."""

import os
import subprocess
import sys

EXAMPLE = os.path.join(os.environ["KIV_EXAMPLES_DIR"], "evidence_flow.py")
RUN_BOUND = 300


def run(service, data, *arguments):
    command = [sys.executable, EXAMPLE, "--service", service.base_url, "--ca", service.ca_file,
               "--token", service.token, "--data", str(data), *arguments]
    return subprocess.run(command, capture_output=True, text=True, timeout=RUN_BOUND)


def test_the_example_certifies_its_media_and_verifies_the_certificate(service, media, tmp_path):
    data = tmp_path / "data"
    photo, video = media("leak.jpg", size=200_000), media("leak.mp4", size=3000)

    done = run(service, data, "Water damage, kitchen", photo, video)
    assert done.returncode == 0, done.stderr
    assert "Water damage, kitchen: confirmed; certificate " in done.stdout
    assert done.stdout.rstrip().endswith("Water damage, kitchen.pdf: verified")
    assert "  ok    statement:" in done.stdout and "FAIL" not in done.stdout
    assert ": 200000 of 200000 bytes" in done.stdout

    again = run(service, data, "Water damage, kitchen", photo)
    assert again.returncode == 1 and again.stderr.startswith("evidence_flow: ") and "kitchen" in again.stderr
    missing = run(service, data, "Hall", str(tmp_path / "gone.jpg"))
    assert missing.returncode == 1 and "gone.jpg" in missing.stderr
