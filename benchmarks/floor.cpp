// What any program needs that fetches the document and the archive on this device: opens the bus, makes both
// transfers and stops, so that its figures can be read.

#include <syslog.h>

#include <csignal>

#include "download/transfer_service_wrapper.h"
#include "download/transfer_wrapper.h"

xfr::TransferServiceImpl* getTransferService() {
  static const TransferServiceWrapper services;
  return services.getService();
}

int main(int /*argc*/, char* argv[]) {
  constexpr int seconds = 60;
  (void)getTransferService();
  openlog("bench-floor", LOG_PID, LOG_LOCAL0);
  syslog(LOG_NOTICE, "ready");
  zelo::TransferWrapper(argv[1], zelo::REQUEST_METHOD, "", "/tmp/bench/document").download(seconds);
  zelo::TransferWrapper(argv[2], zelo::REQUEST_METHOD, "", "/tmp/bench/archive").download(seconds);
  return raise(SIGSTOP);
}
