#pragma once

#include <sys/types.h>

#include "foundation/Value.h"
#include "platform/ProcessTable.h"

namespace vesk {

// The machine's processes as enforcement reads them: dictionaries with "path" (string),
// "pid" and "uid" (integers). A process whose path is not UTF-8 gives an entry without any
// keys, as the client has always listed it; whoever reads the list copes with that.
class BSDProcessList {
 public:
  static Array getProcessList(ProcessTable& table = ProcessTable::system());
  // The entry for one process record.
  static Value processEntry(const ProcessRecord& record);
  // Whether an entry's "pid" is `pid`; entries without one are passed over.
  static bool processList(const Array& list, pid_t containsPid);
};

}  // namespace vesk
