#!/usr/bin/env bash
# A session of the installed agent as its daemon sees it: every event the session produces
# arrives once, in order, with its keys; requests are answered and a message shown; the log's
# lines have the client's form and the log rotates across 100,000,000 bytes; the daemon's stop
# goes through the installed launchctl to systemd.
source "$(dirname "$0")/lib.sh"

install_client
# What the installed launchctl and message helper run, recorded: they look in /usr/local/bin
# first, and this namespace has a folder of its own there.
mount -t tmpfs tmpfs /usr/local/bin
record_calls /usr/local/bin "$work/recorded" systemctl logger
# A log one byte short of rotating, nearly all of it a hole.
log=$root/private/var/log/vesk.log
truncate -s 99999999 "$log"

# The session's display, its cookie where the display manager leaves it, and a window in front
# whose process the agent reports as the front application.
cookie=$root/run/user/0/gdm/Xauthority
mkdir -p "$(dirname "$cookie")"
# One record for any display: family 65535, no address, no number, the 16-byte cookie.
{
  printf '\377\377\0\0\0\0\0\022MIT-MAGIC-COOKIE-1\0\020'
  head -c 16 /dev/urandom
} >"$cookie"
run_bg xvfb Xvfb -displayfd 1 -nolisten tcp -auth "$cookie"
expect_line xvfb ""
display=:$found
rm -f "$work/x11.in"
mkfifo "$work/x11.in"
exec 8<>"$work/x11.in"
run_bg x11 "$build/tests/helpers/x11_client" "$display" "$cookie" $$ <"$work/x11.in"
x11_pid=$last
expect_line x11 done
front="\"NSApplicationPath\":\"$build/tests/helpers/x11_client\""

start_bus
start_daemon
start_logind root --display="$display"
start_agent
posted workspaceActivated "$front"
posted agentStart "\"pid\":\"$agent_pid\""
posted appActivationEvent "$front" '"NSApplicationName":"x11_client"' \
  "\"NSApplicationProcessIdentifier\":$x11_pid"

# The session: each change, and what the daemon hears of it.
for change in "locked true:screenLockedEvent" "locked false:screenUnlockedEvent:front" \
  "sleep true:systemSleepEvent" "sleep false:systemWakeEvent:front" \
  "active false:workspaceDeactivated" "active true:workspaceActivated:front" \
  "didstart:screensaverActivatedEvent" "didstop:screensaverDeactivatedEvent:front" \
  "survo:survoEvent:front" "second:appActivationEvent:shell" "first:appActivationEvent:front"; do
  IFS=: read -r command name record <<<"$change"
  case $command in
    did*) center notify "com.apple.screensaver.$command" ;;
    survo) center notify com.vesksoftware.vesk.survoEvent ;;
    first | second) echo "$command" >&8 && expect_line x11 done ;;
    *) echo "$command" >&7 ;;
  esac
  case $record in
    front) posted "$name" "$front" ;;
    shell) posted "$name" "\"NSApplicationProcessIdentifier\":$$" ;;
    *) bare "$name" ;;
  esac
done

restricted_is_killed
pid=${found#*\"ProcessID\":}
pid=${pid%%[,\}]*}
for key in "\"AppPath\":\"$root/bin/$restricted\"" '"BlacklistID":42' '"Owner":"root"' \
  "\"Process\":\"*$restricted*\"" '"Username":"root"'; do
  [[ $found == *"$key"* ]] || fail "blacklistEvent without $key: $found"
done
posted appLaunchingEvent "\"NSApplicationPath\":\"$root/bin/$restricted\"" \
  "\"NSApplicationProcessIdentifier\":\"$pid\""
launched=(appLaunchingEvent)

# An application: a program the desktop started in a launch unit of its own.
groups=$(findmnt -n -t cgroup2 -o TARGET | head -n 1)
if [[ -n $groups && -w $groups ]]; then
  unit=$groups/app-gnome-vesk.e2e-$$.scope
  mkdir "$unit"
  sh -c "echo \$\$ >'$unit/cgroup.procs' && exec /bin/sleep 30" &
  app=$!
  for name in appLaunchingEvent appLaunchedEvent; do
    posted "$name" '"NSApplicationName":"sleep"' '"NSApplicationPath":"/usr/bin/sleep"' \
      "\"NSApplicationProcessIdentifier\":$app"
  done
  kill "$app"
  wait "$app" || true
  posted appTerminatedEvent "\"NSApplicationProcessIdentifier\":$app"
  # What is in front now is looked at again.
  posted appActivationEvent "$front"
  rmdir "$unit"
  launched+=(appLaunchingEvent appLaunchedEvent appTerminatedEvent appActivationEvent)
else
  echo "no writable control-group tree: no desktop application launched"
fi

# A policy run for Dexlo, streamed back, then a message.
await eval 'tail -c 100000 "$log" | grep -q "registered for com.vesksoftware.vesk.veskAgentRequestEvent"' ||
  fail "the agent did not register for requests"
center post com.vesksoftware.vesk.veskAgentRequestEvent EntityType=policy \
  RequestType=TriggerPolicy EntityId=512 KsvUrl=https://127.0.0.1:1/ LocalUsername=root
for response in '"ResponseType":"MessageReceived"' '"ResponseType":"Started"' \
  '"Data":"Executing Policy 512\n"' '"Data":"Policy 512 done\n"' '"ResponseType":"Finished"'; do
  expect_line daemon '"com.vesksoftware.vesk.veskAgentResponseEvent"' '"EntityId":512' \
    '"Username":"root"' "$response"
done
center post com.vesksoftware.vesk.veskAgentRequestEvent EntityType=general \
  RequestType=DisplayMessage LocalUsername=root Message="Restart at 18:00, please."
await grep -q "logger .*: Restart at 18:00, please\.$" "$work/recorded" ||
  fail "the message was not logged: $(cat "$work/recorded" 2>/dev/null)"

# A copy that lost its set-user-id bit, started by another user, asks the daemon for repair.
if id guest >/dev/null 2>&1 || useradd -M guest 2>/dev/null; then
  install -m 0755 "$bin/veskAgent" "$work/veskAgent"
  run_bg plain setpriv --reuid=guest --regid=guest --clear-groups "$work/veskAgent"
  expect_line daemon '"com.vesksoftware.vesk.selfHealAgent"' '"Username":"guest"'
  expect_line daemon '"com.vesksoftware.vesk.agentStart"' '"Username":"guest"'
  kill -KILL -- "-$last"
  healed=(workspaceActivated selfHealAgent agentStart)
fi

echo "shutdown true" >&7
bare systemPowerOffEvent
echo "state closing" >&7
posted userLogOut "$front"
center notify com.vesksoftware.vesk.stopDaemon
wait "$agent_pid" && status=0 || status=$?
[[ $status -eq 0 ]] || fail "the agent ended with status $status after stopDaemon"
grep -qx "0 0 /run/user/0 systemctl --user --no-block stop vesk-agent.service" "$work/recorded" ||
  fail "launchctl did not stop the unit: $(cat "$work/recorded")"

# Each event exactly once, in order.
expected=(e2eReady workspaceActivated agentStart appActivationEvent screenLockedEvent
  screenUnlockedEvent systemSleepEvent systemWakeEvent workspaceDeactivated workspaceActivated
  screensaverActivatedEvent screensaverDeactivatedEvent survoEvent appActivationEvent
  appActivationEvent blacklistEvent "${launched[@]}"
  veskAgentRequestEvent veskAgentResponseEvent veskAgentResponseEvent veskAgentResponseEvent
  veskAgentResponseEvent veskAgentResponseEvent veskAgentResponseEvent veskAgentResponseEvent
  veskAgentRequestEvent "${healed[@]}" systemPowerOffEvent userLogOut)
received=$(grep -o '^{"name":"com.vesksoftware.vesk.[A-Za-z0-9]*"' "$work/daemon.out" |
  cut -d. -f4 | tr -d '"' | tr '\n' ' ')
[[ $received == "${expected[*]} " ]] ||
  fail "the daemon received: $received, not: ${expected[*]}"

# The log rotated once it held 100,000,000 bytes; every line has the client's form.
[[ -f $log.1.gz ]] || fail "the log did not rotate"
size=$(gzip -dc "$log.1.gz" | wc -c)
((size >= 100000000 && size < 100001000)) || fail "the rotated log holds $size bytes"
line='^(Mon|Tue|Wed|Thu|Fri|Sat|Sun) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) '
line+='[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [^ ].* vesk\[[0-9]+\]: .'
gzip -dc "$log.1.gz" | tail -c +100000000 | head -c 1000 | grep -Eq "$line" ||
  fail "the line that crossed 100,000,000 bytes is not a log line"
[[ -s $log ]] && ! grep -Evq "$line" "$log" ||
  fail "lines not in the log's form: $(grep -Ev "$line" "$log" | head -n 3)"
echo "PASS"
