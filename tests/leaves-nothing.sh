#!/usr/bin/env bash
# Runs a test executable (with a gtest filter) in a fresh temporary folder and fails when
# it leaves anything there: homes, fake machines, movies, sockets.
# Usage: leaves-nothing.sh EXECUTABLE FILTER
set -u
dir=$(mktemp -d "${TMPDIR:-/tmp}/vistrel-leftovers-XXXXXX")
trap 'rm -rf "$dir"' EXIT
TMPDIR=$dir "$1" --gtest_filter="$2" >"$dir.log" 2>&1
rc=$?
left=$(ls -A "$dir")
if [ "$rc" != 0 ]; then tail -n 30 "$dir.log"; rm -f "$dir.log"; echo "the tests failed ($rc)"; exit 1; fi
rm -f "$dir.log"
if [ -n "$left" ]; then echo "left behind in the temporary folder: $left"; exit 1; fi
echo "nothing left behind by $(basename "$1") --gtest_filter=$2"
