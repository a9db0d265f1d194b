#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the recipes of docs/gnu-parallel.md word for word: recipes_test.sh SOURCE PROGRAM. Their machines are this one, by
# other names, in namespaces with which all that was started ends. Exit code 77: this machine cannot do it.
set -euo pipefail
source=$1 program=$2
export PATH=/usr/local/bin:$PATH:/usr/sbin:/sbin

cannot() {
  echo "skipped: $*"
  # Where the tests run for everybody, these have to run, too.
  if [ "${CI:-}" = true ]; then exit 1; fi
  exit 77
}

if [ "${KELM_IN_NAMESPACES:-}" != yes ]; then
  # sshd and Slurm start processes for other users.
  [ "$(id -u)" -eq 0 ] || cannot "only root can start the services"
  for needed in unshare ip parallel ssh sshd slurmctld slurmd sbatch; do
    command -v "$needed" >/dev/null || cannot "there is no $needed (script/bootstrap recipes installs it)"
  done
  namespaces=(unshare --mount --net --pid --fork --kill-child --mount-proc)
  "${namespaces[@]}" true 2>/dev/null || cannot "this machine allows no namespaces (unshare)"
  KELM_IN_NAMESPACES=yes exec "${namespaces[@]}" "$0" "$@"
fi

for folder in /run /srv /usr/local/bin; do mount -t tmpfs none $folder || cannot "nothing can be mounted at $folder"; done
ip link set lo up
# Without an address beside 127.0.0.1 names are not looked up.
ip address add 192.0.2.1/32 dev lo
ln -s "$program" /usr/local/bin/kelmtrova
mkdir /run/sshd /run/slurm /srv/work
cd /srv/work
kelmtrova image synth --class any --count 40 --size 64x80 -o /srv/prints
kelmtrova image quality /srv/prints >/run/expected 2>/dev/null

# The commands of a part, as they stand in the document.
recipe() { awk -v part="$1" '/^## / { here = index($0, part) } here && sub(/^    /, "")' "$source/docs/gnu-parallel.md"; }
# Runs a part, whose result must be that of one process, in any order of the lines.
check() {
  recipe "$1" >/run/recipe
  [ -s /run/recipe ] || { echo "the document has no part about $1" >&2; exit 1; }
  timeout 60 bash -euo pipefail /run/recipe || { echo "failed: $1" >&2; exit 1; }
  sort quality.jsonl | cmp - <(sort /run/expected)
  rm -r /srv/work/*
}

check 'GNU parallel on one machine'

ssh-keygen -q -t ed25519 -N '' -f /run/key
cat >/run/sshd_config <<END
ListenAddress 127.0.0.1
HostKey /run/key
AuthorizedKeysFile /run/key.pub
StrictModes no
PidFile none
END
cat >/run/ssh_config <<END
Host node1 node2
  HostName 127.0.0.1
  IdentityFile /run/key
  UserKnownHostsFile /run/known
  StrictHostKeyChecking no
  LogLevel error
END
"$(command -v sshd)" -f /run/sshd_config
export PARALLEL_SSH='ssh -F /run/ssh_config'
check 'GNU parallel over ssh'

cat >/run/slurm/slurm.conf <<END
ClusterName=recipes
SlurmctldHost=localhost(127.0.0.1)
SlurmUser=root
SlurmdUser=root
AuthType=auth/none
CredType=cred/none
StateSaveLocation=/run/slurm/state
SlurmdSpoolDir=/run/slurm/spool
SlurmctldPidFile=/run/slurm/slurmctld.pid
SlurmdPidFile=/run/slurm/slurmd.pid
SlurmdParameters=config_overrides
SchedulerParameters=batch_sched_delay=0,sched_interval=1,sched_min_interval=0
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ProctrackType=proctrack/linuxproc
NodeName=localhost NodeAddr=127.0.0.1 CPUs=64
PartitionName=all Nodes=localhost Default=YES
END
# Later versions want control groups unless they are told not to; this one does not know the word.
[[ $(slurmd -V) = *" 22."* ]] || echo CgroupPlugin=disabled >/run/slurm/cgroup.conf
export SLURM_CONF=/run/slurm/slurm.conf
mkdir /run/slurm/state /run/slurm/spool
slurmctld -c -L /run/slurm/slurmctld.log || true
slurmd -N localhost -L /run/slurm/slurmd.log || true
idle() { [ "$(timeout 1 sinfo -h -o %t 2>/dev/null)" = idle ]; }
until idle || [ $SECONDS -gt 40 ]; do sleep 0.1; done
idle || { cat /run/slurm/*.log; cannot "Slurm does not start"; }
awk '/^```/ { here = /sh/; next } here' "$source/docs/gnu-parallel.md" >quality.sbatch
check 'Slurm'
