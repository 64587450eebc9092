#pragma once

#include <functional>
#include <string>

#include "standin/bus_connection.h"

/// One run of curl, which fetches an address into a file.
class Fetch {
 public:
  static constexpr int whole = 0;
  static constexpr int couldNotBegin = 2;  // curl's own number

  /// `ended` is called from the main loop when curl has ended by itself: with `whole`, or else with the error
  /// code: the HTTP status of a response that is not the file, or curl's own exit status. It may delete this
  /// object.
  explicit Fetch(std::function<void(int result)> ended) : ended_(std::move(ended)) {}
  Fetch(const Fetch&) = delete;
  Fetch& operator=(const Fetch&) = delete;

  /// Ends curl: nothing writes to the file any more.
  ~Fetch();

  /// False if curl cannot be started.
  [[nodiscard]] bool start(const std::string& address, const std::string& destination);

 private:
  static void onEnd(GObject* process, GAsyncResult* result, gpointer self);

  std::function<void(int result)> ended_;
  kbus::Owned<GSubprocess> process_;
  const kbus::Owned<GCancellable> listening_{g_cancellable_new()};
};
