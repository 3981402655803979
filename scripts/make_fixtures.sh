#!/usr/bin/env bash
# Generates the test media into the given folder (default build/fixtures)
# with ffmpeg. Nothing large is committed; files already made are kept.
# --sample-only makes just the demo's built-in sample.
set -euo pipefail
sample_only=0
if [ "${1:-}" = "--sample-only" ]; then sample_only=1; shift; fi
out=${1:-build/fixtures}
mkdir -p "$out"

fixture() { # fixture NAME ffmpeg-arguments...
  local name=$1; shift
  [ -s "$out/$name" ] && return 0
  ffmpeg -hide_banner -loglevel error -y "$@" "$out/$name.tmp.${name##*.}"
  mv "$out/$name.tmp.${name##*.}" "$out/$name"
}

# The built-in sample: ten seconds of a moving test pattern with a running
# clock, and a 1 kHz tone in G.711 as cameras send it.
fixture sample.mkv -f lavfi \
  -i "testsrc2=size=640x360:rate=25,drawtext=text='%{pts\\:hms}':fontsize=36:fontcolor=white:box=1:boxcolor=black@0.6:x=16:y=16" \
  -f lavfi -i sine=frequency=1000:sample_rate=8000 -t 10 -c:v libx264 -preset ultrafast -g 25 -bf 0 \
  -pix_fmt yuv420p -c:a pcm_mulaw -ar 8000 -ac 1 -f matroska
[ $sample_only -eq 1 ] && exit 0

# Live benchmark: ten seconds of 720p at a camera's 2 Mbit/s.
fixture live_720p_2m.mkv -f lavfi -i testsrc2=size=1280x720:rate=25 -t 10 -c:v libx264 -preset ultrafast \
  -b:v 2M -maxrate 2M -bufsize 1M -g 50 -bf 0 -pix_fmt yuv420p -f matroska
# Live streams from korvalen-send: three seconds, key frame every ten, G.711.
fixture live_h264_g711.mkv -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=8000 \
  -t 3 -c:v libx264 -preset ultrafast -g 10 -bf 0 -pix_fmt yuv420p -c:a pcm_mulaw -f matroska

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
# RTP peers: one second of video, key frame every ten frames, for ffmpeg and
# GStreamer to packetize. x265 is told open-gop=0 so key frames are IDR, and
# radl=2 so that they are IDR_W_RADL after the first.
fixture rtp_h264.h264 -f lavfi -i testsrc2=size=640x360:rate=25 -t 1 -c:v libx264 -preset ultrafast -g 10 \
  -pix_fmt yuv420p -bsf:v h264_mp4toannexb -f h264
fixture rtp_h265.h265 -f lavfi -i testsrc2=size=640x360:rate=25 -t 1 -c:v libx265 -preset ultrafast \
  -x265-params keyint=10:open-gop=0:radl=2:log-level=error -pix_fmt yuv420p -f hevc
fixture rtp_mjpeg420.mjpeg -f lavfi -i testsrc2=size=320x240:rate=25 -t 1 -c:v mjpeg -huffman default -q:v 5 \
  -pix_fmt yuvj420p -f mjpeg
# RTP benchmark input: ten seconds of 1080p H.264 at a camera's bit rate.
fixture rtp_bench_1080p.h264 -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 10 -c:v libx264 -preset ultrafast \
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
# Pushed MPEG-TS: H.264 and AAC, as a recorder or a camera's TS output sends.
fixture h264_aac.ts -f lavfi -i testsrc2=size=352x288:rate=25 -f lavfi -i sine=frequency=1000:sample_rate=44100 \
  -t 2 -c:v libx264 -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p -c:a aac -b:a 64k -f mpegts
# Pushed FLV: H.264 with B-frames and AAC, and H.264 with G.711, as a
# streaming server relays them.
fixture h264_aac.flv -f lavfi -i testsrc2=size=352x288:rate=25 -f lavfi -i sine=frequency=1000:sample_rate=44100 \
  -t 2 -c:v libx264 -preset veryfast -g 25 -bf 2 -pix_fmt yuv420p -c:a aac -b:a 64k -f flv
fixture h264_g711.flv -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=8000 \
  -t 2 -c:v libx264 -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p -c:a pcm_mulaw -f flv
# A solid red picture with a blue square, for checking what reaches a window.
fixture h264_red_square.h264 -f lavfi -i "color=c=red:size=320x240:rate=25,drawbox=x=0:y=0:w=80:h=60:color=blue:t=fill" \
  -t 1 -c:v libx264 -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p -f h264
# Plain grey pictures in both codecs, for finding overlay lines in a window.
fixture grey_320x240.h264 -f lavfi -i color=c=gray:size=320x240:rate=25 -t 2 -c:v libx264 -preset ultrafast \
  -g 25 -bf 0 -pix_fmt yuv420p -f h264
fixture grey_320x240.hevc -f lavfi -i color=c=gray:size=320x240:rate=25 -t 2 -c:v libx265 -preset ultrafast \
  -x265-params log-level=error:keyint=25:open-gop=0:bframes=0 -pix_fmt yuv420p -f hevc
# A white square moving 8 pixels a picture over grey, coded with B-frames so
# that pictures leave the decoder out of stream order.
fixture moving_square_b.h264 -f lavfi -i color=c=gray:size=320x240:rate=25 -f lavfi -i color=c=white:size=32x48:rate=25 \
  -filter_complex "[0][1]overlay=x=8*n:y=96" -t 1.28 -c:v libx264 -preset veryfast -g 32 -bf 3 -pix_fmt yuv420p -f h264
# Local file playback: three seconds of 25 fps video with a key frame every
# second, MP4 with the index at the end and at the front (faststart), with
# and without B-frames; H.265 tagged "hev1" (the only H.265 tag the reader
# takes); MPEG-TS in both codecs.
file_src=(-f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=44100 -t 3)
fixture file_h264_mp2.mp4 "${file_src[@]}" -c:v libx264 -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p \
  -c:a mp2 -b:a 64k -metadata creation_time=2024-01-02T03:04:05Z -f mp4
fixture file_h264_b_faststart.mp4 "${file_src[@]}" -c:v libx264 -preset veryfast -g 25 -bf 2 -pix_fmt yuv420p \
  -c:a mp2 -b:a 64k -movflags faststart -f mp4
fixture file_hevc_mp2.mp4 "${file_src[@]}" -c:v libx265 -preset ultrafast -tag:v hev1 \
  -x265-params log-level=error:keyint=25:min-keyint=25:open-gop=0:bframes=0 -pix_fmt yuv420p -c:a mp2 -b:a 64k -f mp4
fixture file_hevc_b_faststart.mp4 "${file_src[@]}" -c:v libx265 -preset ultrafast -tag:v hev1 \
  -x265-params log-level=error:keyint=25:min-keyint=25:open-gop=0:bframes=2 -pix_fmt yuv420p -an \
  -movflags faststart -f mp4
# Key-frame fast forward: 12 s with a key frame every 5 frames.
fixture file_h264_gop5.mp4 -f lavfi -i testsrc2=size=320x240:rate=25 -t 12 -c:v libx264 -preset ultrafast -g 5 \
  -bf 0 -pix_fmt yuv420p -f mp4
fixture file_h264_mp2.avi "${file_src[@]}" -c:v libx264 -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p \
  -c:a mp2 -b:a 64k -f avi
fixture file_h264_mp2.ts "${file_src[@]}" -c:v libx264 -preset ultrafast -g 25 -bf 0 -pix_fmt yuv420p \
  -c:a mp2 -b:a 64k -f mpegts
fixture file_hevc_aac.ts "${file_src[@]}" -c:v libx265 -preset ultrafast \
  -x265-params log-level=error:keyint=25:min-keyint=25:open-gop=0:bframes=0 -pix_fmt yuv420p -c:a aac -b:a 64k \
  -f mpegts
# Marked frames: the private SEI mark (an SEI whose payload type byte is '!')
# put in front of frames 10 and 40 of an H.264 stream with access unit
# delimiters, then muxed into MP4.
if [ ! -s "$out/file_marked.mp4" ]; then
  fixture file_marked_src.h264 -f lavfi -i testsrc2=size=320x240:rate=25 -t 3 -c:v libx264 -preset ultrafast \
    -g 25 -bf 0 -x264-params aud=1 -pix_fmt yuv420p -f h264
  python3 - "$out/file_marked_src.h264" "$out/file_marked.h264" <<'PY'
import sys
data = open(sys.argv[1], 'rb').read()
aud = b'\x00\x00\x00\x01\x09'
mark = b'\x00\x00\x00\x01\x06\x21\x01\x00\x80'
out = bytearray()
for i, unit in enumerate(data.split(aud)[1:]):
    out += aud + unit[:1] + (mark if i in (10, 40) else b'') + unit[1:]
open(sys.argv[2], 'wb').write(out)
PY
  fixture file_marked.mp4 -r 25 -i "$out/file_marked.h264" -c copy -f mp4
fi
# HLS: four one-second segments with AAC sound, as MPEG-TS (H.264) and as
# fMP4 (H.265); noise keeps each segment near 0.4 MB for the cache limit. A
# self-signed certificate serves them over TLS.
hls_fixture() { # hls_fixture DIR SEGMENT-EXTENSION ffmpeg-video-arguments...
  local dir=$out/hls/$1 ext=$2; shift 2
  [ -s "$dir/index.m3u8" ] && return 0
  rm -rf "$dir.tmp" && mkdir -p "$dir.tmp"
  ffmpeg -hide_banner -loglevel error -y -f lavfi -i testsrc2=size=320x240:rate=25,noise=alls=30:allf=t \
    -f lavfi -i sine=frequency=440:sample_rate=44100 -t 4 -pix_fmt yuv420p -c:a aac -b:a 64k "$@" -f hls \
    -hls_time 1 -hls_playlist_type vod -hls_segment_filename "$dir.tmp/seg%03d.$ext" "$dir.tmp/index.m3u8"
  rm -rf "$dir" && mv "$dir.tmp" "$dir"
}
hls_fixture ts ts -c:v libx264 -preset ultrafast -g 25 -crf 30
hls_fixture fmp4 m4s -c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25:min-keyint=25:bframes=0 \
  -crf 24 -tag:v hvc1 -hls_segment_type fmp4 -hls_fmp4_init_filename init.mp4
if [ ! -s "$out/hls/cert.pem" ]; then
  openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -subj /CN=127.0.0.1 -keyout "$out/hls/key.pem" \
    -out "$out/hls/cert.tmp.pem" 2>/dev/null
  mv "$out/hls/cert.tmp.pem" "$out/hls/cert.pem"
fi
