#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/xfr.h"

/// A scripted platform: says what it is told to say, keeps a journal, and fails the test when the
/// daemon breaks the platform's protocol.
namespace fake {

struct Report final : xfr::TransferStatus {
  explicit Report(int stateValue, int idValue = 0, int deferredValue = 0)
      : state(stateValue), id(idValue), deferred(deferredValue) {}
  int getId() override { return id; }
  int getState() override { return state; }
  int getErrorCode() override { return 500; }
  int getDeferredCode() override { return deferred; }

  int state;
  int id;
  int deferred;
};

/// One submitted request, as the service's script sees it.
struct Request {
  std::string source, destination, method, client;
  xfr::TransferListener* listener = nullptr;
  int id = 0;
  xfr::Transfer* handle = nullptr;

  /// Reports a state; an id of 0 stands for the transfer's own.
  void report(int state, int deferred = 0, int reportedId = 0) const;
};

struct Platform {
  int busResult = 0;
  bool ready = true;
  std::map<std::string, std::string> settings;
  std::optional<std::int64_t> version = 1;
  std::optional<std::string> packageName = "package";
  bool succeedWithoutText = false;
  int lockHandle = 0;
  bool clockFails = false;
  int firstId = 1;
  int spuriousWakeUps = 0;  // of the next timed waits

  /// Runs inside `initiateTransfer`; false refuses the request.
  std::function<bool(Request&)> onInitiate = [](Request& request) {
    request.listener->setTransfer(request.handle);
    request.report(xfr::downloadCompleted);
    return true;
  };
  /// Runs inside `finishTransfer`; joins whatever threads `onInitiate` started.
  std::function<void(Request&)> onFinish = [](Request&) {};

  std::vector<std::string> calls;  // in their order
  std::vector<std::string> log;    // what reached syslog: "<priority> line"
  std::vector<unsigned> pauses;    // microseconds
  int transfersAlive = 0;
  int requestsAlive = 0;
};

/// The platform of the running test.
Platform& platform();

/// Puts a new platform in place; fails the test if the old one was left with something alive.
void reset();

/// A new private directory, removed when the tests are over.
std::string temporaryDirectory();

/// What is logged from now on goes to standard error instead of the journal.
void logToStandardError();

/// Number of journal entries that begin with a text.
int count(const std::vector<std::string>& journal, const std::string& beginning);

}  // namespace fake
