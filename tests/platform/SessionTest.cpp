#include <gio/gio.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <set>

#include "foundation/RunLoop.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "platform/ChildProcess.h"
#include "platform/LoginSession.h"

namespace vesk {
namespace {

GDBusConnection* connectTo(const std::string& address) {
  const auto flags =
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  return g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, nullptr);
}

// Records the event's name, checking what every source owes its listeners whatever the event.
void record(std::vector<std::string>& events, const SessionEvent& event) {
  static const std::set<std::string> kDistributed = {kScreenSaverDidStart, kScreenSaverDidStop,
                                                     kScreenIsLocked, kScreenIsUnlocked,
                                                     logoutNotificationName()};
  EXPECT_EQ(event.distributed, kDistributed.count(event.name) == 1) << event.name;
  events.push_back(event.name);
}

TEST(SessionProperties, TakesTheFollowedValuesOfTheRightTypeFromTheSessionsChanges) {
  const struct {
    const char* signal;
    std::optional<bool> active, locked;
    std::optional<std::string> state;
    std::vector<std::string> invalidated;
  } rows[] = {
      {"('org.freedesktop.login1.Session', {'Active': <false>, 'LockedHint': <true>, 'State': "
       "<'closing'>, 'Name': <'u'>}, @as [])",
       false,
       true,
       "closing",
       {}},
      {"('org.freedesktop.login1.Session', {'Active': <'yes'>, 'State': <uint32 1>}, ['State'])",
       std::nullopt,
       std::nullopt,
       std::nullopt,
       {"State"}},
      {"('org.freedesktop.login1.User', {'Active': <true>}, @as [])",
       std::nullopt,
       std::nullopt,
       std::nullopt,
       {}},
      {"('org.freedesktop.login1.Session',)", std::nullopt, std::nullopt, std::nullopt, {}},
  };
  for (const auto& row : rows) {
    GVariant* signal = g_variant_parse(nullptr, row.signal, nullptr, nullptr, nullptr);
    ASSERT_NE(signal, nullptr) << row.signal;
    const SessionProperties decoded = sessionPropertiesFromSignal(signal);
    g_variant_unref(signal);
    EXPECT_EQ(decoded.active, row.active) << row.signal;
    EXPECT_EQ(decoded.lockedHint, row.locked) << row.signal;
    EXPECT_EQ(decoded.state, row.state) << row.signal;
    EXPECT_EQ(decoded.invalidated, row.invalidated) << row.signal;
  }
}

// fake_logind on a private system bus, and a session started on a connection of our own.
struct Logind {
  explicit Logind(const std::vector<std::string>& options = {})
      : fake(test::startProgram(VESK_HELPERS_DIR "/fake_logind", options, true)),
        bus(connectTo(privateBus.address())),
        session(makeLogindSession(bus, [this] { return screenSaver; })) {
    EXPECT_EQ(ask(""), "ready");
    EXPECT_TRUE(session->start([this](const SessionEvent& event) {
      record(events, event);
      if (duringEvent) duringEvent(event);
    })) << session->why();
  }
  ~Logind() { g_object_unref(bus); }  // the session holds its own; the fake ends with its input

  // The fake's one line in answer to `command` (or its first), once it has done it.
  std::string ask(const std::string& command) {
    std::string output;
    if (!command.empty()) fake->writeInput(command + "\n");
    return test::waitForOutput(*fake, output, "\n") ? output.substr(0, output.find('\n'))
                                                    : "no answer: " + output;
  }
  // Sends each command, then waits until `count` events in all were reported.
  bool walk(std::initializer_list<const char*> commands, std::size_t count) {
    for (const char* command : commands) EXPECT_EQ(ask(command), "ok") << command;
    return RunLoop::current().runUntilCondition([&] { return events.size() >= count; }, 10);
  }

  test::PrivateBus privateBus{false};
  std::unique_ptr<ChildProcess> fake;
  GDBusConnection* bus;
  bool screenSaver = false;
  std::unique_ptr<LoginSession> session;
  std::vector<std::string> events;
  std::function<void(const SessionEvent&)> duringEvent;
};

constexpr const char* kRemoveOurs = "remove /org/freedesktop/login1/session/_31";

TEST(LoginSession, HoldsTheInhibitorUntilSleepAndPowerOffAreReportedAndTakesItOnWaking) {
  Logind logind;
  std::vector<std::string> held;  // as each listener saw it
  logind.duringEvent = [&](const SessionEvent&) {
    // Waited for only while more are held than this listener should see.
    const char* expected[] = {"1", "0", "1", "1", "1"};
    held.push_back(logind.ask(std::string("inhibitors ") + expected[held.size() % 5]));
    if (logind.events.size() == 4) logind.walk({"sleep false"}, 5);  // runs past the wake
  };
  ASSERT_TRUE(logind.walk({"sleep true", "sleep false", "shutdown true"}, 3));
  EXPECT_EQ(logind.ask("inhibitors 0"), "held 0 of 2");
  // A power-off called off takes the inhibitor again; the one taken on a wake inside the
  // sleep's listener is kept when that listener returns.
  ASSERT_TRUE(logind.walk({"shutdown false", "sleep true"}, 5));
  EXPECT_EQ(logind.ask("inhibitors 1"), "held 1 of 4");
  EXPECT_EQ(logind.events,
            (std::vector<std::string>{kWillSleep, kDidWake, kWillPowerOff, kWillSleep, kDidWake}));
  // Let go once will-sleep was handled, taken again once did-wake was.
  EXPECT_EQ(held, (std::vector<std::string>{"held 1 of 1", "held 0 of 1", "held 1 of 2",
                                            "held 1 of 3", "held 1 of 3"}));
}

TEST(LoginSession, ReportsSwitchingLockingAndIdlenessOnChangeAndLogOutOnce) {
  Logind logind;
  // The session starts active, so the first line changes nothing.
  ASSERT_TRUE(logind.walk({"active true", "active false", "active false", "active true",
                           "locked true", "locked false", "idle true", "idle false"},
                          6));
  // A screen saver that reports itself speaks for idleness.
  logind.screenSaver = true;
  ASSERT_TRUE(logind.walk({"idle true", "idle false", "locked true"}, 7));
  logind.screenSaver = false;
  // The session reads the State announced without its value, and whatever else changed by
  // then: the next change waits until the log-out is out.
  ASSERT_TRUE(logind.walk({"idle true", "state closing", kRemoveOurs}, 9));
  ASSERT_TRUE(logind.walk({"active false"}, 10));
  EXPECT_EQ(logind.events,
            (std::vector<std::string>{kSessionDidResignActive, kSessionDidBecomeActive,
                                      kScreenIsLocked, kScreenIsUnlocked, kScreenSaverDidStart,
                                      kScreenSaverDidStop, kScreenIsLocked, kScreenSaverDidStart,
                                      logoutNotificationName(), kSessionDidResignActive}));
}

TEST(LoginSession, FollowsTheUsersGraphicalSessionAndGoesWithoutARefusedInhibitor) {
  Logind logind({"--user-unit", "--refuse-inhibit"});
  EXPECT_NE(logind.session->why().find("Permission denied"), std::string::npos)
      << logind.session->why();
  EXPECT_EQ(logind.session->display(), ":7");
  EXPECT_EQ(logind.session->consoleUser(), "someone");
  ASSERT_TRUE(
      logind.walk({"sleep true", "sleep false", "remove /org/freedesktop/login1/session/_32",
                   kRemoveOurs, "state closing", "locked true"},
                  4));
  EXPECT_EQ(logind.events, (std::vector<std::string>{kWillSleep, kDidWake, logoutNotificationName(),
                                                     kScreenIsLocked}));
  // Refused once, the inhibitor is not asked for again on waking.
  EXPECT_EQ(logind.ask("inhibitors 0"), "held 0 of 1");
}

TEST(LoginSession, DoesNotStartWithoutALoginManager) {
  test::PrivateBus privateBus(false);
  GDBusConnection* bus = connectTo(privateBus.address());
  for (GDBusConnection* connection : {bus, static_cast<GDBusConnection*>(nullptr)}) {
    auto session = makeLogindSession(connection, [] { return false; });
    EXPECT_FALSE(session->start([](const SessionEvent& event) { ADD_FAILURE() << event.name; }));
    EXPECT_NE(session->why(), "");
    EXPECT_EQ(session->consoleUser(), std::nullopt);
  }
  g_object_unref(bus);
}

TEST(ScreenSaver, ReportsChangesOfStateAndWhetherOneIsOnTheUsersSessionBus) {
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  auto unreachable = makeSessionBusScreenSaver();
  EXPECT_FALSE(unreachable->start([](const SessionEvent&) {}));
  EXPECT_NE(unreachable->why(), "");

  const auto socket = root.path() / "run/user" / std::to_string(::getuid()) / "bus";
  // A second private bus stands in for the user's, found at the socket's usual place.
  const test::PrivateBus sessionBus(false);
  std::filesystem::create_directories(socket.parent_path());
  std::filesystem::create_symlink(sessionBus.socketPath(), socket);
  auto saver = makeSessionBusScreenSaver();
  std::vector<std::string> events;
  ASSERT_TRUE(saver->start([&](const SessionEvent& event) { record(events, event); }))
      << saver->why();
  GDBusConnection* gnome = connectTo(sessionBus.address());
  const guint owner =
      g_bus_own_name_on_connection(gnome, "org.gnome.ScreenSaver", G_BUS_NAME_OWNER_FLAGS_NONE,
                                   nullptr, nullptr, nullptr, nullptr);
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return saver->present(); }, 10));
  // One start said twice (a saver at its second path, or a second desktop's), then the stop.
  const auto say = [&](const char* path, const char* interface, bool active) {
    g_dbus_connection_emit_signal(gnome, nullptr, path, interface, "ActiveChanged",
                                  g_variant_new("(b)", active), nullptr);
  };
  say("/org/gnome/ScreenSaver", "org.gnome.ScreenSaver", true);
  say("/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver", true);
  say("/ScreenSaver", "org.freedesktop.ScreenSaver", false);
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return events.size() >= 2; }, 10));
  EXPECT_EQ(events, (std::vector<std::string>{kScreenSaverDidStart, kScreenSaverDidStop}));

  g_bus_unown_name(owner);
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return !saver->present(); }, 10));
  g_object_unref(gnome);
}

}  // namespace
}  // namespace vesk
