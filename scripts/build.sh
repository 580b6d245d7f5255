#!/usr/bin/env bash
# Configures and builds one flavour into build/<name>: `scripts/build.sh release|plain|asan|tsan|bench|package`.
#   release  optimised: the library, the tool and the server (what scripts/pelm runs)
#   package  release, for /usr: what scripts/package.sh packs
#   plain  gcc, RelWithDebInfo: tests, tools, benchmarks, install check
#   asan   clang, AddressSanitizer + UndefinedBehaviorSanitizer, coverage-instrumented: every target (tests,
#          fuzzers, benchmarks, tools, examples), so that both compilers build the whole tree
#   tsan   clang, ThreadSanitizer: the test programs only
# Extra arguments after the flavour go to CMake (configure), e.g. `scripts/build.sh plain -DPELM_PCH=OFF`.
set -euo pipefail
cd "$(dirname "$0")/.."

flavour=${1:-release}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
targets=()
case "$flavour" in
  release) args=(-DCMAKE_BUILD_TYPE=Release -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_BENCH=OFF) ;;
  plain)   args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan)    args=(-DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DPELM_BUILD_FUZZ=ON
                 -DPELM_BUILD_BENCH=ON -DPELM_INSTALL=OFF) ;;
  tsan)    args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DPELM_SANITIZE=thread
                 -DPELM_BUILD_BENCH=OFF -DPELM_INSTALL=OFF)
           targets=(--target pelm_unit_tests pelm_integration_tests) ;;
  package) args=(-DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_BENCH=OFF) ;;
  bench)   args=(-DCMAKE_BUILD_TYPE=Release -DPELM_BUILD_TESTS=OFF -DPELM_BUILD_TOOLS=ON) ;;
  *) echo "unknown build flavour: $flavour (release, plain, asan, tsan, bench or package)" >&2; exit 2 ;;
esac

cmake -S . -B "build/$flavour" -G Ninja "${args[@]}" "$@" >/dev/null
cmake --build "build/$flavour" -j "$jobs" "${targets[@]}"
