#!/usr/bin/env bash
# The installed set-user-id agent, run by an ordinary user on a system of its own: nothing that
# user controls (the environment, the bus, planted files) makes it read, write, run or kill what
# it should not, and no other user can steer it.
source "$(dirname "$0")/lib.sh"

id guest >/dev/null 2>&1 || useradd -M guest 2>/dev/null || skip "no user guest, and none can be made"
install_system
as_guest=(setpriv --reuid=guest --regid=guest --init-groups)
as_nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups)
[[ -u $bin/veskAgent && $(stat -c %u "$bin/veskAgent") -eq 0 ]] ||
  fail "the agent is not installed set-user-id root: $(stat -c '%A %U' "$bin/veskAgent")"
mkdir -p "$root/home/guest"
chown guest: "$root/home/guest"
record_calls "$root/usr/local/bin" /tmp/recorded systemctl

# A root of the user's choosing that would, if the agent believed it, have it kill a root
# process (through its PID file and its restricted list), run the user's launchctl as root and
# log where the user says.
victim_program=vesk-e2e-victim-$$
cp /bin/sleep "$root/usr/local/bin/$victim_program"
"$root/usr/local/bin/$victim_program" 300 &
victim=$!
evil=$root/evil
mkdir -p "$evil/Library/Application Support/VESK/bin" "$evil/usr/local/vesk/bin" \
  "$evil/private/var/log"
echo "$victim" >"$evil/Library/Application Support/VESK/bin/guest.pid"
cat >"$evil/Library/Application Support/VESK/.blacklist.xml" <<XML
<?xml version="1.0"?><ns2:list xmlns:ns2="urn:e2e"><ns2:blacklisted><ns2:id>7</ns2:id>
<ns2:process>$victim_program</ns2:process><ns2:kill>true</ns2:kill></ns2:blacklisted></ns2:list>
XML
printf '#!/bin/sh\ntouch /evil/launchctl-ran\n' >"$evil/usr/local/vesk/bin/launchctl"
chmod 0755 "$evil/usr/local/vesk/bin/launchctl"
alive() { [[ $(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null) == [RSD] ]]; }
unchanged_evil() {
  alive "$victim" || fail "the root process named by the planted files was killed"
  [[ ! -e $evil/launchctl-ran && ! -e $evil/private/var/log/vesk.log ]] ||
    fail "the agent used the root of VESK_ROOT: $(ls -R "$evil")"
}

# The environment does not choose the system's version either: 10.6 would refuse to run.
version=$("${client[@]}" "${as_guest[@]}" env VESK_OS_VERSION=10.6.8 VESK_ROOT=/evil \
  "$client_bin/veskAgent" version 2>&1) || true
[[ $version == "version=9.96+LEG" ]] || fail "the set-user-id agent answered: $version"
install -m 0755 "$bin/veskAgent" "$root/tmp/plain-agent"
version=$("${client[@]}" "${as_guest[@]}" env VESK_OS_VERSION=10.6.8 /tmp/plain-agent version \
  2>&1) || true
[[ $version == *"There was an error."* ]] || fail "a plain copy answered: $version"

start_bus "$root/run/dbus/system_bus_socket"
# Only root may own the daemon's name.
if "${client[@]}" "${as_guest[@]}" "$client_bin/vesk-center" serve >"$work/steal.out" 2>&1; then
  fail "a user served as the daemon"
fi
grep -q "com.vesksoftware.vesk.vesknotificationcenter" "$work/steal.out" ||
  fail "a user's serve failed without naming the daemon: $(cat "$work/steal.out")"
start_daemon
start_logind guest

# The PID file is believed only when no one else could have written it: a world-writable one
# naming a root process is not, and neither is a link.
pidfile="$root/Library/Application Support/VESK/bin/guest.pid"
echo "$victim" >"$pidfile"
chmod 0666 "$pidfile"
start_agent "${as_guest[@]}" env VESK_ROOT=/evil VESK_OS_VERSION=10.9.5
unchanged_evil
[[ $(stat -c '%a %u' "$pidfile") == "644 0" && $(cat "$pidfile") == "$agent_pid" ]] ||
  fail "the PID file is $(stat -c '%a %u' "$pidfile"): $(cat "$pidfile")"
kill -KILL -- "-$agent_pid"
echo "$victim" >"$root/tmp/target"
ln -sfn /tmp/target "$pidfile"
start_agent "${as_guest[@]}" -- -allNotifications
unchanged_evil
[[ ! -L $pidfile && $(cat "$pidfile") == "$agent_pid" && $(cat "$root/tmp/target") == "$victim" ]] ||
  fail "the PID file's link was followed: $(ls -l "$pidfile"), target $(cat "$root/tmp/target")"

# Another user's distributed notifications are dropped; on root's path the bus refuses them.
"${client[@]}" "${as_nobody[@]}" "$client_bin/vesk-center" notify com.vesksoftware.vesk.manage
expect_line agent "Dropped distributed notifications from" "(uid 65534)"
"${client[@]}" "${as_nobody[@]}" gdbus emit --system \
  --object-path /com/vesksoftware/DistributedNotificationCenter/root \
  --signal com.vesksoftware.DistributedNotificationCenter.Notification \
  com.vesksoftware.vesk.manage "" "@a{sv} {}" 2>/dev/null || true
# Only root calls the agent's observer.
log=$root/private/var/log/vesk.log
await grep -q "of :[0-9.]* (uid $(id -u guest)) registered" "$log" ||
  fail "the agent did not register with the daemon"
observer=$(grep -o "Daemon observer [^ ]* of :[0-9.]* (uid $(id -u guest))" "$log" | tail -n 1)
read -r _ _ path _ name _ <<<"$observer"
perform=(gdbus call --system --dest "$name" --object-path "$path"
  --method com.vesksoftware.vesk.DaemonObserver.Perform stopAgent: "@a{sv} {}")
if "${client[@]}" "${as_nobody[@]}" "${perform[@]}" >"$work/perform.out" 2>&1; then
  fail "another user called the agent's observer: $(cat "$work/perform.out")"
fi
grep -q AccessDenied "$work/perform.out" || fail "the call failed otherwise: $(cat "$work/perform.out")"
[[ $("${client[@]}" "${perform[@]}") == "(false,)" ]] || fail "root could not call the observer"

# The user's Dexlo preferences are written as the user: a link the user planted into a folder
# only root may write leads nowhere.
mkdir -p "$root/etc/vesk-e2e-trap" "$root/home/guest/Library"
ln -s /etc/vesk-e2e-trap "$root/home/guest/Library/Preferences"
chown -h guest: "$root/home/guest/Library" "$root/home/guest/Library/Preferences"
"${client[@]}" "${as_guest[@]}" "$client_bin/vesk-center" notify \
  com.vesksoftware.vesk.didReceiveNotification dexloalert=1
expect_line agent "Received notification" "com.vesksoftware.dexlo.notificationClicked"
[[ -z $(ls -A "$root/etc/vesk-e2e-trap") ]] ||
  fail "the agent wrote through the user's link: $(ls -l "$root/etc/vesk-e2e-trap")"

# Root's word stops it, through the installed launchctl, as the user: the only stop it heard.
center notify com.vesksoftware.vesk.stopDaemon
wait "$agent_pid" && status=0 || status=$?
[[ $status -eq 0 ]] || fail "the agent ended with status $status after stopDaemon"
unchanged_evil
guest_uid=$(id -u guest)
[[ $(cat "$root/tmp/recorded") == "$guest_uid $guest_uid /run/user/$guest_uid systemctl --user --no-block stop vesk-agent.service" ]] ||
  fail "launchctl ran: $(cat "$root/tmp/recorded")"
kill "$victim"
echo "PASS"
