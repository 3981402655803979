#!/usr/bin/env bash
# Generates the test media into the given folder (default build/fixtures)
# with ffmpeg. Nothing large is committed; files already made are kept.
set -euo pipefail
out=${1:-build/fixtures}
mkdir -p "$out"

fixture() { # fixture NAME ffmpeg-arguments...
  local name=$1; shift
  [ -s "$out/$name" ] && return 0
  ffmpeg -hide_banner -loglevel error -y "$@" "$out/$name.tmp.${name##*.}"
  mv "$out/$name.tmp.${name##*.}" "$out/$name"
}

# Two seconds of 25 fps H.264 with G.711 sound, key frame every second.
fixture h264_g711.ts -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=8000 \
  -t 2 -c:v libx264 -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p -c:a pcm_mulaw -f mpegts
echo "fixtures in $out"
