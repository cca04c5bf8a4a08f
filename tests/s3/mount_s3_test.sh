#!/usr/bin/env bash
# ovl mount over a folder of the test run's S3 bucket: real programs work in it as in a
# local folder, and after ovl umount the bucket holds exactly the tree, read back
# through a second mount of the same folder.
# Usage: mount_s3_test.sh OVL_PROGRAM SOURCE_TREE (needs OVL_S3_ENV, see s3_test_support.hpp)
source "$(dirname "$0")/../mount/mount_lib.sh"
SOURCE="$2"
[ -f "${OVL_S3_ENV:-}" ] || { echo "SKIP: no gateway was started (OVL_S3_ENV: ${OVL_S3_ENV:-unset})"; exit 77; }
set -a
. "$OVL_S3_ENV"
set +a
STORE="s3://$OVL_S3_BUCKET/mount-$$"
"$OVL" mkdir "$STORE" >/dev/null || fail "ovl mkdir $STORE failed"

mp="$SCRATCH/mnt"
mount_store "$STORE/" "$mp" --set s3.poll_interval_ms=1000
cp -a "$SOURCE" "$mp/tree"
cp -a "$SOURCE" "$SCRATCH/tree"
diff -r "$SCRATCH/tree" "$mp/tree" || fail "the copy in the mount differs from the source"
# Renames, removals and an edit in place, the same in both.
for root in "$mp" "$SCRATCH"; do
  mv "$root/tree" "$root/renamed"
  first=$(cd "$root/renamed" && find . -mindepth 1 -maxdepth 1 -type d | LC_ALL=C sort | head -1)
  rm -rf "${root:?}/renamed/$first"
  printf 'appended\n' >>"$root/renamed/$(cd "$root/renamed" && find . -type f | LC_ALL=C sort | head -1)"
done
[ "$(tree_sums "$mp/renamed")" = "$(tree_sums "$SCRATCH/renamed")" ] || fail "the trees differ after the changes"
umount_store "$mp"

# An object another client stored with user metadata.
printf 'tagged\n' >"$SCRATCH/tagged.txt"
bash "$(dirname "$0")/../../scripts/ceph-s3.sh" aws "$(dirname "$OVL_S3_ENV")" s3 cp --only-show-errors \
  --metadata color=blue "$SCRATCH/tagged.txt" "s3://$OVL_S3_BUCKET/mount-$$/tagged.txt" ||
  fail "the aws command line could not store an object with metadata"

# A second mount of the same folder starts from what the bucket holds.
mount_store "$STORE/" "$mp"
[ "$(tree_sums "$mp/renamed")" = "$(tree_sums "$SCRATCH/renamed")" ] || fail "the bucket does not hold the tree"
[ ! -e "$mp/tree" ] || fail "the folder renamed away is still in the bucket"
# The object's user metadata reads as its extended attributes (beside the store's
# WATERMARK, its ETag).
xattrs=$(python3 -c 'import os, sys
names = [n for n in sorted(os.listxattr(sys.argv[1])) if n != "user.WATERMARK"]
print(" ".join(names), os.getxattr(sys.argv[1], "user.color").decode())' "$mp/tagged.txt") ||
  fail "the extended attributes of tagged.txt could not be read through the mount"
[ "$xattrs" = "user.color blue" ] || fail "tagged.txt shows the extended attributes '$xattrs', not 'user.color blue'"
python3 -c 'import os, sys
try:
    os.getxattr(sys.argv[1], "user.size")
except OSError as e:
    sys.exit(0 if e.errno == 61 else 1)
sys.exit(1)' "$mp/tagged.txt" || fail "a missing extended attribute does not give ENODATA"
umount_store "$mp"
"$OVL" rm -r "$STORE" >/dev/null
echo "mount over S3: the bucket holds exactly the tree"
