#!/usr/bin/env bash
# Generates the sample media of the demo and the browser tests into DIR (kept
# when already there):
#   sample.mp4       60 s of H.264 + AAC; the top strip shows the picture's
#                    second in binary (eight blocks, least significant on the
#                    left, white = 1), so a player can be checked to show the
#                    picture of the time it claims
#   sample.eng.srt   subtitles beside it, one cue every 5 s
#   phone.mp4        30 s of a phone held upright: stored landscape with a
#                    display matrix turning it a quarter clockwise; upright
#                    it is a blue picture with the same strip at its top
#   cut-short.mp4    sample.mp4 cut just after its index: it probes as a
#                    60 s file but a transcoder fails at once
#   silent.mp4       2 s of picture without sound: HLS has no track pair to map
#   dts-audio.mkv    DTS audio, which the engine refuses on this platform
set -euo pipefail
dir=${1:?usage: make-sample.sh DIR}
mkdir -p "$dir"
run() { ffmpeg -hide_banner -loglevel error -y "$@"; }

if [[ ! -s $dir/sample.mp4 ]]; then
  run -f lavfi -i "testsrc2=size=640x360:rate=25:duration=60" \
    -f lavfi -i "nullsrc=size=640x40:rate=25:duration=60,format=gray,geq=lum='255*mod(floor(T/pow(2\,floor(X/80)))\,2)'" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=60" \
    -filter_complex "[0:v][1:v]overlay=0:0,format=yuv420p[v]" -map "[v]" -map 2:a -ac 2 \
    -c:v libx264 -preset veryfast -g 25 -c:a aac -b:a 96k -movflags +faststart "$dir/sample.mp4.part.mp4"
  mv "$dir/sample.mp4.part.mp4" "$dir/sample.mp4"
fi

if [[ ! -s $dir/sample.eng.srt ]]; then
  for ((i = 0; i < 12; i++)); do
    printf '%d\n00:00:%02d,000 --> 00:00:%02d,500\nCue %d at second %d\n\n' \
      $((i + 1)) $((i * 5)) $((i * 5 + 4)) $((i + 1)) $((i * 5)) | sed 's/00:00:60/00:01:00/g'
  done > "$dir/sample.eng.srt"
fi

if [[ ! -s $dir/phone.mp4 ]]; then
  # Turned a quarter anticlockwise for storage; the rotate tag of 270 makes
  # players (and the engine) turn it a quarter clockwise back upright.
  run -f lavfi -i "color=c=0x3060c0:size=360x640:rate=30:duration=30" \
    -f lavfi -i "nullsrc=size=360x40:rate=30:duration=30,format=gray,geq=lum='255*mod(floor(T/pow(2\,floor(X/45)))\,2)'" \
    -f lavfi -i "sine=frequency=660:sample_rate=44100:duration=30" \
    -filter_complex "[0:v][1:v]overlay=0:0,transpose=2,format=yuv420p[v]" -map "[v]" -map 2:a -ac 2 \
    -c:v libx264 -preset veryfast -g 30 -c:a aac -b:a 64k "$dir/phone.part.mp4"
  run -i "$dir/phone.part.mp4" -c copy -metadata:s:v:0 rotate=270 "$dir/phone.part2.mp4"
  rm "$dir/phone.part.mp4"
  mv "$dir/phone.part2.mp4" "$dir/phone.mp4"
fi

if [[ ! -s $dir/cut-short.mp4 ]]; then
  # The index (moov) comes first in sample.mp4; the media data box's header
  # and a few bytes of it stay.
  moov_end=$(python3 -c 'import struct,sys
d=open(sys.argv[1],"rb").read(); i=0
while d[i+4:i+8]!=b"mdat": i+=struct.unpack(">I",d[i:i+4])[0]
print(i+1008)' "$dir/sample.mp4")
  head -c "$moov_end" "$dir/sample.mp4" > "$dir/cut-short.part.mp4"
  mv "$dir/cut-short.part.mp4" "$dir/cut-short.mp4"
fi

if [[ ! -s $dir/silent.mp4 ]]; then
  run -f lavfi -i "testsrc2=size=320x240:rate=25:duration=2" -an \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p "$dir/silent.part.mp4"
  mv "$dir/silent.part.mp4" "$dir/silent.mp4"
fi

if [[ ! -s $dir/dts-audio.mkv ]]; then
  run -f lavfi -i "testsrc2=size=320x240:rate=25:duration=2" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=2" -ac 2 \
    -c:v libx264 -preset ultrafast -c:a dca -strict -2 "$dir/dts-audio.part.mkv"
  mv "$dir/dts-audio.part.mkv" "$dir/dts-audio.mkv"
fi
