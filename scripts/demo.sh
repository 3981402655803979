#!/usr/bin/env bash
# The main job on a fresh machine: install what is needed, build, then play
# the built-in sample (a moving test pattern with a clock and a 1 kHz tone)
# as a live stream: korvalen-send serves it as "$"-framed RTP over TCP on
# loopback, korvalen-play connects, shows it in an X11 window (a private Xvfb
# when there is no display) with sound (a private PulseAudio with a null sink
# when there is no sound server), prints statistics once a second, and saves
# a screenshot of the window and a snapshot of the picture to demo-out/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build korvalen-play korvalen-send
out=demo-out
mkdir -p "$out"
scripts/make_fixtures.sh --sample-only build/fixtures
sample=build/fixtures/sample.mkv

pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; }
trap cleanup EXIT

if [ -z "${DISPLAY:-}" ]; then
  n=$((200 + $$ % 500))
  Xvfb ":$n" -screen 0 1280x720x24 -nolisten tcp >/dev/null 2>&1 &
  pids+=($!)
  export DISPLAY=":$n"
  for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X$n" ] && break; sleep 0.1; done
fi
if ! pactl info >/dev/null 2>&1; then
  pulse_dir=$(mktemp -d)
  pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --disable-shm=yes \
    -L "module-native-protocol-unix auth-anonymous=1 socket=$pulse_dir/native" \
    -L "module-null-sink sink_name=demo" >"$pulse_dir/log" 2>&1 &
  pids+=($!)
  export PULSE_SERVER="unix:$pulse_dir/native"
  for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
fi

port=$((20000 + $$ % 20000))
./build/tools/korvalen-send "$sample" "tcp://127.0.0.1:$port" --wait 20 &
sender=$!
pids+=("$sender")
sleep 0.5
./build/tools/korvalen-play "tcp://127.0.0.1:$port" --sound --duration 10 \
  --snapshot "$out/snapshot.ppm" --screenshot "$out/window.ppm"
wait "$sender" || true
echo "demo: window screenshot $out/window.ppm, snapshot $out/snapshot.ppm," \
  "log in \$HOME/PlayerFile/Player_SDK00.log"
