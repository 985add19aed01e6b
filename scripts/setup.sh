#!/usr/bin/env bash
# Installs what the project needs on a fresh Debian machine and builds it into .venv. Safe to run again.
set -euo pipefail
cd "$(dirname "$0")/.."

DEB_PACKAGES=(g++ python3-dev python3-venv libprotobuf-dev protobuf-compiler libboost-dev libgtest-dev libbenchmark-dev
  clang libclang-rt-14-dev ccache)
missing=()
for p in "${DEB_PACKAGES[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  echo "== installing Debian packages: ${missing[*]}"
  $SUDO apt-get update -q || true
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${missing[@]}"
fi

if [ ! -x .venv/bin/python ]; then
  echo "== creating .venv"
  python3 -m venv .venv
fi
PY=.venv/bin/python
$PY -m pip install -q --upgrade pip
$PY -m pip install -q scikit-build-core cmake ninja numpy pandas pytest hypothesis grpcio-tools

echo "== building and installing py_pb into .venv"
$PY -m pip install -q --no-build-isolation .
