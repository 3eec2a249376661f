#!/usr/bin/env bash
# Runs a command inside a private mount namespace in which /etc is a private, writable copy of
# the host's /etc. Accounts, sudoers entries and /etc/hmx/hmx.conf that a test creates there
# vanish with the namespace, so the host is left as it was found.
#
#   scripts/sandbox.sh COMMAND [ARG...]
#
# Nested calls run the command directly in the sandbox they are already in.
set -euo pipefail

if [ "${FERRYGATE_SANDBOXED:-}" = 1 ]; then
  exec "$@"
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "sandbox.sh: must run as root (it makes a private mount namespace)" >&2
  exit 1
fi

if [ "${1:-}" != "--inside" ]; then
  scratch=$(mktemp -d /tmp/ferrygate-sandbox.XXXXXX)
  rc=0
  FERRYGATE_SANDBOX_SCRATCH=$scratch unshare -m --propagation private --fork "$0" --inside "$@" || rc=$?
  rmdir "$scratch" 2>/dev/null || true
  exit $rc
fi
shift

scratch=$FERRYGATE_SANDBOX_SCRATCH
# A tmpfs holds the copy so that nothing of it outlives the namespace.
mount -t tmpfs -o mode=0755 ferrygate-etc "$scratch"
cp -a /etc/. "$scratch"/
mount --bind "$scratch" /etc
# A private /run: sshd wants its privilege-separation directory there, and sudo its time
# stamps; neither may touch the host's.
mount -t tmpfs -o mode=0755 ferrygate-run /run
mkdir -p /run/sshd /run/lock
# Test accounts get their home directories here, never on the host.
mount -t tmpfs -o mode=0755 ferrygate-home /home
export FERRYGATE_SANDBOXED=1
exec "$@"
