#!/usr/bin/env bash
# Measures the overlay over a big tree of empty files on the local disk: FOLDERS folders
# of FILES empty files each (OVL_SCALE_FOLDERS, OVL_SCALE_FILES; 1000 x 1000 = 1,000,000
# files by default), made in a scratch folder under ${TMPDIR:-/tmp}. No throttle: the
# figures are the overlay's own cost of a big store.
#   1. First answer: the time from starting 'ovl mount' of the tree until an 'ls' of the
#      folder in the middle of the tree (d<FOLDERS/2>) inside the mount returns, and the
#      time of the whole command 'ovl --overlay-root TREE ls TREE/d<FOLDERS/2>' (the
#      overlay laid over the tree, started afresh). Both must list FILES entries at their
#      first answer (the script fails otherwise); goal: each within 1 s. The local
#      figures beside them are the same 'ls' and 'ovl ls' on the tree without overlay.
#   2. 'find | wc -l' over the local tree and over the mount. Each side runs find four
#      times, one after the other: the first run (through the mount it lets the mount
#      populate) is shown on its own, the best of the three later runs is the one
#      compared; goal: the mount's best at most 2x the local best. Every run must count
#      FOLDERS*(FILES+1)+1 entries (the script fails otherwise). The local runs come
#      before the mount, so that nothing the mount does in the background slows them.
# No cache is dropped between runs: the tree was just made, so the kernel holds its
# folders and inodes for both sides alike; every overlay starts with an empty cache in
# the scratch folder.
# Usage: bench/mount_scale_bench.sh [--json] OVL_PROGRAM
#   prints a table, or with --json one JSON document. Exit status 0 when it ran (goals
#   met or not), 1 when something failed, 2 on bad usage, 77 when /dev/fuse is missing.
#   The mount is unmounted and the scratch folder removed at the end, also on failure,
#   Ctrl-C or SIGTERM.
set -euo pipefail
shopt -s inherit_errexit   # a failure inside $(...) ends that step, not only its subshell

usage() {
  cat <<EOF
usage: $0 [--json] OVL_PROGRAM

Measures ovl over a tree of FOLDERS x FILES empty files on the local disk, made in a
scratch folder under \${TMPDIR:-/tmp} and removed at the end:
  1. first answer: from starting 'ovl mount' of the tree until 'ls' of the middle folder
     inside the mount returns, and the whole 'ovl --overlay-root TREE ls' of that
     folder; goal: each within 1 s
  2. 'find | wc -l' over the local tree and over the mount, four runs each (the first
     shown, the best of the other three compared); goal: the mount at most 2x local
Each listing and count is checked; a wrong one fails the script.

Options:
  --json      print one JSON document instead of the table (no progress lines)
  -h, --help  show this help

Environment:
  OVL_SCALE_FOLDERS  folders in the tree (default 1000)
  OVL_SCALE_FILES    empty files in each folder (default 1000)
  OVL_SCALE_MAKER    what makes the tree: python3, perl or shell (mkdir + xargs touch);
                     default the first of them that is installed
  TMPDIR             where the scratch folder goes (default /tmp)

Exit status: 0 when it ran (goals met or not), 1 when something failed, 2 on bad usage,
77 when /dev/fuse is missing.
EOF
}

JSON=0 OVL=""
for arg in "$@"; do
  case "$arg" in
    --json) JSON=1 ;;
    -h | --help) usage; exit 0 ;;
    -*) echo "$0: unknown option '$arg'" >&2; usage >&2; exit 2 ;;
    *)
      [ -z "$OVL" ] || { echo "$0: more than one OVL_PROGRAM ('$OVL', '$arg')" >&2; exit 2; }
      OVL="$arg"
      ;;
  esac
done
if [ -z "$OVL" ]; then echo "usage: $0 [--json] OVL_PROGRAM (see --help)" >&2; exit 2; fi
[ -x "$OVL" ] || { echo "$0: $OVL: not an executable file" >&2; exit 2; }

FOLDERS="${OVL_SCALE_FOLDERS:-1000}"
FILES="${OVL_SCALE_FILES:-1000}"
[[ "$FOLDERS" =~ ^[1-9][0-9]{0,8}$ ]] || { echo "$0: OVL_SCALE_FOLDERS='$FOLDERS' is not a positive whole number" >&2; exit 2; }
[[ "$FILES" =~ ^[1-9][0-9]{0,8}$ ]] || { echo "$0: OVL_SCALE_FILES='$FILES' is not a positive whole number" >&2; exit 2; }
EXPECTED=$((FOLDERS * (FILES + 1) + 1))   # every file, every folder, and the tree itself
MID=$((FOLDERS / 2 > 0 ? FOLDERS / 2 : 1))

MAKER="${OVL_SCALE_MAKER:-}"
if [ -z "$MAKER" ]; then
  if command -v python3 >/dev/null && python3 -c '' 2>/dev/null; then MAKER=python3
  elif command -v perl >/dev/null && perl -e '' 2>/dev/null; then MAKER=perl
  else MAKER=shell; fi
fi
case "$MAKER" in
  python3 | perl) command -v "$MAKER" >/dev/null || { echo "$0: OVL_SCALE_MAKER=$MAKER, but $MAKER is not installed" >&2; exit 2; } ;;
  shell) ;;
  *) echo "$0: OVL_SCALE_MAKER='$MAKER' is none of python3, perl, shell" >&2; exit 2 ;;
esac

[ -e /dev/fuse ] || { echo "SKIP: /dev/fuse is missing, so nothing can be mounted"; exit 77; }

SCRATCH="$(mktemp -d "${TMPDIR:-/tmp}/ovl-mount-scale-bench.XXXXXX")" ||
  { echo "FAIL: cannot make a scratch folder under ${TMPDIR:-/tmp} (mktemp, above)" >&2; exit 1; }
TREE="$SCRATCH/tree"
MP="$SCRATCH/mnt"
MOUNTED=()
# Unmount what this script mounted (draining it, or lazily if that fails or hangs), then
# remove the scratch folder, which also holds the tree and the overlay caches. The
# removal stays on the scratch folder's file system, so that it never reaches into a
# mount that could not be detached.
cleanup() {
  local status=$?
  trap '' INT TERM
  for mp in "${MOUNTED[@]}"; do
    if mountpoint -q "$mp" 2>/dev/null; then
      timeout 300 "$OVL" umount "$mp" >/dev/null 2>&1 || fusermount3 -u -z "$mp" 2>/dev/null || true
    fi
  done
  [ "$JSON" = 1 ] || echo "-- removing the scratch folder $SCRATCH" >&2
  rm -rf --one-file-system "$SCRATCH" ||
    echo "$0: could not remove the scratch folder $SCRATCH entirely" >&2
  exit $status
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() { echo "FAIL: $*" >&2; exit 1; }
log() { [ "$JSON" = 1 ] || echo "-- $*" >&2; }
# Seconds between two EPOCHREALTIME stamps; awk does the arithmetic bash cannot.
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.4f", b - a }'; }
calc() { awk "BEGIN { printf \"%.${2:-2}f\", $1 }"; }

# The tree needs one inode per entry; say so before making half of it.
FREE_INODES="$(df -P -i "$SCRATCH" | awk 'NR == 2 { print $4 }')"
if [[ "$FREE_INODES" =~ ^[0-9]+$ ]] && [ "$FREE_INODES" -gt 0 ] && [ "$FREE_INODES" -lt "$EXPECTED" ]; then
  fail "$SCRATCH: its file system has $FREE_INODES free inodes, the tree needs $EXPECTED"
fi

# A compiler running beside the measurements makes them slower; the check is made when
# they start, between the two sides and at their end (not while the tree is made, whose
# time is no figure).
COMPILER_RUNNING=false
check_compiler() {
  if [ "$COMPILER_RUNNING" = false ] && pgrep -x cc1plus >/dev/null; then
    COMPILER_RUNNING=true
    echo "note: a compiler (cc1plus) is running; the figures will suffer" >&2
  fi
}

# Making the tree: d1..dFOLDERS, each holding f1..fFILES, all empty. One process writes it
# all (python3 or perl); the shell fallback starts a few processes per folder. Progress
# goes to standard error every 2 s.
PROGRESS=$((1 - JSON))
log "making $FOLDERS folders of $FILES empty files ($((FOLDERS * FILES)) files) in $TREE with $MAKER"
mkdir "$TREE"
t0=$EPOCHREALTIME
case "$MAKER" in
  python3)
    python3 - "$TREE" "$FOLDERS" "$FILES" "$PROGRESS" <<'EOF' || fail "making the tree in $TREE failed (python3, above)"
import os, signal, sys, time
signal.signal(signal.SIGINT, signal.SIG_DFL)  # Ctrl-C ends it quietly; the script cleans up
root, folders, files, progress = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4] == "1"
start = last = time.monotonic()
for d in range(1, folders + 1):
    folder = "%s/d%d" % (root, d)
    os.mkdir(folder)
    for f in range(1, files + 1):
        os.close(os.open("%s/f%d" % (folder, f), os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o644))
    now = time.monotonic()
    if progress and now - last >= 2:
        print("   %d of %d folders, %.0f s" % (d, folders, now - start), file=sys.stderr, flush=True)
        last = now
EOF
    ;;
  perl)
    perl -MPOSIX -MTime::HiRes=time -e '
      my ($root, $folders, $files, $progress) = @ARGV;
      my $start = my $last = time;
      for my $d (1 .. $folders) {
        my $folder = "$root/d$d";
        mkdir $folder or die "$folder: $!\n";
        for my $f (1 .. $files) {
          sysopen(my $fh, "$folder/f$f", O_WRONLY | O_CREAT | O_EXCL, 0644) or die "$folder/f$f: $!\n";
          close $fh or die "$folder/f$f: $!\n";
        }
        my $now = time;
        if ($progress && $now - $last >= 2) {
          printf STDERR "   %d of %d folders, %.0f s\n", $d, $folders, $now - $start;
          $last = $now;
        }
      }' "$TREE" "$FOLDERS" "$FILES" "$PROGRESS" || fail "making the tree in $TREE failed (perl, above)"
    ;;
  shell)
    last=$SECONDS
    for ((d = 1; d <= FOLDERS; d++)); do
      mkdir "$TREE/d$d" || fail "making the tree: mkdir $TREE/d$d failed"
      (cd "$TREE/d$d" && seq "$FILES" | sed 's/^/f/' | xargs touch) ||
        fail "making the tree: touch in $TREE/d$d failed"
      if [ "$PROGRESS" = 1 ] && [ $((SECONDS - last)) -ge 2 ]; then
        echo "   $d of $FOLDERS folders" >&2
        last=$SECONDS
      fi
    done
    ;;
esac
t1=$EPOCHREALTIME
MAKE_S="$(elapsed "$t0" "$t1")"
log "made the tree in $(calc "$MAKE_S" 1) s"
check_compiler

# Result rows: figure, unit, local, overlay, ratio, goal, met, separated by tabs (a figure
# holds a "|"); "-" where there is none.
ROWS=()
row() { ROWS+=("$1"$'\t'"$2"$'\t'"$3"$'\t'"$4"$'\t'"$5"$'\t'"$6"$'\t'"$7"); }
ratio() { awk -v o="$1" -v l="$2" 'BEGIN { if (l > 0) printf "%.2f", o / l; else print "-" }'; }
at_most() { awk -v v="$1" -v g="$2" 'BEGIN { print (v <= g) ? "yes" : "no" }'; }

# count_entries WHAT DIR: the names 'ls -A' shows in DIR, failing when ls does. The names
# are this script's own (f1, f2, ...), one a line.
# shellcheck disable=SC2012
count_entries() {
  local n
  n="$(ls -A "$2" | wc -l)" || fail "$1: ls of $2 failed"
  echo "$n"
}
# timed_find WHAT DIR: seconds of one 'find DIR | wc -l'; fails unless it counts EXPECTED.
timed_find() {
  local n t0 t1
  t0=$EPOCHREALTIME
  n="$(find "$2" | wc -l)" || fail "$1: find $2 failed"
  t1=$EPOCHREALTIME
  [ "$n" = "$EXPECTED" ] || fail "$1: find $2 counted $n entries, not $EXPECTED"
  elapsed "$t0" "$t1"
}
# best_find WHAT DIR: the best of three timed_find runs.
best_find() {
  local best="" t i
  for i in 2 3 4; do
    t="$(timed_find "$1, run $i" "$2")" || exit 1
    best="$(awk -v a="$best" -v b="$t" 'BEGIN { print (a == "" || b < a) ? b : a }')"
  done
  echo "$best"
}

MIDDLE="d$MID"

# Local figures first, while nothing else runs.
log "local: ls and ovl ls of $MIDDLE, find | wc -l four times"
t0=$EPOCHREALTIME
n="$(count_entries "local ls" "$TREE/$MIDDLE")"
t1=$EPOCHREALTIME
[ "$n" = "$FILES" ] || fail "local ls of $TREE/$MIDDLE listed $n entries, not $FILES"
local_ls="$(elapsed "$t0" "$t1")"
t0=$EPOCHREALTIME
out="$("$OVL" ls "$TREE/$MIDDLE")" || fail "ovl ls $TREE/$MIDDLE (without overlay) failed"
t1=$EPOCHREALTIME
n="$(printf '%s\n' "$out" | grep -c .)" || true
[ "$n" = "$FILES" ] || fail "ovl ls $TREE/$MIDDLE (without overlay) listed $n entries, not $FILES"
local_ovl_ls="$(elapsed "$t0" "$t1")"
local_find1="$(timed_find "local find, run 1" "$TREE")"
local_find2="$(best_find "local find" "$TREE")"

# 1b. The whole 'ovl ls' through a fresh overlay laid over the tree (its cache in the
# scratch folder). It runs before the mount, so the mount's work does not slow it.
check_compiler
log "first answer: ovl --overlay-root TREE ls $MIDDLE"
t0=$EPOCHREALTIME
out="$("$OVL" --set "overlay.cacheRoot=$SCRATCH/ls.cache" --overlay-root "$TREE" ls "$TREE/$MIDDLE")" ||
  fail "ovl --overlay-root $TREE ls $TREE/$MIDDLE failed"
t1=$EPOCHREALTIME
n="$(printf '%s\n' "$out" | grep -c .)" || true
[ "$n" = "$FILES" ] || fail "ovl --overlay-root $TREE ls $TREE/$MIDDLE listed $n entries, not $FILES"
overlay_ls="$(elapsed "$t0" "$t1")"

# 1a. From starting the mount until the first 'ls' inside it answers; that first answer
# must already be complete.
log "first answer: ovl mount of the tree, then ls of $MIDDLE in the mount"
mkdir "$MP"
MOUNTED+=("$MP")
t0=$EPOCHREALTIME
"$OVL" --set "overlay.cacheRoot=$SCRATCH/mount.cache" mount "$TREE" "$MP" >/dev/null ||
  fail "ovl mount $TREE $MP failed"
tm=$EPOCHREALTIME
n="$(count_entries "ls in the mount" "$MP/$MIDDLE")"
t1=$EPOCHREALTIME
mountpoint -q "$MP" || fail "$MP is not a mount point after ovl mount"
[ "$n" = "$FILES" ] || fail "the first ls of $MP/$MIDDLE in the mount listed $n entries, not $FILES"
mount_returns="$(elapsed "$t0" "$tm")"
mount_first="$(elapsed "$t0" "$t1")"

# 2. find through the mount: the first run lets it populate, the best of the next three
# is compared.
log "find | wc -l through the mount, four times"
mount_find1="$(timed_find "find in the mount, run 1" "$MP")"
mount_find2="$(best_find "find in the mount" "$MP")"

log "ovl umount"
t0=$EPOCHREALTIME
out="$("$OVL" umount "$MP" 2>&1)" || fail "ovl umount $MP failed: $out"
t1=$EPOCHREALTIME
case "$out" in *"everything reached the store"*) ;; *) fail "ovl umount $MP said: $out" ;; esac
umount_s="$(elapsed "$t0" "$t1")"
check_compiler

row "first answer: ovl mount + ls of $MIDDLE (local: ls)" s "$local_ls" "$mount_first" \
  "$(ratio "$mount_first" "$local_ls")" "<= 1 s" "$(at_most "$mount_first" 1)"
row "  of which ovl mount returning" s - "$mount_returns" - - -
row "first answer: ovl --overlay-root ls $MIDDLE (local: ovl ls)" s "$local_ovl_ls" "$overlay_ls" \
  "$(ratio "$overlay_ls" "$local_ovl_ls")" "<= 1 s" "$(at_most "$overlay_ls" 1)"
row "find | wc -l, run 1" s "$local_find1" "$mount_find1" "$(ratio "$mount_find1" "$local_find1")" - -
row "find | wc -l, best of runs 2-4" s "$local_find2" "$mount_find2" "$(ratio "$mount_find2" "$local_find2")" \
  "<= 2x local" "$(awk -v m="$mount_find2" -v l="$local_find2" 'BEGIN { print (m <= 2 * l) ? "yes" : "no" }')"
row "ovl umount" s - "$umount_s" - - -

MEM_KIB="$(awk '/^MemTotal:/ { print $2 }' /proc/meminfo)"
if [ "$JSON" = 1 ]; then
  num_or_null() { [[ "$1" =~ ^[0-9.]+$ ]] && echo "$1" || echo null; }
  str_or_null() { [ "$1" = - ] && echo null || echo "\"$1\""; }
  printf '{\n  "machine": {"nproc": %s, "mem_total_kib": %s, "kernel": "%s"},\n' \
    "$(nproc)" "$MEM_KIB" "$(uname -r)"
  printf '  "tree": {"folders": %s, "files_per_folder": %s, "entries": %s, "middle_folder": "%s", "maker": "%s", "make_s": %s},\n' \
    "$FOLDERS" "$FILES" "$EXPECTED" "$MIDDLE" "$MAKER" "$MAKE_S"
  printf '  "compiler_running": %s,\n  "results": [\n' "$COMPILER_RUNNING"
  sep=""
  for r in "${ROWS[@]}"; do
    IFS=$'\t' read -r fig unit l o ratio g met <<<"$r"
    fig="${fig#"${fig%%[! ]*}"}"   # the table's indent
    printf '%s    {"figure": "%s", "unit": "%s", "local": %s, "overlay": %s, "ratio": %s, "goal": %s, "met": %s}' \
      "$sep" "$fig" "$unit" "$(num_or_null "$l")" "$(num_or_null "$o")" "$(num_or_null "$ratio")" \
      "$(str_or_null "$g")" "$(case "$met" in yes) echo true ;; no) echo false ;; *) echo null ;; esac)"
    sep=$',\n'
  done
  printf '\n  ]\n}\n'
else
  echo "machine: $(nproc) cores, $((MEM_KIB / 1024)) MiB, kernel $(uname -r); compiler running: $COMPILER_RUNNING"
  echo "tree: $FOLDERS folders x $FILES empty files = $EXPECTED entries with folders and root (made by $MAKER in $(calc "$MAKE_S" 1) s)"
  {
    printf 'figure\tunit\tlocal\toverlay\toverlay/local\tgoal\tmet\n'
    printf '%s\n' "${ROWS[@]}"
  } | column -t -s $'\t'
fi
