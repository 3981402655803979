#!/usr/bin/env bash
# The main job on a fresh machine: install what is needed, build, then play
# the built-in sample as a live RTP stream (ffmpeg sends it over UDP on
# loopback) in an X11 window (a private Xvfb when there is no display),
# printing live statistics, and save a snapshot of the picture shown.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build korvalen-play
out=build/demo
mkdir -p "$out"
sample=$out/sample.h264
if [ ! -s "$sample" ]; then
  ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=640x360:rate=25 -t 10 -c:v libx264 \
    -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p -f h264 "$sample"
fi

xvfb_pid=""
if [ -z "${DISPLAY:-}" ]; then
  n=$((200 + $$ % 500))
  Xvfb ":$n" -screen 0 1280x720x24 -nolisten tcp >/dev/null 2>&1 &
  xvfb_pid=$!
  export DISPLAY=":$n"
  for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X$n" ] && break; sleep 0.1; done
fi
cleanup() { [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null || true; }
trap cleanup EXIT

port=$((20000 + $$ % 20000))
./build/tools/korvalen-play "udp://127.0.0.1:$port" --duration 9 --snapshot "$out/snapshot.ppm" &
player=$!
sleep 1
ffmpeg -hide_banner -loglevel error -re -f h264 -i "$sample" -c:v copy -f rtp "rtp://127.0.0.1:$port" >/dev/null
wait "$player"
echo "demo: snapshot in $out/snapshot.ppm, log in \$HOME/PlayerFile/Player_SDK00.log"
