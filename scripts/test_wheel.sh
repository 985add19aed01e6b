#!/usr/bin/env bash
# Builds the release wheel (scripts/build_wheel.sh: the manylinux wheel, repaired by auditwheel) and tests it as
# users get it: installed from the file into new virtual environments for CPython 3.11, 3.12 and 3.13 (pyenv's)
# with numpy, pandas and the test extra from PyPI, one of them with pandas 2 instead of 3. In each: the Python tests
# against the installed package (not the build tree), and a round trip with protobuf's Python runtime imported
# before py_pb and after it. Once: no shared object of the wheel needs a protobuf library, and none exports or
# imports protobuf's symbols. Then the sdist (`python -m build --sdist`), installed by pip into a new environment
# as a user would (`pip install py_pb-*.tar.gz`: built there, against the system's protobuf), and the Python tests
# against that.
#
# Time: the full suite runs in the pandas 2 environment (3.12); 3.11, 3.13 and the sdist's environment run every
# test file but the slow property, leak and hostile-input ones, which exercise the same extension again (abi3: one
# binary for all three). On 2 cores: about 2 minutes with new environments (pip's cache warm), 1 minute when they
# are kept, plus the sdist's build (several minutes the first time; ccache keeps the later ones short).
#
# Needs .venv with the build backend and `build` (scripts/setup.sh), which also built the package into the build
# directory this script shares (WHEEL_BUILD_DIR, default pyproject.toml's), so that nothing is compiled twice.
# Work files in build/wheeltest: dist/ and wheelhouse/ (the wheel before and after repair), tools/ (auditwheel),
# sdist/ (the sdist), venv-3.X/ and venv-sdist/ (kept while the interpreter and the requirements stay the same; the
# package is reinstalled every run), tmp/ (where pip builds the sdist).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD_PY=${BUILD_PY:-$ROOT/.venv/bin/python}
WHEEL_BUILD_DIR=${WHEEL_BUILD_DIR:-}
JOBS=${JOBS:-2}
OUT=$ROOT/build/wheeltest
PANDAS2_PYTHON=3.12
PYTHONS=(3.11 3.12 3.13)
QUICK_SELECTION=(--ignore="$ROOT/tests/python/test_py_pb_property.py" --ignore="$ROOT/tests/python/test_py_pb_leaks.py"
  --ignore="$ROOT/tests/python/test_arraypkg_leaks.py" --ignore="$ROOT/tests/python/test_py_pb_hostile.py")

fail() { echo "test_wheel: $*" >&2; exit 1; }

# pip's output goes to a log, shown when it fails.
pip_quiet() {
  local log=$OUT/pip.log
  "$@" >"$log" 2>&1 || { cat "$log" >&2; fail "failed: $*"; }
}

"$BUILD_PY" -c 'import scikit_build_core, build' 2>/dev/null ||
  fail "$BUILD_PY has no scikit-build-core or no build; run scripts/setup.sh first"

# The newest pyenv CPython of a minor version, else python3.X on PATH; nothing else will do.
find_python() {
  local minor=$1 root cand found=""
  root=${PYENV_ROOT:-$(pyenv root 2>/dev/null || echo "$HOME/.pyenv")}
  for cand in $(ls -d "$root/versions/$minor".[0-9]* 2>/dev/null | grep -E "/$minor\.[0-9]+$" | sort -V -r); do
    if [ -x "$cand/bin/python" ]; then found=$cand/bin/python; break; fi
  done
  [ -n "$found" ] || found=$(command -v "python$minor" || true)
  if [ -z "$found" ] || ! "$found" -c "import sys; sys.exit('%d.%d' % sys.version_info[:2] != '$minor')"; then
    fail "no CPython $minor found (looked in $root/versions/$minor.* and for python$minor on PATH); install it, e.g. with 'pyenv install $minor'"
  fi
  echo "$found"
}

declare -A PYTHON_OF
for v in "${PYTHONS[@]}"; do PYTHON_OF[$v]=$(find_python "$v"); done

mkdir -p "$OUT"
BUILD_PY=$BUILD_PY WHEEL_BUILD_DIR=$WHEEL_BUILD_DIR JOBS=$JOBS ./scripts/build_wheel.sh "$OUT" | tee "$OUT/build_wheel.log"
WHEEL=$(tail -n 1 "$OUT/build_wheel.log")
[ -f "$WHEEL" ] || fail "scripts/build_wheel.sh named no wheel: $WHEEL"

# A venv per interpreter (and one for the sdist), made anew when the interpreter or the requirements change; the
# package file is reinstalled every run.
make_venv() {
  local v=$1 venv=$OUT/venv-$2 package=$3 reqs stamp
  reqs=("$package[test]")
  [ "$2" != "$PANDAS2_PYTHON" ] || reqs+=("pandas>=2.2,<3")
  stamp="$("${PYTHON_OF[$v]}" -VV) ${reqs[*]#"$package"}"
  if [ "$(cat "$venv/.wheeltest" 2>/dev/null)" != "$stamp" ]; then
    echo "== creating $venv (${PYTHON_OF[$v]})"
    rm -rf "$venv"
    "${PYTHON_OF[$v]}" -m venv "$venv"
    pip_quiet "$venv/bin/python" -m pip install -q --upgrade pip
    pip_quiet "$venv/bin/python" -m pip install -q "${reqs[@]}"
    echo "$stamp" >"$venv/.wheeltest"
  else
    pip_quiet "$venv/bin/python" -m pip install -q --force-reinstall --no-deps "$package"
  fi
}

# Runs pytest on tests/python from an empty directory, so that only the venv's site-packages can provide py_pb
# and veltra, and checks afterwards where the py_pb the tests used came from.
run_tests() {
  local venv=$1
  shift
  mkdir -p "$OUT/run"
  (cd "$OUT/run" && "$venv/bin/python" - "$ROOT" "$ROOT/tests/python" "$@" <<'EOF')
import sys, sysconfig
import pytest
rc = pytest.main(["-q", "-p", "no:cacheprovider", "--rootdir", sys.argv[1], *sys.argv[2:]])
import py_pb, veltra
site = sysconfig.get_paths()["platlib"]
print("py_pb:", py_pb.__file__, "| veltra:", veltra.__file__)
for module in (py_pb, veltra):
    if not module.__file__.startswith(site + "/"):
        sys.exit(f"{module.__name__} came from {module.__file__}, not from {site}")
sys.exit(rc)
EOF
}

# protobuf's Python runtime and py_pb in one process, in both orders, each used after the other is loaded. When
# the distribution's C++ runtime is on the machine, it is loaded first into the global symbol scope as well, where
# anything of ours still looking for protobuf's symbols would bind to it.
import_orders() {
  local venv=$1 order
  for order in protobuf-first py_pb-first; do
    "$venv/bin/python" - "$order" <<'EOF'
import ctypes, ctypes.util, sys

def round_trip():
    import py_pb
    from veltra.loopback import loopback
    out = py_pb.serialized_str_to_py(loopback(py_pb.py_to_serialized_str((1.0, "a"))))
    assert out == [1.0, "a"], out

def protobuf_round_trip():
    from google.protobuf import descriptor_pb2
    msg = descriptor_pb2.FileDescriptorProto(name="x.proto", package="p")
    assert descriptor_pb2.FileDescriptorProto.FromString(msg.SerializeToString()) == msg

if sys.argv[1] == "protobuf-first":
    system_runtime = ctypes.util.find_library("protobuf")
    if system_runtime:
        ctypes.CDLL(system_runtime, mode=ctypes.RTLD_GLOBAL)
    protobuf_round_trip()
    round_trip()
else:
    round_trip()
    protobuf_round_trip()
    round_trip()
import google.protobuf
print(f"  {sys.argv[1]}: round trips passed (protobuf {google.protobuf.__version__}"
      f"{', with ' + system_runtime + ' loaded globally' if sys.argv[1] == 'protobuf-first' and system_runtime else ''})")
EOF
  done
}

# Every shared object the installed wheel put in place: what it loads and which protobuf symbols it has.
check_shared_objects() {
  local venv=$1 so deps
  mapfile -t sos < <("$venv/bin/python" -c '
import importlib.metadata as m
for f in m.files("py_pb"):
    if ".so" in f.name:
        print(f.locate())')
  [ ${#sos[@]} -ge 3 ] || fail "the installed wheel has ${#sos[@]} shared objects, expected the library and two extensions"
  for so in "${sos[@]}"; do
    deps=$(ldd "$so")
    echo "  $(basename "$so"): $(echo "$deps" | awk '{print $1}' | grep -v '^linux-vdso' | tr '\n' ' ')"
    if echo "$deps" | grep -q "not found"; then fail "$so: a library is missing: $deps"; fi
    if echo "$deps" | grep -qi "libprotobuf"; then fail "$so loads a protobuf library: $deps"; fi
    if nm -D --defined-only -C "$so" | grep -q "google::protobuf"; then
      nm -D --defined-only -C "$so" | grep "google::protobuf" | head -n 5 >&2
      fail "$so exports protobuf's symbols"
    fi
    if nm -D --undefined-only -C "$so" | grep -q "google::protobuf"; then
      nm -D --undefined-only -C "$so" | grep "google::protobuf" | head -n 5 >&2
      fail "$so looks for protobuf's symbols elsewhere"
    fi
    echo "    $(nm -D --defined-only "$so" | wc -l) symbols exported, none of protobuf's"
  done
}

for v in "${PYTHONS[@]}"; do make_venv "$v" "$v" "$WHEEL"; done

echo "== shared objects of the installed wheel"
check_shared_objects "$OUT/venv-$PANDAS2_PYTHON"

for v in "${PYTHONS[@]}"; do
  venv=$OUT/venv-$v
  pandas=$("$venv/bin/python" -c 'import pandas; print(pandas.__version__)')
  echo "== CPython $v, pandas $pandas: protobuf's Python runtime beside py_pb"
  import_orders "$venv"
  if [ "$v" = "$PANDAS2_PYTHON" ]; then
    echo "== CPython $v, pandas $pandas: the Python tests"
    run_tests "$venv"
  else
    echo "== CPython $v, pandas $pandas: the Python tests but the property, leak and hostile-input files"
    run_tests "$venv" "${QUICK_SELECTION[@]}"
  fi
done

# The sdist, built from this tree and installed by pip as from an index: pip builds it in an isolated environment
# (the build backend from PyPI) against the system's protobuf. Built under a fixed directory, which ccache's base
# directory covers, so that a later run finds the objects of this one.
echo "== the sdist, built and installed by pip into a new environment"
rm -rf "$OUT/sdist" "$OUT/tmp"
mkdir -p "$OUT/tmp"
pip_quiet "$BUILD_PY" -m build --sdist --no-isolation --outdir "$OUT/sdist" .
sdists=("$OUT"/sdist/py_pb-*.tar.gz)
[ ${#sdists[@]} -eq 1 ] && [ -f "${sdists[0]}" ] || fail "python -m build --sdist left no single sdist in $OUT/sdist"
echo "  $(basename "${sdists[0]}"): $(tar -tzf "${sdists[0]}" | wc -l) files"
TMPDIR=$OUT/tmp CCACHE_BASEDIR=$OUT/tmp CMAKE_BUILD_PARALLEL_LEVEL=$JOBS \
  make_venv 3.11 sdist "${sdists[0]}"
echo "  libveltradata.so needs: $("$OUT/venv-sdist/bin/python" -c '
import importlib.metadata as m
print(next(f.locate() for f in m.files("py_pb") if f.name == "libveltradata.so"))' |
  xargs ldd | awk '/protobuf/ {print $1}' | tr '\n' ' ')"
echo "== the sdist's install, CPython 3.11: the Python tests but the property, leak and hostile-input files"
run_tests "$OUT/venv-sdist" "${QUICK_SELECTION[@]}"
