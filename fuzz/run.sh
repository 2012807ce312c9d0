#!/usr/bin/env bash
# Builds the fuzz targets (build-fuzz/, clang-14, -DLUM_FUZZ=ON) when needed
# and runs each for SECONDS (default 60), one after the other, on a fresh copy
# of its seed corpus in build-fuzz/fuzz-run/<target>/. Prints per target the
# executions, the executions per second and what it found (crash, leak,
# timeout or out-of-memory files, kept in that folder next to the log).
# Exits 1 if any target found something or did not run.
#
# usage: fuzz/run.sh [--bench] [SECONDS] [TARGET...]
#   TARGET    a folder name of fuzz/corpus/ (all of them without one)
#   --bench   the benchmarks' form: figures only, exit 0 whatever was found
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$top/build-fuzz
bench=no
if [ "${1:-}" = --bench ]; then
  bench=yes
  shift
fi
seconds=${1:-60}
[ $# -gt 0 ] && shift
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for dir in "$top"/fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi
for t in "${targets[@]}"; do
  [ -d "$top/fuzz/corpus/$t" ] || { echo "run.sh: no target '$t' (see fuzz/corpus/)" >&2; exit 2; }
done

mkdir -p "$build"
if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang-14 CXX=clang++-14 cmake -S "$top" -B "$build" -DLUM_FUZZ=ON -DCMAKE_BUILD_TYPE=Debug \
    >"$build/configure.log" 2>&1 || { cat "$build/configure.log" >&2; exit 2; }
fi
cmake --build "$build" -j2 >"$build/build.log" 2>&1 || { tail -n 40 "$build/build.log" >&2; exit 2; }

# A value of libFuzzer's final statistics, or the last count of its status
# lines when it ended before printing them.
stat_of() {
  local value
  value=$(sed -n "s/^stat::$2: *//p" "$1" | tail -n 1)
  if [ -z "$value" ] && [ "$2" = number_of_executed_units ]; then
    value=$(sed -n 's/^#\([0-9]*\).*/\1/p' "$1" | tail -n 1)
  fi
  echo "${value:-?}"
}

if [ "$bench" = yes ]; then
  echo "fuzz targets, ${seconds} s each (libFuzzer, clang-14, ASan+UBSan, Debug), one after the other"
else
  printf '%-14s %12s %8s  %s\n' target executions exec/s findings
fi
status=0
for t in "${targets[@]}"; do
  run=$build/fuzz-run/$t
  rm -rf "$run"
  mkdir -p "$run/corpus"
  cp "$top/fuzz/corpus/$t"/* "$run/corpus/"
  "$build/fuzz/fuzz_$t" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
    -artifact_prefix="$run/" "$run/corpus" </dev/null >"$run/log" 2>&1 || true
  execs=$(stat_of "$run/log" number_of_executed_units)
  rate=$(stat_of "$run/log" average_exec_per_sec)
  found=$(cd "$run" && ls | grep -E '^(crash|leak|timeout|oom)-' || true)
  if [ -n "$found" ]; then
    status=1
    what="$run/$(echo "$found" | head -n 1) (log: $run/log)"
  elif [ "$execs" = "?" ]; then
    status=1
    what="did not run (log: $run/log)"
  else
    what=none
  fi
  if [ "$bench" = yes ]; then
    printf '  %-14s %8s exec/s  %10s executions\n' "$t" "$rate" "$execs"
    [ "$what" = none ] || echo "    found: $what"
  else
    printf '%-14s %12s %8s  %s\n' "$t" "$execs" "$rate" "$what"
  fi
done
[ "$bench" = yes ] && exit 0
exit "$status"
