#!/usr/bin/env bash
# Measures an ovl mount against a local folder on the same disk, each figure in one run:
#   1. creating 1,000 files of 4 KiB (one bash loop, builtin redirects, no process per
#      file) in a mount whose store sits behind --throttle-ms 20 --throttle-mbps 50;
#      goal: at most 3x the local time. Then how long 'ovl umount' takes to drain them,
#      and a check that the store holds 1,000 files of the right checksum (the script
#      fails otherwise).
#   2. re-reading a cached 256 MiB file (same throttled store), MB/s; goal: at least
#      2000 MB/s. A third read is shown to tell whether the kernel keeps its page cache.
#   3. find + stat over 10,000 cached files in 100 folders (same throttled store);
#      goal: at most 2x the local time.
#   4. with fio installed: sequential write and read of 1 GiB and random 4 KiB reads of
#      it, in a mount without throttle (the mount's own cost); no goal.
# Before 2, 3 and the fio reads the mount's queue is let drain, so the figures measure
# reads from the cache, not reads competing with the transfers to the store.
# Usage: bench/mount_bench.sh [--json] OVL_PROGRAM
#   prints a table, or with --json one JSON document. Exit status 0 when it ran (goals
#   met or not), 1 when something failed, 77 when /dev/fuse is missing.
set -euo pipefail

JSON=0 OVL=""
for arg in "$@"; do if [ "$arg" = --json ]; then JSON=1; else OVL="$arg"; fi; done
if [ -z "$OVL" ] || [ ! -x "$OVL" ]; then echo "usage: $0 [--json] OVL_PROGRAM" >&2; exit 2; fi
[ -e /dev/fuse ] || { echo "SKIP: /dev/fuse is missing, so nothing can be mounted"; exit 77; }

SCRATCH="$(mktemp -d "${TMPDIR:-/tmp}/ovl-mount-bench.XXXXXX")"
MOUNTED=()
# Unmount what this script mounted (draining it, or lazily if that fails), then remove
# the scratch folder, which also holds the overlay caches.
cleanup() {
  local status=$?
  for mp in "${MOUNTED[@]}"; do
    if mountpoint -q "$mp" 2>/dev/null; then
      "$OVL" umount "$mp" >/dev/null 2>&1 || fusermount3 -u -z "$mp" 2>/dev/null || true
    fi
  done
  rm -rf "$SCRATCH"
  exit $status
}
trap cleanup EXIT
trap 'exit 130' INT TERM

fail() { echo "FAIL: $*" >&2; exit 1; }
log() { [ "$JSON" = 1 ] || echo "-- $*" >&2; }
# Seconds between two EPOCHREALTIME stamps; awk does the arithmetic bash cannot.
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
calc() { awk "BEGIN { printf \"%.${2:-2}f\", $1 }"; }

# mount_at NAME [global flags...]: mounts $SCRATCH/NAME.store at $SCRATCH/NAME.mp with
# its cache in $SCRATCH/NAME.cache, and sets MP to the mount point.
mount_at() {
  local name="$1"
  shift
  MP="$SCRATCH/$name.mp"
  mkdir -p "$SCRATCH/$name.store" "$MP"
  MOUNTED+=("$MP")
  "$OVL" "$@" --set "overlay.cacheRoot=$SCRATCH/$name.cache" mount "$SCRATCH/$name.store" "$MP" \
    >/dev/null || fail "ovl mount of $name failed"
  mountpoint -q "$MP" || fail "$MP is not a mount point after ovl mount"
}
umount_checked() {
  local out
  out="$("$OVL" umount "$1" 2>&1)" || fail "ovl umount $1 failed: $out"
  case "$out" in *"everything reached the store"*) ;; *) fail "ovl umount $1 said: $out" ;; esac
}
# Waits until the mount has nothing queued; 15 minutes is a bound for a hang, not a timing.
wait_drained() {
  local deadline=$((SECONDS + 900)) queued
  until queued="$("$OVL" status --json "$1" | sed -n 's/.*"queued": "\([0-9]*\)".*/\1/p')" &&
    [ "$queued" = 0 ]; do
    [ $SECONDS -lt $deadline ] || fail "$1 still had $queued queued changes after 15 minutes"
    sleep 0.2
  done
}

# Result rows: figure|unit|mount|local|ratio|goal|met ("-" where there is none).
ROWS=()
row() { ROWS+=("$1|$2|$3|$4|$5|$6|$7"); }
# time_ratio FIGURE MOUNT_S LOCAL_S MAX_RATIO: a row for a time whose goal is a ratio.
time_ratio() {
  local met
  met="$(awk -v m="$2" -v l="$3" -v g="$4" 'BEGIN { print (m <= g * l) ? "yes" : "no" }')"
  row "$1" s "$2" "$3" "$(calc "$2 / $3")" "<= ${4}x local" "$met"
}

COMPILER_RUNNING=false
if pgrep -x cc1plus >/dev/null; then
  COMPILER_RUNNING=true
  echo "note: a compiler (cc1plus) is running; the figures will suffer" >&2
fi
THROTTLE=(--throttle-ms 20 --throttle-mbps 50)

# 1. Creating 1,000 files of 4 KiB. The content is text so that a builtin can write it:
# the loop then times the file system, not starting a process per file.
log "1: creating 1,000 files of 4 KiB"
CONTENT="$(head -c 3072 /dev/urandom | base64 -w0)"
[ "${#CONTENT}" = 4096 ] || fail "the 4 KiB content has ${#CONTENT} bytes"
WANT_SUM="$(printf '%s' "$CONTENT" | sha256sum | cut -d' ' -f1)"
create_files() { local i; for i in {1..1000}; do printf '%s' "$CONTENT" >"$1/f$i"; done; }
mkdir "$SCRATCH/local1"
t0=$EPOCHREALTIME; create_files "$SCRATCH/local1"; t1=$EPOCHREALTIME
local_create="$(elapsed "$t0" "$t1")"
mount_at create "${THROTTLE[@]}"
t0=$EPOCHREALTIME; create_files "$MP"; t1=$EPOCHREALTIME
mount_create="$(elapsed "$t0" "$t1")"
t0=$EPOCHREALTIME; umount_checked "$MP"; t1=$EPOCHREALTIME
drain="$(elapsed "$t0" "$t1")"
count="$(find "$SCRATCH/create.store" -type f | wc -l)"
[ "$count" = 1000 ] || fail "the store holds $count files, not 1000"
sums="$(find "$SCRATCH/create.store" -type f -print0 | xargs -0 sha256sum | cut -d' ' -f1 | sort -u)"
[ "$sums" = "$WANT_SUM" ] || fail "files in the store differ from what was written"
time_ratio "create 1,000 x 4 KiB" "$mount_create" "$local_create" 3
row "drain at ovl umount (store checked)" s "$drain" - - - -

# 2 and 3 share one throttled mount.
mount_at cached "${THROTTLE[@]}"
mkdir "$SCRATCH/local2"

# 2. Re-reading a cached 256 MiB file: cmp is the warming read and checks the content.
log "2: re-reading a cached 256 MiB file"
BIG=$((256 * 1024 * 1024))
head -c "$BIG" /dev/urandom >"$SCRATCH/local2/big"
cp "$SCRATCH/local2/big" "$MP/big"
wait_drained "$MP"
cmp -s "$SCRATCH/local2/big" "$MP/big" || fail "the file read through the mount differs"
read_mbps() {
  local t0 t1
  t0=$EPOCHREALTIME; dd if="$1" of=/dev/null bs=1M status=none; t1=$EPOCHREALTIME
  calc "$BIG / ($t1 - $t0) / 1000000" 0
}
mount_read="$(read_mbps "$MP/big")"; mount_read3="$(read_mbps "$MP/big")"
local_read="$(read_mbps "$SCRATCH/local2/big")"; local_read3="$(read_mbps "$SCRATCH/local2/big")"
met="$(awk -v r="$mount_read" 'BEGIN { print (r >= 2000) ? "yes" : "no" }')"
row "re-read 256 MiB (2nd read)" MB/s "$mount_read" "$local_read" "$(calc "$mount_read / $local_read")" \
  ">= 2000 MB/s" "$met"
row "re-read 256 MiB (3rd read)" MB/s "$mount_read3" "$local_read3" "$(calc "$mount_read3 / $local_read3")" - -

# 3. find + stat over 10,000 cached files in 100 folders of 100.
log "3: find + stat over 10,000 cached files"
make_tree() {
  local d i
  for d in {1..100}; do mkdir "$1/d$d"; for i in {1..100}; do printf '%s' "$d.$i" >"$1/d$d/f$i"; done; done
}
mkdir "$SCRATCH/local3" "$MP/tree"
make_tree "$SCRATCH/local3"
make_tree "$MP/tree"
wait_drained "$MP"
find_stat() {
  local n t0 t1
  n="$(find "$1" -type f -print0 | xargs -0 stat | grep -c '^  File:')"
  [ "$n" = 10000 ] || fail "find + stat saw $n files in $1"
  t0=$EPOCHREALTIME; find "$1" -type f -print0 | xargs -0 stat >/dev/null; t1=$EPOCHREALTIME
  elapsed "$t0" "$t1"
}
mount_stat="$(find_stat "$MP/tree")"
local_stat="$(find_stat "$SCRATCH/local3")"
time_ratio "find + stat 10,000 files" "$mount_stat" "$local_stat" 2
umount_checked "$MP"

# 4. fio, in a mount without throttle and in a local folder. The mount runs first and is
# let drain, so that its transfers to the store do not slow the local run.
FIO=false
if command -v fio >/dev/null; then
  FIO=true
  log "4: fio (1 GiB sequential write and read, random 4 KiB reads)"
  # fio_run FILE RW BS [flags...]: prints "MB/s IOPS" from fio's terse output (fields 7-8
  # for reads, 48-49 for writes; bandwidth in KiB/s).
  fio_run() {
    local file="$1" rw="$2" bs="$3" w=0
    shift 3
    [ "$rw" != write ] || w=1
    fio --name="$rw" --filename="$file" --rw="$rw" --bs="$bs" --size=1G --end_fsync=0 "$@" \
      --output-format=terse --terse-version=3 |
      awk -F';' -v w="$w" '{ bw = w ? $48 : $7; io = w ? $49 : $8; printf "%.0f %.0f\n", bw * 1.024e-3, io }'
  }
  # fio_rows FIGURE RW BS [flags...]: fio in the mount, then locally; rows for MB/s and IOPS.
  fio_rows() {
    local fig="$1" rw="$2" bs="$3" out mbw mio lbw lio
    shift 3
    out="$(fio_run "$MP/fio.dat" "$rw" "$bs" "$@")" || fail "fio $rw in the mount failed"
    read -r mbw mio <<<"$out"
    wait_drained "$MP"
    out="$(fio_run "$SCRATCH/local4/fio.dat" "$rw" "$bs" "$@")" || fail "fio $rw in the local folder failed"
    read -r lbw lio <<<"$out"
    row "$fig" MB/s "$mbw" "$lbw" "$(calc "$mbw / $lbw")" - -
    row "$fig" IOPS "$mio" "$lio" "$(calc "$mio / $lio")" - -
  }
  mount_at fio
  mkdir "$SCRATCH/local4"
  fio_rows "fio sequential write 1 GiB, 1 MiB" write 1M
  fio_rows "fio sequential read 1 GiB, 1 MiB" read 1M
  fio_rows "fio random read 4 KiB, 10 s" randread 4k --runtime=10 --time_based
  umount_checked "$MP"
fi

MEM_KIB="$(awk '/^MemTotal:/ { print $2 }' /proc/meminfo)"
if [ "$JSON" = 1 ]; then
  num_or_null() { [[ "$1" =~ ^[0-9.]+$ ]] && echo "$1" || echo null; }
  str_or_null() { [ "$1" = - ] && echo null || echo "\"$1\""; }
  printf '{\n  "machine": {"nproc": %s, "mem_total_kib": %s, "kernel": "%s"},\n' \
    "$(nproc)" "$MEM_KIB" "$(uname -r)"
  printf '  "compiler_running": %s,\n  "fio": %s,\n  "results": [\n' "$COMPILER_RUNNING" "$FIO"
  sep=""
  for r in "${ROWS[@]}"; do
    IFS='|' read -r fig unit m l ratio g met <<<"$r"
    printf '%s    {"figure": "%s", "unit": "%s", "mount": %s, "local": %s, "ratio": %s, "goal": %s, "met": %s}' \
      "$sep" "$fig" "$unit" "$(num_or_null "$m")" "$(num_or_null "$l")" "$(num_or_null "$ratio")" \
      "$(str_or_null "$g")" "$(case "$met" in yes) echo true ;; no) echo false ;; *) echo null ;; esac)"
    sep=$',\n'
  done
  printf '\n  ]\n}\n'
else
  echo "machine: $(nproc) cores, $((MEM_KIB / 1024)) MiB, kernel $(uname -r); compiler running: $COMPILER_RUNNING; fio: $FIO"
  {
    echo "figure|unit|mount|local|mount/local|goal|met"
    printf '%s\n' "${ROWS[@]}"
  } | column -t -s '|'
fi
