#!/usr/bin/env bash
# A throw-away OpenSSH server on 127.0.0.1 for tests, benchmarks and the demo.
#
#   scripts/sshd-host.sh start [OPTION...]    prints port=, pid=, user=, home=, dir= lines
#   scripts/sshd-host.sh stop PID             stops that server, its sessions and its files
#
# Options of start:
#   --user NAME            test account, created (useradd -m) when missing; default fgtest
#   --auth LIST            comma-separated methods the server offers: password,
#                          keyboard-interactive, publickey; default password,keyboard-interactive
#   --compat               also offer the legacy key exchange diffie-hellman-group1-sha1
#   --shell PATH           login shell of the account; default /bin/bash
#   --authorized-key FILE  a public key that may log in as the account
#   --option 'KEY VALUE'   one more sshd_config line (repeatable)
#   --ports LOW-HIGH       range of the random port; default 20000-60999
#   --address ADDR         the one address to listen on (127.0.0.1 or ::1); default 127.0.0.1
#   --password-stdin       read the account's password from the first line of standard input
#
# The account's password comes from the variable FERRYGATE_SSHD_PASSWORD or, with
# --password-stdin, from standard input; never from the command line. Without either the account
# keeps the password it has (a new account has none, which suits publickey-only servers).
#
# Accounts and the PAM stack are changed in /etc and /home, so start runs only inside
# scripts/sandbox.sh; called outside, it makes its own sandbox, which then lives as long as the
# server (its account is visible only to the server).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)

die() {
    echo "sshd-host.sh: $*" >&2
    exit 1
}

# Every process below `pid`, deepest first, so that children are gone before their parents.
descendants() {
    local child
    for child in $(ps -o pid= --ppid "$1"); do
        descendants "$child"
        echo "$child"
    done
}

stop_server() {
    local pid=$1 cmdline dir
    [[ $pid =~ ^[0-9]+$ ]] || die "stop: not a process id: $pid"
    [ -r "/proc/$pid/cmdline" ] || die "stop: no process $pid"
    cmdline=$(tr '\0' ' ' <"/proc/$pid/cmdline")
    # Only a server this script started: its configuration lives in one of our directories.
    [[ $cmdline =~ -f\ (/tmp/ferrygate-sshd\.[A-Za-z0-9]+)/sshd_config ]] ||
        die "stop: process $pid is not a server started by sshd-host.sh"
    dir=${BASH_REMATCH[1]}
    local victims
    victims=$(descendants "$pid")
    kill -TERM "$pid" 2>/dev/null || true
    local p
    for p in $victims; do
        kill -KILL "$p" 2>/dev/null || true
    done
    local state
    for _ in $(seq 50); do
        state=$(awk '{ print $3 }' "/proc/$pid/stat" 2>/dev/null) || break
        # Gone, or a zombie left for its parent to reap.
        [ -z "$state" ] || [ "$state" = Z ] && break
        sleep 0.1
    done
    if [ -n "${state:-}" ] && [ "$state" != Z ]; then kill -KILL "$pid" 2>/dev/null || true; fi
    rm -rf "$dir"
}

write_pam_stack() {
    # A minimal stack: pam_unix without its two-second failure delay keeps tests with a wrong
    # password fast, and no session module depends on what a container allows (loginuid).
    cat >/etc/pam.d/sshd <<'EOF'
auth     required pam_unix.so nodelay
account  required pam_unix.so
password required pam_unix.so
session  required pam_unix.so
EOF
}

start_server() {
    local user=fgtest auth=password,keyboard-interactive compat=0 shell=/bin/bash key=
    local password_stdin=0 ports=20000-60999 address=127.0.0.1
    local -a extra=()
    while [ $# -gt 0 ]; do
        case $1 in
        --user) user=$2; shift 2 ;;
        --auth) auth=$2; shift 2 ;;
        --compat) compat=1; shift ;;
        --shell) shell=$2; shift 2 ;;
        --authorized-key) key=$2; shift 2 ;;
        --option) extra+=("$2"); shift 2 ;;
        --password-stdin) password_stdin=1; shift ;;
        --ports) ports=$2; shift 2 ;;
        --address) address=$2; shift 2 ;;
        *) die "start: unknown option $1" ;;
        esac
    done
    [[ $user =~ ^[a-z_][a-z0-9_-]*$ ]] || die "start: bad user name $user"
    [ -x "$shell" ] || die "start: no shell $shell"
    [[ $ports =~ ^[0-9]+-[0-9]+$ ]] || die "start: bad port range $ports"
    [[ $address =~ ^[0-9a-f.:]+$ ]] || die "start: bad address $address"

    local password= have_password=0
    if [ $password_stdin = 1 ]; then
        IFS= read -r password || true
        have_password=1
    elif [ -n "${FERRYGATE_SSHD_PASSWORD+set}" ]; then
        password=$FERRYGATE_SSHD_PASSWORD
        have_password=1
    fi
    unset FERRYGATE_SSHD_PASSWORD
    [[ $password != *:* && $password != *$'\n'* ]] || die "start: a password may hold no ':'"

    local pw_auth=no kbd_auth=no pk_auth=no method
    IFS=, read -r -a methods <<<"$auth"
    for method in "${methods[@]}"; do
        case $method in
        password) pw_auth=yes ;;
        keyboard-interactive) kbd_auth=yes ;;
        publickey) pk_auth=yes ;;
        *) die "start: unknown authentication method $method" ;;
        esac
    done

    if id "$user" >/dev/null 2>&1; then
        usermod -s "$shell" "$user"
    else
        useradd -m -s "$shell" "$user"
    fi
    if [ $have_password = 1 ]; then
        # printf is a builtin: the password reaches chpasswd through a pipe, not an argument.
        printf '%s:%s\n' "$user" "$password" | chpasswd
    fi
    password=
    local home
    home=$(getent passwd "$user" | cut -d: -f6)
    if [ -n "$key" ]; then
        install -d -m 0700 -o "$user" -g "$(id -g "$user")" "$home/.ssh"
        install -m 0600 -o "$user" -g "$(id -g "$user")" "$key" "$home/.ssh/authorized_keys"
    fi
    write_pam_stack
    mkdir -p /run/sshd

    local dir
    dir=$(mktemp -d /tmp/ferrygate-sshd.XXXXXX)
    chmod 0700 "$dir"
    ssh-keygen -q -t ed25519 -N '' -C ferrygate-test-host -f "$dir/host_ed25519_key"

    local attempt port pid=
    for attempt in $(seq 20); do
        port=$(shuf -i "$ports" -n 1)
        {
            echo "ListenAddress $address"
            echo "Port $port"
            echo "HostKey $dir/host_ed25519_key"
            echo "PidFile none"
            echo "UsePAM yes"
            echo "PasswordAuthentication $pw_auth"
            echo "KbdInteractiveAuthentication $kbd_auth"
            echo "PubkeyAuthentication $pk_auth"
            echo "AuthorizedKeysFile .ssh/authorized_keys"
            echo "AllowUsers $user"
            echo "PermitRootLogin no"
            echo "UseDNS no"
            echo "PrintMotd no"
            echo "PrintLastLog no"
            echo "MaxSessions 64"
            echo "MaxStartups 64"
            echo "LogLevel VERBOSE"
            echo "Subsystem sftp /usr/lib/openssh/sftp-server"
            [ $compat = 1 ] && echo "KexAlgorithms +diffie-hellman-group1-sha1"
            local line
            for line in "${extra[@]}"; do
                echo "$line"
            done
        } >"$dir/sshd_config"
        : >"$dir/sshd.log"
        /usr/sbin/sshd -D -f "$dir/sshd_config" -E "$dir/sshd.log" </dev/null >/dev/null 2>&1 &
        pid=$!
        # Listening, or gone because another process holds the port: then try the next one.
        for _ in $(seq 100); do
            grep -qF "Server listening on $address port $port." "$dir/sshd.log" && break 2
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.05
        done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
        pid=
    done
    if [ -z "$pid" ]; then
        cat "$dir/sshd.log" >&2 || true
        rm -rf "$dir"
        die "start: sshd did not start"
    fi
    echo "port=$port"
    echo "pid=$pid"
    echo "user=$user"
    echo "home=$home"
    echo "dir=$dir"
}

case ${1:-} in
start)
    shift
    [ "$(id -u)" -eq 0 ] || die "start: must run as root"
    if [ "${FERRYGATE_SANDBOXED:-}" != 1 ]; then
        exec "$here/sandbox.sh" "$0" start "$@"
    fi
    start_server "$@"
    ;;
stop)
    [ $# -eq 2 ] || die "usage: sshd-host.sh stop PID"
    stop_server "$2"
    ;;
*)
    die "usage: sshd-host.sh start [OPTION...] | stop PID"
    ;;
esac
