#!/usr/bin/env bash
# The television's own ABI: cross-builds the library, the stand-ins,
# lumstoraged, lumstoragectl and the unit suites for 32-bit ARM (armhf:
# long, size_t and pointers are 4 bytes), runs every suite that does not
# need the simulated television under qemu-arm, then has the armhf
# lumstoraged answer this machine's (x86-64) lumstoragectl over its socket,
# so that requests, replies and the records sent as memory images cross
# between the two ABIs.
#
# Run as root on Debian 12; installs what it needs first and is safe to run
# again. Folders: LUM_ARMHF_BUILD (build-armhf), LUM_ARMHF_SYSROOT
# (build-armhf-sysroot: Debian's armhf packages unpacked, the target's root
# as far as the build and qemu need it), LUM_HOST_BUILD (build: the x86-64
# build whose lumstoragectl is the client; its two programs are built when
# missing).
set -euo pipefail
cd "$(dirname "$0")/.."

build=${LUM_ARMHF_BUILD:-build-armhf}
sysroot=$(realpath -m "${LUM_ARMHF_SYSROOT:-build-armhf-sysroot}")
host_build=${LUM_HOST_BUILD:-build}
jobs=$(nproc 2>/dev/null || echo 2)
started=$SECONDS

if [ "$(id -u)" -ne 0 ]; then
  echo "test-armhf: run as root (it installs packages and registers qemu-arm with binfmt_misc)" >&2
  exit 1
fi

# What the target links and loads, unpacked into the sysroot: the C and C++
# runtime (so that the sysroot is the loader's whole prefix under qemu),
# TagLib, GoogleTest, and the header-only libraries of tools/ (arch all).
TARGET_PACKAGES=(
  libc6:armhf libgcc-s1:armhf libstdc++6:armhf zlib1g:armhf zlib1g-dev:armhf
  libtag1v5-vanilla:armhf libtag1v5:armhf libtagc0:armhf libtag1-dev:armhf libtagc0-dev:armhf
  libgtest-dev:armhf libgmock-dev:armhf
  nlohmann-json3-dev libcli11-dev
)
HOST_PACKAGES=(g++-arm-linux-gnueabihf qemu-user)

updated=false
apt_update_once() {
  $updated && return 0
  updated=true
  # One failing index (a mirror half synced) must not stop the rest; a
  # package that is then missing fails its own download below.
  apt-get update -q || echo "test-armhf: apt-get update reported errors; going on" >&2
}

install_host_packages() {
  local missing=() p
  for p in "${HOST_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    dpkg --add-architecture armhf
    updated=false
    apt_update_once
  fi
  [ ${#missing[@]} -eq 0 ] && return 0
  apt_update_once
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# The target's packages are unpacked with dpkg -x rather than installed as
# :armhf: the sysroot then does not depend on this machine's own package
# versions (multiarch wants both architectures at one version), and it is
# laid out as the television's root is.
make_sysroot() {
  local debs=$sysroot.debs stamp=$sysroot/.packages want
  want=$(printf '%s\n' "${TARGET_PACKAGES[@]}")
  if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
    echo "test-armhf: sysroot $sysroot is up to date"
    return 0
  fi
  rm -rf "$sysroot" "$debs"
  mkdir -p "$sysroot" "$debs"
  # apt's download user must be able to write here.
  chown _apt "$debs" 2>/dev/null || true
  if ! (cd "$debs" && apt-get download -q "${TARGET_PACKAGES[@]}"); then
    apt_update_once
    (cd "$debs" && apt-get download -q "${TARGET_PACKAGES[@]}")
  fi
  local deb
  for deb in "$debs"/*.deb; do
    dpkg -x "$deb" "$sysroot"
  done
  printf '%s\n' "$want" > "$stamp"
}

# Programs the tests start (the suite's binary again, the daemon) are ARM
# programs too: the kernel hands them to qemu-arm once binfmt_misc knows
# them. QEMU_LD_PREFIX, set by the build's emulator, travels in their
# environment.
register_binfmt() {
  local dir=/proc/sys/fs/binfmt_misc
  [ -e "$dir/register" ] || mount -t binfmt_misc binfmt_misc "$dir"
  [ -e "$dir/qemu-arm" ] && return 0
  printf '%s' ':qemu-arm:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00:\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-arm:' \
    > "$dir/register"
}

# The armhf daemon, in the service sandbox (no uevents, no disks of this
# machine), answers the x86-64 client: the guide (a 63000-byte image of
# SStoragePvrDevGuideInfo), a PVR mark (SStorageMarkPvrInfo), a format
# (SStorageFormatInfo) and the volume table, each decoded on the other ABI.
wire_across() {
  local dir sock ctl pid out rc
  dir=$(realpath "$build")/wire
  sock=$dir/lumstoraged.sock
  rm -rf "$dir" && mkdir -p "$dir"
  ctl=("$host_build/tools/lumstoragectl" --socket "$sock")
  TZ=UTC-8 QEMU_LD_PREFIX="$sysroot" "$host_build/tests/support/lumtest_sandbox_run" \
    "$(realpath "$build")/host/lumstoraged" --socket "$sock" >"$dir/daemon.log" 2>&1 &
  pid=$!
  trap 'kill $pid 2>/dev/null || true' EXIT
  for _ in $(seq 300); do
    [ -S "$sock" ] && break
    kill -0 $pid 2>/dev/null || { cat "$dir/daemon.log"; echo "FAILED: the armhf daemon ended" >&2; return 1; }
    sleep 0.2
  done
  local fails=0
  check() {  # NAME WANTED-EXIT REGEX COMMAND...
    local name=$1 want=$2 re=$3; shift 3
    rc=0; out=$("${ctl[@]}" "$@" 2>&1) || rc=$?
    if [ "$rc" = "$want" ] && printf '%s\n' "$out" | grep -Eq "$re"; then
      echo "ok: $name"
    else
      printf 'FAILED: %s (exit %s, wanted %s and /%s/)\n%s\n' "$name" "$rc" "$want" "$re" "$out"; fails=1
    fi
  }
  check "guide record" 0 '"partitionNum":0,.*"connectedDevNum":0' --json pvr guide
  check "PVR mark record" 3 '^sdz: not marked: [a-z ]+ \([1-5]\)$' pvr mark sdz
  check "format record" 1 '^result: failed \(tool failed\)$' format sdz9 --timeout 120
  check "device table" 0 '"rows":\[\]\}$' --json volumes
  kill $pid 2>/dev/null || true
  wait $pid 2>/dev/null || true
  trap - EXIT
  if [ $fails -ne 0 ]; then
    echo "--- the armhf daemon's log:"; tail -40 "$dir/daemon.log"
    return 1
  fi
}

install_host_packages
make_sysroot
register_binfmt

echo "=== armhf: configure and build ($build)"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/arm-linux-gnueabihf.cmake" -DLUM_TARGET_SYSROOT="$sysroot" \
  -DLUM_BUILD_BENCH=OFF -DLUM_BUILD_RIG=OFF >/dev/null
cmake --build "$build" -j"$jobs"
built=$SECONDS

# Suites qemu-user cannot run, by ctest name, with the reason:
SKIPS=(
  # the packaging checks build consumers with this machine's compiler
  "^install_|packaging: consumers are built with the build machine's compiler"
  "^package_deb$|packaging: cpack's package is the build machine's architecture"
  # thousands of operations, each shell of them emulated too, outlast any
  # time limit; the threads it runs together are ThreadSanitizer's, natively
  "^Stress\\.|load: the stress run's shells under emulation outlast its time limit"
)
exclude=""
echo "=== armhf: suites under qemu-arm; left out:"
for row in "${SKIPS[@]}"; do
  echo "    ${row%%|*}  (${row#*|})"
  exclude+="${exclude:+|}${row%%|*}"
done
(cd "$build" && TZ=UTC-8 ctest --output-on-failure -j"$jobs" -E "$exclude")
suites=$SECONDS

echo "=== armhf: lumstoraged (armhf) answering lumstoragectl ($(uname -m))"
if [ ! -x "$host_build/tools/lumstoragectl" ] || [ ! -x "$host_build/tests/support/lumtest_sandbox_run" ]; then
  cmake -S . -B "$host_build" >/dev/null
  cmake --build "$host_build" -j"$jobs" --target lumstoragectl lumtest_sandbox_run
fi
wire_across

echo "=== armhf: passed; build $((built - started)) s, suites $((suites - built)) s, wire $((SECONDS - suites)) s"
