#pragma once

#include <string>
#include <utility>
#include <vector>

#include "dexlo/DexloNotifications.h"

namespace vesk::test {

// What clicks did: the launches asked for and the notifications posted.
struct DexloRecord {
  std::vector<std::string> launched;
  std::vector<std::pair<std::string, Dictionary>> posted;
};

// A click's work on the preference file at `path`, with the machine's processes in the test's
// hands and launches and posts written down in `record`.
class FakeDexloNotifications : public DexloNotifications {
 public:
  FakeDexloNotifications(const std::string& path, DexloRecord& record)
      : DexloNotifications(DexloPreferences::atPath(path)), record_(record) {}
  Array runningProcesses() override { return processes; }
  bool launchApplicationWithPath(const std::string& path) override {
    record_.launched.push_back(path);
    return launches;
  }
  void postNotificationName(const std::string& name, const Dictionary& userInfo) override {
    record_.posted.emplace_back(name, userInfo);
  }

  Array processes;
  bool launches = true;

 private:
  DexloRecord& record_;
};

}  // namespace vesk::test
