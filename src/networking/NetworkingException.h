#pragma once

#include "foundation/Exception.h"

namespace vesk {

// An exchange that failed; the reason is the error's description.
class VESKNetworkingException : public Exception {
 public:
  using Exception::Exception;
};

// The server could not serve the range asked for (416): the download to resume is not there.
class VESKNetworkingExceptionRangeNotSatisfiable : public VESKNetworkingException {
 public:
  using VESKNetworkingException::VESKNetworkingException;
};

}  // namespace vesk
