// x11_client DISPLAY AUTHORITY-FILE OTHER-PID plays window manager: puts the first of its two
// windows (the second says it is OTHER-PID's) in front, then, for each input line, "first",
// "second" or (anything else) none. Prints "done" each time the server has taken a change.
#include <unistd.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

int main(int, char** argv) {
  ::setenv("XAUTHORITY", argv[2], 1);
  xcb_connection_t* connection = xcb_connect(argv[1], nullptr);
  if (xcb_connection_has_error(connection)) return 1;
  const xcb_screen_t& screen = *xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
  const auto atom = [&](const char* name) {
    auto* reply = xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, std::strlen(name), name), nullptr);
    const xcb_atom_t atom = reply->atom;
    std::free(reply);
    return atom;
  };
  const xcb_atom_t pid = atom("_NET_WM_PID"), active = atom("_NET_ACTIVE_WINDOW");
  const auto set = [&](xcb_window_t window, xcb_atom_t name, xcb_atom_t type, uint32_t value) {
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, name, type, 32, 1, &value);
  };
  const auto window = [&](pid_t owner) {
    const xcb_window_t window = xcb_generate_id(connection);
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen.root, 0, 0, 10, 10, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen.root_visual, 0, nullptr);
    set(window, pid, XCB_ATOM_CARDINAL, owner);
    return window;
  };
  const xcb_window_t first = window(::getpid()), second = window(std::atoi(argv[3]));

  std::string line = "first";
  do {
    const xcb_window_t front = line == "first" ? first : line == "second" ? second : 0;
    set(screen.root, active, XCB_ATOM_WINDOW, front);
    // A round trip: once its reply is in, the server has carried out every earlier request.
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    std::cout << "done" << std::endl;
  } while (std::getline(std::cin, line));
  xcb_disconnect(connection);
}
