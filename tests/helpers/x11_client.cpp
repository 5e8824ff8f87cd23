// An X11 client that plays window manager for the front-window tests.
//
//   x11_client DISPLAY AUTHORITY-FILE OTHER-PID
//
// Makes two windows: the first says it belongs to this process, the second to OTHER-PID. Puts
// the first in front, prints "ready <window id>", then reads lines: "first" or "second" puts
// that window in front (again, if it already is), "none" leaves no window in front. Prints
// "done" once the server has taken each change, and ends at the end of its input.
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

namespace {

xcb_connection_t* connection = nullptr;

xcb_atom_t atom(const char* name) {
  xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
      connection,
      xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
  const xcb_atom_t atom = reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
  std::free(reply);
  return atom;
}

void setProperty(xcb_window_t window, xcb_atom_t name, xcb_atom_t type, std::uint32_t value) {
  xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, name, type, 32, 1, &value);
}

xcb_window_t makeWindow(const xcb_screen_t& screen, xcb_atom_t pidAtom, std::uint32_t pid) {
  const xcb_window_t window = xcb_generate_id(connection);
  xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen.root, 0, 0, 10, 10, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen.root_visual, 0, nullptr);
  setProperty(window, pidAtom, XCB_ATOM_CARDINAL, pid);
  return window;
}

// A round trip: once its reply is in, the server has carried out every earlier request.
void waitForServer() {
  std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: x11_client DISPLAY AUTHORITY-FILE OTHER-PID\n");
    return 2;
  }
  ::setenv("XAUTHORITY", argv[2], 1);
  int screenNumber = 0;
  connection = xcb_connect(argv[1], &screenNumber);
  if (xcb_connection_has_error(connection)) {
    std::fprintf(stderr, "x11_client: cannot connect to %s\n", argv[1]);
    return 1;
  }
  xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (int i = 0; i < screenNumber; ++i) xcb_screen_next(&screens);
  const xcb_screen_t& screen = *screens.data;

  const xcb_atom_t pidAtom = atom("_NET_WM_PID");
  const xcb_atom_t activeAtom = atom("_NET_ACTIVE_WINDOW");
  const xcb_window_t first = makeWindow(screen, pidAtom, static_cast<std::uint32_t>(::getpid()));
  const xcb_window_t second =
      makeWindow(screen, pidAtom, static_cast<std::uint32_t>(std::atol(argv[3])));
  setProperty(screen.root, activeAtom, XCB_ATOM_WINDOW, first);
  waitForServer();
  std::printf("ready %u\n", first);
  std::fflush(stdout);

  std::string line;
  while (std::getline(std::cin, line)) {
    if (line == "first" || line == "second" || line == "none") {
      const xcb_window_t front = line == "first" ? first : line == "second" ? second : 0;
      setProperty(screen.root, activeAtom, XCB_ATOM_WINDOW, front);
    } else {
      std::fprintf(stderr, "x11_client: unknown command \"%s\"\n", line.c_str());
    }
    waitForServer();
    std::printf("done\n");
    std::fflush(stdout);
  }
  xcb_disconnect(connection);
  return 0;
}
