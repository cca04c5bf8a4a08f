# Shared by the mount's tests: a scratch folder removed on exit (after unmounting what
# the test mounted there), mounting and unmounting with ovl, and waiting on a condition.
# Each test script sources it with the ovl program as its first argument.
set -euo pipefail

OVL="$1"
[ -x "$OVL" ] || { echo "usage: $0 OVL_PROGRAM" >&2; exit 2; }
if [ ! -e /dev/fuse ]; then
  echo "SKIP: /dev/fuse is missing on this machine, so nothing can be mounted"
  exit 77
fi

SCRATCH="$(mktemp -d "${TMPDIR:-/tmp}/ovl-mount-test.XXXXXX")"
MOUNTED=()
cleanup() {
  local status=$?
  for mp in "${MOUNTED[@]}"; do
    if mountpoint -q "$mp" 2>/dev/null; then
      "$OVL" umount "$mp" >/dev/null 2>&1 || umount -l "$mp" 2>/dev/null || true
    fi
  done
  chattr -R -i "$SCRATCH" 2>/dev/null || true
  rm -rf "$SCRATCH"
  exit $status
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# mount_store STORE MOUNTPOINT [ovl flags...]: mounts in the background.
mount_store() {
  local store="$1" mp="$2"
  shift 2
  mkdir -p "$mp"
  "$OVL" "$@" mount "$store" "$mp" >/dev/null || fail "ovl mount $store $mp failed"
  MOUNTED+=("$mp")
  mountpoint -q "$mp" || fail "$mp is not a mount point after ovl mount"
}

# umount_store MOUNTPOINT: ovl umount, which must say that everything reached the store.
umount_store() {
  local out
  out="$("$OVL" umount "$1" 2>&1)" || fail "ovl umount $1 failed: $out"
  case "$out" in *"everything reached the store"*) ;; *) fail "ovl umount $1 said: $out" ;; esac
  ! mountpoint -q "$1" || fail "$1 is still mounted after ovl umount"
}

# The process serving the mount at MOUNTPOINT, from ovl status --json.
mount_pid() {
  "$OVL" status --json "$1" | sed -n 's/.*"pid": "\([0-9]*\)".*/\1/p'
}

# wait_for SECONDS DESCRIPTION COMMAND...: runs COMMAND until it succeeds; fails the test
# with DESCRIPTION when it has not within SECONDS (a bound for a hang, not a timing).
wait_for() {
  local limit="$1" what="$2"
  shift 2
  local deadline=$((SECONDS + limit))
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $deadline ] || fail "$what (waited $limit s)"
    sleep 0.1
  done
}

# A checksum line per file below FOLDER, by relative path.
tree_sums() {
  (cd "$1" && find . -type f -print0 | LC_ALL=C sort -z | xargs -0 -r sha256sum)
}
