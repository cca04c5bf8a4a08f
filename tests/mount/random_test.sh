#!/usr/bin/env bash
# Random file operations (writes at random offsets, truncates, reads, close and reopen,
# renames, reads through mmap) on a file in the mount and on one in a local folder,
# compared after every step. The seed is printed; RANDOM_FILE_OPS_SEED=N replays a run.
# Usage: random_test.sh OVL_PROGRAM RANDOM_FILE_OPS_PROGRAM
source "$(dirname "$0")/mount_lib.sh"
CHECKER="$2"
[ -x "$CHECKER" ] || fail "no random_file_ops program at $CHECKER"

mkdir -p "$SCRATCH/store" "$SCRATCH/local"
mount_store "$SCRATCH/store" "$SCRATCH/mnt" --throttle-ms 1
seed_flag=()
[ -n "${RANDOM_FILE_OPS_SEED:-}" ] && seed_flag=(--seed "$RANDOM_FILE_OPS_SEED")
for round in 1 2; do
  "$CHECKER" "${seed_flag[@]}" --steps 2500 "$SCRATCH/local" "$SCRATCH/mnt" || fail "round $round: the mount differs"
done
umount_store "$SCRATCH/mnt"
echo "PASS"
