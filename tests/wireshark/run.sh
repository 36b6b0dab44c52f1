#!/usr/bin/env bash
# Usage: run.sh TSHARK DISSECTOR DMOND DMCAT
set -euo pipefail
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
# A user's own settings of tshark stay out of the test.
HOME=$directory XDG_CONFIG_HOME=$directory \
    python3 "$(dirname "$0")/dissector_test.py" "$directory/capture.pcap" "$@"
