#include <gio/gio.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <set>

#include "foundation/RunLoop.h"
#include "helpers/PrivateBus.h"
#include "helpers/TestSupport.h"
#include "platform/ChildProcess.h"
#include "platform/LoginSession.h"

namespace vesk {
namespace {

GDBusConnection* connectTo(const std::string& address) {
  return g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
}

// Checks what every source of session events owes its listeners, whatever the event.
void checkEvent(const SessionEvent& event) {
  const std::set<std::string> distributed = {kScreenSaverDidStart, kScreenSaverDidStop,
                                             kScreenIsLocked, kScreenIsUnlocked,
                                             logoutNotificationName()};
  EXPECT_EQ(event.distributed, distributed.count(event.name) == 1) << event.name;
  EXPECT_TRUE(event.userInfo.empty()) << event.name;
}

std::string described(const SessionProperties& decoded) {
  std::string text;
  const auto flag = [&](const char* name, std::optional<bool> value) {
    if (value) text += std::string(name) + (*value ? "=1 " : "=0 ");
  };
  flag("active", decoded.active);
  flag("locked", decoded.lockedHint);
  flag("idle", decoded.idleHint);
  if (decoded.state) text += "state=" + *decoded.state + " ";
  for (const std::string& name : decoded.invalidated) text += "-" + name + " ";
  return text;
}

TEST(SessionProperties, DecodesWhatTheSessionSaysOfItsFollowedPropertiesOnly) {
  const std::pair<const char*, const char*> cases[] = {
      {"('org.freedesktop.login1.Session', {'Active': <false>, 'LockedHint': <true>, "
       "'IdleHint': <true>, 'State': <'closing'>, 'Name': <'someone'>}, @as [])",
       "active=0 locked=1 idle=1 state=closing "},
      {"('org.freedesktop.login1.Session', @a{sv} {}, ['State', 'Active'])", "-State -Active "},
      // A value of another type than logind's is not guessed at.
      {"('org.freedesktop.login1.Session', {'Active': <'yes'>, 'LockedHint': <uint32 1>, "
       "'IdleHint': <true>, 'State': <@o '/'>}, @as [])",
       "idle=1 "},
      {"('org.freedesktop.login1.User', {'Active': <true>}, ['State'])", ""},
      {"('org.freedesktop.login1.Session', {'Active': <true>})", ""},
  };
  for (const auto& [text, expected] : cases) {
    GVariant* parameters = g_variant_ref_sink(g_variant_new_parsed(text));
    EXPECT_EQ(described(sessionPropertiesFromSignal(parameters)), expected) << text;
    g_variant_unref(parameters);
  }
  EXPECT_EQ(described(sessionPropertiesFromSignal(nullptr)), "");
  GVariant* all =
      g_variant_ref_sink(g_variant_new_parsed("{'IdleHint': <false>, 'State': <'active'>}"));
  EXPECT_EQ(described(sessionPropertiesFromDictionary(all)), "idle=0 state=active ");
  g_variant_unref(all);
}

// fake_logind on a private system bus, and a session on a connection of the test's own that
// records what it reports.
struct Logind {
  explicit Logind(const std::vector<std::string>& options)
      : fake(test::startProgram(VESK_HELPERS_DIR "/fake_logind", options, true)),
        bus(connectTo(privateBus.address())),
        session(makeLogindSession(bus, [this] { return screenSaver; })) {
    EXPECT_EQ(answer(), "ready");
  }
  ~Logind() {
    session.reset();
    g_object_unref(bus);
    fake->closeInput();
    fake->waitUntilExit();
  }

  bool start() {
    return session->start([this](const SessionEvent& event) {
      checkEvent(event);
      events.push_back(event.name);
      if (duringEvent) duringEvent(event);
    });
  }
  // The fake's one line in answer to `command`, once it has done it.
  std::string ask(const std::string& command) {
    fake->writeInput(command + "\n");
    return answer();
  }
  std::string answer() {
    if (!test::waitForOutput(*fake, output, "\n")) return "no answer: " + output;
    std::string line = output.substr(0, output.find('\n'));
    output.erase(0, line.size() + 1);
    return line;
  }
  bool waitForEvents(std::size_t count) {
    return RunLoop::current().runUntilCondition([&] { return events.size() >= count; }, 10);
  }

  test::PrivateBus privateBus{false};
  std::unique_ptr<ChildProcess> fake;
  std::string output;
  GDBusConnection* bus;
  bool screenSaver = false;
  std::unique_ptr<LoginSession> session;
  std::vector<std::string> events;
  std::function<void(const SessionEvent&)> duringEvent;
};

TEST(LoginSession, ReportsSleepThenReleasesTheInhibitorAfterTheHandlerRan) {
  Logind logind({});
  std::vector<std::string> heldDuringHandler;
  logind.duringEvent = [&](const SessionEvent&) {
    heldDuringHandler.push_back(logind.ask("inhibitors"));
  };
  ASSERT_TRUE(logind.start()) << logind.session->why();
  EXPECT_EQ(logind.ask("inhibitors"), "inhibitors 1");

  EXPECT_EQ(logind.ask("sleep true"), "ok");
  ASSERT_TRUE(logind.waitForEvents(1));
  EXPECT_EQ(logind.ask("inhibitors"), "inhibitors 0");
  EXPECT_EQ(logind.ask("sleep false"), "ok");
  ASSERT_TRUE(logind.waitForEvents(2));
  EXPECT_EQ(logind.ask("inhibitors"), "inhibitors 1");
  EXPECT_EQ(logind.ask("shutdown true"), "ok");
  ASSERT_TRUE(logind.waitForEvents(3));
  EXPECT_EQ(logind.ask("inhibitors"), "inhibitors 0");

  EXPECT_EQ(logind.events, (std::vector<std::string>{kWillSleep, kDidWake, kWillPowerOff}));
  // The handler of did-wake runs before the new inhibitor is taken.
  EXPECT_EQ(heldDuringHandler,
            (std::vector<std::string>{"inhibitors 1", "inhibitors 0", "inhibitors 1"}));
  EXPECT_EQ(logind.session->why(), "");

  // A power-off called off takes the inhibitor again; a listener that runs the loop past the
  // wake keeps the one taken on waking.
  logind.duringEvent = [&](const SessionEvent& event) {
    if (event.name == kWillSleep && logind.ask("sleep false") == "ok") logind.waitForEvents(5);
  };
  EXPECT_EQ(logind.ask("shutdown false"), "ok");
  EXPECT_EQ(logind.ask("sleep true"), "ok");
  ASSERT_TRUE(logind.waitForEvents(5));
  EXPECT_EQ(logind.ask("inhibitors"), "inhibitors 1");
  EXPECT_EQ(logind.ask("asked"), "asked 4");
}

TEST(LoginSession, ReportsSwitchingLockingAndIdlenessOnlyWhenTheyChange) {
  Logind logind({});
  ASSERT_TRUE(logind.start()) << logind.session->why();
  // The session starts active, so the first line changes nothing.
  for (const char* command : {"active true", "active false", "active false", "active true",
                              "locked true", "locked false", "idle true", "idle false"})
    EXPECT_EQ(logind.ask(command), "ok");
  ASSERT_TRUE(logind.waitForEvents(6));

  // A screen saver that reports itself speaks for idleness.
  logind.screenSaver = true;
  for (const char* command : {"idle true", "idle false", "locked true"})
    EXPECT_EQ(logind.ask(command), "ok");
  ASSERT_TRUE(logind.waitForEvents(7));
  logind.screenSaver = false;
  EXPECT_EQ(logind.ask("idle true"), "ok");
  ASSERT_TRUE(logind.waitForEvents(8));

  EXPECT_EQ(logind.events,
            (std::vector<std::string>{kSessionDidResignActive, kSessionDidBecomeActive,
                                      kScreenIsLocked, kScreenIsUnlocked, kScreenSaverDidStart,
                                      kScreenSaverDidStop, kScreenIsLocked, kScreenSaverDidStart}));
}

TEST(LoginSession, ReportsLogOutOnceWhenTheSessionClosesAndIsRemoved) {
  Logind logind({});
  ASSERT_TRUE(logind.start()) << logind.session->why();
  // The state is announced without its value: the session reads it, along with whatever else
  // changed by then, so the next change waits until the log-out is out.
  for (const char* command : {"state closing", "remove"}) EXPECT_EQ(logind.ask(command), "ok");
  ASSERT_TRUE(logind.waitForEvents(1));
  EXPECT_EQ(logind.ask("active false"), "ok");
  ASSERT_TRUE(logind.waitForEvents(2));
  EXPECT_EQ(logind.events,
            (std::vector<std::string>{logoutNotificationName(), kSessionDidResignActive}));
}

TEST(LoginSession, FollowsTheUsersGraphicalSessionAndGoesWithoutARefusedInhibitor) {
  Logind logind(
      {"--no-session-by-pid", "--refuse-inhibit", "--display", ":7", "--name", "someone"});
  ASSERT_TRUE(logind.start()) << logind.session->why();
  EXPECT_NE(logind.session->why().find("Permission denied"), std::string::npos)
      << logind.session->why();
  EXPECT_EQ(logind.session->display(), ":7");
  EXPECT_EQ(logind.session->consoleUser(), "someone");
  for (const char* command :
       {"sleep true", "sleep false", "remove /org/freedesktop/login1/session/_32", "remove",
        "state closing", "locked true"})
    EXPECT_EQ(logind.ask(command), "ok");
  ASSERT_TRUE(logind.waitForEvents(4));
  EXPECT_EQ(logind.events, (std::vector<std::string>{kWillSleep, kDidWake, logoutNotificationName(),
                                                     kScreenIsLocked}));
  // Refused once, the inhibitor is not asked for again on waking.
  EXPECT_EQ(logind.ask("asked"), "asked 1");
}

TEST(LoginSession, DoesNotStartWithoutALoginManager) {
  test::PrivateBus privateBus(false);
  GDBusConnection* bus = connectTo(privateBus.address());
  for (GDBusConnection* connection : {bus, static_cast<GDBusConnection*>(nullptr)}) {
    auto session = makeLogindSession(connection, [] { return false; });
    EXPECT_FALSE(session->start([](const SessionEvent& event) { ADD_FAILURE() << event.name; }));
    EXPECT_NE(session->why(), "");
    EXPECT_EQ(session->consoleUser(), std::nullopt);
    EXPECT_EQ(session->display(), "");
  }
  g_object_unref(bus);
}

TEST(LoginSession, NamesTheConsoleOwnerAndUsersFromTheUserDatabase) {
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  EXPECT_EQ(consoleOwnerName(), std::nullopt);
  root.write("dev/console", "");
  EXPECT_EQ(consoleOwnerName(), currentUserShortName());
  EXPECT_FALSE(currentUserShortName().empty());
  EXPECT_EQ(userNameForUid(0), "root");
  EXPECT_EQ(userNameForUid(4000000000u), "");
}

// A dbus-daemon configured as a session bus, listening at `socket` once made.
struct SessionBus {
  SessionBus(const test::TemporaryFolder& folder, const std::filesystem::path& socket) {
    std::filesystem::create_directories(socket.parent_path());
    const auto config = folder.write(
        "session.conf", "<busconfig><type>session</type><listen>unix:path=" + socket.string() +
                            "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                            "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                            "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>");
    daemon =
        ChildProcess::launch({"/usr/bin/dbus-daemon",
                              {"--config-file=" + config.string(), "--nofork", "--print-address"},
                              std::nullopt,
                              StdioMode::kPipe,
                              StdioMode::kPipe});
    std::string printed;
    EXPECT_TRUE(test::waitForOutput(*daemon, printed, "\n")) << printed;
  }
  ~SessionBus() {
    daemon->terminate();
    daemon->waitUntilExit();
  }
  std::unique_ptr<ChildProcess> daemon;
};

void emitActiveChanged(GDBusConnection* bus, const char* path, const char* interface, bool active) {
  g_dbus_connection_emit_signal(bus, nullptr, path, interface, "ActiveChanged",
                                g_variant_new("(b)", active), nullptr);
}

TEST(ScreenSaver, ReportsChangesOfStateAndWhetherOneIsOnTheUsersSessionBus) {
  test::TemporaryFolder root;
  ::setenv("VESK_ROOT", root.path().c_str(), 1);
  auto unreachable = makeSessionBusScreenSaver();
  EXPECT_FALSE(unreachable->start([](const SessionEvent&) {}));
  EXPECT_NE(unreachable->why(), "");

  const auto socket = root.path() / "run/user" / std::to_string(::getuid()) / "bus";
  const SessionBus sessionBus(root, socket);
  auto saver = makeSessionBusScreenSaver();
  std::vector<std::string> events;
  ASSERT_TRUE(saver->start([&](const SessionEvent& event) {
    checkEvent(event);
    events.push_back(event.name);
  })) << saver->why();
  GDBusConnection* gnome = connectTo("unix:path=" + socket.string());
  const guint owner =
      g_bus_own_name_on_connection(gnome, "org.gnome.ScreenSaver", G_BUS_NAME_OWNER_FLAGS_NONE,
                                   nullptr, nullptr, nullptr, nullptr);
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return saver->present(); }, 10));
  // One start said twice (a saver at its second path, or a second desktop's), then the stop.
  emitActiveChanged(gnome, "/org/gnome/ScreenSaver", "org.gnome.ScreenSaver", true);
  emitActiveChanged(gnome, "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver", true);
  emitActiveChanged(gnome, "/ScreenSaver", "org.freedesktop.ScreenSaver", false);
  ASSERT_TRUE(RunLoop::current().runUntilCondition([&] { return events.size() >= 2; }, 10));
  EXPECT_EQ(events, (std::vector<std::string>{kScreenSaverDidStart, kScreenSaverDidStop}));

  g_bus_unown_name(owner);
  EXPECT_TRUE(RunLoop::current().runUntilCondition([&] { return !saver->present(); }, 10));
  g_object_unref(gnome);
}

}  // namespace
}  // namespace vesk
