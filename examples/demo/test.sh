#!/usr/bin/env bash
# Runs the demo, and looks that it left nothing behind.
set -eu
demo=$1
arguments=()
if [ -n "${QELKRELL_BIN32:-}" ] && [ -x "$QELKRELL_BIN32/demo-reader" ]; then
    arguments=( --reader32 "$QELKRELL_BIN32/demo-reader" )
fi
left_behind() { find /dev/shm -maxdepth 1 -name 'qelkrell-demo-*' 2>/dev/null | sort; }
before=$( left_behind )
"$demo" "${arguments[@]}"
[ "$( left_behind )" = "$before" ] || { echo "the demo left files behind"; exit 1; }
status=0
"$demo" --bogus 2>/dev/null || status=$?
[ $status = 2 ] || { echo "a wrong argument ends with status $status"; exit 1; }
