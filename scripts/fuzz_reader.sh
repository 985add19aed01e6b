#!/usr/bin/env bash
# Runs the libFuzzer targets over the result reader (build/fuzz/fuzz_*, built by scripts/test.sh) from their
# committed seeds fuzz/seeds/<target>: a replay by default, a campaign with FUZZ_SECONDS set
# (scripts/fuzz_common.sh). Exits non-zero on a finding; the input is kept as build/fuzz/crash-* (or leak-*, ...).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/fuzz_common.sh
status=0
for target in build/fuzz/fuzz_*; do
  [ -x "$target" ] && [ -f "$target" ] || continue
  name=$(basename "$target")
  corpus=$(fuzz_scratch "build/fuzz/corpus_$name")
  seeds="fuzz/seeds/$name"
  log="build/fuzz/$name.log"
  echo "== $name: $(fuzz_options 400000)"
  # shellcheck disable=SC2046
  if no_aslr "$target" $(fuzz_options 400000) -rss_limit_mb=2048 -artifact_prefix=build/fuzz/ -max_len=65536 \
      -print_final_stats=1 "$corpus" $([ -d "$seeds" ] && echo "$seeds") >"$log" 2>&1; then
    fuzz_summary "$log"
  else
    tail -n 40 "$log"
    echo "!! $name failed; the whole log is $log"
    status=1
  fi
done
exit $status
