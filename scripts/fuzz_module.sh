#!/usr/bin/env bash
# Fuzzes the Python extensions with atheris: builds py_pb and veltramultidimarrayforpython with ASan, UBSan and
# fuzzer coverage (clang, build/asan-py), stages them with the veltra package, and runs every harness
# fuzz/fuzz_module_*.py from its committed corpus fuzz/corpus/<harness>: by default a replay (fuzz/replay.py: the
# corpus, then a fixed number of mutations of it drawn from a fixed seed), with FUZZ_SECONDS set a libFuzzer
# campaign of that many seconds. A coverage-guided run is not repeatable even from a fixed seed: the allocator,
# the interpreter's signal handlers and library threads move addresses, and the comparisons and hash tables the
# coverage sees follow addresses; so the replay takes no coverage feedback.
# Exits non-zero when any harness finds a crash, a sanitizer report or an unexpected exception; the input is
# kept in build/asan-py/artifacts. Then runs the tests of hostile inputs against the same build.
# JOBS sets the build parallelism (default 2); PYTHON the interpreter (default .venv).
set -euo pipefail
cd "$(dirname "$0")/.."
PY=${PYTHON:-$PWD/.venv/bin/python}
JOBS=${JOBS:-2}
BUILD=build/asan-py
source scripts/fuzz_common.sh

# Inputs per harness in a replay, about a minute each on one core under the sanitizers.
replay_runs() {
  case "$1" in
    fuzz_module_bytes) echo 300000 ;;
    *) echo 30000 ;;
  esac
}
STAGE=$BUILD/stage

"$PY" -c "import atheris" 2>/dev/null || "$PY" -m pip install -q atheris

echo "== building the extensions with ASan, UBSan and fuzzer coverage ($BUILD)"
cmake -S . -B "$BUILD" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVELTRA_BUILD_PYTHON=ON -DVELTRA_FUZZ_PYTHON=ON -DVELTRA_PRIVATE_PROTOBUF=OFF -DPython_EXECUTABLE="$PY" \
  -Wno-dev >/dev/null
cmake --build "$BUILD" -j "$JOBS"
# The layout of an installed wheel: both extensions beside veltra/, which holds libveltradata.so (their
# RPATH is $ORIGIN/veltra), the schema files veltra.wire compiles, and the package's Python modules.
cmake --install "$BUILD" --prefix "$STAGE" >/dev/null
rm -f "$STAGE"/veltra/*.py
cp python/veltra/*.py "$STAGE/veltra/"

# atheris's runtime: libFuzzer and ASan (with UBSan's handlers) in one library that must be loaded first.
# Python's own allocator is off so that ASan sees the bounds of every Python object's memory; Python does
# not free everything at exit, so leaks are not looked for.
LD_PRELOAD="$("$PY" -c "import atheris; print(atheris.path())")/asan_with_fuzzer.so"
export LD_PRELOAD PYTHONMALLOC=malloc PYTHONPATH="$PWD/$STAGE:$PWD/fuzz"
export ASAN_OPTIONS=detect_leaks=0:handle_abort=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
if command -v llvm-symbolizer >/dev/null; then export ASAN_SYMBOLIZER_PATH="$(command -v llvm-symbolizer)"; fi

failed=()
mkdir -p "$BUILD/artifacts"
for harness in fuzz/fuzz_module_*.py; do
  name=$(basename "$harness" .py)
  log="$BUILD/$name.log"
  seeds=()
  [ -d "fuzz/corpus/$name" ] && seeds+=("fuzz/corpus/$name")
  # The raw bytes harness also starts from the C++ reader's seeds.
  [ "$name" = fuzz_module_bytes ] && [ -d fuzz/seeds/fuzz_result_reader ] && seeds+=(fuzz/seeds/fuzz_result_reader)
  status=0
  if fuzz_is_campaign; then
    corpus=$(fuzz_scratch "$BUILD/corpus/$name")
    echo "== $name: campaign of $FUZZ_SECONDS s"
    # -close_fd_mask=2: serialized_str_to_py prints every unreadable message on standard error; libFuzzer and
    # the sanitizers keep writing to a copy of it (atheris reports uncaught exceptions through libFuzzer).
    "$PY" "$harness" "$(fuzz_options)" -timeout=30 -rss_limit_mb=2048 -max_len=65536 -close_fd_mask=2 \
      -print_final_stats=1 -artifact_prefix="$BUILD/artifacts/$name-" "$corpus" "${seeds[@]}" >"$log" 2>&1 \
      || status=$?
  else
    # A replay has no coverage feedback (fuzz/replay.py), so nothing in it depends on timing; the sanitizer
    # refuses a single allocation past 2 GiB as libFuzzer's malloc limit would, and a hang ends at the timeout.
    echo "== $name: replay of the corpus and $(replay_runs "$name") mutations, seed $FUZZ_SEED"
    ASAN_OPTIONS="$ASAN_OPTIONS:max_allocation_size_mb=2048" timeout 20m \
      "$PY" fuzz/replay.py "$harness" "$(replay_runs "$name")" "$FUZZ_SEED" "$BUILD/artifacts/$name-" \
      "${seeds[@]}" >"$log" 2>&1 || status=$?
  fi
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$log"
    echo "!! $name failed (exit $status); the whole log is $log"
    fuzz_is_campaign || echo "!! the input it was running is $BUILD/artifacts/$name-current"
    failed+=("$name")
  elif fuzz_is_campaign; then
    fuzz_summary "$log"
  else
    tail -n 1 "$log"
  fi
done

echo "== hostile-input tests against the sanitizer build"
"$PY" -m pytest -q -p no:cacheprovider tests/python/test_py_pb_hostile.py -k "impostor or field_name or shared" \
  || failed+=(test_py_pb_hostile)

if [ "${#failed[@]}" -ne 0 ]; then
  echo "!! findings in: ${failed[*]}"
  exit 1
fi
