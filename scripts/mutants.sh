#!/usr/bin/env bash
# Plants the faults of tests/mutants/*.txt one at a time and says which the suite notices; see
# scripts/mutants.py. Not part of CI: each fault costs a rebuild and a run of the suite.
#   scripts/mutants.sh [--only TEXT] [--list]
set -euo pipefail
exec python3 "$(dirname "$0")/mutants.py" "$@"
