#include "restrictions/BSDProcessList.h"

#include "foundation/StringHelpers.h"

namespace vesk {

Array BSDProcessList::getProcessList(ProcessTable& table) {
  const std::vector<ProcessRecord> records = table.listProcesses();
  Array list;
  list.reserve(records.size());
  for (const ProcessRecord& record : records) list.push_back(processEntry(record));
  return list;
}

Value BSDProcessList::processEntry(const ProcessRecord& record) {
  // The path comes first; a path that cannot be made a string leaves the entry empty.
  if (!isValidUtf8(record.path)) return Value(Dictionary());
  return Value(Dictionary{{"path", Value(record.path)},
                          {"pid", Value(static_cast<int>(record.pid))},
                          {"uid", Value(static_cast<int>(record.uid))}});
}

bool BSDProcessList::processList(const Array& list, pid_t containsPid) {
  for (const Value& entry : list) {
    const Dictionary* process = entry.dictionary();
    const Value* pid = process ? process->find("pid") : nullptr;
    if (pid != nullptr && pid->intValue() == containsPid) return true;
  }
  return false;
}

}  // namespace vesk
