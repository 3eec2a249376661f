#!/usr/bin/env bash
# Installs every package the build, the tests and the benchmarks need, from Debian's archive.
# Quick when everything is already present: apt is only touched when a package is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  googletest libgtest-dev libgmock-dev
  libssh2-1-dev libxml2-dev libxslt1-dev libssl-dev libidn11-dev
  libboost-dev libboost-filesystem-dev liblog4cpp5-dev zlib1g-dev libcrypt-dev
  openssh-server openssh-client sudo perl passwd util-linux procps iproute2 psmisc
  libxml2-utils groff-base clang-format mandoc man-db
  dpkg-dev lintian
  clang-14 libclang-rt-14-dev valgrind
  rsync sshpass bc tar gzip
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "install-deps: missing packages (${missing[*]}); run as root to install them" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
