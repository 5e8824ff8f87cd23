# What the end-to-end tests share: the client installed into a sandbox root as `cmake --install`
# lays it out, a private system bus with the installed policy, `vesk-center serve` as the
# daemon, the tests' stand-in login manager, and waiting for what the peers print.
#
# Each test runs as root in a mount namespace of its own (re-executing itself under unshare),
# so that what it mounts (a bus at the system socket, a full disk, stand-ins over system tools)
# is gone with it. VESK_BUILD is the build folder; exit 77 means skipped.
set -euo pipefail

skip() {
  echo "SKIP: $*"
  exit 77
}
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

[[ $(id -u) -eq 0 ]] || skip "the installed agent is tried as root"
if [[ -z ${VESK_E2E_NAMESPACE:-} ]]; then
  unshare -m --propagation private /bin/true 2>/dev/null || skip "no mount namespace here"
  VESK_E2E_NAMESPACE=1 exec unshare -m --propagation private bash "$0" "$@"
fi

build=$(cd "${VESK_BUILD:?}" && pwd)
source_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d /tmp/vesk-e2e.XXXXXX)
chmod 0755 "$work"
root=$work/root
bin=$root/usr/local/vesk/bin
restricted=vesk-e2e-forbidden-$$
export VESK_ROOT=$root
unset VESK_OS_VERSION
# How the client's programs are run: with `client` as a prefix, from `client_bin`.
client=()
client_bin=$bin

started=()
cleanup() {
  local status=$? i
  set +e
  # A test's own undoing, when it has any.
  declare -F undo >/dev/null && undo
  for ((i = ${#started[@]} - 1; i >= 0; i--)); do
    kill -KILL -- "-${started[i]}" 2>/dev/null && wait "${started[i]}" 2>/dev/null
  done
  pkill -KILL -f "^[^ ]*$work/" 2>/dev/null
  if [[ $status -ne 0 && $status -ne 77 ]]; then
    for log in "$work"/*.out "$root/private/var/log/vesk.log"; do
      [[ -f $log ]] && { echo "--- $log"; tail -n 25 "$log" | tr -d '\000' | cut -c 1-400; }
    done
  fi
  # The installed system's mounts go first: nothing below them is ours to remove.
  [[ -d $work/system ]] && umount -R -l "$work/system" 2>/dev/null
  rm -rf --one-file-system "$work"
  exit "$status"
}
trap cleanup EXIT

# Starts a command in a process group of its own, output to $work/NAME.out, with the caller's
# standard input (a background command would get /dev/null); sets $last.
run_bg() {
  local name=$1
  shift
  setsid "$@" <&0 >>"$work/$name.out" 2>&1 &
  last=$!
  started+=("$last")
}

# Waits up to fifteen seconds for a command to succeed.
await() {
  local i
  for i in $(seq 300); do "$@" && return 0; sleep 0.05; done
  return 1
}

# Lines of $work/NAME.out after the ones already taken by expect_line.
declare -A taken=()
unread() { tail -n +$((${taken[$1]:-0} + 1)) "$work/$1.out" 2>/dev/null; }
# The first line of NAME's output not yet taken that holds every text: it goes to $found, and
# it and the lines before it are taken.
find_line() {
  local name=$1 n=0 line text ok
  shift
  while IFS= read -r line; do
    n=$((n + 1))
    ok=true
    for text in "$@"; do [[ $line == *"$text"* ]] || ok=false; done
    if $ok; then
      taken[$name]=$((${taken[$name]:-0} + n))
      found=$line
      return 0
    fi
  done < <(unread "$name")
  return 1
}
expect_line() { await find_line "$@" || fail "no line of $1 with: ${*:2}"; }

# The client installed over a sandbox root: its folders, the computer's name and a stand-in
# for the management tool (make-sandbox), then everything `cmake --install` puts in place, and
# a restricted-software list that kills $restricted.
install_client() {
  VESK_DEFAULTS_TOOL=$build/tools/vesk-defaults "$source_dir/scripts/make-sandbox" "$root" \
    >/dev/null
  DESTDIR=$root cmake --install "$build" >/dev/null
  cat >"$root/Library/Application Support/VESK/.blacklist.xml" <<XML
<?xml version="1.0"?><ns2:list xmlns:ns2="urn:e2e"><ns2:blacklisted><ns2:id>42</ns2:id>
<ns2:process>$restricted</ns2:process><ns2:kill>true</ns2:kill></ns2:blacklisted></ns2:list>
XML
  cp /bin/sleep "$root/bin/$restricted"
}

# The client installed on a system of its own, where it runs with the paths it has when
# installed for real: a root folder that sees this machine's /usr and /etc through overlays
# (what the installation writes there stays in the overlay), with the client's folders at its
# top and a fresh /proc, /tmp and /run; `client` runs its programs there, with the system bus
# at its usual socket. Sets root to that folder, where VESK_ROOT then points for what runs
# outside it.
install_system() {
  local dir device
  root=$work/system
  mkdir -p "$root"
  mount -t tmpfs -o mode=0755 tmpfs "$root"
  for dir in usr etc; do
    mkdir -p "$root/.$dir/upper" "$root/.$dir/work" "$root/$dir"
    mount -t overlay overlay \
      -o "lowerdir=/$dir,upperdir=$root/.$dir/upper,workdir=$root/.$dir/work" "$root/$dir"
  done
  for dir in bin lib lib64 sbin; do ln -s "usr/$dir" "$root/$dir"; done
  mkdir -p "$root/proc" "$root/dev" "$root/run/dbus" "$root/home" "$root/var" \
    "$root/private/var/log" "$root/Library/Preferences" "$root/Library/Application Support/VESK/bin"
  ln -s ../run "$root/var/run"
  mount -t proc proc "$root/proc"
  for device in null zero random urandom console; do
    touch "$root/dev/$device"
    mount --bind "/dev/$device" "$root/dev/$device"
  done
  install -d -m 1777 "$root/tmp" "$root/private/tmp"
  DESTDIR=$root cmake --install "$build" >/dev/null
  bin=$root/usr/local/vesk/bin
  export VESK_ROOT=$root
  client=(env -u VESK_ROOT DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/dbus/system_bus_socket
    chroot "$root")
  client_bin=/usr/local/vesk/bin
}

# A private system bus with the installed policy, at SOCKET (default: in $work).
# POLICY (default: the installed client's file) is the configuration element that brings it in.
start_bus() {
  local socket=${1:-$work/system_bus_socket}
  local policy=${2:-<include>$root/usr/share/dbus-1/system.d/com.vesksoftware.vesk.conf</include>}
  sed "s|@SOCKET@|$socket|; s|<include>@POLICY@</include>|$policy|" \
    "$source_dir/scripts/demo-bus.conf" >"$work/bus.conf"
  run_bg bus dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile
  bus_pid=$last
  export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$socket
  await test -S "$socket" || fail "the bus did not start"
}

center() { "${client[@]}" "$client_bin/vesk-center" "$@"; }

# The daemon, printing each post as JSON into daemon.out.
start_daemon() {
  run_bg daemon "${client[@]}" "$client_bin/vesk-center" serve
  daemon_pid=$last
  await center post com.vesksoftware.vesk.e2eReady || fail "the daemon did not start"
  expect_line daemon e2eReady
}

# The stand-in login manager for USER's session (then its options); commands go to fd 7. Sets
# $logind_pid.
start_logind() {
  rm -f "$work/logind.in"
  mkfifo "$work/logind.in"
  # Opened for reading and writing, the pipe does not wait for a reader.
  exec 7<>"$work/logind.in"
  run_bg logind "$build/tests/helpers/fake_logind" --user="$@" <"$work/logind.in"
  logind_pid=$last
  expect_line logind ready
}

# The installed agent, verbose, once it monitors: start_agent [PREFIX...] [-- OPTION...]; the
# prefix runs it (setpriv, prlimit). Sets $agent_pid.
start_agent() {
  local prefix=()
  while [[ $# -gt 0 && $1 != -- ]]; do
    prefix+=("$1")
    shift
  done
  [[ $# -gt 0 ]] && shift
  run_bg agent "${client[@]}" "${prefix[@]}" "$client_bin/veskAgent" -verbose "$@"
  agent_pid=$last
  expect_line agent "Monitoring for events..."
}

# Stand-ins in DIR for each TOOL, which record every call in FILE (its path where they run) as
# "REAL-UID EFFECTIVE-UID XDG_RUNTIME_DIR TOOL ARGUMENTS".
record_calls() {
  local dir=$1 file=$2 tool
  shift 2
  for tool in "$@"; do
    printf '#!/bin/sh\necho "$(id -ru) $(id -u) $XDG_RUNTIME_DIR %s $*" >>%s\n' "$tool" "$file" \
      >"$dir/$tool"
    chmod 0755 "$dir/$tool"
  done
}

# The daemon's next post of NAME by root's agent, with every KEY; bare: one that carries no record.
posted() {
  local name=$1
  shift
  expect_line daemon "{\"name\":\"com.vesksoftware.vesk.$name\"" "$@" '"Username":"root"'
}
bare() {
  posted "$1"
  [[ $found != *NSApplication* ]] || fail "$1 carries an application: $found"
}

# Starts the restricted program: true when it was killed and the daemon was told.
restricted_is_killed() {
  local pid status
  "$root/bin/$restricted" 30 &
  pid=$!
  wait "$pid" && status=0 || status=$?
  [[ $status -eq 137 ]] || fail "$restricted ended with status $status, not killed"
  expect_line daemon '"name":"com.vesksoftware.vesk.blacklistEvent"' "\"ProcessID\":$pid"
}
