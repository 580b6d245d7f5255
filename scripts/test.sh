#!/usr/bin/env bash
# The whole test suite: installs what it needs, then builds and runs everything with gcc, again under
# AddressSanitizer + UndefinedBehaviorSanitizer with clang (which also builds the fuzzers), the threaded tests
# under ThreadSanitizer, clang-tidy's use-after-move check, builds the API reference (no warning allowed),
# installs the Python package with pip into a fresh virtual environment, builds the Debian packages and tries
# them on this machine (install, a host's first content, removal), and gives each fuzzer a short run.
#   FUZZ_SECONDS=N   seconds per fuzzer (default 10; 0 skips fuzzing)
#   SKIP_TSAN=1      leaves out the ThreadSanitizer build
#   SKIP_PACKAGES=1  leaves out the packages (they are installed and removed with apt, as root)
set -euo pipefail
cd "$(dirname "$0")/.."

FUZZ_SECONDS=${FUZZ_SECONDS:-10}
jobs=$(nproc 2>/dev/null || echo 2)
started=$SECONDS
stage() { echo "== $1 ($((SECONDS - started)) s in)"; }

scripts/install-deps.sh --browser

stage "gcc build"
scripts/build.sh plain
(cd build/plain && ctest --output-on-failure --no-tests=error -j "$jobs")

stage "Python: pip install . into a fresh virtual environment, offline"
tests/python/pip_install.sh build/plain/tools/pelm/pelm

stage "API reference: doxygen, no warnings"
scripts/docs.sh

stage "clang build with AddressSanitizer + UndefinedBehaviorSanitizer"
scripts/build.sh asan
(cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   ctest --output-on-failure --no-tests=error -j "$jobs")

stage "clang-tidy: use after move"
scripts/tidy.sh build/asan

if [ "${SKIP_TSAN:-0}" != 1 ]; then
  stage "clang build with ThreadSanitizer: the tests with threads of their own"
  scripts/build.sh tsan
  threaded=$(scripts/threaded-tests.sh)
  # TSan cannot see how the libraries built without it (curl, OpenSSL, SQLite) synchronise, so it judges only
  # the accesses our own instrumented code makes.
  (cd build/tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:ignore_noninstrumented_modules=1 \
     ctest --output-on-failure --no-tests=error -j "$jobs" -R "$threaded")
fi

if [ "${SKIP_PACKAGES:-0}" != 1 ]; then
  stage "Debian packages: build, install with apt, a host's first content, removal"
  scripts/package.sh
  tests/packages/check_packages.sh
fi

if [ "$FUZZ_SECONDS" -gt 0 ]; then
  stage "fuzzing, ${FUZZ_SECONDS}s per target"
  scripts/fuzz.sh "$FUZZ_SECONDS"
fi
stage "done"
echo "all tests passed"
