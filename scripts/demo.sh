#!/usr/bin/env bash
# The main job. Sets the machine up, builds the `kiv` command line and the reference service, and runs the
# whole evidence flow with kiv: a new report, media added, fingerprinted and signed by the device's key, the
# report sent with its device statements, its content uploaded, its status followed until "confirmed", its
# signed certificate fetched, the content downloaded again on a second (simulated) device and verified there.
# Ends with a summary, the certificate's first page as PNG, and the certificate checked offline (its
# signature, manifest, time-stamp, device statements and the media files), every check on a line.
#
# Uses the service on the address the SDK is built for (https://127.0.0.1:18443): when nothing listens there,
# it starts kiv-service there itself, and stops it (that process only) when it ends.
# Usage: scripts/demo.sh [media files...]   (default: a JPEG photo and an H.264/AAC MP4 clip it makes)
# KIV_PRESET names the build to run it with (default: "default"; CI runs it with the sanitized build of its
# test stage, "asan").
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
port=18443
preset=${KIV_PRESET:-default}

"$root/scripts/setup.sh"
cd "$root"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target kiv kiv-service
kiv="$root/build/$preset/tools/kiv/kiv"
service="$root/build/$preset/tools/kiv-service/kiv-service"

demo="$root/build/demo"
rm -rf "$demo"
mkdir -p "$demo/media"
export KIV_APP_TOKEN=${KIV_APP_TOKEN:-kiv-demo-token}
export KIV_DATA_DIR="$demo/device"

service_pid=""
stop_service() {
  [ -z "$service_pid" ] && return
  kill "$service_pid" 2>/dev/null || true
  wait "$service_pid" 2>/dev/null || true
}
trap stop_service EXIT

listening() { (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; }
if listening; then
  echo "::: using the service already listening on 127.0.0.1:$port"
else
  echo "::: starting kiv-service on 127.0.0.1:$port"
  "$service" --token "$KIV_APP_TOKEN" >"$demo/service.out" 2>"$demo/service.log" &
  service_pid=$!
  for _ in $(seq 300); do
    grep -q 'listening on' "$demo/service.out" 2>/dev/null && break
    kill -0 "$service_pid" 2>/dev/null || { cat "$demo/service.log" >&2; exit 1; }
    sleep 0.1
  done
  grep -q 'listening on' "$demo/service.out" || { echo "kiv-service did not start" >&2; exit 1; }
fi

media=("$@")
if [ ${#media[@]} -eq 0 ]; then
  echo "::: making a photo and a 3-second video from GStreamer's test sources"
  gst-launch-1.0 -q videotestsrc num-buffers=1 pattern=smpte ! video/x-raw,width=1280,height=720 ! jpegenc \
    ! filesink location="$demo/media/photo.jpg"
  gst-launch-1.0 -q -e videotestsrc num-buffers=90 pattern=ball \
    ! video/x-raw,width=640,height=360,framerate=30/1,format=I420 ! x264enc ! h264parse ! mp4mux name=mux \
    ! filesink location="$demo/media/clip.mp4" \
    audiotestsrc num-buffers=130 ! audioconvert ! avenc_aac ! mux.
  media=("$demo/media/photo.jpg" "$demo/media/clip.mp4")
fi

step() { echo "::: kiv $*" >&2; "$kiv" "$@"; }
id=$(step report new "Demo evidence" --note "Made by scripts/demo.sh" --meta source=demo)
step add "$id" "${media[@]}"   # each file with the device's signed statement about it
step send "$id"                # the report, then its device statements
step upload "$id"
step status "$id" --force --wait 60
pdf=$(step pdf "$id")

echo "::: a second device with the same report list and no media: download, then verify"
mkdir -p "$demo/second-device"
cp "$KIV_DATA_DIR/UserDefaults.plist" "$demo/second-device/"
KIV_DATA_DIR="$demo/second-device" step download "$id"
KIV_DATA_DIR="$demo/second-device" step verify "$id"

pdftoppm -png -singlefile -f 1 -l 1 -r 72 "$pdf" "${pdf%.pdf}"
echo
echo "::: summary"
"$kiv" report show "$id"
echo "  certificate page: ${pdf%.pdf}.png"
echo
echo "::: the certificate checked offline, with no network, against the service's CA"
step verify --offline "$pdf" "$KIV_DATA_DIR/Documents/Kiv"
