#!/usr/bin/env bash
# Capture screen benchmark on the synthetic camera at 1280x720, 30 pictures a second. Builds capture_bench
# (bench preset), then in one run:
#  1. 20 photos: the control press to the photo file written and on screen (median and worst);
#  2. 10 seconds of preview alone, then a 10-second recording through the screen: the process's CPU in each,
#     and the pictures missing from the recording (ffprobe counts those in the file);
#  3. gst-launch-1.0 running the same camera and encoders into a file for 10 seconds: its CPU and pictures
#     (its time includes its start, a small part of 10 seconds);
#  4. 10 reviews of the recording: entering readyToPlayback to its first picture on screen.
# CPU is in cores: 1.0 is one core busy the whole time. Needs scripts/setup.sh bench/debian-packages.txt.
# Usage: bench/KivMediaCaptureAndPlayViewController/run.sh
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --preset bench >/dev/null
cmake --build --preset bench --target capture_bench >/dev/null
bench="$root/build/bench/bench/KivMediaCaptureAndPlayViewController/capture_bench"

value() { grep "^$1=" | cut -d= -f2; }
# Pictures missing from a recording: its video's length at 30 a second, less the pictures in it.
missing() {
  ffprobe -v error -select_streams v:0 -count_frames -show_entries stream=nb_read_frames,duration \
    -of default=noprint_wrappers=1 "$1" | python3 -c '
import sys
fields = dict(line.strip().split("=") for line in sys.stdin)
print(round(float(fields["duration"]) * 30) - int(fields["nb_read_frames"]), fields["duration"])'
}

photo=$("$bench" photo 20)
record=$("$bench" record 10 "$work/recording.mp4")
# The description's quoted values must reach gst-launch-1.0 as single arguments, hence eval.
description=$("$bench" reference 10 "$work/reference.mp4")
TIMEFORMAT='%U %S %R'
reference=$({ time eval "gst-launch-1.0 -q $description" >/dev/null; } 2>&1 | tail -n 1)
playback=$("$bench" playback 10 "$work/recording.mp4")

python3 - "$(echo "$photo" | value photo_median_ms)" "$(echo "$photo" | value photo_worst_ms)" \
  "$(echo "$record" | value preview_cpu)" "$(echo "$record" | value recording_cpu)" \
  "$(missing "$work/recording.mp4")" $reference "$(missing "$work/reference.mp4")" \
  "$(echo "$playback" | value first_picture_median_ms)" "$(echo "$playback" | value first_picture_worst_ms)" <<'PY'
import sys
(photo_median, photo_worst, preview, recording, missing, user, system, real, reference_missing,
 first_median, first_worst) = sys.argv[1:]
reference = (float(user) + float(system)) / float(real)
missing, length = missing.split()
reference_missing, reference_length = reference_missing.split()
recorder = float(recording) - float(preview)
print(f"photo, press to file: median {float(photo_median):.0f} ms, worst of 20 {float(photo_worst):.0f} ms")
print(f"recording {float(length):.2f} s: {missing} pictures missing; gst-launch-1.0 {float(reference_length):.2f} s: "
      f"{reference_missing} missing")
print(f"CPU (cores): preview alone {float(preview):.2f}, preview and recording {float(recording):.2f}, "
      f"so the recorder {recorder:.2f}; gst-launch-1.0 with the same camera and encoders {reference:.2f}; "
      f"recorder / gst-launch-1.0 {recorder / reference:.2f}")
print(f"readyToPlayback to first picture: median {float(first_median):.0f} ms, worst of 10 {float(first_worst):.0f} ms")
PY
