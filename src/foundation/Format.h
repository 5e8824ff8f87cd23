#pragma once

// Lets fmt print the foundation's objects by their description(), as "%@" does.

#include <fmt/format.h>

#include <string>

#include "foundation/Error.h"
#include "foundation/Exception.h"
#include "foundation/Value.h"

template <>
struct fmt::formatter<vesk::Value> : fmt::formatter<std::string> {
  auto format(const vesk::Value& v, format_context& ctx) const {
    return fmt::formatter<std::string>::format(v.description(), ctx);
  }
};

template <>
struct fmt::formatter<vesk::Dictionary> : fmt::formatter<std::string> {
  auto format(const vesk::Dictionary& v, format_context& ctx) const {
    return fmt::formatter<std::string>::format(v.description(), ctx);
  }
};

template <>
struct fmt::formatter<vesk::Error> : fmt::formatter<std::string> {
  auto format(const vesk::Error& v, format_context& ctx) const {
    return fmt::formatter<std::string>::format(v.description(), ctx);
  }
};

template <>
struct fmt::formatter<vesk::Exception> : fmt::formatter<std::string> {
  auto format(const vesk::Exception& v, format_context& ctx) const {
    return fmt::formatter<std::string>::format(v.description(), ctx);
  }
};
