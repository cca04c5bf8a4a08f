#!/usr/bin/env bash
# Measures the s3 store against a throw-away Ceph gateway that it starts on loopback
# (scripts/ceph-s3.sh) and stops again, each figure in one run:
#   1. 256 MiB uploaded and downloaded with `ovl cp` (the store's streams: parts of 8 MiB,
#      four at once; ranged GETs read ahead) against Debian's `aws s3 cp` on the same
#      gateway; goal: ovl at least as fast both ways. The copies are compared byte for
#      byte (the script fails otherwise).
#   2. `ovl bench --inner s3://...` with no added latency or bandwidth limit: 1,000 files
#      of 4 KiB through the overlay with 8 transfers against the same files written
#      directly; goals: the burst at least 20x faster, the flush at most half the direct
#      time.
# Usage: bench/s3_bench.sh OVL_PROGRAM
#   Exit status 0 when it ran (goals met or not), 1 when something failed, 77 when Ceph
#   or the aws command line is not installed.
set -euo pipefail

OVL=${1:-}
if [ -z "$OVL" ] || [ ! -x "$OVL" ]; then echo "usage: $0 OVL_PROGRAM" >&2; exit 2; fi
CEPH="$(cd "$(dirname "$0")/.." && pwd)/scripts/ceph-s3.sh"
command -v aws >/dev/null 2>&1 || [ -x /usr/bin/aws ] || { echo "SKIP: the aws command line is not installed"; exit 77; }

SCRATCH="$(mktemp -d "${TMPDIR:-/tmp}/ovl-s3-bench.XXXXXX")"
cleanup() {
  local status=$?
  bash "$CEPH" stop "$SCRATCH/gateway" >/dev/null 2>&1 || true
  rm -rf "$SCRATCH"
  exit $status
}
trap cleanup EXIT

status=0
bash "$CEPH" start "$SCRATCH/gateway" >/dev/null || status=$?
[ $status = 0 ] || exit $status
set -a
. "$SCRATCH/gateway/env"
set +a
BUCKET=s3://$OVL_S3_BUCKET

# Seconds one command takes (its output goes to the scratch log).
seconds() {
  local start=$EPOCHREALTIME
  "$@" >>"$SCRATCH/log" 2>&1 || { echo "failed: $*" >&2; tail -5 "$SCRATCH/log" >&2; exit 1; }
  echo "$start $EPOCHREALTIME" | awk '{printf "%.2f", $2 - $1}'
}
rate() { awk -v s="$1" 'BEGIN {printf "%.0f", 256 * 1.048576 / s}'; }

head -c $((256 << 20)) /dev/urandom >"$SCRATCH/big.bin"
echo "s3 bench: Ceph $(ceph --version 2>/dev/null | awk '{print $3}') gateway on loopback, $(nproc) cores"
ovl_up=$(seconds "$OVL" cp "$SCRATCH/big.bin" "$BUCKET/ovl.bin")
aws_up=$(seconds bash "$CEPH" aws "$SCRATCH/gateway" s3 cp --only-show-errors "$SCRATCH/big.bin" "$BUCKET/aws.bin")
ovl_down=$(seconds "$OVL" cp "$BUCKET/aws.bin" "$SCRATCH/ovl-down.bin")
aws_down=$(seconds bash "$CEPH" aws "$SCRATCH/gateway" s3 cp --only-show-errors "$BUCKET/ovl.bin" "$SCRATCH/aws-down.bin")
cmp -s "$SCRATCH/big.bin" "$SCRATCH/ovl-down.bin" || { echo "ovl's download differs from the upload" >&2; exit 1; }
cmp -s "$SCRATCH/big.bin" "$SCRATCH/aws-down.bin" || { echo "ovl's upload differs from the file" >&2; exit 1; }

printf '%-34s %10s %10s %8s  %s\n' "256 MiB through the store" "ovl" "aws s3 cp" "ratio" "goal"
printf '%-34s %7s MB/s %5s MB/s %7.2fx  %s\n' "upload" "$(rate "$ovl_up")" "$(rate "$aws_up")" \
  "$(awk -v a="$aws_up" -v o="$ovl_up" 'BEGIN {print a / o}')" "ovl at least as fast"
printf '%-34s %7s MB/s %5s MB/s %7.2fx  %s\n' "download" "$(rate "$ovl_down")" "$(rate "$aws_down")" \
  "$(awk -v a="$aws_down" -v o="$ovl_down" 'BEGIN {print a / o}')" "ovl at least as fast"
echo
"$OVL" bench --inner "$BUCKET/" --latency-ms 0 --mbps 0 --large-mib 64 --tasks 1000
