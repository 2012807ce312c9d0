#!/usr/bin/env bash
# Builds everything and runs every test: the whole suite under
# AddressSanitizer + UBSan, the suites outside the simulated television under
# ThreadSanitizer, the television's 32-bit ARM build with its suites under
# qemu-arm, and a short smoke of the fuzz targets.
# Run as root on Debian 12; installs what it needs first. Tests that need the
# simulated television skip, with a reason, when not run as root.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc 2>/dev/null || echo 2)

if [ "$(id -u)" -eq 0 ]; then
  bash scripts/install-deps.sh
else
  echo "test.sh: not root: skipping package installation; rig tests will skip" >&2
fi

run_suite() {
  local dir=$1; shift
  local label=$1; shift
  local type=$1; shift
  echo "=== ${label}: configure and build (${dir}, ${type})"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "=== ${label}: tests"
  (cd "$dir" && ctest --output-on-failure -j"$jobs" ${CTEST_ARGS:-})
}

# Two builds of this machine: the whole suite, the simulated television's
# end-to-end tests included, runs under AddressSanitizer + UBSan (unoptimised,
# so that its reports point at the line); the suites outside the television
# run again under ThreadSanitizer in a build optimised as a release is, which
# is also the build whose -O2 warnings count. The television's tests run
# once: they prove nothing more under ThreadSanitizer and are slow there.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan "AddressSanitizer+UBSan" Debug -DLUM_ASAN=ON -DLUM_BUILD_BENCH=OFF
CTEST_ARGS="-LE rig" TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  run_suite build-tsan "ThreadSanitizer" RelWithDebInfo -DLUM_TSAN=ON -DLUM_BUILD_BENCH=OFF
# The television's ABI (armhf): the cross build, its suites under qemu-arm,
# and the armhf daemon answering this machine's client. It installs the
# cross compiler and qemu and registers qemu-arm with binfmt_misc, which only
# a root run may. LUM_TEST_ARMHF=0 leaves it out (a quick local run).
if [ "${LUM_TEST_ARMHF:-1}" = 0 ]; then
  echo "test.sh: LUM_TEST_ARMHF=0: skipping the armhf build" >&2
elif [ "$(id -u)" -eq 0 ]; then
  LUM_HOST_BUILD=build-asan bash scripts/test-armhf.sh
else
  echo "test.sh: not root: skipping the armhf build" >&2
fi
# A fuzz smoke: the clang tree builds and no target finds anything on its
# seeds within 5 s (about 1.5 minutes with the build on two CPUs). It needs
# clang-14, which only a root run installs. Longer runs: fuzz/run.sh.
if [ "$(id -u)" -eq 0 ]; then
  echo "=== fuzz smoke: build-fuzz, 5 s per target"
  fuzz/run.sh 5
else
  echo "test.sh: not root: skipping the fuzz smoke" >&2
fi
echo "=== all suites passed"
