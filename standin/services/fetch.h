#pragma once

#include <functional>
#include <memory>
#include <string>

#include "standin/bus_connection.h"

/// One run of curl, which fetches an address into a file.
class Fetch {
 public:
  static constexpr int whole = 0;
  static constexpr int stopped = -1;

  /// `ended` is called from the main loop when nothing writes to the file any more: with `whole`, with
  /// `stopped` after `stop`, or else with the error code: the HTTP status of a response that is not the
  /// file, or curl's own exit status. It may delete this object.
  explicit Fetch(std::function<void(int result)> ended) : ended_(std::move(ended)) {}
  Fetch(const Fetch&) = delete;
  Fetch& operator=(const Fetch&) = delete;

  /// `whole` when curl has been started; then this object has to live until `ended` is called. Or else
  /// the error code.
  [[nodiscard]] int start(const std::string& address, const std::string& destination);

  /// Ends curl.
  void stop();

 private:
  static void onEnd(GObject* process, GAsyncResult* result, gpointer self);

  std::function<void(int result)> ended_;
  std::unique_ptr<GSubprocess, kbus::Unref> process_;
  bool stopped_ = false;
};
