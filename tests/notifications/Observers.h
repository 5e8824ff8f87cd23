#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Exception.h"
#include "foundation/SelectorTarget.h"

namespace vesk::test {

// An observer that answers to one selector and writes down each call as "label:userInfo[k]".
class RecordingObserver : public SelectorTarget {
 public:
  RecordingObserver(std::string label, std::string selector, bool throws = false)
      : label_(std::move(label)), selector_(std::move(selector)), throws_(throws) {}

  bool respondsToSelector(std::string_view selector) override {
    ++asked;
    return selector == selector_;
  }
  void performSelector(std::string_view, const Dictionary& userInfo) override {
    {
      std::lock_guard<std::mutex> hold(lock_);
      calls_.push_back(label_ + ":" + userInfo["k"].stringValue());
      payloads_.push_back(userInfo);
      threads_.push_back(std::this_thread::get_id());
    }
    if (throws_) throw Exception("NSInvalidArgumentException", "observer " + label_ + " failed");
  }

  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> hold(lock_);
    return calls_;
  }
  std::vector<Dictionary> payloads() const {
    std::lock_guard<std::mutex> hold(lock_);
    return payloads_;
  }
  std::vector<std::thread::id> threads() const {
    std::lock_guard<std::mutex> hold(lock_);
    return threads_;
  }

  std::atomic<int> asked{0};

 private:
  const std::string label_;
  const std::string selector_;
  const bool throws_;
  mutable std::mutex lock_;
  std::vector<std::string> calls_;        // guarded by lock_
  std::vector<Dictionary> payloads_;      // guarded by lock_
  std::vector<std::thread::id> threads_;  // guarded by lock_
};

}  // namespace vesk::test
