#!/usr/bin/env bash
# Runs scripts/demo.sh as the README does, on the build folder BUILD (the
# packages are installed already), and checks that it exited 0, that every
# step printed "ok: STEP" and none "FAILED: STEP", and that the television
# it made is gone afterwards.
# Usage: demo_test.sh SOURCE_DIR BUILD_DIR. Exit 77 (skipped) without root.
set -uo pipefail
src=$1
build=$2

if [ "$(id -u)" -ne 0 ]; then
  echo "SKIPPED: the demo needs root for the simulated television" >&2
  exit 77
fi

# The steps the demo runs, in order.
steps=(prepare television plug phone volumes ls playlist copy pvr format bench unplug teardown)

log=$(mktemp)
trap 'rm -f "$log"' EXIT
LUM_DEMO_SKIP_DEPS=1 LUM_DEMO_BUILD=$build bash "$src/scripts/demo.sh" >"$log" 2>&1
rc=$?
cat "$log"

fail=0
complain() { echo "demo_test: $*" >&2; fail=1; }
[ "$rc" -eq 0 ] || complain "demo.sh exited $rc"
reported=$(grep -E '^(ok|FAILED): ' "$log" | sed -E 's/^(ok|FAILED): ([a-z]+).*/\1 \2/')
expected=$(printf 'ok %s\n' "${steps[@]}")
[ "$reported" = "$expected" ] || complain "the steps reported were:
$reported
expected:
$expected"
tv=$(sed -n 's/^television \([A-Za-z0-9]*\),.*/\1/p' "$log")
[ -n "$tv" ] || complain "the demo named no television"
[ -z "$tv" ] || [ ! -e "${LUMRIG_RUN:-/run/lumrig}/$tv" ] || complain "television $tv is still up"
exit "$fail"
