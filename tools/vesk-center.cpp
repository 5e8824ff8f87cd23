// vesk-center: the daemon's side of the notification channel, for administrators, tests and
// the demo.
//
//   vesk-center serve [--readable]        own the daemon's name; print every post as JSON,
//                                         or as one line of text each
//   vesk-center post NAME [key=value...]  post to the daemon's center, as an agent does
//   vesk-center notify NAME [key=value...] post a distributed notification
//
// Values that read as integers travel as integers, true and false as booleans, the rest as
// strings. `serve` prints one JSON object per line, {"name":...,"userInfo":{...}}, and stops
// on SIGINT or SIGTERM; with --readable, each post is a line for people:
// "NAME  key=value  key=value", the client's common prefix left out.

#include <fmt/format.h>
#include <gio/gio.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ToolSupport.h"
#include "agent/VKEnvironmentInfo.h"
#include "foundation/Error.h"
#include "foundation/Exception.h"
#include "foundation/RunLoop.h"
#include "foundation/Value.h"
#include "logging/VKLogging.h"
#include "notifications/DistributedNotificationCenter.h"
#include "notifications/SystemBus.h"
#include "notifications/VESKNotificationCenter.h"
#include "task/VKLocalTask.h"

namespace {

using vesk::Dictionary;
using vesk::Value;
using vesk::tools::appendJson;
using vesk::tools::appendJsonObject;
using vesk::tools::appendJsonString;

// How long `notify` stays connected after posting when it is not root (see notify).
constexpr double kStayAfterNotifying = 0.25;

int usage() {
  std::fputs(
      "Usage: vesk-center serve [--readable]\n"
      "       vesk-center post NAME [key=value...]\n"
      "       vesk-center notify NAME [key=value...]\n",
      stderr);
  return 1;
}

int fail(const std::string& message) {
  fmt::print(stderr, "vesk-center: {}\n", message);
  return 1;
}

Value typedValue(const std::string& text) {
  if (text == "true") return Value(true);
  if (text == "false") return Value(false);
  const std::size_t digits = !text.empty() && text[0] == '-' ? 1 : 0;
  if (text.size() > digits && text.find_first_not_of("0123456789", digits) == std::string::npos) {
    errno = 0;
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    if (errno != ERANGE) return Value(number);
  }
  return Value(text);
}

bool parseUserInfo(char** begin, char** end, Dictionary* userInfo) {
  for (char** argument = begin; argument != end; ++argument) {
    const std::string pair = *argument;
    const std::size_t equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) return false;
    userInfo->set(pair.substr(0, equals), typedValue(pair.substr(equals + 1)));
  }
  return true;
}

// A value as people read it: strings bare unless blanks or quotes would make them ambiguous,
// containers in braces.
void appendReadable(std::string& out, const Value& value) {
  if (const std::string* text = value.string()) {
    if (!text->empty() && text->find_first_of(" \t\n\"=,{}") == std::string::npos)
      out += *text;
    else
      appendJsonString(out, *text);
    return;
  }
  const Dictionary* dictionary = value.dictionary();
  if (dictionary == nullptr) return appendJson(out, value);
  out += '{';
  const char* separator = "";
  for (const auto& [key, item] : *dictionary) {
    out += separator + key + '=';
    appendReadable(out, item);
    separator = ", ";
  }
  out += '}';
}

std::string readableLine(const std::string& name, const Dictionary& userInfo) {
  constexpr std::string_view prefix = "com.vesksoftware.vesk.";
  std::string line = name.starts_with(prefix) ? name.substr(prefix.size()) : name;
  for (const auto& [key, value] : userInfo) {
    line += "  " + key + '=';
    appendReadable(line, value);
  }
  return line + '\n';
}

std::string jsonLine(const std::string& name, const Dictionary& userInfo) {
  std::string line = "{\"name\":";
  appendJsonString(line, name);
  line += ",\"userInfo\":";
  appendJsonObject(line, userInfo);
  return line + "}\n";
}

int serve(bool readable) {
  // A center on a bus that went away hears nothing any more: end, for a supervisor to start
  // it again on the bus that replaced it, as the agent does.
  std::string why;
  if (!vesk::exitWhenSystemBusLost(
          [](const std::string& why) {
            fmt::print(stderr, "vesk-center: lost the connection to the system bus: {}\n", why);
          },
          &why))
    return fail("no system bus: " + why);
  auto center = vesk::VESKNotificationCenter::initForDaemonWithName(vesk::kDaemonCenterName);
  center->setMonitor([readable](const std::string& name, const std::optional<std::string>&,
                                const Dictionary& userInfo) {
    const std::string line = readable ? readableLine(name, userInfo) : jsonLine(name, userInfo);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
  });
  center->prepareVendingMachine();
  if (!center->isVended()) return 1;  // the center has said why on standard error

  vesk::tools::runUntilSignalled();
  // The reply to a post already delivered may still wait in the connection's queue: lost, it
  // would make the poster report a delivered post as failed, or try a new daemon with it again.
  g_dbus_connection_flush_sync(vesk::systemBus(), nullptr, nullptr);
  return 0;
}

int post(const std::string& name, const Dictionary& userInfo) {
  std::string why;
  if (vesk::systemBus(&why) == nullptr) return fail("no system bus: " + why);
  const auto proxy = vesk::VESKNotificationCenter::centerFromDaemon();
  if (!proxy) return fail(fmt::format("no daemon owns {}", vesk::kDaemonCenterName));
  try {
    proxy->postNotificationNameOptions(name, std::nullopt, userInfo, vesk::kPostOptions);
  } catch (const vesk::Exception& e) {
    return fail("the post failed: " + e.reason());
  }
  return 0;
}

int notify(const std::string& name, const Dictionary& userInfo) {
  std::string why;
  GDBusConnection* bus = vesk::systemBus(&why);
  if (bus == nullptr) return fail("no system bus: " + why);
  if (!vesk::DistributedNotificationCenter::defaultCenter().postNotificationName(name, std::nullopt,
                                                                                 userInfo))
    return fail("the notification could not be sent");
  g_dbus_connection_flush_sync(bus, nullptr, nullptr);
  // Root's notifications travel where only root may send, and need no more. Anyone else's
  // are checked by asking the bus who sent them, which it can answer only while this
  // connection lasts: stay a moment so that receivers can.
  if (!vesk::systemBusIsRoot()) vesk::RunLoop::current().runUntil(kStayAfterNotifying);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  // Its lines in the client's log name the computer, as every other program's do.
  vesk::VKLogging::setLogFileSources(&vesk::VKEnvironmentInfo::getComputerName,
                                     &vesk::compressWithGzip);
  const std::string verb = argv[1];
  if (verb == "serve") {
    if (argc == 2) return serve(false);
    return argc == 3 && std::string(argv[2]) == "--readable" ? serve(true) : usage();
  }
  if ((verb != "post" && verb != "notify") || argc < 3) return usage();
  Dictionary userInfo;
  if (!parseUserInfo(argv + 3, argv + argc, &userInfo)) return usage();
  return verb == "post" ? post(argv[2], userInfo) : notify(argv[2], userInfo);
}
