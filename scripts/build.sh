#!/usr/bin/env bash
# Configures and builds one flavour into build/<name>: `scripts/build.sh release|plain|asan|fuzz`.
set -euo pipefail
cd "$(dirname "$0")/.."

flavour=${1:-release}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
case "$flavour" in
  release) args=(-DCMAKE_BUILD_TYPE=Release -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_BENCH=OFF) ;;
  plain)   args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan)    args=(-DCMAKE_BUILD_TYPE=Debug -DPELM_SANITIZE=ON -DPELM_BUILD_BENCH=OFF) ;;
  bench)   args=(-DCMAKE_BUILD_TYPE=Release -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_TOOLS=ON) ;;
  fuzz)    args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DPELM_BUILD_FUZZ=ON
                 -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_TOOLS=OFF -DPELM_BUILD_BENCH=OFF -DPELM_BUILD_SERVER=OFF
                 -DPELM_INSTALL=OFF) ;;
  *) echo "unknown build flavour: $flavour" >&2; exit 2 ;;
esac

cmake -S . -B "build/$flavour" -G Ninja "${args[@]}" "$@" >/dev/null
cmake --build "build/$flavour" -j "$jobs"
