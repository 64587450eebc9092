#pragma once

#include <csignal>

namespace kbus {

/// Blocks signals: a thread started meanwhile has them blocked from the start, because they are the
/// process's business. All but those of a fault: blocked, they would end the process without its crash
/// dump.
class BlockSignals {
 public:
  BlockSignals();
  BlockSignals(const BlockSignals&) = delete;
  BlockSignals& operator=(const BlockSignals&) = delete;
  ~BlockSignals();

 private:
  sigset_t before_{};
};

}  // namespace kbus
