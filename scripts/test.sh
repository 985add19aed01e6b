#!/usr/bin/env bash
# Sets up (scripts/setup.sh) and runs every test: C++ unit tests, the same under AddressSanitizer and
# UndefinedBehaviorSanitizer, a replay of the libFuzzer corpus over the result reader (scripts/fuzz_reader.sh),
# replays of the atheris corpora over the module against a sanitizer build of the extensions
# (scripts/fuzz_module.sh), the wheel test and the Python tests.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
PY="$PWD/.venv/bin/python"
export PATH="$PWD/.venv/bin:$PATH"
JOBS=${JOBS:-2}
# Fuzzing in CI is a replay (scripts/fuzz_common.sh): the same commit, the same verdict.
unset FUZZ_SECONDS

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

echo "== fuzzing the result reader (libFuzzer): a replay of its committed seeds"
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DVELTRA_BUILD_PYTHON=OFF -DVELTRA_BUILD_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/fuzz -j "$JOBS"
./scripts/fuzz_reader.sh

echo "== fuzzing py_pb (atheris, ASan and UBSan): a replay of its committed corpus"
JOBS="$JOBS" ./scripts/fuzz_module.sh

echo "== the wheel, installed into fresh environments for CPython 3.11, 3.12 and 3.13"
JOBS="$JOBS" ./scripts/test_wheel.sh

echo "== Python tests"
"$PY" -m pytest -q tests/python
