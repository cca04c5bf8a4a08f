#!/usr/bin/env bash
# A throw-away single-node Ceph cluster with its S3 gateway on 127.0.0.1, for the S3
# store's tests, demo and benchmarks: one monitor, one OSD that keeps its data in memory,
# and the RADOS gateway. No manager and no systemd; every file it makes (state, logs,
# PID files) lies in the folder it is given. Run with --help for the details.
set -euo pipefail

ME=ceph-s3
DEFAULT_MON_BASE=13300
DEFAULT_S3_BASE=17480
PORT_TRIES=200
BUCKET=ovl-test
DAEMONS=(mon.a osd.0 client.rgw.s3)     # Ceph's names, in start order; stop goes the other way
RGW_POOLS=(.rgw.root default.rgw.control default.rgw.meta default.rgw.log
           default.rgw.buckets.index default.rgw.buckets.data default.rgw.buckets.non-ec)

usage() {
  cat <<'EOF'
Usage:
  ceph-s3.sh start DIR           start a cluster whose files all live in DIR
  ceph-s3.sh stop DIR [--keep]   stop it; remove DIR unless --keep
  ceph-s3.sh aws DIR ARGS...     run the aws command line against the cluster in DIR
  ceph-s3.sh gateway DIR stop|start
                                 kill the gateway alone (as a crash would) or start it
                                 again on its port; for tests of a store that goes away
  ceph-s3.sh --help

start wipes DIR (only if it is empty or was made by this script, and no daemon of an
earlier cluster still runs there), starts one monitor, one OSD on memstore and the RADOS
gateway on 127.0.0.1, creates an S3 user and the bucket ovl-test, writes DIR/env and
prints it:
  AWS_ENDPOINT_URL=http://127.0.0.1:PORT
  AWS_ACCESS_KEY_ID=...
  AWS_SECRET_ACCESS_KEY=...
  AWS_REGION=default
  OVL_S3_BUCKET=ovl-test
  CEPH_S3_DIR=DIR
Progress goes to standard error. On failure it stops what it started, keeps DIR with the
logs (DIR/log), shows the end of the failing daemon's log and exits 1. The daemons stay
in the caller's process group: a Ctrl-C that reaches the caller ends them too (run stop
all the same, to remove DIR).

stop ends the daemons that start recorded in DIR/run, and only while they are still the
Ceph daemons of that cluster: SIGTERM, then SIGKILL if one still runs 10 s later. With
nothing left to stop it does nothing and exits 0; it exits 1 (and keeps DIR) if a daemon
outlives SIGKILL, and leaves alone a DIR that start did not make.

aws runs the aws command line (/usr/bin/aws if present, else aws from PATH; CEPH_S3_AWS
overrides) with the cluster's keys, its endpoint and the settings this gateway needs:
  scripts/ceph-s3.sh aws DIR s3 cp FILE s3://ovl-test/KEY

Environment:
  CEPH_S3_PORT         the gateway's port       (default: first free from 17480 on)
  CEPH_MON_PORT        the monitor's port       (default: first free from 13300 on)
  S3_ACCESS_KEY        the S3 user's access key (default: ovltest)
  S3_SECRET_KEY        the S3 user's secret     (default: ovltest-secret)
  CEPH_S3_STORE_BYTES  most data the OSD holds in memory (default: 4 GiB)
  CEPH_S3_TIMEOUT      seconds start may take before it gives up (default: 120)
  CEPH_S3_REQUIRED=1   missing Ceph packages are an error (exit 1), not a skip (77)

Exit status: 0 done; 1 failed; 2 wrong usage; 77 the Ceph packages (or, for aws, the aws
command line) are not installed.
EOF
}

die() { echo "$ME: $*" >&2; exit 1; }
usage_error() { echo "$ME: $*; see --help" >&2; exit 2; }

# Exits with 77 (a test's "skipped") when a program this script needs is missing, or
# with 1 when CEPH_S3_REQUIRED=1 says the caller cannot do without it.
missing_package() {
  if [ "${CEPH_S3_REQUIRED:-0}" = 1 ]; then
    echo "$ME: $1 is not installed (install with: scripts/setup.sh --test)" >&2
    exit 1
  fi
  echo "$ME: skipped: $1 is not installed (install with: scripts/setup.sh --test)" >&2
  exit 77
}

require_ceph() {
  local prog
  for prog in ceph-mon ceph-osd radosgw radosgw-admin monmaptool curl setpriv flock; do
    command -v "$prog" >/dev/null 2>&1 || missing_package "$prog"
  done
  # The Debian package's rados module belongs to the system's Python, which need not
  # be the python3 that comes first on PATH.
  [ -x /usr/bin/python3 ] && /usr/bin/python3 -c 'import rados' 2>/dev/null \
    || missing_package "the Python rados module (python3-rados)"
}

# Prints DIR as an absolute path without following symbolic links, so that the same
# cluster gets the same name whichever folder the caller is in and however it spells it.
absolute_dir() {
  [ -n "$1" ] || usage_error "DIR is empty"
  realpath -ms -- "$1"
}

elapsed() {
  local us=$(( ${EPOCHREALTIME/./} - T0 ))
  printf '%d.%02ds' $(( us / 1000000 )) $(( us % 1000000 / 10000 ))
}
progress() { printf '%s: [%7s] %s\n' "$ME" "$(elapsed)" "$*" >&2; }

# --- daemons by PID -------------------------------------------------------------------

# True while PID is a process that has not exited. A zombie counts as gone: the daemons
# outlive start, so their parent becomes PID 1, which may reap them only later.
pid_alive() {
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  stat=${stat##*) }
  [ "${stat%% *}" != Z ]
}

# True while PID is alive and still one of the Ceph daemons started with CONF: a PID
# recorded long ago may since have been handed to an unrelated process.
is_cluster_daemon() {
  local pid=$1 conf=$2 comm
  pid_alive "$pid" || return 1
  comm=$(cat "/proc/$pid/comm" 2>/dev/null) || return 1
  case "$comm" in ceph-mon | ceph-osd | radosgw) ;; *) return 1 ;; esac
  grep -qzxF -- "$conf" "/proc/$pid/cmdline" 2>/dev/null
}

recorded_pid() {
  local file=$1/run/$2.pid pid
  [ -f "$file" ] || return 1
  pid=$(cat "$file")
  [[ "$pid" =~ ^[0-9]+$ ]] || return 1
  printf '%s\n' "$pid"
}

# Lists "name pid" for every daemon recorded in DIR that still runs.
running_daemons() {
  local dir=$1 name pid
  for name in "${DAEMONS[@]}"; do
    pid=$(recorded_pid "$dir" "$name") || continue
    if is_cluster_daemon "$pid" "$dir/ceph.conf"; then echo "$name $pid"; fi
  done
}

# Waits until PID has exited, checking every 50 ms for at most TENTHS tenths of a second.
wait_exit() {
  local pid=$1 tenths=$2 i
  for (( i = 0; i < tenths * 2; i++ )); do
    pid_alive "$pid" || return 0
    sleep 0.05
  done
  ! pid_alive "$pid"
}

# Stops the daemons recorded in DIR, the gateway first and the monitor last (each needs
# the ones after it to shut down cleanly), and removes their PID files. Fails if one
# outlives SIGKILL; its PID file then stays.
stop_daemons() {
  local dir=$1 i name pid survivors=0
  for (( i = ${#DAEMONS[@]} - 1; i >= 0; i-- )); do
    name=${DAEMONS[i]}
    pid=$(recorded_pid "$dir" "$name") || { rm -f "$dir/run/$name.pid"; continue; }
    if is_cluster_daemon "$pid" "$dir/ceph.conf"; then
      kill -TERM "$pid" 2>/dev/null || true
      if ! wait_exit "$pid" 100; then
        echo "$ME: $name (pid $pid) still runs 10 s after SIGTERM; sending SIGKILL" >&2
        kill -KILL "$pid" 2>/dev/null || true
        if ! wait_exit "$pid" 50; then
          echo "$ME: $name (pid $pid) still runs 5 s after SIGKILL" >&2
          survivors=1
          continue
        fi
      fi
    fi
    rm -f "$dir/run/$name.pid"
  done
  return "$survivors"
}

# Ends what a start killed halfway (SIGKILL cannot be trapped) may have left besides the
# daemons: its helper steps (pool creation, user creation), which name DIR/ceph.conf on
# their command line and would otherwise wait out their own time-outs.
stop_helpers() {
  local conf=$1/ceph.conf file pid pids=()
  for file in /proc/[0-9]*/cmdline; do
    grep -qzxF -- "$conf" "$file" 2>/dev/null || continue
    pid=${file#/proc/}; pid=${pid%/cmdline}
    [ "$pid" != $$ ] && pid_alive "$pid" && pids+=("$pid")
  done
  [ ${#pids[@]} -gt 0 ] || return 0
  kill -TERM "${pids[@]}" 2>/dev/null || true
  for pid in "${pids[@]}"; do
    wait_exit "$pid" 50 || kill -KILL "$pid" 2>/dev/null || true
  done
}

# --- stop -----------------------------------------------------------------------------

cmd_stop() {
  local dir keep=0 arg
  [ $# -ge 1 ] || usage_error "stop needs DIR"
  dir=$(absolute_dir "$1"); shift
  for arg in "$@"; do
    case "$arg" in
      --keep) keep=1 ;;
      *) usage_error "stop: unknown option $arg" ;;
    esac
  done
  [ -e "$dir" ] || return 0
  if [ ! -f "$dir/.ceph-s3" ]; then
    die "$dir was not made by ceph-s3.sh start (no $dir/.ceph-s3); leaving it alone"
  fi
  stop_daemons "$dir" || die "could not stop every daemon of $dir; leaving it in place"
  stop_helpers "$dir"
  if [ "$keep" = 0 ]; then
    rm -rf "$dir" || die "could not remove $dir"
  fi
}

# `gateway DIR stop` kills the gateway at once (SIGKILL: connections drop as in a crash);
# `gateway DIR start` starts it again with the cluster's configuration and waits until it
# answers on its port.
cmd_gateway() {
  [ $# -eq 2 ] || usage_error "gateway needs DIR and stop or start"
  DIR=$(absolute_dir "$1"); CONF=$DIR/ceph.conf
  [ -f "$DIR/.ceph-s3" ] && [ -f "$DIR/env" ] || die "$DIR holds no cluster made by ceph-s3.sh start"
  local port pid i
  port=$(sed -n 's|^AWS_ENDPOINT_URL=http://127.0.0.1:||p' "$DIR/env")
  case "$2" in
    stop)
      pid=$(recorded_pid "$DIR" client.rgw.s3) || return 0
      if is_cluster_daemon "$pid" "$CONF"; then
        kill -KILL "$pid" 2>/dev/null || true
        wait_exit "$pid" 100 || die "the gateway (pid $pid) still runs after SIGKILL"
      fi
      rm -f "$DIR/run/client.rgw.s3.pid" ;;
    start)
      if pid=$(recorded_pid "$DIR" client.rgw.s3) && is_cluster_daemon "$pid" "$CONF"; then return 0; fi
      launch client.rgw.s3 radosgw -n client.rgw.s3
      pid=$(recorded_pid "$DIR" client.rgw.s3)
      for (( i = 0; i < 1200; i++ )); do
        curl -s -m 5 -o /dev/null "http://127.0.0.1:$port/" && return 0
        pid_alive "$pid" || die "the gateway exited at start; see $DIR/log/client.rgw.s3.out"
        sleep 0.05
      done
      die "the gateway did not answer on port $port within 60 s" ;;
    *) usage_error "gateway: stop or start, not '$2'" ;;
  esac
}

# --- helpers in Python ----------------------------------------------------------------

# `ports MON S3 MON_FIXED S3_FIXED TRIES` prints a free monitor port and a free gateway
# port: a fixed one is taken as it is (and must be free); the others step up from their
# bases together.
# `register CONF OSD_UUID TIMEOUT` waits for the monitor to answer and registers OSD 0.
# `pools CONF TIMEOUT POOL...` creates the gateway's pools in parallel (else the gateway
# makes each on first use, and its first requests wait for them), then waits for the
# OSD to be up: a client that starts before that looks for an OSD again only after
# five seconds.
PY_CODE=$(cat <<'EOF'
import json, socket, sys, threading, time

def port_free(port):
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            s.bind(('127.0.0.1', port))
            return True
        except OSError:
            return False

def ports(mon, s3, mon_fixed, s3_fixed, tries):
    for fixed, port, var in ((mon_fixed, mon, 'CEPH_MON_PORT'), (s3_fixed, s3, 'CEPH_S3_PORT')):
        if fixed and not port_free(port):
            sys.exit(f'port {port} on 127.0.0.1 (from {var}) is in use')
    if mon == s3:
        sys.exit(f'the monitor and the gateway cannot share port {mon}')
    for step in range(tries):
        m = mon if mon_fixed else mon + step
        g = s3 if s3_fixed else s3 + step
        if m != g and m < 65536 and g < 65536 and port_free(m) and port_free(g):
            print(m, g)
            return
    sys.exit(f'no free pair of ports on 127.0.0.1 after {tries} tries from {mon} and {s3}')

class Monitor:
    def __init__(self, conf, timeout):
        import rados
        self.timeout = timeout
        self.cluster = rados.Rados(conffile=conf)
        self.cluster.connect(timeout=timeout)

    def command(self, **cmd):
        ret, out, err = self.cluster.mon_command(json.dumps(cmd), b'', timeout=self.timeout)
        if ret != 0:
            raise RuntimeError(f'{cmd["prefix"]}: {err or "error"} ({ret})')
        return out

def register(conf, osd_uuid, timeout):
    mon = Monitor(conf, timeout)
    osd_id = json.loads(mon.command(prefix='osd new', uuid=osd_uuid, format='json'))['osdid']
    if osd_id != 0:
        sys.exit(f'the monitor gave the OSD the id {osd_id}, not 0')

def pools(conf, timeout, names):
    mon = Monitor(conf, timeout)
    errors = []
    def make(pool):
        try:
            mon.command(prefix='osd pool create', pool=pool)
            mon.command(prefix='osd pool application enable', pool=pool, app='rgw')
        except Exception as e:
            errors.append(f'pool {pool}: {e}')
    threads = [threading.Thread(target=make, args=(n,)) for n in names]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    if errors:
        sys.exit('\n'.join(errors))
    deadline = time.monotonic() + timeout
    while json.loads(mon.command(prefix='osd stat', format='json'))['num_up_osds'] < 1:
        if time.monotonic() > deadline:
            sys.exit(f'the OSD was not up after {timeout} s')
        time.sleep(0.05)

action, args = sys.argv[1], sys.argv[2:]
if action == 'ports':
    ports(int(args[0]), int(args[1]), args[2] == '1', args[3] == '1', int(args[4]))
elif action == 'register':
    register(args[0], args[1], int(args[2]))
elif action == 'pools':
    pools(args[0], int(args[1]), args[2:])
else:
    sys.exit(f'unknown helper action {action}')
EOF
)
# A command, not a function, so that a step's PID is Python's own and killing it ends it.
PY_HELPER=(/usr/bin/python3 -c "$PY_CODE")

# --- start ----------------------------------------------------------------------------

# Launches a daemon in the background with the cluster's configuration and records its
# PID at once, so that stop finds it even if start is killed right after. The daemon
# keeps no descriptor of ours: a caller reading start's output through a pipe sees it
# end when start ends, and the port lock is released with start.
launch() {
  local name=$1; shift
  (
    for fd in /proc/$BASHPID/fd/*; do
      fd=${fd##*/}
      if [ "$fd" -gt 2 ]; then exec {fd}>&-; fi
    done
    exec "$@" -c "$CONF" -f </dev/null >"$DIR/log/$name.out" 2>&1
  ) &
  echo $! >"$DIR/run/$name.pid"
  # Not a job of this shell: stop ends it by PID, and its end is reported by check_daemons.
  disown $!
}

# Shows the end of a daemon's log (and of what it wrote to its standard error).
show_log() {
  local name=$1 file
  for file in "$DIR/log/$name.out" "$DIR/log/$name.log"; do
    if [ -s "$file" ]; then
      echo "--- last lines of $file:" >&2
      tail -n 15 "$file" >&2
    fi
  done
}

# Ends a failed start: names the cause, shows the log of the daemon it concerns, and
# leaves the clean-up to the exit trap.
start_failed() {
  local message=$1 name=${2:-}
  echo "$ME: start failed: $message" >&2
  if [ -n "$name" ]; then show_log "$name"; fi
  exit 1
}

# Fails the start if a daemon it launched has exited.
check_daemons() {
  local name pid
  for name in "${DAEMONS[@]}"; do
    pid=$(recorded_pid "$DIR" "$name") || continue
    pid_alive "$pid" || start_failed "$name (pid $pid) exited" "$name"
  done
}

declare -A STEP_NAMES=()

# Runs NAME's command in the background, its output in DIR/log/NAME.out; $! is its PID.
# The command is killed if start dies, so that a start killed outright (where no trap
# runs) leaves no step waiting on a cluster that stop has since ended.
step() {
  local name=$1; shift
  setpriv --pdeathsig KILL "$@" </dev/null >"$DIR/log/$name.out" 2>&1 &
  STEP_NAMES[$!]=$name
}

# Waits for the background steps PIDS to finish while the daemons stay up, within the
# start's time limit. A step that fails ends the start with its own output and the log
# of SUSPECT, the daemon whose trouble it would show.
wait_steps() {
  local what=$1 suspect=$2; shift 2
  local pid running status out
  while :; do
    running=0
    for pid in "$@"; do
      if kill -0 "$pid" 2>/dev/null; then running=1; fi
    done
    [ "$running" = 1 ] || break
    check_daemons
    (( ${EPOCHREALTIME/./} < DEADLINE )) || start_failed "$what took over $TIMEOUT s" "$suspect"
    sleep 0.05
  done
  for pid in "$@"; do
    status=0
    wait "$pid" || status=$?
    out=$DIR/log/${STEP_NAMES[$pid]}.out
    unset "STEP_NAMES[$pid]"
    if [ "$status" != 0 ]; then
      if [ -s "$out" ]; then echo "--- $out:" >&2; tail -n 15 "$out" >&2; fi
      start_failed "$what failed (status $status)" "$suspect"
    fi
  done
}

write_config() {
  cat >"$CONF" <<EOF
# Written by scripts/ceph-s3.sh for a throw-away cluster; removed by its stop.
[global]
fsid = $FSID
mon_host = [v2:127.0.0.1:$MON_PORT]
public_addr = 127.0.0.1
# One host on loopback: the newer wire protocol only, and no authentication.
ms_bind_msgr1 = false
ms_bind_ipv6 = false
auth_cluster_required = none
auth_service_required = none
auth_client_required = none
# The gateway asks the monitor for the secure mode by default, which needs
# authentication; without this it never opens its port.
ms_mon_client_mode = crc
auth_allow_insecure_global_id_reclaim = false
# Everything inside the cluster's folder.
run_dir = $DIR/run
crash_dir = $DIR/crash
log_file = $DIR/log/\$name.log
mon_cluster_log_file = $DIR/log/cluster.log
# One OSD holds one copy of everything.
osd_pool_default_size = 1
osd_pool_default_min_size = 1
osd_pool_default_pg_num = 8
osd_pool_default_pgp_num = 8
osd_pool_default_pg_autoscale_mode = off
osd_crush_chooseleaf_type = 0
mon_allow_pool_size_one = true
mon_warn_on_pool_no_redundancy = false
# A nearly full disk must not stop a cluster whose data lies in memory.
mon_data_avail_warn = 2
mon_data_avail_crit = 1

[mon]
mon_data = $DIR/mon
admin_socket = $DIR/run/\$name.asok
# Commit map changes every 0.1 s rather than every second: each pool and the OSD's
# boot would otherwise cost a second.
paxos_propose_interval = 0.1

[osd]
osd_data = $DIR/osd
admin_socket = $DIR/run/\$name.asok
osd_objectstore = memstore
memstore_device_bytes = $STORE_BYTES

[client.admin]
# The tools start runs give up rather than wait for a cluster that has gone away.
client_mount_timeout = $TIMEOUT
rados_mon_op_timeout = $TIMEOUT
rados_osd_op_timeout = $TIMEOUT

[client.rgw.s3]
rgw_data = $DIR/rgw
admin_socket = $DIR/run/\$name.asok
# Without tcp_nodelay a small GET waits about 45 ms for a delayed acknowledgement.
rgw_frontends = beast endpoint=127.0.0.1:$S3_PORT tcp_nodelay=1
rgw_dns_name = localhost
# Reclaim deleted data after a minute rather than two hours: it lies in memory.
rgw_gc_obj_min_wait = 60
rgw_gc_processor_period = 60
# No line per request: long benchmarks would fill the log.
debug_rgw = 0
EOF
}

# Undoes a start that did not finish: stops whatever it launched and keeps the logs.
start_cleanup() {
  local status=$?
  [ "$STARTED_OK" = 0 ] || return 0
  trap - INT TERM
  local pid
  for pid in "${!STEP_NAMES[@]}"; do kill "$pid" 2>/dev/null || true; done
  [ -d "$DIR/run" ] || exit "$status"
  if compgen -G "$DIR/run/*.pid" >/dev/null && stop_daemons "$DIR"; then
    echo "$ME: stopped the daemons this start had launched; logs kept in $DIR/log" >&2
  fi
  exit "$status"
}

cmd_start() {
  [ $# -eq 1 ] || usage_error "start needs exactly one DIR"
  require_ceph
  DIR=$(absolute_dir "$1")
  CONF=$DIR/ceph.conf
  TIMEOUT=${CEPH_S3_TIMEOUT:-120}
  STORE_BYTES=${CEPH_S3_STORE_BYTES:-4294967296}
  local access_key=${S3_ACCESS_KEY:-ovltest} secret_key=${S3_SECRET_KEY:-ovltest-secret}
  local var
  for var in CEPH_S3_PORT CEPH_MON_PORT CEPH_S3_TIMEOUT CEPH_S3_STORE_BYTES; do
    if [ -n "${!var:-}" ] && ! [[ "${!var}" =~ ^[1-9][0-9]*$ ]]; then
      usage_error "$var must be a positive whole number, not '${!var}'"
    fi
  done
  [ -n "$access_key" ] && [ -n "$secret_key" ] || usage_error "S3_ACCESS_KEY and S3_SECRET_KEY must not be empty"
  # Settings from the caller's environment would reach every Ceph program.
  unset CEPH_ARGS CEPH_CONF
  T0=${EPOCHREALTIME/./}
  DEADLINE=$(( T0 + TIMEOUT * 1000000 ))

  # Wipe only a folder that is empty or one of ours, and never under a running cluster.
  if [ -e "$DIR" ]; then
    [ -d "$DIR" ] || die "$DIR exists and is not a folder"
    if [ -f "$DIR/.ceph-s3" ]; then
      local running
      running=$(running_daemons "$DIR")
      if [ -n "$running" ]; then
        die "$DIR still has a running cluster (${running//$'\n'/, }); stop it first: $0 stop $DIR"
      fi
    elif [ -n "$(ls -A "$DIR")" ]; then
      die "$DIR is not empty and was not made by ceph-s3.sh; refusing to wipe it"
    fi
    rm -rf "$DIR" || die "could not wipe $DIR"
  fi
  mkdir -p "$DIR"/{run,log,mon,osd,rgw,crash} || die "could not create $DIR"
  touch "$DIR/.ceph-s3"
  STARTED_OK=0
  trap start_cleanup EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM

  # Two starts at once must not pick the same ports: each holds a lock from choosing its
  # ports until its gateway listens. The lock is on the monitor's program file, which
  # every start on this machine shares and which leaves no lock file behind.
  exec 9<"$(command -v ceph-mon)"
  if ! flock -n 9; then
    progress "waiting for another start to pick its ports"
    flock -w "$TIMEOUT" 9 || start_failed "another start held the port lock for over $TIMEOUT s"
  fi
  local ports
  ports=$("${PY_HELPER[@]}" ports "${CEPH_MON_PORT:-$DEFAULT_MON_BASE}" "${CEPH_S3_PORT:-$DEFAULT_S3_BASE}" \
            "$([ -n "${CEPH_MON_PORT:-}" ] && echo 1 || echo 0)" \
            "$([ -n "${CEPH_S3_PORT:-}" ] && echo 1 || echo 0)" "$PORT_TRIES" 2>&1) \
    || start_failed "$ports"
  MON_PORT=${ports% *}
  S3_PORT=${ports#* }
  FSID=$(cat /proc/sys/kernel/random/uuid)
  local osd_uuid
  osd_uuid=$(cat /proc/sys/kernel/random/uuid)
  write_config

  # The monitor.
  monmaptool --create --fsid "$FSID" --addv a "[v2:127.0.0.1:$MON_PORT]" \
    --enable-all-features "$DIR/monmap" >"$DIR/log/monmap.out" 2>&1 \
    || { cat "$DIR/log/monmap.out" >&2; start_failed "monmaptool could not write $DIR/monmap"; }
  ceph-mon -c "$CONF" --mkfs -i a --monmap "$DIR/monmap" >"$DIR/log/mon-mkfs.out" 2>&1 \
    || { cat "$DIR/log/mon-mkfs.out" >&2; start_failed "ceph-mon --mkfs could not set up $DIR/mon"; }
  launch mon.a ceph-mon -i a
  progress "monitor started on 127.0.0.1:$MON_PORT"

  # The OSD's store is made while the monitor registers the OSD; the pools are made
  # while the OSD boots.
  local register mkfs pools answer
  step register "${PY_HELPER[@]}" register "$CONF" "$osd_uuid" "$TIMEOUT"; register=$!
  step osd-mkfs ceph-osd -c "$CONF" -i 0 --mkfs --osd-uuid "$osd_uuid"; mkfs=$!
  wait_steps "registering the OSD" mon.a "$register"
  wait_steps "making the OSD's store (ceph-osd --mkfs)" "" "$mkfs"
  progress "monitor up; OSD registered"
  launch osd.0 ceph-osd -i 0
  step pools "${PY_HELPER[@]}" pools "$CONF" "$TIMEOUT" "${RGW_POOLS[@]}"; pools=$!
  wait_steps "creating the pools and waiting for the OSD" osd.0 "$pools"
  progress "OSD up; ${#RGW_POOLS[@]} pools created"

  launch client.rgw.s3 radosgw -n client.rgw.s3
  # The poll also ends by itself when the gateway has exited or at the deadline.
  step s3-answer bash -c 'until curl -s -m 10 -o /dev/null "http://127.0.0.1:$1/"; do
      kill -0 "$2" && (( ${EPOCHREALTIME/./} < $3 )) || exit 1; sleep 0.05; done' \
    _ "$S3_PORT" "$(recorded_pid "$DIR" client.rgw.s3)" "$DEADLINE"
  answer=$!
  wait_steps "waiting for the gateway to answer on port $S3_PORT" client.rgw.s3 "$answer"
  check_daemons
  exec 9<&-
  progress "gateway answering on 127.0.0.1:$S3_PORT"

  # The S3 user and the bucket.
  local user
  step user-create radosgw-admin -c "$CONF" user create --uid=ovltest --display-name="overlayprovider tests" \
    --access-key="$access_key" --secret-key="$secret_key"; user=$!
  wait_steps "creating the S3 user (radosgw-admin user create)" client.rgw.s3 "$user"
  local code
  code=$(curl -sS -m "$TIMEOUT" -o "$DIR/log/bucket.out" -w '%{http_code}' -X PUT \
           --aws-sigv4 "aws:amz:default:s3" --user "$access_key:$secret_key" \
           -H 'x-amz-content-sha256: UNSIGNED-PAYLOAD' \
           "http://127.0.0.1:$S3_PORT/$BUCKET" 2>&1) || true
  if [ "$code" != 200 ]; then
    cat "$DIR/log/bucket.out" >&2 2>/dev/null || true
    start_failed "creating the bucket $BUCKET answered '$code', not 200" client.rgw.s3
  fi
  progress "user and bucket $BUCKET ready"

  write_aws_config
  cat >"$DIR/env" <<EOF
AWS_ENDPOINT_URL=http://127.0.0.1:$S3_PORT
AWS_ACCESS_KEY_ID=$access_key
AWS_SECRET_ACCESS_KEY=$secret_key
AWS_REGION=default
OVL_S3_BUCKET=$BUCKET
CEPH_S3_DIR=$DIR
EOF
  STARTED_OK=1
  cat "$DIR/env"
}

# --- aws ------------------------------------------------------------------------------

write_aws_config() {
  cat >"$DIR/aws.conf" <<'EOF'
# The aws command line's settings for this gateway (scripts/ceph-s3.sh aws uses them).
[default]
region = default
# Buckets in the path, not in the host name.
s3 =
    addressing_style = path
# Newer clients (botocore 1.36 on) add a CRC to every upload unless told to do so only
# where an operation demands one. Over plain HTTP it travels in a header, which Ceph 16
# ignores; its other form, a trailer after a chunked body, is newer than Ceph 16.
request_checksum_calculation = when_required
response_checksum_validation = when_required
EOF
}

cmd_aws() {
  [ $# -ge 1 ] || usage_error "aws needs DIR"
  local dir aws line
  dir=$(absolute_dir "$1"); shift
  if [ -n "${CEPH_S3_AWS:-}" ]; then
    aws=$CEPH_S3_AWS
  elif [ -x /usr/bin/aws ]; then
    aws=/usr/bin/aws
  else
    aws=$(command -v aws) || missing_package "the aws command line (awscli)"
  fi
  [ -f "$dir/env" ] || die "$dir/env is missing: no cluster was started there ($0 start $dir)"
  # Only the cluster's settings: nothing from the caller's own AWS profile.
  unset AWS_PROFILE AWS_DEFAULT_PROFILE AWS_SESSION_TOKEN AWS_SECURITY_TOKEN AWS_CA_BUNDLE
  while IFS= read -r line; do
    case "$line" in
      AWS_ENDPOINT_URL=* | AWS_ACCESS_KEY_ID=* | AWS_SECRET_ACCESS_KEY=* | AWS_REGION=*)
        export "${line?}" ;;
    esac
  done <"$dir/env"
  export AWS_DEFAULT_REGION=$AWS_REGION
  export AWS_CONFIG_FILE=$dir/aws.conf AWS_SHARED_CREDENTIALS_FILE=/dev/null
  export AWS_REQUEST_CHECKSUM_CALCULATION=when_required
  export AWS_RESPONSE_CHECKSUM_VALIDATION=when_required
  # No instance metadata look-ups, no pager.
  export AWS_EC2_METADATA_DISABLED=true AWS_PAGER=
  exec "$aws" --endpoint-url "$AWS_ENDPOINT_URL" "$@"
}

# --- main -----------------------------------------------------------------------------

case "${1:-}" in
  start) shift; cmd_start "$@" ;;
  stop) shift; cmd_stop "$@" ;;
  aws) shift; cmd_aws "$@" ;;
  gateway) shift; cmd_gateway "$@" ;;
  -h | --help | help) usage ;;
  "") usage >&2; exit 2 ;;
  *) usage_error "unknown command '$1'" ;;
esac
