#!/usr/bin/env bash
# Sets up (scripts/setup.sh) and runs every test: C++ unit tests, the same under AddressSanitizer and
# UndefinedBehaviorSanitizer, a bounded libFuzzer run over the result reader, bounded atheris runs over the
# module against a sanitizer build of the extensions (scripts/fuzz_module.sh), and the Python tests.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
PY="$PWD/.venv/bin/python"
export PATH="$PWD/.venv/bin:$PATH"
JOBS=${JOBS:-2}
FUZZ_SECONDS=${FUZZ_SECONDS:-60}

echo "== C++ unit tests"
cmake -S . -B build/cpp -G Ninja -DVELTRA_BUILD_PYTHON=OFF -DVELTRA_BUILD_TESTS=ON -DVELTRA_BUILD_BENCH=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/cpp -j "$JOBS"
ctest --test-dir build/cpp --output-on-failure -j "$JOBS"

echo "== C++ unit tests under ASan and UBSan"
cmake -S . -B build/asan -G Ninja -DVELTRA_BUILD_PYTHON=OFF -DVELTRA_BUILD_TESTS=ON -DVELTRA_SANITIZE=ON \
  -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build/asan -j "$JOBS"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --test-dir build/asan --output-on-failure -j "$JOBS"

echo "== fuzzing the result reader for ${FUZZ_SECONDS}s per target"
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DVELTRA_BUILD_PYTHON=OFF -DVELTRA_BUILD_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/fuzz -j "$JOBS"
for target in build/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  corpus="build/fuzz/corpus_$name"
  mkdir -p "$corpus"
  seeds="fuzz/seeds/$name"
  "$target" -max_total_time="$FUZZ_SECONDS" -rss_limit_mb=2048 -artifact_prefix=build/fuzz/ -max_len=65536 -print_final_stats=1 \
    "$corpus" $( [ -d "$seeds" ] && echo "$seeds" ) 2>&1 | tail -n 12
done

echo "== fuzzing py_pb (atheris, ASan and UBSan) for ${FUZZ_SECONDS}s per harness"
FUZZ_SECONDS="$FUZZ_SECONDS" JOBS="$JOBS" ./scripts/fuzz_module.sh

echo "== the wheel, installed into fresh environments for CPython 3.11, 3.12 and 3.13"
JOBS="$JOBS" ./scripts/test_wheel.sh

echo "== Python tests"
"$PY" -m pytest -q tests/python
