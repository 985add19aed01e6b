#!/usr/bin/env bash
# An open-ended fuzzing campaign, outside CI: the libFuzzer targets over the result reader and the atheris
# harnesses over the module, FUZZ_SECONDS per target (default 600), each from a new random seed, growing the
# corpora kept in build/fuzz/corpus_* and build/asan-py/corpus/*. Run it as often and as long as you like:
#   FUZZ_SECONDS=3600 ./scripts/fuzz_campaign.sh
# A finding stops with its input in build/fuzz/ or build/asan-py/artifacts/. Fix the fault, then copy that input
# into the committed corpus (fuzz/seeds/<target>/ or fuzz/corpus/<harness>/) with a name that says what it
# found, so that every CI replay meets it from then on.
set -euo pipefail
cd "$(dirname "$0")/.."
export FUZZ_SECONDS=${FUZZ_SECONDS:-600}
JOBS=${JOBS:-2}
./scripts/setup.sh
CC=clang CXX=clang++ cmake -S . -B build/fuzz -G Ninja -DVELTRA_BUILD_PYTHON=OFF -DVELTRA_BUILD_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/fuzz -j "$JOBS"
status=0
./scripts/fuzz_reader.sh || status=1
JOBS="$JOBS" ./scripts/fuzz_module.sh || status=1
exit $status
