#!/usr/bin/env bash
# What scripts/ceph-s3.sh promises the S3 store's tests: start gives a gateway that
# serves the bucket ovl-test with the keys of its env file (keys with spaces included),
# the aws helper moves a 16 MiB file both ways, two clusters run side by side, a start
# never wipes a running cluster, and stop (also after a start killed halfway) leaves no
# daemon running and no folder behind. Skips (77) where Ceph is not installed.
# Usage: ceph_s3_test.sh [CEPH_S3_SCRIPT]    (default: this repository's scripts/ceph-s3.sh)
set -euo pipefail

CEPH_S3=${1:-$(cd "$(dirname "$0")/../.." && pwd)/scripts/ceph-s3.sh}
SCRATCH=$(mktemp -d "${TMPDIR:-/tmp}/ceph-s3-test.XXXXXX")
CLUSTERS=()

cleanup() {
  local status=$? dir
  for dir in "${CLUSTERS[@]}"; do "$CEPH_S3" stop "$dir" >/dev/null 2>&1 || true; done
  rm -rf "$SCRATCH"
  exit "$status"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# The live processes started with DIR's configuration (zombies count as gone).
cluster_processes() {
  local file pid stat
  for file in /proc/[0-9]*/cmdline; do
    grep -qzxF -- "$1/ceph.conf" "$file" 2>/dev/null || continue
    pid=${file#/proc/}; pid=${pid%/cmdline}
    stat=$(cat "/proc/$pid/stat" 2>/dev/null) || continue
    stat=${stat##*) }
    [ "${stat%% *}" = Z ] || echo "$pid"
  done
}

# start DIR: starts a cluster there and loads its env file into ENV_* variables.
start() {
  local status=0
  CLUSTERS+=("$1")
  "$CEPH_S3" start "$1" >"$SCRATCH/start.out" 2>"$SCRATCH/start.err" || status=$?
  if [ "$status" = 77 ]; then
    cat "$SCRATCH/start.err"
    exit 77
  fi
  [ "$status" = 0 ] || { cat "$SCRATCH/start.err" >&2; fail "start $1 exited with $status"; }
  cmp -s "$SCRATCH/start.out" "$1/env" || fail "start $1 printed something else than $1/env"
}

env_value() { sed -n "s/^$2=//p" "$1/env"; }

# s3 DIR METHOD PATH [curl options...]: one signed request to DIR's gateway; prints the
# HTTP status, the body goes to $SCRATCH/body.
s3() {
  local dir=$1 method=$2 path=$3; shift 3
  curl -sS -m 60 -o "$SCRATCH/body" -w '%{http_code}' -X "$method" \
    --aws-sigv4 "aws:amz:default:s3" \
    --user "$(env_value "$dir" AWS_ACCESS_KEY_ID):$(env_value "$dir" AWS_SECRET_ACCESS_KEY)" \
    -H 'x-amz-content-sha256: UNSIGNED-PAYLOAD' "$@" "$(env_value "$dir" AWS_ENDPOINT_URL)$path"
}

A=$SCRATCH/a
B=$SCRATCH/b
C=$SCRATCH/c

echo "== start writes the env file it prints"
start "$A"
[ "$(cut -d= -f1 "$A/env" | tr '\n' ' ')" = \
  "AWS_ENDPOINT_URL AWS_ACCESS_KEY_ID AWS_SECRET_ACCESS_KEY AWS_REGION OVL_S3_BUCKET CEPH_S3_DIR " ] \
  || fail "$A/env has other lines: $(cat "$A/env")"
[ "$(env_value "$A" CEPH_S3_DIR)" = "$A" ] || fail "CEPH_S3_DIR is not $A"
[ "$(env_value "$A" OVL_S3_BUCKET)" = ovl-test ] || fail "OVL_S3_BUCKET is not ovl-test"
[[ "$(env_value "$A" AWS_ENDPOINT_URL)" =~ ^http://127\.0\.0\.1:[0-9]+$ ]] || fail "the endpoint is not on 127.0.0.1"

echo "== PUT, GET, HEAD and ListObjectsV2 of a key with spaces"
printf 'spaced content\n' >"$SCRATCH/small"
KEY_PATH="/ovl-test/dir%20a/file%20b.txt"
[ "$(s3 "$A" PUT "$KEY_PATH" -T "$SCRATCH/small")" = 200 ] || fail "PUT answered $(cat "$SCRATCH/body")"
[ "$(s3 "$A" GET "$KEY_PATH")" = 200 ] || fail "GET did not answer 200"
cmp -s "$SCRATCH/body" "$SCRATCH/small" || fail "GET returned other bytes than were put"
[ "$(s3 "$A" HEAD "$KEY_PATH" -I)" = 200 ] || fail "HEAD did not answer 200"
[ "$(s3 "$A" GET "/ovl-test?delimiter=%2F&list-type=2&prefix=dir%20a%2F")" = 200 ] || fail "the listing failed"
grep -q '<Key>dir a/file b.txt</Key>' "$SCRATCH/body" || fail "the listing lacks the key: $(cat "$SCRATCH/body")"

echo "== the aws helper copies 16 MiB up and back"
head -c 16777216 /dev/urandom >"$SCRATCH/large"
status=0
"$CEPH_S3" aws "$A" s3 cp --only-show-errors "$SCRATCH/large" s3://ovl-test/large 2>"$SCRATCH/aws.err" || status=$?
if [ "$status" = 77 ]; then
  echo "   skipped: $(cat "$SCRATCH/aws.err")"
else
  [ "$status" = 0 ] || fail "aws upload failed: $(cat "$SCRATCH/aws.err")"
  "$CEPH_S3" aws "$A" s3 cp --only-show-errors s3://ovl-test/large "$SCRATCH/large.back" \
    || fail "aws download failed"
  cmp -s "$SCRATCH/large" "$SCRATCH/large.back" || fail "the 16 MiB file came back different"
fi

echo "== a second start in a running cluster's folder refuses and leaves it running"
if "$CEPH_S3" start "$A" >/dev/null 2>"$SCRATCH/again.err"; then fail "start wiped a running cluster"; fi
grep -q "still has a running cluster" "$SCRATCH/again.err" || fail "unclear refusal: $(cat "$SCRATCH/again.err")"
[ "$(s3 "$A" GET "$KEY_PATH")" = 200 ] || fail "the cluster in $A stopped serving after the refused start"

echo "== a second cluster runs beside the first"
start "$B"
[ "$(env_value "$A" AWS_ENDPOINT_URL)" != "$(env_value "$B" AWS_ENDPOINT_URL)" ] || fail "both clusters got one port"
[ "$(s3 "$B" HEAD "$KEY_PATH" -I)" = 404 ] || fail "the second cluster sees the first one's object"
[ "$(s3 "$B" PUT "$KEY_PATH" -T "$SCRATCH/large")" = 200 ] || fail "PUT to the second cluster failed"

echo "== stop ends the daemons, removes the folder, and a second stop does nothing"
"$CEPH_S3" stop "$B" || fail "stop $B failed"
[ -z "$(cluster_processes "$B")" ] || fail "daemons of $B still run: $(cluster_processes "$B")"
[ ! -e "$B" ] || fail "stop left $B behind"
"$CEPH_S3" stop "$B" || fail "a second stop of $B failed"
[ "$(s3 "$A" GET "$KEY_PATH")" = 200 ] || fail "stopping the second cluster disturbed the first"

echo "== stop after a start killed halfway leaves nothing running"
CLUSTERS+=("$C")
"$CEPH_S3" start "$C" >/dev/null 2>&1 &
starter=$!
for _ in $(seq 1 1200); do   # a bound for a hang, not a timing: the file appears in ~1 s
  [ -s "$C/run/osd.0.pid" ] || ! kill -0 "$starter" 2>/dev/null && break
  sleep 0.05
done
[ -s "$C/run/osd.0.pid" ] || fail "the start in $C never launched its OSD"
kill -KILL "$starter"
wait "$starter" 2>/dev/null || true
"$CEPH_S3" stop "$C" || fail "stop $C failed"
[ -z "$(cluster_processes "$C")" ] || fail "daemons of $C still run: $(cluster_processes "$C")"
[ ! -e "$C" ] || fail "stop left $C behind"

"$CEPH_S3" stop "$A" || fail "stop $A failed"
[ -z "$(cluster_processes "$A")" ] || fail "daemons of $A still run"
[ ! -e "$A" ] || fail "stop left $A behind"
echo "ceph-s3.sh: every check passed"
