# Sourced by the fuzz scripts. Two ways to fuzz:
#  - replay (the default; what CI runs): a target runs its committed corpus and a fixed number of inputs mutated
#    from it with a fixed seed. The same commit runs the same inputs and gives the same verdict, however fast the
#    machine is. The C++ reader's target replays under libFuzzer (-seed, -runs, a scratch corpus made afresh, no
#    time-driven corpus reloading, address-space randomisation off), which is repeatable for a program with no
#    interpreter in it; the module's harnesses replay through fuzz/replay.py, which takes no coverage feedback.
#  - campaign (FUZZ_SECONDS set; scripts/fuzz_campaign.sh): open-ended, a new random seed each run, for
#    FUZZ_SECONDS per target, growing a corpus kept under build/. What a campaign finds is fixed, and the input
#    that found it is added to the committed corpus (fuzz/seeds/ for the C++ reader, fuzz/corpus/ for the module),
#    where every later replay meets it; so is, now and then, the campaign's corpus merged down to the inputs that
#    add coverage (libFuzzer's -merge=1), which is what the module's replays mutate.
FUZZ_SEED=${FUZZ_SEED:-1}
export PYTHONHASHSEED=0
# One thread: a thread pool allocating beside the target makes addresses, and so identity hashes, vary.
export OPENBLAS_NUM_THREADS=1 OMP_NUM_THREADS=1

fuzz_is_campaign() { [ -n "${FUZZ_SECONDS:-}" ]; }

# fuzz_options RUNS: the options that bound one target's run.
fuzz_options() {
  if fuzz_is_campaign; then
    echo "-max_total_time=$FUZZ_SECONDS"
  else
    echo "-seed=$FUZZ_SEED -runs=$1 -reload=0"
  fi
}

# fuzz_scratch DIR: the corpus a run writes into: kept by campaigns, made afresh for a replay.
fuzz_scratch() {
  fuzz_is_campaign || rm -rf "$1"
  mkdir -p "$1"
  echo "$1"
}

# no_aslr COMMAND...: runs it at fixed addresses where the machine allows that, so that the comparisons coverage
# sees (pointer-keyed tables, addresses compared) are the same each run.
no_aslr() {
  if ! fuzz_is_campaign && setarch "$(uname -m)" -R true 2>/dev/null; then
    setarch "$(uname -m)" -R "$@"
  else
    "$@"
  fi
}

# fuzz_summary LOG: what a run found, without the figures that vary with the machine (speed, memory).
fuzz_summary() {
  grep -E '^(#[0-9]+[[:space:]]+DONE|stat::(number_of_executed_units|new_units_added))' "$1" |
    sed -E 's/ (exec\/s|rss): [^ ]+//g'
}
