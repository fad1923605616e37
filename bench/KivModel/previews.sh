#!/usr/bin/env bash
# Preview images benchmark. Builds preview_bench (bench preset), makes its media with the reference tools,
# then in one run:
#  1. a 4000x3000 JPEG: the SDK's first preview (read and decode at the preview size) against djpeg
#     decoding the same file whole, and against djpeg's own scaled decoding to the preview's size; the full
#     size a host asks a preview for; the same bytes through a GStreamer pipeline (why JPEG photos decode
#     with libjpeg-turbo); the peak memory of a process that makes one preview, and of djpeg;
#  2. a 10-second 1280x720 H.264 MP4: the SDK's first-frame preview (request to frame on the main queue)
#     against ffmpeg -frames:v 1 on the same file, each in a process of its own, and within one process;
#  3. 100 previews of 100 different 1280x720 photos in a list: total time and the resident memory after.
# Previews are made at the SDK's default preview size (KivModel::previewSize) on a screen of scale 1.
# Times are the best of 5, CPU time (every thread's) beside wall-clock time: the machine may be shared. Needs scripts/setup.sh bench/debian-packages.txt.
# Usage: bench/KivModel/previews.sh
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --preset bench >/dev/null
cmake --build --preset bench --target preview_bench >/dev/null
bench="$root/build/bench/bench/KivModel/preview_bench"

# A detailed picture with a sensor's noise, coded like a camera's (4:2:0).
ffmpeg -v error -f lavfi -i "mandelbrot=size=4000x3000" -frames:v 1 -vf noise=alls=12 -q:v 3 -pix_fmt yuvj420p \
  "$work/photo.jpg"
gst-launch-1.0 -q videotestsrc num-buffers=300 pattern=ball \
  ! video/x-raw,format=I420,width=1280,height=720,framerate=30/1 ! x264enc ! mp4mux \
  ! filesink location="$work/clip.mp4"
# 100 different photos: 100 pictures of a zoom.
mkdir "$work/list"
ffmpeg -v error -f lavfi -i "mandelbrot=size=1280x720:rate=25" -frames:v 100 -q:v 3 -pix_fmt yuvj420p \
  "$work/list/photo-%03d.jpg"

python3 - "$bench" "$work" <<'PY'
import os, subprocess, sys, time

bench, work = sys.argv[1:]
photo, clip = f"{work}/photo.jpg", f"{work}/clip.mp4"

def run(command):
    """One process: its wall and CPU ms, its peak resident KiB and its standard output."""
    start = time.perf_counter()
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    output = process.stdout.read().decode()
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        sys.exit(f"{command[0]} failed")
    wall = (time.perf_counter() - start) * 1000
    return {"wall": wall, "cpu": (usage.ru_utime + usage.ru_stime) * 1000, "kib": usage.ru_maxrss,
            "output": dict(line.split("=", 1) for line in output.split())}

def best(command, runs=5):
    """The best wall and CPU ms of `runs` processes, and their highest peak memory."""
    runs = [run(command) for _ in range(runs)]
    return {key: min(r[key] for r in runs) for key in ("wall", "cpu")} | {"kib": max(r["kib"] for r in runs)}

def ms(name, values):
    return f"{float(values[name + '_cpu_ms']):.1f} ms CPU ({float(values[name + '_wall_ms']):.1f} ms wall)"

sdk = run([bench, "photo", photo, "5"])["output"]
djpeg = best(["djpeg", "-outfile", "/dev/null", photo])
width, height = int(sdk["preview_width"]), int(sdk["preview_height"])
scaled = best(["djpeg", "-scale", f"{width * 8 // 4000}/8", "-outfile", "/dev/null", photo])
peak = run([bench, "peak", photo])["output"]
print(f"4000x3000 JPEG ({os.path.getsize(photo) // 1024} KiB), best of 5:")
print(f"  SDK preview at {width}x{height} {ms('sdk', sdk)}; djpeg, whole picture, {djpeg['cpu']:.1f} ms CPU "
      f"({djpeg['wall']:.1f} ms wall, its whole process); SDK / djpeg {float(sdk['sdk_cpu_ms']) / djpeg['cpu']:.2f} CPU")
print(f"  djpeg scaled to the same {width}x{height} {scaled['cpu']:.1f} ms CPU; SDK / scaled djpeg "
      f"{float(sdk['sdk_cpu_ms']) / scaled['cpu']:.2f} CPU")
print(f"  the preview's full size, when asked {ms('full', sdk)}; full / djpeg {float(sdk['full_cpu_ms']) / djpeg['cpu']:.2f} CPU")
print(f"  GStreamer pipeline on the same bytes {ms('gstreamer', sdk)}; GStreamer / djpeg "
      f"{float(sdk['gstreamer_cpu_ms']) / djpeg['cpu']:.2f} CPU")
print(f"  peak memory: a process making one preview {int(peak['peak_kib']) / 1024:.0f} MiB (the file's bytes are "
      f"{os.path.getsize(photo) / 2**20:.1f} MiB of it, the preview's pixels {width * height * 4 / 2**20:.1f} MiB), "
      f"djpeg {djpeg['kib'] / 1024:.0f} MiB")

inside = run([bench, "video", clip, "5"])["output"]
once = best([bench, "video", clip, "1"])
ffmpeg = best(["ffmpeg", "-v", "error", "-i", clip, "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgba",
               "-y", "/dev/null"])
print(f"10 s 1280x720 H.264 MP4, first frame (SDK at {inside['preview_width']}x{inside['preview_height']}), best of 5 "
      f"processes: SDK {once['cpu']:.1f} ms CPU "
      f"({once['wall']:.1f} ms wall), ffmpeg -frames:v 1 {ffmpeg['cpu']:.1f} ms CPU ({ffmpeg['wall']:.1f} ms wall); "
      f"SDK / ffmpeg {once['cpu'] / ffmpeg['cpu']:.2f} CPU, {once['wall'] / ffmpeg['wall']:.2f} wall")
print(f"  within a running process, request to frame on the main queue: {ms('sdk', inside)}")

listed = run([bench, "list", f"{work}/list"])["output"]
count = int(listed["photos"])
grown = (int(listed["resident_after_kib"]) - int(listed["resident_before_kib"])) / 1024
print(f"{count} different 1280x720 photos in a list: {ms('total', listed)} in all; resident memory after "
      f"{int(listed['resident_after_kib']) / 1024:.0f} MiB, {grown:.0f} MiB more than before "
      f"({int(listed['pixels_kib']) / 1024:.0f} MiB of cached pixels; {1280 * 720 * 4 * count / 2**20:.0f} MiB at full size)")
PY
