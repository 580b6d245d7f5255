#!/usr/bin/env bash
# Installs the Debian packages on this machine with apt, as a user would, and checks them:
#   - the systemd unit passes `systemd-analyze verify`;
#   - the server runs as the unit runs it (by systemd where it runs; otherwise with the unit's user, folder and
#     command line), and minimal_host, built from the installed example with find_package and with
#     pkg-config and nothing set, gets a content from it and, stopped with Ctrl-C, has its visit stored;
#   - removing the packages leaves nothing of them but the server's data.
# Prints the time from `apt-get install` to minimal_host's first content.
#   check_packages.sh [FOLDER WITH THE .debs]   (default build/package/packages)
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$(pwd)
debs=${1:-build/package/packages}
packages=(libpelm2 libpelm-dev pelm-tools pelm-server python3-pelm)
unit=/usr/lib/systemd/system/pelm-server.service
state=/var/lib/pelm-server
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
fail() { echo "check_packages: $*" >&2; exit 1; }
ms_since() { echo $(( ($(date +%s%N) - $1) / 1000000 )); }

shopt -s nullglob
files=("$debs"/*.deb)
[ ${#files[@]} -eq ${#packages[@]} ] || fail "expected ${#packages[@]} packages in $debs, found ${#files[@]} (scripts/package.sh builds them)"
for package in "${packages[@]}"; do
  if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q installed; then
    fail "$package is installed on this machine already; this check installs and removes the packages itself"
  fi
done
if (exec 3<>/dev/tcp/127.0.0.1/8443) 2>/dev/null; then
  fail "port 8443 is in use; the service listens there (stop what holds it: ss -ltnp 'sport = :8443')"
fi
had_user=0; getent passwd pelm >/dev/null && had_user=1
had_state=0; [ -e "$state" ] && had_state=1

work=$(mktemp -d)
server=""
cleanup() {
  set +e
  if [ -n "$server" ]; then $sudo kill "$server" 2>/dev/null; wait "$server" 2>/dev/null; fi
  for package in "${packages[@]}"; do
    if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "ok installed\|config-files"; then
      $sudo dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true
      break
    fi
  done
  [ "$had_state" = 1 ] || $sudo rm -rf "$state"
  if [ "$had_user" = 0 ] && getent passwd pelm >/dev/null; then $sudo deluser --quiet --system pelm 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "installing ${packages[*]}"
started=$(date +%s%N)
$sudo apt-get install -y -qq "${files[@]/#/./}" >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "apt-get install failed"; }
echo "installed in $(ms_since "$started") ms"

systemd-analyze verify "$unit" || fail "systemd-analyze verify $unit failed"
[ "$(stat -c %U "$state")" = pelm ] || fail "$state does not belong to the user pelm"

# The server, as the unit runs it.
if [ -d /run/systemd/system ]; then
  echo "systemd runs here: the package started pelm-server.service"
  systemctl is-enabled --quiet pelm-server.service || fail "pelm-server.service is not enabled"
else
  user=$(sed -n 's/^User=//p' "$unit")
  folder=$(sed -n 's/^WorkingDirectory=//p' "$unit")
  command=$(sed -n 's/^ExecStart=//p' "$unit")
  check=$(sed -n 's/^ExecStartPre=//p' "$unit")
  [ -n "$check" ] || fail "the unit checks nothing before it starts"
  $sudo runuser -u "$user" -- sh -c "cd '$folder' && exec $check" >"$work/check.log" 2>&1 ||
    { cat "$work/check.log"; fail "the unit's check before the start failed: $check"; }
  echo "no systemd here: starting as the unit does, as $user in $folder: $command"
  $sudo runuser -u "$user" -- sh -c "cd '$folder' && exec $command" >"$work/server.log" 2>&1 &
  server=$!
fi
ca="$state/pelm-server-certificate/ca.pem"
for _ in $(seq 100); do
  [ -r "$ca" ] && (exec 3<>/dev/tcp/127.0.0.1/8443) 2>/dev/null && break
  sleep 0.1
done
[ -r "$ca" ] || { cat "$work/server.log" 2>/dev/null; fail "pelm-server did not start (no $ca)"; }

# minimal_host from the installed example, with nothing set: once with find_package, once with pkg-config.
unset CMAKE_PREFIX_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH CPATH LIBRARY_PATH
example=/usr/share/doc/libpelm-dev/examples/minimal_host
cp -r "$example" "$work/minimal_host"
# As the README says it: the default generator, nothing set.
cmake -S "$work/minimal_host" -B "$work/cmake" >/dev/null || fail "find_package(pelm) failed"
cmake --build "$work/cmake" >/dev/null || fail "minimal_host did not build with find_package"
# pkg-config sees only the .pc files the packages brought (libpelm-dev and what it depends on): a machine
# with only the packages has no other -dev files to lend it.
pcdir="$work/pkgconfig-of-the-packages"
mkdir -p "$pcdir"
for package in libpelm-dev $(dpkg-query -W -f='${Depends}' libpelm-dev | tr ',' '\n' | sed 's/^ *//;s/[ (].*//'); do
  { dpkg -L "$package" 2>/dev/null || true; } | { grep '\.pc$' || true; } | while read -r pc; do ln -sf "$pc" "$pcdir/"; done
done
flags=$(PKG_CONFIG_LIBDIR="$pcdir" pkg-config --cflags --libs pelm 2>"$work/pkg-config.txt") ||
  fail "pkg-config pelm needs files the packages do not bring: $(cat "$work/pkg-config.txt")"
# shellcheck disable=SC2086  # pkg-config's flags are separate words
g++ -o "$work/minimal_host_pc" "$example/main.cpp" $flags || fail "minimal_host did not build with pkg-config"
# With no arguments it loads libpelm.so.2 from /usr and answers with its usage line.
status=0
"$work/minimal_host_pc" >/dev/null 2>"$work/usage.txt" || status=$?
if [ "$status" -ne 2 ] || ! grep -q "^usage: minimal_host" "$work/usage.txt"; then
  fail "the pkg-config build of minimal_host does not run: $(cat "$work/usage.txt")"
fi
echo "minimal_host built from $example with find_package and with pkg-config"

# Run to the first content, then Ctrl-C: the visit in progress is uploaded at stop. (The whole walk, to the
# exit content, is the examples' test; here it would only add its 45 s.)
mkdir -p "$work/home"
(cd "$work" && HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" exec timeout 120 \
   "$work/cmake/minimal_host" localhost:8443 demo-token "$ca" "$example/entrance.json" >"$work/host.log" 2>&1) &
host=$!
first=""
for _ in $(seq 1200); do
  if grep -q "^content" "$work/host.log"; then first=$(ms_since "$started"); break; fi
  kill -0 "$host" 2>/dev/null || break
  sleep 0.05
done
[ -n "$first" ] || { cat "$work/host.log"; fail "minimal_host got no content from the installed server"; }
kill -INT "$host"
ended=0
wait "$host" || ended=$?
sed 's/^/  /' "$work/host.log"
[ "$ended" = 0 ] || fail "minimal_host ended with $ended after Ctrl-C"
grep -q "visit uploaded at stop" "$work/host.log" || fail "minimal_host did not upload its visit at stop"
echo "from apt-get install to minimal_host's first content: $first ms"
sessions=$($sudo runuser -u pelm -- pelm-server sessions --db "$state/pelm-server.db")
grep -q '"session_logs"' <<<"$sessions" || fail "the server stored no visit: $sessions"
echo "the server stored the visit in $state/pelm-server.db"

if [ -n "$server" ]; then $sudo kill "$server"; wait "$server" 2>/dev/null || true; server=""; fi

# The Python package, with Debian's own interpreter (another python3 may come first on PATH): it imports, and
# its kiosk example gets the first content from its embedded server and uploads the visit at Ctrl-C.
(cd "$work" && HOME="$work/home" /usr/bin/python3 -c "import pelm; assert pelm.__file__.startswith('/usr/lib/python3/dist-packages/'), pelm.__file__") ||
  fail "python3 -c 'import pelm' failed after installing python3-pelm"
kiosk=/usr/share/doc/python3-pelm/examples/kiosk.py
(cd "$work" && HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" \
   "$root/tests/python/kiosk_ctrl_c.sh" /usr/bin/python3 "$kiosk") \
  >"$work/kiosk.log" 2>&1 || { cat "$work/kiosk.log"; fail "the installed kiosk example did not run to a content and a visit"; }
echo "python3-pelm: imports, and its kiosk example shows content and uploads the visit at Ctrl-C"

# Removal: nothing of the packages is left but the server's data.
for package in "${packages[@]}"; do dpkg -L "$package"; done | sort -u >"$work/files.txt"
$sudo apt-get remove -y -qq "${packages[@]}" >"$work/apt.log" 2>&1 || { cat "$work/apt.log"; fail "apt-get remove failed"; }
left=()
while IFS= read -r path; do
  if [ -L "$path" ] || [ -f "$path" ]; then left+=("$path")
  elif [ -d "$path" ] && [[ $path == *pelm* ]]; then left+=("$path/")
  fi
done <"$work/files.txt"
[ -e /etc/systemd/system/multi-user.target.wants/pelm-server.service ] && left+=("the service's enable link")
[ ${#left[@]} -eq 0 ] || fail "removed, but left behind: ${left[*]}"
[ -s "$state/pelm-server.db" ] || fail "removing pelm-server took its data ($state) with it"
echo "removed: nothing left but $state"
