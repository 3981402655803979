#!/usr/bin/env bash
# Installs every build, test and demo dependency from Debian's packages.
# Idempotent: packages already present are not fetched again.
set -euo pipefail

PKGS=(
  g++ cmake ninja-build pkg-config ccache clang libclang-rt-14-dev clang-format
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev libswresample-dev
  libx11-dev libxext-dev libxv-dev libpulse-dev libcairo2-dev
  libwebrtc-audio-processing-dev libgtest-dev libgmock-dev libbenchmark-dev
  ffmpeg python3
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  gstreamer1.0-rtsp libgstrtspserver-1.0-dev
  xvfb x11-apps imagemagick
  pulseaudio pulseaudio-utils
  iproute2 libjpeg-turbo-progs fonts-dejavu-core
  python3 openssl
)

missing=()
for p in "${PKGS[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
echo "setup: installing ${#missing[@]} package(s): ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
