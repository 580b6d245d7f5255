#!/usr/bin/env bash
# Configures and builds every combination of the build options, one after the other in one folder
# (build/options), so that each combination after the first rebuilds only what it changes:
# `scripts/build-options.sh`. Prints one line per combination and fails at the first that does not build.
# It takes a while (a full build, then relinking); CI leaves it to whoever changes the CMake files.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc 2>/dev/null || echo 2)
dir=build/options
mkdir -p build
count=0
for shared in ON OFF; do
  for install in ON OFF; do
    for server in ON OFF; do
      for tools in ON OFF; do
        for tests in ON OFF; do
          for bench in ON OFF; do
            options=(-DPELM_SHARED=$shared -DPELM_INSTALL=$install -DPELM_BUILD_SERVER=$server
                     -DPELM_BUILD_TOOLS=$tools -DPELM_BUILD_TESTS=$tests -DPELM_BUILD_BENCH=$bench)
            line="${options[*]}"
            if ! cmake -S . -B "$dir" -G Ninja "${options[@]}" >"$dir.log" 2>&1; then
              cat "$dir.log"
              echo "does not configure: $line" >&2
              exit 1
            fi
            if ! cmake --build "$dir" -j "$jobs" >"$dir.log" 2>&1; then
              grep -E -A4 "error:|FAILED:" "$dir.log" | head -40
              echo "configures but does not build: $line (the whole log is $dir.log)" >&2
              exit 1
            fi
            count=$((count + 1))
            echo "builds: $line"
          done
        done
      done
    done
  done
done
rm -f "$dir.log"
echo "all $count combinations configure and build"
