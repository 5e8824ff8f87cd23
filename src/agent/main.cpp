// veskAgent: the per-user agent of the vesk client, and two small verbs for installers.

#include "agent/EntryPoint.h"

int main(int argc, char** argv) { return vesk::veskAgentMain(argc, argv); }
