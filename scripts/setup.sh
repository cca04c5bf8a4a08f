#!/usr/bin/env bash
# Installs the Debian packages the project needs: to build the program and the overlay
# (no argument), or also to test and benchmark it (--test).
# Idempotent and quiet: packages already present are skipped, and the package
# index is refreshed only when something is actually missing.
set -euo pipefail

PACKAGES=(
  build-essential cmake make pkg-config
  libboost-dev libboost-log-dev libboost-thread-dev libboost-filesystem-dev
  libboost-iostreams-dev libboost-date-time-dev
  libcrypto++-dev libicu-dev
  libfuse3-dev fuse3
  # The S3 store talks HTTP and signs its requests through libcurl.
  libcurl4-openssl-dev
)
if [ "${1:-}" = "--test" ]; then
  # The mount's tests run real programs through it (git, rsync; fio for its benchmark).
  PACKAGES+=(libgtest-dev libgmock-dev libbenchmark-dev clang git rsync fio)
  # The S3 store's tests, demo and benchmarks run a throw-away Ceph cluster with its S3
  # gateway (scripts/ceph-s3.sh, which also needs curl) and use the aws command line.
  PACKAGES+=(ceph-mon ceph-osd radosgw ceph-common curl awscli)
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
