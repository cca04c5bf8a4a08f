#!/usr/bin/env bash
# What the mount promises about the store: ovl umount and SIGTERM drain everything into it;
# a change the store refuses makes the file's next fsync and close fail with EIO and the
# unmount report it; two mounts of one store see each other's changes; a file replaced
# in the store behind the mount's back is read anew.
# Usage: drain_test.sh OVL_PROGRAM
source "$(dirname "$0")/mount_lib.sh"

# make_tree FOLDER: 200 files of 4 KiB in 4 folders and one of 3 MiB.
make_tree() {
  mkdir -p "$1"
  for d in 1 2 3 4; do
    mkdir -p "$1/d$d"
    for i in $(seq 1 50); do head -c 4096 /dev/urandom >"$1/d$d/f$i"; done
  done
  head -c 3145728 /dev/urandom >"$1/large"
}
make_tree "$SCRATCH/tree"
same_as_tree() { diff <(tree_sums "$SCRATCH/tree") <(tree_sums "$1") >/dev/null; }

echo "== ovl umount drains the queue into the store"
mkdir -p "$SCRATCH/s1"
mount_store "$SCRATCH/s1" "$SCRATCH/m1" --throttle-ms 20
cp -a "$SCRATCH/tree/." "$SCRATCH/m1/"
echo "   queued when ovl umount began: $("$OVL" status --json "$SCRATCH/m1" | sed -n 's/.*"queued": "\([0-9]*\)".*/\1/p')"
umount_store "$SCRATCH/m1"
same_as_tree "$SCRATCH/s1" || fail "the store lacks what was written before ovl umount"

echo "== SIGTERM drains the queue into the store"
mkdir -p "$SCRATCH/s2"
mount_store "$SCRATCH/s2" "$SCRATCH/m2" --throttle-ms 20
cp -a "$SCRATCH/tree/." "$SCRATCH/m2/"
pid="$(mount_pid "$SCRATCH/m2")"
[ -n "$pid" ] || fail "ovl status gave no process for the mount"
kill -TERM "$pid"
wait_for 300 "the mount process did not end after SIGTERM" bash -c "! kill -0 $pid"
! mountpoint -q "$SCRATCH/m2" || fail "still mounted after SIGTERM"
same_as_tree "$SCRATCH/s2" || fail "the store lacks what was written before SIGTERM"

echo "== a change the store refuses fails the next fsync and close with EIO"
mkdir -p "$SCRATCH/s3/locked"
if ! chattr +i "$SCRATCH/s3/locked" 2>/dev/null; then
  echo "   (skipped: this file system cannot make a folder immutable with chattr)"
else
  chattr -i "$SCRATCH/s3/locked"
  mount_store "$SCRATCH/s3" "$SCRATCH/m3"
  ls "$SCRATCH/m3/locked" >/dev/null
  chattr +i "$SCRATCH/s3/locked"
  out="$(dd if=/dev/zero of="$SCRATCH/m3/locked/f" bs=4096 count=1 conv=fsync 2>&1)" &&
    fail "fsync of a file the store refused succeeded: $out"
  case "$out" in *"Input/output error"*) ;; *) fail "fsync failed otherwise than with EIO: $out" ;; esac
  echo refused >"$SCRATCH/m3/locked/g" || fail "a write the overlay could keep failed at once"
  failures() { "$OVL" status --json "$SCRATCH/m3" | tr -d '\n' | sed -n 's/.*"failures": {[^}]*"count": "\([0-9]*\)".*/\1/p'; }
  wait_for 120 "the refused change of locked/g was not reported" bash -c "[ \"\$($(declare -f failures); OVL='$OVL' SCRATCH='$SCRATCH' failures)\" -ge 2 ]"
  echo x >"$SCRATCH/x"
  out="$(cp "$SCRATCH/x" "$SCRATCH/m3/locked/g" 2>&1)" &&
    fail "close after a refused change succeeded: $out"
  case "$out" in *"Input/output error"*) ;; *) fail "close failed otherwise than with EIO: $out" ;; esac
  chattr -i "$SCRATCH/s3/locked"
  out="$("$OVL" umount "$SCRATCH/m3" 2>&1)" && fail "ovl umount said nothing of the refused changes: $out"
  case "$out" in *"did not reach the store"*"/locked/g"*) ;; *) fail "ovl umount reported: $out" ;; esac
fi

echo "== two mounts of one store see each other's changes"
mkdir -p "$SCRATCH/s4"
mount_store "$SCRATCH/s4" "$SCRATCH/a"
mount_store "$SCRATCH/s4" "$SCRATCH/b"
ls "$SCRATCH/b" >/dev/null
echo one >"$SCRATCH/a/shared.txt"
wait_for 60 "b did not see the file a made" grep -qx one "$SCRATCH/b/shared.txt"
echo two >"$SCRATCH/b/shared.txt"
wait_for 60 "a did not see the change b made" grep -qx two "$SCRATCH/a/shared.txt"
rm "$SCRATCH/a/shared.txt"
wait_for 60 "b still shows the file a removed" test ! -e "$SCRATCH/b/shared.txt"
umount_store "$SCRATCH/a"
umount_store "$SCRATCH/b"

echo "== a file replaced in the store with the same size and time is read anew"
# Size and time stay, so only the store's change event can tell the kernel that the
# pages it keeps for the file are stale.
mkdir -p "$SCRATCH/s5"
printf 'aaaa\n' >"$SCRATCH/s5/f.txt"
mount_store "$SCRATCH/s5" "$SCRATCH/c"
[ "$(cat "$SCRATCH/c/f.txt")" = aaaa ] || fail "the mount does not show f.txt as the store has it"
printf 'bbbb\n' >"$SCRATCH/s5/f.new"
touch -r "$SCRATCH/s5/f.txt" "$SCRATCH/s5/f.new"
mv "$SCRATCH/s5/f.new" "$SCRATCH/s5/f.txt"
wait_for 60 "the mount still shows the old content of f.txt" grep -qx bbbb "$SCRATCH/c/f.txt"
umount_store "$SCRATCH/c"
echo "PASS"
