#!/usr/bin/env bash
# Builds the API reference of the public headers into build/docs/html. A warning (a broken reference, a
# malformed command, a parameter that does not exist) fails the build.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
out=build/docs
mkdir -p "$out"
# Doxygen takes the output folder from the configuration; it is added here so the file stays relative.
if ! (cat docs/Doxyfile; echo "OUTPUT_DIRECTORY = $out"; echo "WARN_LOGFILE = $out/warnings.txt") | doxygen - >/dev/null; then
  cat "$out/warnings.txt" >&2
  echo "docs: doxygen found problems in the public headers (above)" >&2
  exit 1
fi
if [ -s "$out/warnings.txt" ]; then
  cat "$out/warnings.txt" >&2
  echo "docs: doxygen found problems in the public headers (above)" >&2
  exit 1
fi
echo "API reference: $out/html/index.html"
