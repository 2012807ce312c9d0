#!/usr/bin/env bash
# Installs what building, testing and the simulated television need on a
# Debian 12 machine. Needs root. Safe to run again.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: run as root (apt-get needs it)" >&2
  exit 1
fi

# iozone3 lives in Debian's non-free component.
enable_non_free() {
  local f=/etc/apt/sources.list.d/debian.sources
  if [ -f "$f" ] && ! grep -qE '^Components:.*non-free( |$)' "$f"; then
    sed -i -E '/^Components:/ { / non-free( |$)/! s/$/ non-free/ }' "$f"
    return 0
  fi
  if [ -f /etc/apt/sources.list ] && grep -qE '^deb .* main' /etc/apt/sources.list \
     && ! grep -qE '^deb .* non-free( |$)' /etc/apt/sources.list; then
    sed -i -E '/^deb / { / non-free( |$)/! s/$/ non-free/ }' /etc/apt/sources.list
  fi
}

PACKAGES=(
  build-essential cmake pkg-config git
  # the fuzz targets (fuzz/run.sh): clang and its libFuzzer
  clang-14 libclang-rt-14-dev
  libgtest-dev libgmock-dev
  # lumstoragectl's command line
  libcli11-dev
  libtagc0-dev
  nlohmann-json3-dev
  util-linux mount fdisk e2fsprogs dosfstools ntfs-3g fusefat exfatprogs
  iproute2 procps psmisc kmod
  iozone3
  sox id3v2 lame vorbis-tools flac mediainfo
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: everything is installed"
  exit 0
fi

enable_non_free
export DEBIAN_FRONTEND=noninteractive
apt-get update -q
apt-get install -y -q --no-install-recommends "${missing[@]}"
