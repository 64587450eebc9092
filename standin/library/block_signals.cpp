#include "standin/library/block_signals.h"

#include <initializer_list>

namespace kbus {

BlockSignals::BlockSignals() {
  sigset_t most;
  sigfillset(&most);
  for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS, SIGTRAP, SIGABRT}) sigdelset(&most, fault);
  pthread_sigmask(SIG_SETMASK, &most, &before_);
}

BlockSignals::~BlockSignals() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace kbus
