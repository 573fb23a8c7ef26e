#!/usr/bin/env bash
# Installs the Debian packages the engine builds and runs with; does nothing
# when they are all present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libavformat-dev libavcodec-dev libavutil-dev libjsoncpp-dev libssl-dev
  libgtest-dev libgmock-dev
  ffmpeg
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav libgstreamer1.0-dev
  lighttpd chromium curl
)

missing=()
# Node and npm may come from elsewhere than Debian; only a machine without
# them gets Debian's.
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

if [[ $(id -u) -ne 0 ]]; then
  echo "install-deps: run as root to install: ${missing[*]}" >&2
  exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
