#!/usr/bin/env bash
# Runs the plant example as its reader would: what one process writes, the next one reads.
set -eu
plant=$1
root=$( mktemp -d /dev/shm/qelkrell-plant-XXXXXX )
trap 'rm -rf "$root"' EXIT
export KRELL_ROOT=$root

[ -z "$( "$plant" read )" ] || { echo "there is something before anything was written"; exit 1; }
"$plant" write 7 21.5
"$plant" write 8 -3
"$plant" write 7 22.25
read -r -d '' wanted <<'END' || true
7: 22.25
8: -3
END
got=$( "$plant" read | sort )
[ "$got" = "$wanted" ] || { echo "read: $got"; exit 1; }
status=0
"$plant" sing 2>/dev/null || status=$?
[ $status = 2 ] || { echo "a wrong argument ends with status $status"; exit 1; }
