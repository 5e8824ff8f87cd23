#pragma once

#include <string>
#include <vector>

#include "foundation/Value.h"
#include "task/BaseSystemCommandWrapper.h"

namespace vesk {

// Reads and writes single keys of property-list files by running the system's `defaults`
// tool, so that the file is never parsed and rewritten here. Paths are full paths of the
// files, with or without ".plist", already resolved by the caller. No operation reports
// failure: a missing tool, an unwritable file or a missing key show only as an empty read or
// an unchanged file.
class VKDefaultsWrapper : public BaseSystemCommandWrapper {
 public:
  // What the tool printed for the key, stripped; "" when it printed nothing.
  std::string readStringDefault(const std::string& key, const std::string& fromFile);
  // YES for text starting with Y, y, T, t or a non-zero digit; NO for anything else.
  bool readBooleanDefault(const std::string& key, const std::string& fromFile);
  // The same through a wrapper of its own, for callers that keep none.
  static bool readBooleanDefaultWithNewWrapper(const std::string& key, const std::string& fromFile);

  void writeStringValue(const std::string& value, const std::string& forKey,
                        const std::string& toFile);
  void writeBooleanValue(bool value, const std::string& forKey, const std::string& toFile);
  // One write per key, in the dictionary's order; a value that is not a string is written
  // as its text.
  void writeStringValues(const Dictionary& values, const std::string& toFile);
  void deleteDefaultForKey(const std::string& key, const std::string& inFile);
  // Runs `arguments` as given, the tool's path first.
  void writeDefault(const std::vector<std::string>& arguments);

  // The path trimmed, without a final ".plist" in any case: the tool appends it itself.
  static std::string stripPlistExtension(const std::string& path);
};

}  // namespace vesk
