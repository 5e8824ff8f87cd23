#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "foundation/RunLoop.h"
#include "platform/FrontWindow.h"
#include "platform/ProcessSecurity.h"

namespace vesk {
namespace {

// Far more than any authority file holds; anything larger is not one.
constexpr off_t kMaxAuthorityFileSize = 1 << 20;

// The bytes of the authority file at `path`. The path comes from the user's side, so the
// caller acts as the real user meanwhile: root never reads for them what they could not. Only
// a regular file, so that a path to a pipe or a device can neither stall nor flood the agent.
std::optional<std::string> readAuthorityFile(const std::string& path, std::string* why) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    *why = "Failed to open X authority file " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size > kMaxAuthorityFileSize) {
    ::close(fd);
    *why = "Not an X authority file: " + path;
    return std::nullopt;
  }
  std::string bytes;
  char buffer[4096];
  ssize_t n = 0;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0 &&
         bytes.size() <= static_cast<size_t>(kMaxAuthorityFileSize))
    bytes.append(buffer, static_cast<size_t>(n));
  const int readError = errno;
  ::close(fd);
  if (n < 0) {
    *why = "Failed to read X authority file " + path + ": " + std::strerror(readError);
    return std::nullopt;
  }
  return bytes;
}

std::string connectionFailure(int error) {
  switch (error) {
    case XCB_CONN_ERROR:
      return "the server could not be reached or refused the credentials";
    case XCB_CONN_CLOSED_MEM_INSUFFICIENT:
      return "out of memory";
    case XCB_CONN_CLOSED_PARSE_ERR:
      return "not a display name";
    case XCB_CONN_CLOSED_INVALID_SCREEN:
      return "no such screen";
    default:
      return "error " + std::to_string(error);
  }
}

// A connection to `display`, made in the real user's name so that the server sees the
// session's user rather than root; nullptr with `why` set when there is none. DISPLAY and
// XAUTHORITY belong to whoever started a set-user-id run, so xcb must never fall back on them:
// the display is named and the credentials are given, empty when there are none.
xcb_connection_t* connectToDisplay(const std::string& display, const std::string& authorityPath,
                                   int* screen, std::string* why) {
  char* host = nullptr;
  int number = 0;
  const bool parsed =
      !display.empty() && xcb_parse_display(display.c_str(), &host, &number, screen);
  std::free(host);
  if (!parsed) {
    *why = "Not an X display name: \"" + display + "\"";
    return nullptr;
  }
  const ActingAsRealUser asUser;
  if (!asUser.acting()) {
    *why = "Cannot act as the real user to connect to X display " + display;
    return nullptr;
  }
  XAuthority authority;
  std::string credentials = "without credentials";
  if (!authorityPath.empty()) {
    const std::optional<std::string> file = readAuthorityFile(authorityPath, why);
    if (!file) return nullptr;
    if (std::optional<XAuthority> found = xAuthorityFor(*file, std::to_string(number))) {
      authority = std::move(*found);
      credentials = "with credentials from " + authorityPath;
    } else {
      credentials = "without credentials (none for it in " + authorityPath + ")";
    }
  }
  xcb_auth_info_t info{static_cast<int>(authority.name.size()), authority.name.data(),
                       static_cast<int>(authority.data.size()), authority.data.data()};
  xcb_connection_t* connection =
      xcb_connect_to_display_with_auth_info(display.c_str(), &info, screen);
  if (const int error = xcb_connection_has_error(connection)) {
    xcb_disconnect(connection);
    *why = "Failed to connect to X display " + display + " " + credentials + ": " +
           connectionFailure(error);
    return nullptr;
  }
  return connection;
}

void dropSource(GSource*& source) {
  if (source == nullptr) return;
  g_source_destroy(source);
  g_source_unref(source);
  source = nullptr;
}

// Everything runs on the thread that made the object, whose loop also runs the watch.
class X11FrontWindow : public FrontWindow {
 public:
  X11FrontWindow(xcb_connection_t* connection, xcb_window_t root)
      : connection_(connection), root_(root) {
    const xcb_intern_atom_cookie_t active = internAtom("_NET_ACTIVE_WINDOW");
    const xcb_intern_atom_cookie_t pid = internAtom("_NET_WM_PID");
    activeWindowAtom_ = atom(active);
    pidAtom_ = atom(pid);
  }

  ~X11FrontWindow() override {
    *alive_ = false;
    stopWatching();
    if (context_ != nullptr) g_main_context_unref(context_);
    xcb_disconnect(connection_);
  }

  std::optional<pid_t> activeProcess() override {
    const std::optional<xcb_window_t> window = activeWindow();
    if (!window) return std::nullopt;
    const std::optional<std::uint32_t> pid = property(*window, pidAtom_, XCB_ATOM_CARDINAL);
    if (!pid || *pid == 0 || *pid > static_cast<std::uint32_t>(std::numeric_limits<pid_t>::max()))
      return std::nullopt;
    return static_cast<pid_t>(*pid);
  }

  void watch(std::function<void()> changed) override {
    if (context_ != nullptr || broken()) return;
    changed_ = std::move(changed);
    context_ = g_main_context_ref(RunLoop::current().context());
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(connection_, root_, XCB_CW_EVENT_MASK, &mask);
    // Read after selecting, so that no change can fall between the value and the first event.
    shown_ = activeWindow();
    source_ = g_unix_fd_source_new(xcb_get_file_descriptor(connection_),
                                   static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR));
    g_source_set_callback(source_, G_SOURCE_FUNC(&X11FrontWindow::onReadable), this, nullptr);
    g_source_attach(source_, context_);
    if (touched_) nudge();
  }

 private:
  xcb_intern_atom_cookie_t internAtom(const char* name) {
    return xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(std::strlen(name)), name);
  }

  xcb_atom_t atom(xcb_intern_atom_cookie_t cookie) {
    xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(connection_, cookie, nullptr);
    const xcb_atom_t atom = reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return atom;
  }

  bool broken() const { return xcb_connection_has_error(connection_) != 0; }

  // nullopt when no window is in front, whether the property says None or is not there.
  std::optional<xcb_window_t> activeWindow() {
    const std::optional<std::uint32_t> window = property(root_, activeWindowAtom_, XCB_ATOM_WINDOW);
    if (!window || *window == XCB_WINDOW_NONE) return std::nullopt;
    return *window;
  }

  // The first 32-bit value of `window`'s property `atom`; nullopt when the window or the
  // property is gone, when it holds another type, or when the connection has broken.
  std::optional<std::uint32_t> property(xcb_window_t window, xcb_atom_t atom, xcb_atom_t type) {
    if (broken()) {
      stopWatching();
      return std::nullopt;
    }
    xcb_generic_error_t* error = nullptr;
    xcb_get_property_reply_t* reply = xcb_get_property_reply(
        connection_, xcb_get_property(connection_, 0, window, atom, type, 0, 1), &error);
    std::optional<std::uint32_t> value;
    if (reply != nullptr && reply->type == type && reply->format == 32 &&
        xcb_get_property_value_length(reply) >= 4)
      std::memcpy(&value.emplace(), xcb_get_property_value(reply), 4);
    std::free(reply);
    std::free(error);
    takeQueuedEvents();
    return value;
  }

  // Waiting for a reply makes xcb read whatever the server sent meanwhile into its own queue,
  // where the socket no longer shows it; a change found there is handled at the loop's next
  // turn instead of waiting for the server's next event.
  void takeQueuedEvents() {
    while (xcb_generic_event_t* event = xcb_poll_for_queued_event(connection_)) note(event);
    if (touched_) nudge();
  }

  void note(xcb_generic_event_t* event) {
    if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY) {
      const auto* notify = reinterpret_cast<const xcb_property_notify_event_t*>(event);
      if (notify->window == root_ && notify->atom == activeWindowAtom_) touched_ = true;
    }
    std::free(event);
  }

  void nudge() {
    if (source_ == nullptr || nudge_ != nullptr) return;
    nudge_ = g_idle_source_new();
    g_source_set_callback(nudge_, &X11FrontWindow::onNudge, this, nullptr);
    g_source_attach(nudge_, context_);
  }

  static gboolean onReadable(gint, GIOCondition, gpointer data) {
    static_cast<X11FrontWindow*>(data)->settle();
    return G_SOURCE_CONTINUE;
  }

  static gboolean onNudge(gpointer data) {
    auto* self = static_cast<X11FrontWindow*>(data);
    dropSource(self->nudge_);
    self->settle();
    return G_SOURCE_REMOVE;
  }

  // Takes all that has arrived, and tells the owner when another window has come to the
  // front: window managers set the property again with the same window now and then.
  void settle() {
    while (xcb_generic_event_t* event = xcb_poll_for_event(connection_)) note(event);
    const std::shared_ptr<bool> alive = alive_;
    while (touched_ && !broken()) {
      touched_ = false;
      const std::optional<xcb_window_t> window = activeWindow();
      if (window == shown_ || broken()) continue;
      shown_ = window;
      // The owner may destroy this object from its callback.
      const std::function<void()> changed = changed_;
      changed();
      if (!*alive) return;
    }
    if (broken()) stopWatching();
  }

  void stopWatching() {
    dropSource(source_);
    dropSource(nudge_);
  }

  xcb_connection_t* const connection_;
  const xcb_window_t root_;
  xcb_atom_t activeWindowAtom_ = XCB_ATOM_NONE;
  xcb_atom_t pidAtom_ = XCB_ATOM_NONE;

  std::function<void()> changed_;
  GMainContext* context_ = nullptr;    // the watching loop's, a reference of our own
  GSource* source_ = nullptr;          // the connection's socket, while watching
  GSource* nudge_ = nullptr;           // pending: a change that xcb's queue held
  std::optional<xcb_window_t> shown_;  // the front window the owner last heard of
  bool touched_ = false;               // the front window may have changed since it was last read
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace

std::unique_ptr<FrontWindow> makeX11FrontWindow(const std::string& display,
                                                const std::string& authorityPath,
                                                std::string* why) {
  std::string failure;
  int screen = 0;
  xcb_connection_t* connection = connectToDisplay(display, authorityPath, &screen, &failure);
  if (connection != nullptr) {
    xcb_screen_iterator_t roots = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screen && roots.rem > 0; ++i) xcb_screen_next(&roots);
    if (roots.rem > 0) return std::make_unique<X11FrontWindow>(connection, roots.data->root);
    xcb_disconnect(connection);
    failure = "Failed to connect to X display " + display + ": no such screen";
  }
  if (why != nullptr) *why = failure;
  return makeNoFrontWindow();
}

}  // namespace vesk
