#!/usr/bin/env bash
# The installed agent when what it leans on fails: the daemon killed and started again, the log
# that cannot be written (disk full, folder read-only, a file-size limit), no login manager, and
# the bus going away. It keeps killing what is restricted throughout.
source "$(dirname "$0")/lib.sh"

install_client
start_bus
start_daemon
start_logind root
start_agent
posted agentStart
log=$root/private/var/log/vesk.log
registrations() { grep -c "registered for com.vesksoftware.vesk.veskAgentRequestEvent" "$log"; }
await [ "$(registrations)" -eq 1 ] || fail "the agent did not register with the daemon"

# The daemon dies mid-session: what happens while it is away is dropped, not queued; once it is
# back, every event reaches it exactly once, and its requests are served.
kill -KILL -- "-$daemon_pid"
wait "$daemon_pid" || true
echo "locked true" >&7
expect_line agent "Unable to send notification [com.vesksoftware.vesk.screenLockedEvent]"
start_daemon
await [ "$(registrations)" -eq 2 ] || fail "the agent did not register with the new daemon"
for command in "locked false" "sleep true" "sleep false"; do echo "$command" >&7; done
bare systemWakeEvent
center post com.vesksoftware.vesk.veskAgentRequestEvent EntityType=general RequestType=Survo \
  LocalUsername=root
posted veskAgentResponseEvent '"ResponseType":"Finished"' '"RequestType":"Survo"'
restricted_is_killed
since_restart=$(awk '/e2eReady/ { started++ } started == 2' "$work/daemon.out" |
  grep -o '^{"name":"com.vesksoftware.vesk.[A-Za-z0-9]*"' | cut -d. -f4 | tr -d '"' | tr '\n' ' ')
[[ $since_restart == "e2eReady screenUnlockedEvent systemSleepEvent systemWakeEvent veskAgentRequestEvent veskAgentResponseEvent blacklistEvent appLaunchingEvent " ]] ||
  fail "the new daemon received: $since_restart"

# The log cannot be written: its disk is full, then its folder is read-only.
logs=$root/private/var/log
mount -t tmpfs -o size=64k tmpfs "$logs"
dd if=/dev/zero of="$logs/filler" bs=4k 2>/dev/null || true
restricted_is_killed
echo "locked true" >&7
posted screenLockedEvent
umount "$logs"
mount -t tmpfs -o ro tmpfs "$logs"
restricted_is_killed
echo "locked false" >&7
bare screenUnlockedEvent
umount "$logs"

# No login manager, no process connector (a network namespace of its own keeps the kernel's
# from it) and a file-size limit at the log's size: a new agent starts all the same and kills
# what is restricted, found by looking at the process table, without a line in its log.
kill -KILL -- "-$agent_pid" "-$logind_pid"
# (a limit that also holds for the agent's output file, which starts again)
head -c 1000000 < <(yes "$(tail -n 1 "$log")") >>"$log"
mv "$work/agent.out" "$work/first-agent.out"
taken[agent]=0
start_agent unshare -n prlimit --fsize="$(stat -c %s "$log")"
for what in "No login manager" "every 0.25 s instead"; do
  grep -qF "$what" "$work/agent.out" || fail "the agent did not say: $what"
done
restricted_is_killed
! grep "vesk\[$agent_pid\]" "$log" || fail "the agent wrote its log past its file-size limit"

# The bus goes away: the agent says so and exits 75, for its supervisor to start it again.
kill -TERM "$bus_pid"
wait "$agent_pid" && status=0 || status=$?
[[ $status -eq 75 ]] || fail "the agent ended with status $status when the bus went away"
expect_line agent "Lost the connection to the system bus"
echo "PASS"
