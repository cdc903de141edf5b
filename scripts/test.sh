#!/usr/bin/env bash
# Installs the dependencies, builds everything and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
# Release, as users build it, with warnings failing the build.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DLUMORA_WARNINGS_AS_ERRORS=ON \
  -DLUMORA_BUILD_TESTS=ON -DLUMORA_BUILD_BENCH=ON
cmake --build build -j "$(nproc)"
ctest --test-dir build --output-on-failure -j 2
scripts/check-package.sh build
