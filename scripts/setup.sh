#!/usr/bin/env bash
# Installs the Debian packages the project needs (Debian 12/13, Ubuntu 22.04/24.04), creates .venv with the
# build and test packages and builds the project into it. A run with nothing changed only checks.
set -euo pipefail
cd "$(dirname "$0")/.."

DEB_PACKAGES=(g++ python3-dev python3-venv libprotobuf-dev protobuf-compiler libboost-dev libgtest-dev
  libbenchmark-dev clang ccache dpkg-dev)
PY=.venv/bin/python
REQ_STAMP=.venv/.setup-requirements
BUILD_STAMP=.venv/.setup-build
did=""

candidate() { apt-cache policy "$1" 2>/dev/null | sed -n 's/^ *Candidate: //p' | grep -v '^(none)$' || true; }

# The fuzz build links clang's libFuzzer runtime, whose package name varies across releases.
clang_has_fuzzer_runtime() {
  command -v clang >/dev/null && compgen -G "$(clang -print-resource-dir)/lib/*/libclang_rt.fuzzer*.a" >/dev/null
}

# The unversioned runtime package where the distribution has one, else the one for clang's major version;
# nothing where clang's own packages carry the runtime (Ubuntu 22.04).
clang_runtime_package() {
  if [ -n "$(candidate libclang-rt-dev)" ]; then echo libclang-rt-dev; return; fi
  local major
  if command -v clang >/dev/null; then
    major=$(clang -dumpversion | cut -d. -f1)
  else
    major=$(apt-cache depends clang 2>/dev/null | sed -n 's/^ *Depends: clang-\([0-9][0-9]*\)$/\1/p' | head -n 1)
  fi
  if [ -n "$major" ] && [ -n "$(candidate "libclang-rt-$major-dev")" ]; then echo "libclang-rt-$major-dev"; fi
}

# The project needs Python 3.11; Ubuntu 22.04's python3 is 3.10 and ships 3.11 beside it.
debian_python_too_old() {
  local v
  v=$(dpkg-query -W -f='${Version}' python3 2>/dev/null || true)
  [ -n "$v" ] || v=$(candidate python3)
  [ -n "$v" ] && dpkg --compare-versions "$v" lt 3.11
}

missing_packages() {
  local p wanted=("${DEB_PACKAGES[@]}")
  if debian_python_too_old; then wanted+=(python3.11-dev python3.11-venv); fi
  if ! clang_has_fuzzer_runtime; then wanted+=($(clang_runtime_package)); fi
  for p in "${wanted[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || echo "$p"
  done
}

venv_python() {
  local py
  for py in python3 python3.11; do
    if command -v "$py" >/dev/null && "$py" -c 'import sys; sys.exit(sys.version_info < (3, 11))'; then
      echo "$py"
      return
    fi
  done
  echo "setup: no Python 3.11 or later found" >&2
  return 1
}

# The build backend, the project's dependencies and its test and bench extras as pyproject.toml lists them, plus cmake
# and ninja, which the build backend would otherwise fetch into an isolated environment.
requirements() {
  "$PY" - <<'EOF'
import tomllib
with open("pyproject.toml", "rb") as f:
    p = tomllib.load(f)
extras = p["project"]["optional-dependencies"]
for r in p["build-system"]["requires"] + p["project"]["dependencies"] + extras["test"] + extras["bench"]:
    print(r)
print("cmake>=3.26")
print("ninja")
EOF
}

# What goes into the installed package: every tracked or new file but the tests, tools and documents, so a
# new source folder counts without being listed here.
build_inputs_digest() {
  git ls-files -z --cached --others --exclude-standard -- . ':!tests' ':!bench' ':!fuzz' ':!examples' \
    ':!scripts' ':!.ci' ':!*.md' | sort -zu |
    while IFS= read -r -d '' f; do
      if [ -f "$f" ]; then printf '%s\0' "$f"; fi
    done | xargs -0 -r sha256sum | sha256sum | cut -d' ' -f1
}

if [ -n "$(missing_packages)" ] || ! clang_has_fuzzer_runtime; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  echo "== updating the Debian package lists"
  $SUDO apt-get update -q ||
    echo "!! setup: apt-get update failed (exit $?); installing from the package lists already on this machine, which may be stale" >&2
  mapfile -t missing < <(missing_packages)
  if [ ${#missing[@]} -gt 0 ]; then
    echo "== installing Debian packages: ${missing[*]}"
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${missing[@]}"
  fi
  clang_has_fuzzer_runtime || echo "!! setup: clang's libFuzzer runtime is still missing; the fuzz build will fail" >&2
  did=1
fi

if [ ! -x "$PY" ]; then
  python=$(venv_python)
  echo "== creating .venv with $python"
  "$python" -m venv .venv
  "$PY" -m pip install -q --upgrade pip
  did=1
fi

reqs=$(requirements)
if [ "$(cat "$REQ_STAMP" 2>/dev/null)" != "$reqs" ]; then
  echo "== installing the build and test packages into .venv"
  mapfile -t req_list <<<"$reqs"
  "$PY" -m pip install -q "${req_list[@]}"
  printf '%s\n' "$reqs" >"$REQ_STAMP"
  did=1
fi

./scripts/protobuf_source.sh  # the sources of the protobuf runtime the package below and the release wheel link in

# A change of the packages above (the build backend's version, say) rebuilds too.
digest=$(printf '%s\n%s\n' "$reqs" "$(build_inputs_digest)" | sha256sum | cut -d' ' -f1)
if [ "$(cat "$BUILD_STAMP" 2>/dev/null)" != "$digest" ] ||
  ! "$PY" -c 'import importlib.metadata as m; m.distribution("py_pb")' 2>/dev/null; then
  echo "== building and installing py_pb into .venv"
  "$PY" -m pip install -q --no-build-isolation --no-deps .
  echo "$digest" >"$BUILD_STAMP"
  did=1
fi

[ -n "$did" ] || echo "== setup: nothing to do"
