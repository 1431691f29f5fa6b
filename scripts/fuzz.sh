#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for the
# given number of seconds (60 by default), with its seed corpus and dictionary
# when it has them.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
scripts/install-deps.sh --fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"
status=0
for fuzzer in build/fuzz/fuzz/*_fuzzer; do
  [[ -x "$fuzzer" ]] || continue
  name=$(basename "$fuzzer")
  corpus="build/fuzz/corpus/$name"
  mkdir -p "$corpus"
  seeds=()
  [[ -d "fuzz/corpus/$name" ]] && seeds=("fuzz/corpus/$name")
  dict=()
  [[ -f "fuzz/$name.dict" ]] && dict=("-dict=fuzz/$name.dict")
  echo "== $name ($seconds s)"
  "$fuzzer" -max_total_time="$seconds" -print_final_stats=1 "${dict[@]}" "$corpus" "${seeds[@]}" || status=1
done
exit $status
