#pragma once

#include <memory>

#include "task/VKLocalTask.h"

namespace vesk {

// The common base of the classes that wrap one system tool each (defaults, the directory
// service tool, expect): it owns the task runner they run their tool through. Like the
// runner, a wrapper runs one command at a time: give each thread its own.
class BaseSystemCommandWrapper {
 public:
  BaseSystemCommandWrapper() : localTask_(std::make_unique<VKLocalTask>()) {}
  virtual ~BaseSystemCommandWrapper() = default;
  BaseSystemCommandWrapper(BaseSystemCommandWrapper&&) noexcept = default;
  BaseSystemCommandWrapper& operator=(BaseSystemCommandWrapper&&) noexcept = default;

  VKLocalTask& localTask() { return *localTask_; }

 private:
  std::unique_ptr<VKLocalTask> localTask_;
};

}  // namespace vesk
