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

# Codec manager: raw elementary streams at two sizes, with and without
# B-frames; parameter sets in band at every key frame.
for size in 352x288 1280x720; do
  fixture "h264_${size}_nob.h264" -f lavfi -i testsrc2=size=$size:rate=25 -t 1 -c:v libx264 -preset ultrafast \
    -g 12 -bf 0 -pix_fmt yuv420p -f h264
  fixture "h264_${size}_b.h264" -f lavfi -i testsrc2=size=$size:rate=25 -t 1 -c:v libx264 -preset veryfast \
    -g 12 -bf 3 -pix_fmt yuv420p -f h264
  fixture "hevc_${size}_nob.hevc" -f lavfi -i testsrc2=size=$size:rate=25 -t 1 -c:v libx265 -preset ultrafast \
    -x265-params log-level=error:keyint=12:open-gop=0:bframes=0 -pix_fmt yuv420p -f hevc
  fixture "hevc_${size}_b.hevc" -f lavfi -i testsrc2=size=$size:rate=25 -t 1 -c:v libx265 -preset ultrafast \
    -x265-params log-level=error:keyint=12:open-gop=0:bframes=3 -pix_fmt yuv420p -f hevc
done
# Mid-stream size change: two streams of different sizes back to back.
[ -s "$out/h264_sizechange.h264" ] || cat "$out/h264_352x288_nob.h264" "$out/h264_1280x720_nob.h264" \
  >"$out/h264_sizechange.h264"
[ -s "$out/hevc_sizechange.hevc" ] || cat "$out/hevc_352x288_nob.hevc" "$out/hevc_1280x720_nob.hevc" \
  >"$out/hevc_sizechange.hevc"
fixture mjpeg_320x240.mjpeg -f lavfi -i testsrc2=size=320x240:rate=10 -t 1 -c:v mjpeg -pix_fmt yuvj420p -f mjpeg
for rate in 8000 16000 44100 48000; do
  fixture "aac_${rate}.aac" -f lavfi -i sine=frequency=1000:sample_rate=$rate -t 1 -c:a aac -b:a 32k -f adts
done
fixture mp2_44100.mp2 -f lavfi -i sine=frequency=1000:sample_rate=44100 -t 1 -c:a mp2 -b:a 64k -ac 1 -f mp2
# G.711: a loud chirp with noise covers every segment of both laws.
fixture g711_src.s16 -f lavfi -i "aevalsrc=0.9*sin(2*PI*(200+3000*t)*t)+0.1*random(0)-0.05:s=8000" -t 1 \
  -c:a pcm_s16le -f s16le
fixture g711_src.ulaw -f s16le -ar 8000 -ac 1 -i "$out/g711_src.s16" -c:a pcm_mulaw -f mulaw
fixture g711_src.alaw -f s16le -ar 8000 -ac 1 -i "$out/g711_src.s16" -c:a pcm_alaw -f alaw
# Decoder benchmark: 1080p in both codecs, 720p for the many-decoder run.
fixture bench_1080p.h264 -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 8 -c:v libx264 -preset veryfast -g 50 \
  -bf 2 -pix_fmt yuv420p -f h264
fixture bench_1080p.hevc -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 8 -c:v libx265 -preset ultrafast \
  -x265-params log-level=error:keyint=50:open-gop=0 -pix_fmt yuv420p -f hevc
fixture bench_720p.h264 -f lavfi -i testsrc2=size=1280x720:rate=25 -t 4 -c:v libx264 -preset veryfast -g 50 \
  -bf 0 -pix_fmt yuv420p -f h264
# Layouts other than 8-bit 4:2:0, which the codec manager converts.
fixture h264_422.h264 -f lavfi -i testsrc2=size=352x288:rate=25 -t 0.4 -c:v libx264 -preset ultrafast -bf 0 \
  -pix_fmt yuv422p -f h264
fixture hevc_10bit.hevc -f lavfi -i testsrc2=size=352x288:rate=25 -t 0.4 -c:v libx265 -preset ultrafast \
  -x265-params log-level=error:bframes=0 -pix_fmt yuv420p10le -f hevc
