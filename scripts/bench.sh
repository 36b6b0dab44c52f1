#!/usr/bin/env bash
# Installs what is missing, builds, and runs all benchmarks: a table, build/bench/results.json and
# build/bench/results.svg. It wants a quiet machine and takes about three minutes.
# Usage: scripts/bench.sh [--quick] [--check] [--docs] [--json FILE] [PROGRAM...]
#   --quick      shorter runs, for a first look
#   --check      names each target that is missed, and ends with 1 if there is one
#   --docs       writes the tables and the picture of docs/performance.md anew, with a whole run
#   --json FILE  where the results are written
#   PROGRAM      what to run of build/bin (udp_bench ...), in place of all
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

usage() {
    sed -n 's/^# Usage: /Usage: /p' "$0" >&2
    exit 2
}

seconds_of_a_program=150
whole=no
json=build/bench/results.json
options=()
report=()
programs=()
while [ $# -gt 0 ]; do
    case $1 in
    --quick) options+=(--quick) ;;
    --check) report+=(--check) ;;
    --docs)
        report+=(--docs docs/performance.md)
        whole=yes
        ;;
    --json)
        json=${2:?--json wants a file}
        shift
        ;;
    -*) usage ;;
    *) programs+=("$1") ;;
    esac
    shift
done

[ $whole = no ] || [ $((${#options[@]} + ${#programs[@]})) -eq 0 ] || usage

install_packages "${packages_build[@]}"
install_packages "${packages_bench[@]}" || echo "Systems that are not installed are left out." >&2
build release -DDM_BUILD_BENCH=ON | tail -n 1
[ ${#programs[@]} -gt 0 ] || mapfile -t programs <build/bench/programs

results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
for program in "${programs[@]}"; do
    echo
    echo "== $program ($SECONDS s)"
    timeout "$seconds_of_a_program" "build/bin/$program" --json "$results/$program.json" \
        "${options[@]}" || {
        echo "$program failed, or took more than $seconds_of_a_program s." >&2
        exit 1
    }
done
echo
python3 bench/report.py --build build --json "$json" --svg build/bench/results.svg \
    "${report[@]}" "${programs[@]/#/$results/}"
