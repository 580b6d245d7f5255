#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with. Quiet when everything is there;
# asks the package index for news only when something is missing.
#   --browser   also Chromium (and a font for it), which the test of the visit report loads the page in
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev libsimdjson-dev
  nlohmann-json3-dev libcurl4-openssl-dev libssl-dev libsqlite3-dev
  libboost-dev libpq-dev postgresql
  libsdbus-c++-dev libsystemd-dev dbus-daemon libglib2.0-dev doxygen
  tzdata openssl systemd
  pybind11-dev python3-dev python3-venv python3-pytest python3-numpy python3-pandas python3-matplotlib
)
if [ "${1:-}" = --browser ]; then
  packages+=(chromium fonts-dejavu-core)
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
# The tests start PostgreSQL servers of their own; the package's default cluster would only sit there.
if [[ " ${missing[*]} " == *" postgresql "* ]]; then
  $sudo mkdir -p /etc/postgresql-common/createcluster.d
  echo "create_main_cluster = false" | $sudo tee /etc/postgresql-common/createcluster.d/pelm-tests.conf >/dev/null
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
