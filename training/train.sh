#!/usr/bin/env bash
# Reproduces the shipped artifact classifier from a clean checkout, seeded:
# packages, wallpapers, synthesised dataset, training, calibration, ONNX
# export, check with OpenCV's dnn reader, and installation into
# models/artifact_detector/. Log and intermediate files go to training/runs/.
#
# Knobs for shorter trial runs (defaults reproduce the shipped model):
#   TRAIN_SAMPLES, VAL_SAMPLES, EPOCHS, RUN (run directory), NO_INSTALL=1,
#   SEED (frames and weights: a second seed shows how much of a difference
#   between two runs is chance),
#   FRESH=1 (fresh frames synthesised beside training from idle CPU time: the
#   result then depends on the machine's load, so the default leaves it off)
set -euo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
cd "$here"
# Debian's interpreter: torch and OpenCV come from its packages, whatever
# other python3 may come first on PATH.
py=/usr/bin/python3
train_samples="${TRAIN_SAMPLES:-16000}"
val_samples="${VAL_SAMPLES:-3000}"
epochs="${EPOCHS:-16}"
# The Python scripts hold the default seed; pass one only when asked for.
seed=()
[ -n "${SEED:-}" ] && seed=(--seed "$SEED")
run="${RUN:-runs/$(date +%Y%m%d-%H%M%S)}"
mkdir -p "$run"

start=$(date +%s)
stage() { echo "== $1 ($(( $(date +%s) - start )) s)"; }

stage "install dependencies"
"$here/install-deps"
stage "fetch wallpapers"
"$here/fetch_data"
stage "synthesise $train_samples training and $val_samples validation frames"
"$py" build_dataset.py --train "$train_samples" --val "$val_samples" "${seed[@]}" --out data/cache
stage "train $epochs epochs"
fresh=()
streamer=""
if [ "${FRESH:-0}" = 1 ]; then
  # New artifacts while the network trains; swapped in at each epoch's start.
  rm -rf "$run/fresh"
  nice -n 19 "$py" build_dataset.py --stream "$run/fresh" "${seed[@]}" --shard "${FRESH_SHARD:-500}" \
    > "$run/stream.log" 2>&1 &
  streamer=$!
  fresh=(--fresh "$run/fresh")
fi
"$py" train.py --data data/cache --out "$run" --epochs "$epochs" "${seed[@]}" "${fresh[@]}"
if [ -n "$streamer" ]; then
  kill "$streamer" 2>/dev/null || true
  wait "$streamer" 2>/dev/null || true
  rm -rf "$run/fresh"
fi
stage "calibrate, export and check with OpenCV dnn"
install=(--install)
[ "${NO_INSTALL:-0}" = 1 ] && install=()
"$py" export.py --data data/cache --run "$run" "${install[@]}"
stage "done in $(( $(date +%s) - start )) s; results in $run/metrics.md"
