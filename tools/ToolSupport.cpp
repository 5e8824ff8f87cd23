#include "ToolSupport.h"

#include <fmt/format.h>
#include <glib-unix.h>
#include <glib.h>
#include <signal.h>

#include <cmath>

#include "foundation/RunLoop.h"

namespace vesk::tools {

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
        } else {
          out += c;
        }
    }
  }
  out += '"';
}

void appendJsonObject(std::string& out, const Dictionary& dictionary) {
  out += '{';
  bool first = true;
  for (const auto& [key, value] : dictionary) {
    if (!first) out += ',';
    first = false;
    appendJsonString(out, key);
    out += ':';
    appendJson(out, value);
  }
  out += '}';
}

void appendJson(std::string& out, const Value& value) {
  switch (value.type()) {
    case Value::Type::Nil:
      out += "null";
      break;
    case Value::Type::Bool:
      out += value.boolValue() ? "true" : "false";
      break;
    case Value::Type::Int:
    case Value::Type::UInt:
      out += value.stringValue();
      break;
    case Value::Type::Double:
      out += std::isfinite(value.doubleValue()) ? fmt::format("{}", value.doubleValue()) : "null";
      break;
    case Value::Type::String:
      appendJsonString(out, *value.string());
      break;
    case Value::Type::Data: {
      const vesk::Data& bytes = *value.data();
      gchar* encoded = g_base64_encode(bytes.data(), bytes.size());
      appendJsonString(out, encoded);
      g_free(encoded);
      break;
    }
    case Value::Type::Array: {
      out += '[';
      bool first = true;
      for (const Value& item : *value.array()) {
        if (!first) out += ',';
        first = false;
        appendJson(out, item);
      }
      out += ']';
      break;
    }
    case Value::Type::Dictionary:
      appendJsonObject(out, *value.dictionary());
      break;
    case Value::Type::Error: {
      const vesk::Error& error = *value.error();
      out += "{\"domain\":";
      appendJsonString(out, error.domain());
      out += fmt::format(",\"code\":{},\"userInfo\":", error.code());
      appendJsonObject(out, error.userInfo());
      out += '}';
      break;
    }
  }
}

void runUntilSignalled() {
  static bool stop = false;
  auto stopLoop = [](gpointer) -> gboolean {
    stop = true;
    return G_SOURCE_CONTINUE;
  };
  g_unix_signal_add(SIGINT, stopLoop, nullptr);
  g_unix_signal_add(SIGTERM, stopLoop, nullptr);
  while (!stop) RunLoop::current().runUntilCondition([] { return stop; }, 3600);
}

}  // namespace vesk::tools
