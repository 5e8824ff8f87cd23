#!/usr/bin/env bash
# The Debian package on this machine: installed with apt-get, it lays the client out set-user-id
# root as `cmake --install` does, tells the running bus of its policy, and gives the agent's
# launchctl and log what they need on Linux; purged, it leaves nothing behind and the bus
# forgets the policy.
source "$(dirname "$0")/lib.sh"

dpkg-query -W veskagent >/dev/null 2>&1 && skip "veskagent is installed here; it is left alone"
[[ -e /usr/local/vesk || -e /private ]] && skip "/usr/local/vesk or /private exists here"
had_library=false
[[ -e /Library ]] && had_library=true
undo() { dpkg-query -W veskagent >/dev/null 2>&1 && dpkg --purge veskagent >/dev/null 2>&1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/cpack.out" 2>&1 ||
  fail "cpack failed: $(tail -n 5 "$work/cpack.out")"
deb=$(echo "$work"/package/veskagent_*.deb)
[[ -f $deb ]] || fail "no package was made: $(ls "$work/package")"

# A system bus of our own at the system's socket, reading the system's policy folder.
mount -t tmpfs tmpfs /run
mkdir /run/dbus
start_bus /run/dbus/system_bus_socket "<includedir>/usr/share/dbus-1/system.d</includedir>"
mkdir -p "$root"
"$build/tools/vesk-center" serve >"$work/early.out" 2>&1 && fail "the name was ownable before"

DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$deb" \
  >"$work/apt.out" 2>&1 || fail "apt-get install failed: $(tail -n 5 "$work/apt.out")"
bin=/usr/local/vesk/bin
[[ $(stat -c '%A %U' "$bin/veskAgent") == "-rwsr-xr-x root" ]] ||
  fail "the agent is installed $(stat -c '%A %U' "$bin/veskAgent")"
for file in "$bin/vesk-center" "$bin/vesk-session" "$bin/vesk-defaults" "$bin/launchctl" \
  "/Library/Application Support/VESK/bin/veskHelper.app/Contents/MacOS/veskHelper"; do
  [[ -x $file ]] || fail "$file is not installed"
done
for page in veskAgent vesk-center vesk-session vesk-defaults; do
  [[ -f /usr/local/share/man/man1/$page.1 ]] || fail "no manual page for $page"
done
[[ $(readlink -f /usr/lib/systemd/user/graphical-session.target.wants/vesk-agent.service) == \
  /usr/lib/systemd/user/vesk-agent.service ]] || fail "graphical sessions do not want the agent"
[[ $(readlink /private/var) == /var && $(readlink /private/tmp) == /tmp ]] ||
  fail "the client's /private folders do not lead to the system's"
"$bin/vesk-defaults" read /Library/Preferences/SystemConfiguration/preferences System |
  grep -qF "<string>$(uname -n)</string>" || fail "the computer's name was not written"
[[ $("$bin/veskAgent" version) == "version=9.96+LEG" ]] || fail "the installed agent does not run"

# The bus was told: root may own the daemon's name now.
run_bg daemon "$bin/vesk-center" serve
await "$bin/vesk-center" post com.vesksoftware.vesk.e2eReady || fail "root cannot own the name"
kill -TERM "$last"

# The agent's launchctl, called as the agent calls it (real user guest, effective root).
id guest >/dev/null 2>&1 || useradd -M guest
mount -t tmpfs tmpfs /usr/local/bin
record_calls /usr/local/bin "$work/recorded" systemctl
install -m 0666 /dev/null "$work/recorded"
for call in "unload /Library/LaunchAgents/com.vesksoftware.vesk.agent.plist" \
  "remove com.vesksoftware.vesk.agent"; do
  # shellcheck disable=SC2086
  setpriv --ruid=guest --euid=0 "$bin/launchctl" $call || fail "launchctl $call failed"
done
uid=$(id -u guest)
expected="$uid $uid /run/user/$uid systemctl --user --no-block stop vesk-agent.service
$uid $uid /run/user/$uid systemctl --user mask --runtime vesk-agent.service
$uid $uid /run/user/$uid systemctl --user --no-block stop vesk-agent.service"
[[ $(cat "$work/recorded") == "$expected" ]] || fail "launchctl ran: $(cat "$work/recorded")"

DEBIAN_FRONTEND=noninteractive apt-get purge -y veskagent >"$work/apt.out" 2>&1 ||
  fail "apt-get purge failed: $(tail -n 5 "$work/apt.out")"
for path in /usr/local/vesk /private /usr/lib/systemd/user/vesk-agent.service \
  /usr/share/dbus-1/system.d/com.vesksoftware.vesk.conf /usr/local/share/man/man1/veskAgent.1 \
  "/Library/Application Support/VESK/bin/veskHelper.app"; do
  [[ ! -e $path && ! -L $path ]] || fail "$path is left after purging"
done
$had_library || [[ ! -e /Library ]] || fail "/Library is left after purging: $(find /Library)"
"$build/tools/vesk-center" serve >"$work/late.out" 2>&1 && fail "the name is ownable after purging"
grep -q "com.vesksoftware.vesk.vesknotificationcenter" "$work/late.out" ||
  fail "serve failed otherwise: $(cat "$work/late.out")"
echo "PASS"
