#!/usr/bin/env bash
# Sets up (scripts/setup.sh) and runs the demo round trip.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
exec .venv/bin/python examples/demo.py
