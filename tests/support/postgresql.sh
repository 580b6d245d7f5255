#!/usr/bin/env bash
# A throwaway PostgreSQL server for the tests, in a folder of its own on a free loopback port.
#   postgresql.sh start FOLDER   makes the cluster, starts it, writes FOLDER/url (the maintenance database)
#   postgresql.sh stop FOLDER    stops it and removes the cluster and the folder
# PostgreSQL refuses to run as root, so as root the cluster belongs to the postgres user (or nobody), and lives
# under /tmp, where that user can reach it whatever the permissions of the build folder.
set -euo pipefail
action=${1:?start or stop}
folder=${2:?a folder}

bindir=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1 || true)
if [ -z "$bindir" ] || [ ! -x "$bindir/initdb" ]; then
  echo "postgresql.sh: PostgreSQL is not installed (Debian: apt-get install postgresql)" >&2
  exit 1
fi

as_owner() {
  if [ "$(id -u)" = 0 ]; then
    local user=postgres
    id "$user" >/dev/null 2>&1 || user=nobody
    runuser -u "$user" -- "$@"
  else
    "$@"
  fi
}

case "$action" in
  start)
    "$0" stop "$folder"
    mkdir -p "$folder"
    cluster=$(mktemp -d /tmp/pelm-postgresql.XXXXXX)
    echo "$cluster" >"$folder/cluster"
    if [ "$(id -u)" = 0 ]; then
      if id postgres >/dev/null 2>&1; then chown postgres "$cluster"; else chown nobody "$cluster"; fi
    fi
    as_owner "$bindir/initdb" -D "$cluster/data" -U pelm --auth=trust --encoding=UTF8 --locale=C.UTF-8 \
      >"$folder/initdb.log" 2>&1 || { cat "$folder/initdb.log" >&2; exit 1; }
    # Reached by its socket in the cluster's folder only: no port to find free, none to collide on.
    # The tests' data is thrown away at the end: nothing needs to survive a crash, so nothing waits on a disk.
    as_owner "$bindir/pg_ctl" -D "$cluster/data" -l "$cluster/server.log" -w -t 60 start \
      -o "-k $cluster -c listen_addresses='' -c fsync=off -c synchronous_commit=off -c full_page_writes=off -c max_connections=300" \
      >/dev/null || { cat "$cluster/server.log" >&2; exit 1; }
    echo "postgresql:///postgres?host=$cluster&user=pelm" >"$folder/url"
    echo "PostgreSQL $("$bindir/postgres" --version | awk '{print $3}') at $cluster"
    ;;
  stop)
    if [ -f "$folder/cluster" ]; then
      cluster=$(cat "$folder/cluster")
      if [ -d "$cluster/data" ]; then
        as_owner "$bindir/pg_ctl" -D "$cluster/data" -m immediate -w stop >/dev/null 2>&1 || true
      fi
      rm -rf "$cluster"
    fi
    rm -rf "$folder"
    ;;
  *)
    echo "postgresql.sh: start or stop, not $action" >&2
    exit 2
    ;;
esac
