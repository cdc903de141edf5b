#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UBSan) and runs each for
# SECONDS (default 60), seeded from fuzz/corpus/NAME, fuzz/regressions/NAME and the shared
# fixtures, with the dictionary of the format it reads (fuzz/dict). JOBS=N runs N targets at a
# time (default 1). Each run's executions and time are appended to build-fuzz/runs.tsv (time,
# target, executions, wall seconds, exit status, CPU seconds); a failing input is left in
# build-fuzz/artifacts/NAME/, to be kept in fuzz/regressions/NAME/ once the fault is fixed (the
# normal tests replay that folder).
# Usage: [JOBS=N] fuzz/run.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++ -DLUMORA_BUILD_FUZZ=ON -DLUMORA_BUILD_TESTS=OFF \
  -DLUMORA_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined"
targets=("$@")
[ ${#targets[@]} -gt 0 ] ||
  targets=(line_rules claude_lines generative_language ollama_lines reka_lines cloud_lines
    error_body mime_header mime_parse mime_quoted_printable mime_base64 mime_charset
    html_tokenizer html_tree mail_parser mail_reader store_files native_messages url_secrets
    stream_record)
cmake --build build-fuzz -j 2 --target "${targets[@]/#/fuzz_}"
fuzz_one() {
  local t=$1 seconds=$2
  local work="build-fuzz/corpus/$t" artifacts="build-fuzz/artifacts/$t/"
  mkdir -p "$work" "$artifacts"
  local seeds=("fuzz/corpus/$t" "fuzz/regressions/$t") dicts=() limits=()
  case "$t" in
    line_rules | error_body | stream_record)
      seeds+=(../shared/fixtures/providers/openai ../shared/fixtures/providers/openai-compatible)
      dicts=(json) ;;
    generative_language) seeds+=(../shared/fixtures/providers/gemini) dicts=(json) ;;
    claude_lines) seeds+=(../shared/fixtures/providers/anthropic) dicts=(json) ;;
    ollama_lines) seeds+=(../shared/fixtures/providers/ollama) dicts=(json) ;;
    reka_lines | cloud_lines | store_files | native_messages) dicts=(json) ;;
    mime_header | mime_parse)
      seeds+=(../shared/fixtures/mail-corpus/mikel-mail ../shared/fixtures/mail-corpus/enmime
        ../shared/fixtures/mail-corpus/stalwart-mail-parser ../shared/fixtures/mail-corpus/james-mime4j
        ../shared/fixtures/mail-corpus/zbateson-mail-mime-parser)
      dicts=(mime) ;;
    mime_charset) dicts=(mime) ;;
    html_tokenizer) seeds+=(../shared/fixtures/html5lib-tests/tokenizer) dicts=(html) ;;
    html_tree)
      seeds+=(../shared/fixtures/mail-corpus/mailspring-html ../shared/fixtures/mail-corpus/mailgun-talon)
      dicts=(html) ;;
    mail_parser)
      seeds+=(../shared/fixtures/mail-corpus/list-archive-openbmc ../shared/fixtures/mail-corpus/list-archive-usrp-users)
      dicts=(mime html) ;;
    mail_reader)
      # A whole message is read in time linear in its length: an input taking seconds is a
      # fault, so the run stops at 20 seconds and reports the slowest inputs above one.
      seeds+=(../shared/fixtures/mail-corpus/list-archive-openbmc ../shared/fixtures/mail-corpus/list-archive-usrp-users
        ../shared/fixtures/mail-corpus/mikel-mail ../shared/fixtures/mail-corpus/enmime
        ../shared/fixtures/mail-corpus/stalwart-mail-parser ../shared/fixtures/mail-corpus/james-mime4j
        ../shared/fixtures/mail-corpus/zbateson-mail-mime-parser ../shared/fixtures/mail-corpus/mailgun-talon)
      dicts=(mime html) limits=(-timeout=20 -report_slow_units=1) ;;
  esac
  local existing=() s
  for s in "${seeds[@]}"; do [ -d "$s" ] && existing+=("$s"); done
  # libFuzzer takes one dictionary, so a target reading two formats gets both in one file.
  local options=("${limits[@]}") d
  if [ ${#dicts[@]} -gt 0 ]; then
    mkdir -p build-fuzz/dict
    for d in "${dicts[@]}"; do cat "fuzz/dict/$d.dict"; done >"build-fuzz/dict/$t.dict"
    options+=(-dict="build-fuzz/dict/$t.dict")
  fi
  local log="build-fuzz/$t.log" status=0 cpu
  # The CPU seconds (user and system) the run took, beside its wall seconds: on a shared
  # machine the two differ, and the campaign is counted in CPU time.
  local TIMEFORMAT='%U %S'
  cpu=$({ time "build-fuzz/fuzz/fuzz_$t" -max_total_time="$seconds" -max_len=65536 \
    -artifact_prefix="$artifacts" "${options[@]}" "$work" "${existing[@]}" >"$log" 2>&1; } 2>&1) || status=$?
  cpu=$(echo "$cpu" | tail -1 | awk '{printf "%d", $1 + $2}')
  local runs
  runs=$(sed -n 's/^Done \([0-9]*\) runs in \([0-9]*\) second.*/\1\t\2/p' "$log" | tail -1)
  printf '%s\t%s\t%s\t%s\t%s\n' "$(date -u +%FT%TZ)" "$t" "${runs:-0	0}" "$status" "$cpu" \
    >>build-fuzz/runs.tsv
  echo "$t: ${runs:-no summary}, $cpu CPU seconds (exit $status, log $log)"
  return "$status"
}
export -f fuzz_one
printf '%s\n' "${targets[@]}" | xargs -P "${JOBS:-1}" -I{} bash -c 'fuzz_one "$@"' _ {} "$seconds"
