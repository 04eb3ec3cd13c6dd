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
# One object per source, two at a time and through ccache when there is one: a rerun compiles
# only what changed.
CXX="clang++"; command -v ccache >/dev/null && CXX="ccache clang++"
C="$SRC/src/cloud/caldav"; P="$SRC/src/platform"
export CXX WORK FLAGS="-std=c++20 -g -O1 -fsanitize=fuzzer-no-link,address,undefined -I$SRC/src $(pkg-config --cflags libxml-2.0 libical libcurl icu-uc glib-2.0)"
printf '%s\n' "$SRC/tests/fuzz/ReadersFuzz.cpp" "$C/Multistatus.cpp" "$C/RecordCalendar.cpp" "$C/Http.cpp" \
  "$P/Translation.cpp" "$P/UrlText.cpp" "$P/Utf8.cpp" "$SRC/src/model/Text.cpp" |
  xargs -P2 -I{} sh -c '$CXX $FLAGS -c "$1" -o "$WORK/$(basename "$1" .cpp).o"' sh {}
clang++ -fsanitize=fuzzer,address,undefined "$WORK"/ReadersFuzz.o "$WORK"/Multistatus.o \
  "$WORK"/RecordCalendar.o "$WORK"/Http.o "$WORK"/Translation.o "$WORK"/UrlText.o "$WORK"/Utf8.o \
  "$WORK"/Text.o $(pkg-config --libs libxml-2.0 libical libcurl icu-uc glib-2.0) -o "$WORK/readers_fuzz"
cp "$SRC"/tests/fuzz/seeds/* "$WORK/corpus/" 2>/dev/null || true
# A finding must fail the test: libFuzzer's own exit status for one is 77, ctest's "skipped".
"$WORK/readers_fuzz" -max_total_time="$SECS" -max_len=8192 -error_exitcode=1 -timeout_exitcode=1 \
  -artifact_prefix="$WORK/" "$WORK/corpus"
