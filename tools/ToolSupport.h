#pragma once

#include <string>
#include <string_view>

#include "foundation/Value.h"

// What the command-line tools share.
namespace vesk::tools {

// How the tools print values as JSON: integers as numbers, booleans as booleans, bytes as
// base64 strings, an error as {"domain":…,"code":…,"userInfo":{…}}.
void appendJsonString(std::string& out, std::string_view text);
void appendJson(std::string& out, const Value& value);
void appendJsonObject(std::string& out, const Dictionary& dictionary);

// Runs this thread's loop until SIGINT or SIGTERM arrives.
void runUntilSignalled();

}  // namespace vesk::tools
