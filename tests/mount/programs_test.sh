#!/usr/bin/env bash
# Real programs through the mount: the same session of cp, tar, git, rsync, find, stat,
# renames and rm -rf runs in a mounted store and in a local folder; their output and the
# resulting trees must be the same, and after ovl umount the store must hold exactly the
# tree (checksums).
# Usage: programs_test.sh OVL_PROGRAM SOURCE_TREE (a folder with src/ and platform/ to copy)
source "$(dirname "$0")/mount_lib.sh"
SOURCE="$(cd "$2" && pwd)"
export SOURCE

# The session, run in the current folder.
session_body() {
  export GIT_AUTHOR_NAME=t GIT_AUTHOR_EMAIL=t@example.org GIT_COMMITTER_NAME=t GIT_COMMITTER_EMAIL=t@example.org
  export GIT_AUTHOR_DATE="2026-01-02T03:04:05Z" GIT_COMMITTER_DATE="2026-01-02T03:04:05Z"
  cp -a "$SOURCE/src" code
  cp -a "$SOURCE/platform" lib
  tar --sort=name -cf archive.tar code
  mkdir unpacked
  tar xf archive.tar -C unpacked
  tar tf archive.tar | LC_ALL=C sort
  git -c init.defaultBranch=main init -q repo
  cp -a lib/include repo/
  git -C repo add -A
  git -C repo commit -qm first
  echo "// changed" >> repo/include/fl/i18n.hpp
  git -C repo status --porcelain
  git -C repo commit -qam second
  git -C repo log --format='%H %s'
  git -C repo status --porcelain
  rsync -a code/ synced/
  echo extra > code/extra.txt
  rm code/CMakeLists.txt
  rsync -a --delete code/ synced/
  mv code code-renamed
  mv unpacked/code unpacked/moved
  mkdir -p deep/a/b/c
  mv deep/a/b deep/b-up
  rm -rf lib
  find . -path ./repo/.git -prune -o -print | LC_ALL=C sort
  find . -path ./repo/.git -prune -o -type f -print0 | LC_ALL=C sort -z | xargs -0 stat -c '%n %s %F'
}

# session FOLDER TRANSCRIPT: the session in FOLDER, in a shell of its own (so that its
# first failing command ends it), its outputs into TRANSCRIPT.
session() {
  (cd "$1" && bash -euo pipefail -c "$(declare -f session_body); session_body") >"$2" 2>&1 ||
    { cat "$2" >&2; fail "the session failed in $1"; }
}

mkdir -p "$SCRATCH/store" "$SCRATCH/local"
mount_store "$SCRATCH/store" "$SCRATCH/mnt" --throttle-ms 1

session "$SCRATCH/local" "$SCRATCH/local.out"
session "$SCRATCH/mnt" "$SCRATCH/mnt.out"
diff -u "$SCRATCH/local.out" "$SCRATCH/mnt.out" || fail "the programs printed other things in the mount"
# Two files differ by design: git's index holds the inode numbers of the files it saw,
# and git's config records that the mount keeps no executable bits and no symbolic links.
diff -r --exclude=index --exclude=config "$SCRATCH/local" "$SCRATCH/mnt" || fail "the trees differ"

# What the mount cannot hold is refused plainly.
for refused in "ln -s code-renamed $SCRATCH/mnt/link" "ln $SCRATCH/mnt/archive.tar $SCRATCH/mnt/hard" "mkfifo $SCRATCH/mnt/fifo"; do
  out="$($refused 2>&1)" && fail "'$refused' worked in the mount"
  case "$out" in *"Operation not permitted"*) ;; *) fail "'$refused' failed otherwise than with EPERM: $out" ;; esac
done

# A file removed while open stays readable through the open descriptor, as on a local disk.
echo kept >"$SCRATCH/mnt/open-removed"
exec 3<"$SCRATCH/mnt/open-removed"
rm "$SCRATCH/mnt/open-removed"
[ ! -e "$SCRATCH/mnt/open-removed" ] || fail "a removed open file is still there by its name"
[ "$(cat <&3)" = kept ] || fail "a removed open file could not be read through its descriptor"
exec 3<&-

umount_store "$SCRATCH/mnt"
diff <(tree_sums "$SCRATCH/local" | grep -v -e ' ./repo/.git/index$' -e ' ./repo/.git/config$') \
     <(tree_sums "$SCRATCH/store" | grep -v -e ' ./repo/.git/index$' -e ' ./repo/.git/config$') ||
  fail "the store does not hold the tree"
echo "PASS: $(wc -l <"$SCRATCH/local.out") lines of program output and $(tree_sums "$SCRATCH/store" | wc -l) files alike"
