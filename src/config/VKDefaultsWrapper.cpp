#include "config/VKDefaultsWrapper.h"

#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

std::vector<std::string> toolCommand(std::initializer_list<std::string> arguments) {
  std::vector<std::string> command{toolPath("/usr/bin/defaults")};
  command.insert(command.end(), arguments);
  return command;
}

bool endsWithPlistInAnyCase(std::string_view path) {
  constexpr std::string_view kExtension = ".plist";
  return path.size() >= kExtension.size() &&
         lowercaseString(path.substr(path.size() - kExtension.size())) == kExtension;
}

}  // namespace

std::string VKDefaultsWrapper::readStringDefault(const std::string& key,
                                                 const std::string& fromFile) {
  return localTask().execute(toolCommand({"read", stripPlistExtension(fromFile), key}));
}

bool VKDefaultsWrapper::readBooleanDefault(const std::string& key, const std::string& fromFile) {
  return boolValue(readStringDefault(key, fromFile));
}

bool VKDefaultsWrapper::readBooleanDefaultWithNewWrapper(const std::string& key,
                                                         const std::string& fromFile) {
  return VKDefaultsWrapper().readBooleanDefault(key, fromFile);
}

void VKDefaultsWrapper::writeStringValue(const std::string& value, const std::string& forKey,
                                         const std::string& toFile) {
  writeDefault(toolCommand({"write", stripPlistExtension(toFile), forKey, value}));
}

void VKDefaultsWrapper::writeBooleanValue(bool value, const std::string& forKey,
                                          const std::string& toFile) {
  writeDefault(toolCommand(
      {"write", stripPlistExtension(toFile), forKey, "-bool", value ? "true" : "false"}));
}

void VKDefaultsWrapper::writeStringValues(const Dictionary& values, const std::string& toFile) {
  for (const auto& [key, value] : values) writeStringValue(value.stringValue(), key, toFile);
}

void VKDefaultsWrapper::deleteDefaultForKey(const std::string& key, const std::string& inFile) {
  writeDefault(toolCommand({"delete", stripPlistExtension(inFile), key}));
}

void VKDefaultsWrapper::writeDefault(const std::vector<std::string>& arguments) {
  // What the tool says and how it ends is not looked at: a write either happened or not.
  (void)localTask().execute(arguments);
}

std::string VKDefaultsWrapper::stripPlistExtension(const std::string& path) {
  std::string trimmed = trim(path);
  if (endsWithPlistInAnyCase(trimmed)) trimmed.resize(trimmed.size() - 6);
  return trimmed;
}

}  // namespace vesk
