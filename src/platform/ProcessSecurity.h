#pragma once

namespace vesk {

// Whether this process was started set-user-id or set-group-id (the kernel's secure-execution
// mode): its environment then belongs to whoever started it, not to the client. Stays true
// after the process has made its ids equal.
bool isSetUserIdExecution();

}  // namespace vesk
