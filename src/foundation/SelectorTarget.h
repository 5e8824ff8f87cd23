#pragma once

#include <string_view>

#include "foundation/Error.h"
#include "foundation/Value.h"

namespace vesk {

// An object that can be called by the name of one of its operations, with a payload
// dictionary: an observer of the daemon's center, an operation reached by name at run time.
class SelectorTarget {
 public:
  virtual ~SelectorTarget() = default;
  virtual bool respondsToSelector(std::string_view selector) = 0;
  // May throw; the caller decides what a failure means.
  virtual void performSelector(std::string_view selector, const Dictionary& userInfo) = 0;
};

}  // namespace vesk
