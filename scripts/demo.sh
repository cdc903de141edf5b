#!/usr/bin/env bash
# Installs the dependencies, builds the command and shows the request it would send for the
# sample message (nothing is sent, no key is needed).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLUMORA_BUILD_TESTS=OFF -DLUMORA_BUILD_BENCH=OFF
cmake --build build -j "$(nproc)" --target lumora
build/apps/lumora/lumora reply --dry-run examples/reply-to-meeting.eml
