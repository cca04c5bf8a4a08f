#!/usr/bin/env bash
# A tour of the ovl file commands: drives the ovl program over real files through the
# platform's stores, checks every result, and cleans up.
#
#   scripts/file-commands-tour.sh [BUILD_DIR]      (default build/release)
#
# Builds a small tree in a temporary folder from the repository's own files with
# `ovl mkdir` and `ovl cp`, lists it, shows a file's attributes, reads files back and
# compares them byte for byte, copies a larger file through a throttled store (standing
# in for a remote one), moves a folder, removes the tree, and shows that a failure is
# one line with exit status 1. Exits non-zero as soon as anything goes wrong.
set -euo pipefail

BUILD_DIR=${1:-build/release}
REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
case "$BUILD_DIR" in /*) ;; *) BUILD_DIR="$REPO/$BUILD_DIR" ;; esac
OVL="$BUILD_DIR/tools/ovl"
if [ ! -x "$OVL" ]; then
  echo "demo: $OVL is missing; build it first (make build)" >&2
  exit 1
fi

WORK=$(mktemp -d "${TMPDIR:-/tmp}/ovl-demo.XXXXXX")
CURRENT="start"
cleanup() { rm -rf "$WORK"; }
trap cleanup EXIT
trap 'echo "demo: FAILED during: $CURRENT" >&2' ERR

step() {
  CURRENT="$*"
  echo
  echo "== $*"
}
# Prints the command, then runs it.
run() {
  echo "\$ ovl $*"
  "$OVL" "$@"
}
same() {
  if ! cmp -s "$1" "$2"; then
    echo "demo: $1 and $2 differ" >&2
    exit 1
  fi
  echo "   (identical to $(basename "$1"): $(wc -c <"$1") bytes)"
}

TREE="$WORK/tree"

step "Make a small tree from the repository's own files (local paths and file IRIs)"
run mkdir "$TREE"
run mkdir -p "file://$TREE/docs/build"
run cp "$REPO/Makefile" "$TREE/docs"
run cp "$REPO/CMakeLists.txt" "file://$TREE/docs/build/CMakeLists.txt"
run cp "$REPO/scripts/setup.sh" "$TREE/setup.sh"

step "List it"
run ls "$TREE"
run ls -lR "file://$TREE"

step "Attributes of one file"
run stat "$TREE/docs/Makefile"

step "Read a file back with cat and compare it with the original"
echo "\$ ovl cat $TREE/docs/Makefile > Makefile.cat"
"$OVL" cat "$TREE/docs/Makefile" >"$WORK/Makefile.cat"
head -n 3 "$WORK/Makefile.cat" | sed 's/^/   | /'
same "$REPO/Makefile" "$WORK/Makefile.cat"

step "Copy a binary (the ovl program itself) through a throttled store: 2 ms per call, 50 MB/s"
start=$(date +%s.%N)
run --throttle-ms 2 --throttle-mbps 50 cp --progress "$OVL" "$TREE/ovl.bin"
end=$(date +%s.%N)
same "$OVL" "$TREE/ovl.bin"
awk -v s="$start" -v e="$end" -v b="$(wc -c <"$OVL")" \
  'BEGIN { t = e - s; printf "   %.2f s for %.1f MB: %.1f MB/s (each chunk is read, then written, at 50 MB/s: at most 25)\n", t, b / 1e6, b / 1e6 / t }'
echo "\$ ovl --throttle-ms 2 cat file://$TREE/ovl.bin > ovl.cat"
"$OVL" --throttle-ms 2 cat "file://$TREE/ovl.bin" >"$WORK/ovl.cat"
same "$OVL" "$WORK/ovl.cat"

step "Move a folder"
run mv "$TREE/docs" "$TREE/moved"
run ls -R "$TREE"
same "$REPO/CMakeLists.txt" "$TREE/moved/build/CMakeLists.txt"

step "A failure is one line on stderr and exit status 1"
echo "\$ ovl cat $TREE/docs/Makefile"
status=0
"$OVL" cat "$TREE/docs/Makefile" 2>"$WORK/err" || status=$?
sed 's/^/   stderr: /' "$WORK/err"
if [ "$status" -ne 1 ] || ! grep -q "^ovl cat: $TREE/docs/Makefile: does not exist" "$WORK/err"; then
  echo "demo: expected exit status 1 and a 'does not exist' line, got status $status" >&2
  exit 1
fi
echo "\$ ovl frobnicate"
status=0
"$OVL" frobnicate 2>/dev/null || status=$?
if [ "$status" -ne 2 ]; then
  echo "demo: expected exit status 2 for an unknown command, got $status" >&2
  exit 1
fi
echo "   exit status 2 (bad usage)"

step "Remove the tree"
run rm -r "$TREE/moved"
run rm "$TREE/setup.sh"
run rm -r "$TREE"
if [ -e "$TREE" ]; then
  echo "demo: $TREE still exists" >&2
  exit 1
fi

CURRENT="done"
echo
echo "demo: all steps passed (mkdir, cp, ls, stat, cat, throttled cp, mv, rm, errors)"
