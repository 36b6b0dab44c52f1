#!/usr/bin/env bash
# Compares what the built library exports with the checked-in list, and makes sure that it still
# imports the platform's calls, so that a target's own libraries can take their place.
# Usage: check_exports.sh LIBRARY LIST PLATFORM_HEADER...
set -euo pipefail
library=$1
list=$2
shift 2

exported=$(nm -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort)
diff <(grep -v '^#' "$list" | LC_ALL=C sort) <(printf '%s\n' "$exported")

if readelf -d "$library" | grep -q SYMBOLIC; then
    echo "$library binds its symbols to itself" >&2
    exit 1
fi
imported=$(nm -D --undefined-only "$library" | awk '{ print $2 }')
calls='mm[A-Z]\w+|Dlog\w+|CheckLogLevel|\w+_s|(drv|hal)Hdc\w+|devdrv_\w+'
declared=$(grep -ohE "\b($calls)\(" "$@" | tr -d '(' | sort -u)
used=$(nm "$library" | awk '{ print $NF }' | grep -xF "$declared" | sort -u)
for symbol in $used; do
    grep -qx "$symbol" <<<"$imported" || { echo "$symbol is not imported" >&2; exit 1; }
done
[ -n "$used" ]
