#!/bin/sh
# Builds the readers' fuzz target with clang (libFuzzer + ASan) and runs it briefly.
# Usage: run_fuzz.sh SOURCE_DIR WORK_DIR SECONDS
set -eu
SRC=$1; WORK=$2; SECS=$3
command -v clang++ >/dev/null || { echo "clang++ not installed; fuzzing skipped"; exit 0; }
mkdir -p "$WORK/corpus"
C="$SRC/src/cloud/caldav"
clang++ -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -I"$SRC/src" $(pkg-config --cflags libxml-2.0 libical libcurl) \
  "$SRC/tests/fuzz/ReadersFuzz.cpp" "$C/Multistatus.cpp" "$C/RecordCalendar.cpp" "$C/Http.cpp" \
  $(pkg-config --libs libxml-2.0 libical libcurl) -o "$WORK/readers_fuzz"
cp "$SRC"/tests/fuzz/seeds/* "$WORK/corpus/" 2>/dev/null || true
"$WORK/readers_fuzz" -max_total_time="$SECS" -max_len=8192 -artifact_prefix="$WORK/" "$WORK/corpus"
