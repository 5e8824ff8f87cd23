#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vesk {

// The whole of veskAgent's main: checks the system, records where the program lives, builds
// the command named by argument 1 and answers its exit status.
int veskAgentMain(int argc, char** argv);

// Runs `body` and turns an exception that escapes it into the printed error text and status 1:
// a syntax error as "There is an error in your syntax.", anything else as "There was an error.",
// each with the exception's reason. No stack and no exception name are ever printed.
int runGuarded(const std::function<int()>& body);

}  // namespace vesk
