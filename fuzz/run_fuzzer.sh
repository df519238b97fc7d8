#!/usr/bin/env bash
# run_fuzzer.sh <fuzzer> <seed corpus> <work dir> <seconds> [dictionary]
#
# Replays every input of the seed corpus (the committed seeds and every past finding), then
# fuzzes fresh inputs until <seconds> have passed in all. Inputs the fuzzer finds go to a
# corpus in <work dir>, never into the seed corpus; a crash, leak or hang leaves its input in
# <work dir>/artifacts. That corpus starts empty on every run (<work dir>/corpus), unless
# AD_FUZZ_KEEP_CORPUS=1 (make fuzz): then <work dir>/kept grows from run to run.
# AD_FUZZ_SECONDS overrides <seconds>.
set -euo pipefail

fuzzer=$1
seeds=$2
work=$3
seconds=${AD_FUZZ_SECONDS:-$4}

if [ "${AD_FUZZ_KEEP_CORPUS:-0}" = 1 ]; then
  corpus=$work/kept
else
  corpus=$work/corpus
  rm -rf "$corpus"
fi
mkdir -p "$corpus" "$work/artifacts"

# A dictionary teaches the fuzzer the tokens of a file format.
dict=()
if [ $# -ge 5 ]; then
  dict=(-dict="$5")
fi

# -timeout: one input running this long counts as a hang. -rss_limit_mb: the inputs are
# bounded far below this, so reaching it is a leak or a runaway allocation.
exec "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
  -print_final_stats=1 "${dict[@]}" -artifact_prefix="$work/artifacts/" \
  "$corpus" "$seeds"
