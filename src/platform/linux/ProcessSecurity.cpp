#include "platform/ProcessSecurity.h"

#include <sys/auxv.h>

namespace vesk {

bool isSetUserIdExecution() { return ::getauxval(AT_SECURE) != 0; }

}  // namespace vesk
