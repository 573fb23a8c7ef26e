#!/usr/bin/env bash
# The demo: installs what is missing, builds, and serves a sample (or the
# video you name) through the reference web API on 127.0.0.1, where a
# browser plays it as HLS, Smooth Streaming, WebM and progressive MPEG-TS.
#
#   scripts/demo.sh [--port N] [--check] [VIDEO]
#
# --check plays every kind in headless Chromium, prints the result and stops
# the server instead of waiting for Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

port=8080 check=0 video=
while (($#)); do
  case $1 in
    --port) port=$2; shift 2 ;;
    --check) check=1; shift ;;
    -h | --help) sed -n '2,9p' "$0"; exit 0 ;;
    *) video=$(realpath "$1"); shift ;;
  esac
done

scripts/install-deps.sh
scripts/build.sh
tools/webapi/setup.sh packages

if ((check)); then
  # The browser tests are the check: every kind plays, seeks land on the
  # right picture, subtitles load, errors show, nothing is left running.
  exec node tests/browser/playback.mjs --build build
fi

work=$(mktemp -d /tmp/orvovte-demo-XXXXXX)
media=$work/media
tools/webapi/make-sample.sh "$media"
if [[ -n $video ]]; then
  ln -s "$video" "$media/$(basename "$video")"
  for subtitles in "${video%.*}".*.srt; do
    [[ -e $subtitles ]] && ln -s "$subtitles" "$media/$(basename "$subtitles")"
  done
fi

tools/webapi/setup.sh serve --build build --media "$media" --port "$port" --state "$work/state" &
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null; rm -rf "$work"' EXIT INT TERM
for _ in $(seq 50); do
  curl -fs "http://127.0.0.1:$port/api/files" >/dev/null && break
  sleep 0.2
done
echo
echo "The player page: http://127.0.0.1:$port/  (Ctrl-C stops the server)"
echo "The engine's log lines: syslog, and $work/state/root/var/log/liborvovte.log where no syslog daemon runs"
wait $server
