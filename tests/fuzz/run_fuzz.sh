#!/bin/sh
# Builds the readers' fuzz target with clang (libFuzzer + ASan) and runs it briefly.
# Usage: run_fuzz.sh SOURCE_DIR WORK_DIR SECONDS
# Exit 77 (skipped) when clang or its libFuzzer runtime is missing; scripts/deps.sh installs both.
set -eu
SRC=$1; WORK=$2; SECS=$3
command -v clang++ >/dev/null || { echo "clang++ not installed; fuzzing skipped"; exit 77; }
mkdir -p "$WORK/corpus"
printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' > "$WORK/probe.cpp"
clang++ -fsanitize=fuzzer,address "$WORK/probe.cpp" -o "$WORK/probe" 2>/dev/null ||
  { echo "clang's libFuzzer runtime is not installed; fuzzing skipped"; exit 77; }
C="$SRC/src/cloud/caldav"
clang++ -std=c++20 -g -O1 -fsanitize=fuzzer,address,undefined -I"$SRC/src" $(pkg-config --cflags libxml-2.0 libical libcurl icu-uc glib-2.0) \
  "$SRC/tests/fuzz/ReadersFuzz.cpp" "$C/Multistatus.cpp" "$C/RecordCalendar.cpp" "$C/Http.cpp" \
  "$SRC/src/platform/Translation.cpp" "$SRC/src/platform/UrlText.cpp" \
  "$SRC/src/platform/Utf8.cpp" "$SRC/src/model/Text.cpp" \
  $(pkg-config --libs libxml-2.0 libical libcurl icu-uc glib-2.0) -o "$WORK/readers_fuzz"
cp "$SRC"/tests/fuzz/seeds/* "$WORK/corpus/" 2>/dev/null || true
# A finding must fail the test: libFuzzer's own exit status for one is 77, ctest's "skipped".
"$WORK/readers_fuzz" -max_total_time="$SECS" -max_len=8192 -error_exitcode=1 -timeout_exitcode=1 \
  -artifact_prefix="$WORK/" "$WORK/corpus"
