#!/usr/bin/env bash
# Installs what is missing, builds, and plays the main job in a throw-away
# machine root: a generated clip, probed by the library.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
scripts/build.sh

work=$(mktemp -d /tmp/orvovte-demo-XXXXXX)
trap 'rm -rf "$work"' EXIT
export ORVOVTE_MACHINE_ROOT="$work/root"
mkdir -p "$ORVOVTE_MACHINE_ROOT/volume1"

clip="$work/sample.mp4"
ffmpeg -hide_banner -loglevel error -f lavfi -i "testsrc2=size=1280x720:rate=24000/1001:duration=10" \
  -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=10" -ac 2 \
  -c:v libx264 -preset veryfast -c:a aac -shortest "$clip"

build/tools/vtetool probe "$clip"

echo
echo "== an HLS session for it =="
build/tools/vtetool session "$clip" HLS tools/profiles/hls.json hls_hd720_x264_vb2048_aac_ab128 browser
