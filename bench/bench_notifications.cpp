// What a post to the daemon costs: round trips of a post with a 10-key userInfo through a
// daemon-role center in another process with one observer, against a bare GDBus method call
// with the same payload to the same process; then how long a client-role post holds its
// caller, and how many such posts reach the daemon per second. Starts its own bus and its own
// daemon (this program run with --daemon).

#include <gio/gio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Latencies.h"
#include "foundation/RunLoop.h"
#include "notifications/DBusValue.h"
#include "notifications/SystemBus.h"
#include "notifications/VESKNotificationCenter.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPosts = 10000;
constexpr const char* kEchoPath = "/bench/Echo";

struct CountingObserver : vesk::SelectorTarget {
  bool respondsToSelector(std::string_view) override { return true; }
  void performSelector(std::string_view, const vesk::Dictionary&) override { ++count; }
  long count = 0;
};

// The daemon side: the center with one observer, and a bare object that only answers.
int runDaemon() {
  auto center = vesk::VESKNotificationCenter::notificationServer();
  if (!center->isVended()) return 1;
  center->addDaemonObserver(std::make_shared<CountingObserver>(), "handle:", "bench.event");
  GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(
      "<node><interface name='bench.Echo'><method name='Post'>"
      "<arg type='s' direction='in'/><arg type='s' direction='in'/>"
      "<arg type='a{sv}' direction='in'/><arg type='u' direction='in'/>"
      "</method></interface></node>",
      nullptr);
  static const GDBusInterfaceVTable vtable = {
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
         GDBusMethodInvocation* invocation,
         gpointer) { g_dbus_method_invocation_return_value(invocation, nullptr); },
      nullptr,
      nullptr,
      {nullptr}};
  g_dbus_connection_register_object(vesk::systemBus(), kEchoPath, node->interfaces[0], &vtable,
                                    nullptr, nullptr, nullptr);
  while (true) vesk::RunLoop::current().runUntil(3600);
}

struct Figures {
  double p50, p99, perSecond;
};

Figures report(const char* what, std::vector<double>& microseconds, double seconds) {
  std::sort(microseconds.begin(), microseconds.end());
  const Figures figures{microseconds[microseconds.size() / 2],
                        microseconds[microseconds.size() * 99 / 100],
                        static_cast<double>(microseconds.size()) / seconds};
  std::printf("%-34s p50 %7.1f us   p99 %7.1f us   %8.0f per second\n", what, figures.p50,
              figures.p99, figures.perSecond);
  return figures;
}

// The three figures for bench/report, each beside the same figure of the bare call: `timed`
// names the times, `rate` the rate.
void results(const std::string& timed, const std::string& rate, const Figures& figures,
             const Figures& bare) {
  using vesk::bench::amount;
  using vesk::bench::result;
  result(timed + " p50", amount(figures.p50, "us"), "none",
         "bare GDBus call p50 " + amount(bare.p50, "us"));
  result(timed + " p99", amount(figures.p99, "us"), "none",
         "bare GDBus call p99 " + amount(bare.p99, "us"));
  result(rate, amount(figures.perSecond, "per second", 0), "none",
         "bare GDBus call " + amount(bare.perSecond, "per second", 0));
}

template <typename Call>
Figures measure(const char* what, Call call) {
  std::vector<double> times;
  times.reserve(kPosts);
  for (int i = 0; i < 200; ++i) call();  // warm up
  const auto start = Clock::now();
  for (int i = 0; i < kPosts; ++i) {
    const auto before = Clock::now();
    call();
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - before).count());
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return report(what, times, seconds);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--daemon") return runDaemon();

  // A bus of our own that lets anyone own and call anything.
  char folderTemplate[] = "/tmp/vesk-bench-bus-XXXXXX";
  const std::string folder = ::mkdtemp(folderTemplate);
  const std::string socket = folder + "/bus";
  std::ofstream(folder + "/bus.conf")
      << "<busconfig><type>system</type><listen>unix:path=" << socket
      << "</listen><auth>EXTERNAL</auth><policy context='default'><allow user='*'/>"
         "<allow own='*'/><allow send_type='method_call'/><allow send_type='method_return'/>"
         "<allow send_type='error'/><allow send_type='signal'/><allow receive_type='method_call'/>"
         "<allow receive_type='method_return'/><allow receive_type='error'/>"
         "<allow receive_type='signal'/></policy></busconfig>";
  const pid_t bus = ::fork();
  if (bus == 0) {
    ::execl("/usr/bin/dbus-daemon", "dbus-daemon",
            ("--config-file=" + folder + "/bus.conf").c_str(), "--nofork",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  const std::string address = "unix:path=" + socket;
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  while (!std::filesystem::exists(socket)) vesk::RunLoop::current().runUntil(0.005);

  const pid_t daemon = ::fork();
  if (daemon == 0) {
    ::execl(argv[0], argv[0], "--daemon", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  // Wait for the bus to accept and the daemon to take its name, for ten seconds at most.
  GDBusConnection* connection = nullptr;
  std::optional<std::string> owner;
  for (int turn = 0; turn < 2000 && !owner; ++turn) {
    if (connection == nullptr) connection = vesk::systemBus();
    if (connection != nullptr) owner = vesk::nameOwner(connection, vesk::kDaemonCenterName);
    if (!owner) vesk::RunLoop::current().runUntil(0.005);
  }
  if (!owner) {
    std::fprintf(stderr, "bench_notifications: the bus or the daemon did not start\n");
    ::kill(daemon, SIGTERM);
    ::kill(bus, SIGTERM);
    return 1;
  }

  vesk::Dictionary userInfo;
  for (int i = 0; i < 10; ++i)
    userInfo.set("key" + std::to_string(i),
                 i % 2 ? vesk::Value(i) : vesk::Value("value " + std::to_string(i)));
  vesk::VESKNotificationCenterProxy proxy(*owner);

  std::printf("10,000 round trips, 10-key userInfo, daemon in another process\n");
  const Figures bare = measure("bare GDBus call", [&] {
    GVariant* reply = g_dbus_connection_call_sync(
        connection, owner->c_str(), kEchoPath, "bench.Echo", "Post",
        g_variant_new("(ss@a{sv}u)", "bench.event", "", vesk::variantFromDictionary(userInfo), 3u),
        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (reply != nullptr) g_variant_unref(reply);
  });
  const Figures posted = measure("post through the daemon's center", [&] {
    proxy.postNotificationNameOptions("bench.event", std::nullopt, userInfo, vesk::kPostOptions);
  });
  std::printf("post / bare at p50: %.2f\n", posted.p50 / bare.p50);
  results("post through the daemon's center, round trip", "post through the daemon's center, rate",
          posted, bare);

  // The client role: the caller only queues the post; a thread of the process takes the posts
  // to the daemon in order. Held: how long each post keeps its caller; the rate: posts
  // delivered per second until the queue is empty.
  vesk::VESKNotificationCenter client;
  std::vector<double> held;
  held.reserve(kPosts);
  const auto start = Clock::now();
  for (int i = 0; i < kPosts; ++i) {
    const auto before = Clock::now();
    client.postNotificationName("bench.event", std::nullopt, userInfo);
    held.push_back(std::chrono::duration<double, std::micro>(Clock::now() - before).count());
  }
  if (!vesk::VESKNotificationCenter::waitForPosts(120)) std::printf("posts still waiting\n");
  const Figures queued = report("client post (caller held; delivered)", held,
                                std::chrono::duration<double>(Clock::now() - start).count());
  results("client post, caller held", "client post, delivered to the daemon", queued, bare);

  ::kill(daemon, SIGTERM);
  ::kill(bus, SIGTERM);
  ::waitpid(daemon, nullptr, 0);
  ::waitpid(bus, nullptr, 0);
  std::filesystem::remove_all(folder);
  return 0;
}
