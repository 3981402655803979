#!/usr/bin/env bash
# The main job on a fresh machine: install what is needed, build, and run the
# demo player. Playback is not built yet, so the demo runs the player's
# self-check: it initialises the library, allocates and frees ports, writes
# the log and says what it did.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
ninja -C build korvalen-play
./build/tools/korvalen-play --self-check
