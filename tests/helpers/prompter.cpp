// Asks questions on its terminal, as the programs the client answers through expect do.
//   prompter password   "Password: " without echo; prints "got [ANSWER]"
//   prompter two        "Name? " with echo, then "Password: " without; prints both answers
//   prompter wait       reads a line without asking; prints "got [LINE]"
//   prompter hang       asks nothing and never ends
//   prompter exit N     ends with status N
//   prompter args A...  prints each argument in brackets

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// A line from the terminal after `prompt`, with the terminal's echo off when `secret`.
std::string ask(const char* prompt, bool secret) {
  const int tty = ::open("/dev/tty", O_RDWR);
  if (tty < 0) std::exit(70);
  termios saved{};
  ::tcgetattr(tty, &saved);
  if (secret) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(tty, TCSAFLUSH, &quiet);
  }
  if (::write(tty, prompt, std::strlen(prompt)) < 0) std::exit(71);
  std::string line;
  char c = 0;
  while (::read(tty, &c, 1) == 1 && c != '\n' && c != '\r') line.push_back(c);
  if (secret) {
    ::tcsetattr(tty, TCSAFLUSH, &saved);
    if (::write(tty, "\n", 1) < 0) std::exit(71);
  }
  ::close(tty);
  return line;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "password") {
    std::printf("got [%s]\n", ask("Password: ", true).c_str());
  } else if (mode == "two") {
    const std::string name = ask("Name? ", false);
    const std::string password = ask("Password: ", true);
    std::printf("name [%s] password [%s]\n", name.c_str(), password.c_str());
  } else if (mode == "wait") {
    std::printf("got [%s]\n", ask("", false).c_str());
  } else if (mode == "hang") {
    for (;;) ::pause();
  } else if (mode == "exit" && argc > 2) {
    return std::atoi(argv[2]);
  } else if (mode == "args") {
    for (int i = 2; i < argc; ++i) std::printf("[%s]", argv[i]);
    std::printf("\n");
  } else {
    return 64;
  }
  return 0;
}
