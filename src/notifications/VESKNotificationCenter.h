#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/SelectorTarget.h"
#include "foundation/Value.h"
#include "notifications/SystemBus.h"

namespace vesk {

// The platform's deliver-immediately flag (1) with its post-to-all-sessions flag (2): what
// every post asks for.
inline constexpr unsigned kPostOptions = 3;

// A handle on the daemon's center in another process, bound to the bus connection that owned
// the center's name when the handle was made. Once that daemon has gone every call throws, so
// a restarted daemon is reached only through a new handle. Any thread may call; each call
// waits for the daemon's answer, so the thread that serves an observer of this process must
// not make one (a client-role center posts without waiting).
class VESKNotificationCenterProxy {
 public:
  explicit VESKNotificationCenterProxy(std::string owner)
      : owner_(std::move(owner)), generation_(systemBusGeneration()) {}

  // Runs the post on the daemon's center and returns once it has been delivered there.
  // Throws vesk::Exception when the daemon cannot be reached or does not answer, or the post
  // is larger than kMaxPostBytes.
  void postNotificationNameOptions(const std::string& name,
                                   const std::optional<std::string>& object,
                                   const Dictionary& userInfo, unsigned options);
  // Registers (or removes) the object this process exports at `observerPath` as an observer
  // of `name` with the daemon. Throw as above.
  void addDaemonObserver(const std::string& observerPath, const std::string& selector,
                         const std::string& name);
  void removeDaemonObserver(const std::string& observerPath, const std::string& name);

  const std::string& owner() const { return owner_; }
  // Whether the daemon this handle names has left the bus (a daemon that only answers
  // slowly has not).
  bool hasGone() const;

  // How long a call may wait for the daemon; 25 seconds unless set.
  static void setCallTimeout(double seconds);

 private:
  void call(const char* method, GVariant* parameters);

  const std::string owner_;
  // The connection the owner's name belongs to: on a later one it may name someone else.
  const std::uint64_t generation_;
};

// The one transport between agents and the root daemon. The daemon makes it with
// notificationServer: the center then owns the registered name on the system bus and delivers
// every post, in registration order, to the observers in its table: synchronously to objects
// of its own process, and without waiting to observers that agents export, so that an agent
// that does not answer holds up neither the other observers nor the posters (it is dropped
// once its call fails or outlasts observerTimeout, and told so). An agent's records belong to
// its connection and go with it.
//
// A client (the agent) posts without waiting: posts are handed, in order, to a thread of the
// process that takes them to the daemon through a process-wide handle on its center. So any
// thread may post, the one that serves the agent's observer or runs a daemon request
// included. The thread makes a second attempt with a fresh handle only when the daemon it
// called has gone (never when it was merely slow, which would deliver the post twice), and
// drops the post, logging it, when the daemon is not there.
class VESKNotificationCenter : public std::enable_shared_from_this<VESKNotificationCenter> {
 public:
  using Proxy = std::shared_ptr<VESKNotificationCenterProxy>;
  using Observer = std::shared_ptr<SelectorTarget>;

  // The client role.
  VESKNotificationCenter();
  ~VESKNotificationCenter();
  VESKNotificationCenter(const VESKNotificationCenter&) = delete;
  VESKNotificationCenter& operator=(const VESKNotificationCenter&) = delete;

  // The daemon role, not yet on the bus.
  static std::shared_ptr<VESKNotificationCenter> initForDaemonWithName(const std::string& name);
  // The daemon role, on the bus under `name`. Calls from the bus are served on the run loop
  // of the thread that makes it, which must run its loop.
  static std::shared_ptr<VESKNotificationCenter> notificationServerWithName(
      const std::string& name);
  static std::shared_ptr<VESKNotificationCenter> notificationServer();

  // A handle on the center registered under `name`: nullptr, without a word, when no one
  // owns the name; nullptr, logged, when the bus cannot be asked.
  static Proxy centerFromDaemonWithName(const std::string& name);
  static Proxy centerFromDaemon();
  // The process-wide handle, made on first use. Once made it is answered whatever name is
  // asked for: the first name wins, deliberately.
  static Proxy defaultCenter();
  static Proxy defaultCenterForName(const std::string& name);
  // Posts through defaultCenter's handle; every failure is dropped without a word. (The
  // class-level form of postNotificationName:object:.)
  static void postToDefaultCenter(const std::string& name,
                                  const std::optional<std::string>& object);
  // Replaces the process-wide handle with a fresh one (possibly none).
  static void handleProxyDisconnect();
  // Waits until every post of the client role made so far has reached the daemon or been
  // dropped; false when `seconds` passed first. For a process about to end.
  static bool waitForPosts(double seconds);
  // `text` in pieces of at most `maxBytes` bytes, each cut between two characters, for text
  // longer than one post should carry (a policy's output).
  static constexpr std::size_t kPostPieceBytes = 64 * 1024;
  static std::vector<std::string> piecesForPosting(std::string_view text,
                                                   std::size_t maxBytes = kPostPieceBytes);

  // Exports this center and takes its registered name on the system bus. A name that cannot
  // be taken is reported on standard error and the center goes on working in its process.
  std::shared_ptr<VESKNotificationCenter> prepareVendingMachine();
  // Whether prepareVendingMachine took the name.
  bool isVended() const { return vended_; }

  // Every form posts with options 3; deliverImmediately is ignored on purpose.
  void postNotificationName(const std::string& name, const std::optional<std::string>& object,
                            const Dictionary& userInfo = {}) {
    postNotificationNameOptions(name, object, userInfo, kPostOptions);
  }
  void postNotificationNameDeliverImmediately(const std::string& name,
                                              const std::optional<std::string>& object,
                                              const Dictionary& userInfo, bool deliverImmediately) {
    (void)deliverImmediately;
    postNotificationNameOptions(name, object, userInfo, kPostOptions);
  }
  // The one real posting path: delivery in the daemon role, the two attempts in the client
  // role (on the posting thread, see above). Never throws.
  void postNotificationNameOptions(const std::string& name,
                                   const std::optional<std::string>& object,
                                   const Dictionary& userInfo, unsigned options);

  // Daemon role. Observers receive the userInfo only. Records are kept as registered,
  // duplicates included (an agent's registration over the bus is kept once); removal is by
  // identity. Every record is called once per post, whatever observers add or remove
  // meanwhile: one that leaves during a delivery costs the next nothing.
  void notifyObservers(const std::string& name, const std::optional<std::string>& object,
                       const Dictionary& userInfo);
  void addDaemonObserver(const Observer& observer, const std::string& selector,
                         const std::string& name);
  void removeDaemonObserver(const Observer& observer, const std::string& name);
  // Sees every post the daemon's center receives, before its observers do (vesk-center
  // prints them). Set before the center is vended.
  using Monitor =
      std::function<void(const std::string& name, const std::optional<std::string>& object,
                         const Dictionary& userInfo)>;
  void setMonitor(Monitor monitor) { monitor_ = std::move(monitor); }

  // How long an agent's observer may take to answer a call; 5 seconds unless set. Set before
  // the center is vended.
  void setObserverTimeout(double seconds) { observerTimeoutMs_ = static_cast<int>(seconds * 1000); }

  const std::string& registeredName() const { return registeredName_; }
  void setRegisteredName(std::string name) { registeredName_ = std::move(name); }
  bool isDaemon() const { return isDaemon_; }
  // The records under `name`: observer and selector, in order (for inspection).
  std::vector<std::pair<Observer, std::string>> observersForName(const std::string& name) const;

 private:
  struct Record {
    Observer daemon;
    std::string selector;
    std::uint64_t serial = 0;  // increasing in registration order: a delivery's place
  };
  class RemoteObserver;
  struct BusExport;
  struct Post;

  // The client role's work on the posting thread.
  static void sendToDaemon(const Post& post);
  // Called on the thread that serves the bus.
  void handleBusCall(const std::string& sender, const std::string& method, GVariant* parameters,
                     void* invocation);
  void addRemoteObserver(const std::string& sender, const std::string& path,
                         const std::string& selector, const std::string& name);
  Observer remoteObserver(const std::string& sender, const std::string& path);
  void forgetConnection(const std::string& sender);
  void forgetUnusedRemoteObservers();
  void deliverToRemote(const std::string& name, const Record& record, const Dictionary& userInfo);
  // Removes the record of that serial under `name`, if it is still there; answers whether.
  bool dropRecord(const std::string& name, std::uint64_t serial);

  bool isDaemon_ = false;
  bool vended_ = false;
  std::string registeredName_;
  Monitor monitor_;
  int observerTimeoutMs_ = 5000;

  mutable std::recursive_mutex lock_;
  std::map<std::string, std::vector<Record>, std::less<>> daemonObservers_;  // guarded by lock_
  std::uint64_t nextSerial_ = 1;                                             // guarded by lock_
  // Observers in other processes by their connection and object path, so that a removal
  // finds the object that was added.
  std::map<std::pair<std::string, std::string>, Observer> remoteObservers_;  // guarded by lock_
  // The watch on each connection that has observers here, whose end removes them.
  std::map<std::string, unsigned> connectionWatches_;  // guarded by lock_

  std::unique_ptr<BusExport> objectConnection_;
};

}  // namespace vesk
