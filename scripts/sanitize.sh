#!/usr/bin/env bash
# Builds the tests with a sanitizer and runs them.
#   scripts/sanitize.sh asan   AddressSanitizer and UndefinedBehaviorSanitizer, the whole suite
#                              (with the fuzz inputs it replays) in build-asan/
#   scripts/sanitize.sh tsan   ThreadSanitizer, the suites whose code crosses threads (streams,
#                              the transport, the executor and throttle, the panel, the stores,
#                              the clipboard) in build-tsan/
# Any report fails the run. Expects the dependencies of scripts/deps.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:?usage: scripts/sanitize.sh asan|tsan}
jobs=${JOBS:-$(nproc)}

case "$mode" in
  asan)
    flags="-fsanitize=address,undefined -fno-sanitize-recover=all"
    export ASAN_OPTIONS="detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
    filter=""
    ;;
  tsan)
    flags="-fsanitize=thread"
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
    filter="ReplyText|ChunkStream|RecordedStreams|TransportTest|TransportFault|PanelTest|Executor"
    filter+="|Throttle|StoreTest|DefaultsStore|UserSettings|Features|SystemPasteboard|ScriptedServer"
    ;;
  *) echo "usage: scripts/sanitize.sh asan|tsan" >&2; exit 2 ;;
esac

# -O1 keeps the runs quick; line tables alone keep the reports readable and the build light.
# The sanitizers' instrumentation makes GCC 12 warn of uninitialised members inside
# libstdc++'s own templates, which the normal build checks without it.
cmake -S . -B "build-$mode" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUMORA_BUILD_TESTS=ON \
  -DLUMORA_BUILD_BENCH=OFF -DLUMORA_TEST_TIMEOUT=900 \
  -DCMAKE_CXX_FLAGS="-O1 -g1 -fno-omit-frame-pointer -Wno-maybe-uninitialized $flags" \
  -DCMAKE_EXE_LINKER_FLAGS="$flags"
cmake --build "build-$mode" -j "$jobs"
ctest --test-dir "build-$mode" --output-on-failure -j 2 ${filter:+-R "$filter"}
