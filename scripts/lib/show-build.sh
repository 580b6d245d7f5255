# shellcheck shell=bash
# Sourced by the scripts that build on their way to something else (scripts/pelm, the benchmarks).
# show_build LOG COMMAND...: runs the build command with its whole output in LOG; on a terminal one line
# counts ninja's steps; on failure the compiler's errors and one line naming LOG go to standard error.
# Returns the command's status.
show_build() {
  local log=$1 status
  shift
  mkdir -p "$(dirname "$log")"
  set +e
  "$@" 2>&1 | tee "$log" | _show_build_progress
  status=${PIPESTATUS[0]}
  set -e
  if [ "$status" -ne 0 ]; then
    grep -E -A4 "error:|CMake Error|FAILED:" "$log" | head -n 40 >&2 || true
    echo "the build failed; the whole log is $log" >&2
  fi
  return "$status"
}

# Ninja's "[N/M]" lines as one line that counts up, on a terminal only.
_show_build_progress() {
  local line shown=0
  while IFS= read -r line; do
    if [ -t 2 ] && [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
      printf '\rbuilding (the first build takes minutes): %s of %s' "${BASH_REMATCH[1]}" "${BASH_REMATCH[2]}" >&2
      shown=1
    fi
  done
  if [ "$shown" = 1 ]; then printf '\r\033[K' >&2; fi
  return 0
}
