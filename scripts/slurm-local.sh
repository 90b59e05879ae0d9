#!/usr/bin/env bash
# A one-machine Slurm cluster for trying `kestrion submit` and for the farm test.
#
#   eval "$(bash scripts/slurm-local.sh up)"    start it (once; again does nothing) and point
#                                               sbatch and scontrol at it (SLURM_CONF)
#   bash scripts/slurm-local.sh down            stop the daemons that `up` started
#   bash scripts/slurm-local.sh status          exit 0 when they are running
#
# Needs root: it installs Debian's slurm-wlm and munge when they are missing and runs munged,
# slurmctld and slurmd as root. Everything they use lives in one folder,
# $KESTRION_SLURM_DIR (default /tmp/kestrion-slurm): a munge key and socket of its own, the
# configuration, state, spool, pid and log files. The system's /etc/slurm and /etc/munge and the
# default ports are left alone, so a real cluster's daemons on the same machine are untouched.
# `up` prints only the export line on stdout; the daemons log to files in the folder.
set -euo pipefail

PATH="$PATH:/usr/sbin:/sbin"
dir="${KESTRION_SLURM_DIR:-${TMPDIR:-/tmp}/kestrion-slurm}"
conf="$dir/slurm.conf"
node="$(hostname -s)"
# Away from Slurm's defaults (6817, 6818).
ctld_port=16817
slurmd_port=16818
# A requeued job waits cred_expire + 1 seconds before it may start again (120 by default).
cred_expire=10

say() { echo "slurm-local: $*" >&2; }

# The pid of daemon $1 from its pid file when that process is alive and is the daemon (a zombie
# of the same name does not count, nor a process that took over a stale pid).
live_pid() {
  local file="$dir/run/$1.pid" pid state
  [ -s "$file" ] || return 1
  pid="$(cat "$file")"
  [ -r "/proc/$pid/stat" ] && [ "$(cat "/proc/$pid/comm" 2>/dev/null)" = "$1" ] || return 1
  state="$(sed 's/^.*) //' "/proc/$pid/stat" | cut -d' ' -f1)"
  [ "$state" != Z ] || return 1
  echo "$pid"
}

running() { live_pid munged >/dev/null && live_pid slurmctld >/dev/null && live_pid slurmd >/dev/null; }

install_packages() {
  command -v slurmctld >/dev/null && command -v munged >/dev/null && return 0
  say "installing slurm-wlm and munge"
  export DEBIAN_FRONTEND=noninteractive
  local install=(flock /tmp/apt.lock apt-get install -y -qq --no-install-recommends slurm-wlm munge)
  "${install[@]}" >"$dir/log/apt.log" 2>&1 ||
    { flock /tmp/apt.lock apt-get update -qq >>"$dir/log/apt.log" 2>&1 && "${install[@]}" >>"$dir/log/apt.log" 2>&1; } ||
    { say "installing slurm-wlm and munge failed (see $dir/log/apt.log)"; return 1; }
}

write_config() {
  # The node as slurmd sees this machine: its CPUs, sockets, cores, threads and memory.
  local hardware
  hardware="$(slurmd -C | head -n 1 | sed 's/^NodeName=[^ ]* //')"
  cat >"$conf" <<EOF
# Written by scripts/slurm-local.sh: a one-machine cluster, everything under $dir.
ClusterName=kestrion-local
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$dir/munge/munge.socket,cred_expire=$cred_expire
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/run/slurmctld.pid
SlurmdPidFile=$dir/run/slurmd.pid
SlurmctldLogFile=$dir/log/slurmctld.log
SlurmdLogFile=$dir/log/slurmd.log
# No cgroups here: processes are tracked by their parents, tasks are not confined, nothing is
# accounted.
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
MpiDefault=none
ReturnToService=2
NodeName=$node $hardware NodeAddr=127.0.0.1 State=UNKNOWN
PartitionName=local Nodes=$node Default=YES MaxTime=INFINITE State=UP
EOF
}

start_munge() {
  live_pid munged >/dev/null && return 0
  mkdir -p "$dir/munge"
  chmod 700 "$dir/munge"
  [ -s "$dir/munge/munge.key" ] || mungekey --create --keyfile="$dir/munge/munge.key"
  rm -f "$dir/munge/munge.socket"
  munged 9>&- >&2 --force --key-file="$dir/munge/munge.key" --socket="$dir/munge/munge.socket" \
    --pid-file="$dir/run/munged.pid" --log-file="$dir/log/munged.log" --seed-file="$dir/munge/munged.seed"
}

# Waits up to 30 seconds for the node to take jobs.
wait_idle() {
  local state
  for _ in $(seq 300); do
    state="$(SLURM_CONF="$conf" sinfo -h -n "$node" -o %t 2>/dev/null || true)"
    case "$state" in idle* | mix* | alloc*) return 0 ;; esac
    sleep 0.1
  done
  say "the node did not become idle (state '${state:-none}'); see $dir/log"
  return 1
}

up() {
  if [ "$(id -u)" -ne 0 ]; then
    say "starting a local cluster needs root (it installs packages and runs the daemons as root)"
    exit 1
  fi
  mkdir -p "$dir/log" "$dir/run"
  exec 9>"$dir/lock"
  flock 9
  install_packages
  if ! running; then
    stop_daemons
    rm -rf "$dir/state" "$dir/spool"
    mkdir -p "$dir/state" "$dir/spool"
    write_config
    start_munge
    # The daemons must not inherit the lock, nor write to stdout.
    slurmctld -f "$conf" 9>&- >&2
    slurmd -f "$conf" 9>&- >&2
  fi
  wait_idle
  echo "export SLURM_CONF=$conf"
}

# Stops the daemons whose pid files lie in the folder, slurmd first, and waits for them to go.
stop_daemons() {
  local name pid
  for name in slurmd slurmctld munged; do
    pid="$(live_pid "$name")" || continue
    kill "$pid"
    for _ in $(seq 100); do
      live_pid "$name" >/dev/null || break
      sleep 0.1
    done
    rm -f "$dir/run/$name.pid"
  done
}

down() {
  [ -d "$dir/run" ] || return 0
  exec 9>"$dir/lock"
  flock 9
  stop_daemons
}

case "${1:-}" in
  up) up ;;
  down) down ;;
  status) running ;;
  *)
    echo "usage: $0 up|down|status" >&2
    exit 2
    ;;
esac
