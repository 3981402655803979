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

# RTP peers: one second of video, key frame every ten frames, for ffmpeg and
# GStreamer to packetize. x265 is told open-gop=0 so key frames are IDR, and
# radl=2 so that they are IDR_W_RADL after the first.
fixture rtp_h264.h264 -f lavfi -i testsrc2=size=640x360:rate=25 -t 1 -c:v libx264 -preset ultrafast -g 10 \
  -pix_fmt yuv420p -bsf:v h264_mp4toannexb -f h264
fixture rtp_h265.h265 -f lavfi -i testsrc2=size=640x360:rate=25 -t 1 -c:v libx265 -preset ultrafast \
  -x265-params keyint=10:open-gop=0:radl=2:log-level=error -pix_fmt yuv420p -f hevc
fixture rtp_mjpeg420.mjpeg -f lavfi -i testsrc2=size=320x240:rate=25 -t 1 -c:v mjpeg -huffman default -q:v 5 \
  -pix_fmt yuvj420p -f mjpeg
# Benchmark input: ten seconds of 1080p H.264 at a camera's bit rate.
fixture bench_1080p.h264 -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 10 -c:v libx264 -preset ultrafast \
  -b:v 8M -g 50 -pix_fmt yuv420p -bsf:v h264_mp4toannexb -f h264
# Baseline JPEGs with restart markers and the quality-50 tables, for the RTP
# JPEG header rebuild (no RTP sender emits restart markers).
jpeg_fixture() { # jpeg_fixture NAME cjpeg-arguments...
  local name=$1; shift
  [ -s "$out/$name" ] && return 0
  ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=320x240 -frames:v 1 -c:v ppm -f image2 \
    "$out/$name.ppm"
  cjpeg "$@" "$out/$name.ppm" >"$out/$name.tmp"
  mv "$out/$name.tmp" "$out/$name"
  rm -f "$out/$name.ppm"
}
jpeg_fixture rtp_restart422.jpg -quality 50 -sample 2x1 -restart 3B -baseline
jpeg_fixture rtp_restart420.jpg -quality 50 -sample 2x2 -restart 5B -baseline
# One second of sound for the RTP audio payloads (AAC in MP4 carries the
# global header ffmpeg's RTP sender needs).
fixture rtp_aac.m4a -f lavfi -i sine=frequency=440:sample_rate=8000 -t 1 -c:a aac -b:a 24k -ac 1 -f mp4
fixture rtp_g711u.raw -f lavfi -i sine=frequency=440:sample_rate=8000 -t 1 -c:a pcm_mulaw -f mulaw
fixture rtp_g711a.raw -f lavfi -i sine=frequency=440:sample_rate=8000 -t 1 -c:a pcm_alaw -f alaw
