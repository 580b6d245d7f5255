#!/usr/bin/env bash
# Builds the Debian packages into build/package/packages/: the library, its development files, the pelm
# tool and pelm-server with its service. Then: sudo apt-get install ./build/package/packages/*.deb
set -euo pipefail
cd "$(dirname "$0")/.."
if [ $# -gt 0 ]; then
  echo "package.sh: takes no arguments, not '$1' (it builds build/package/packages/*.deb)" >&2
  exit 2
fi
scripts/install-deps.sh
scripts/build.sh package
(cd build/package && cpack -G DEB >/dev/null)
echo "built:"
for deb in build/package/packages/*.deb; do
  printf '  %-48s %6s KiB\n' "$deb" "$(( $(stat -c %s "$deb") / 1024 ))"
done
