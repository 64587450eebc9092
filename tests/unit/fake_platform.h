#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <optional>

#include "platform/xfr.h"
#include "tests/unit/expect_failure.h"

/// A scripted platform: says what it is told to say, keeps a journal, and fails the test when the
/// daemon breaks the platform's protocol.
namespace fake {

struct Handle final : xfr::Transfer {
  explicit Handle(int value);
  ~Handle() override;
  const int& getId() override { return id; }

  int id;
  bool handedOver = false;
};

/// One submitted request, as the service's script sees it.
struct Request {
  std::string source;
  std::string destination;
  xfr::TransferListener* listener = nullptr;
  int id = 0;
  xfr::Transfer* handle = nullptr;

  void announce() const { listener->setTransfer(handle); }

  /// Reports a state, which the library changes to `later` after the first look at it. An id of 0 stands for
  /// the transfer's own, a `later` of 0 for no change.
  void report(int state, int deferred = 0, int reportedId = 0, int later = 0) const;
};

struct Platform {
  std::map<std::string, std::string> settings;
  std::optional<std::int64_t> version = 1;
  std::optional<std::string> packageName = "package";
  bool succeedWithoutText = false;
  int lockHandle = 0;
  time_t monotonicAhead = 0;
  int firstId = 1;

  /// False refuses the request.
  std::function<bool(Request&)> onInitiate = [](Request& request) {
    request.announce();
    request.report(xfr::downloadCompleted);
    return true;
  };
  /// Joins the threads that `onInitiate` started.
  std::function<void(Request&)> onFinish = [](Request&) {};
  /// Before a line is in the journal.
  std::function<void(const std::string&)> onLine = [](const std::string&) {};
  std::function<void()> onRelease = [] {};               // of the lock
  std::function<bool()> onPause = [] { return false; };  // true: interrupted
  /// The result of a wait until a deadline; without one it really waits.
  std::function<std::optional<int>(const timespec&)> onTimedWait = [](const timespec&) {
    return std::nullopt;
  };

  Texts calls;                   // in their order
  Texts log;                     // what reached syslog: "<priority> line"
  std::vector<unsigned> pauses;  // microseconds
  int transfersAlive = 0;
  int requestsAlive = 0;
};

/// The platform of the running test.
inline Platform platform;

/// Checks that nothing is left of a test's platform, and makes a new one for the next.
struct Test : testing::Test {
  ~Test() override;

  Platform& platform = fake::platform;
};

}  // namespace fake
