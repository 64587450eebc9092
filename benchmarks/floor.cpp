// What any program needs that fetches the document and the archive on this device: opens the bus, makes both
// transfers and stops, so that its figures can be read.

#include <syslog.h>

#include <csignal>
#include <cstdlib>
#include <future>
#include <memory>

#include "platform/kbus.h"
#include "platform/xfr.h"

namespace {

constexpr const char* serviceName = "com.qorvex.zeloinstall";

struct Download final : xfr::TransferListener {
  void onProgress(xfr::TransferStatus* status) override {
    const int state = status->getState();
    if (state == xfr::downloadCompleted || state == xfr::transferFailed) end.set_value(state);
  }
  void setTransfer(xfr::Transfer* handle) override { transfer = handle; }
  xfr::Transfer* getTransfer() override { return transfer; }

  xfr::Transfer* transfer = nullptr;
  std::promise<int> end;
};

[[nodiscard]] bool fetch(xfr::TransferServiceImpl& client, const char* address, const char* file) {
  Download download;
  xfr::TransferRequestDescImpl request(address, nullptr, "GET", file, nullptr, 0, nullptr, nullptr,
                                       serviceName, nullptr, address, nullptr, "", 0, 1, "request_download",
                                       &download, false, -1, "");
  const std::unique_ptr<xfr::Transfer> handle(client.initiateTransfer(&request));
  if (!handle) return false;
  const int state = download.end.get_future().get();
  client.finishTransfer(handle.get(), 0);
  return state == xfr::downloadCompleted;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 3) return EXIT_FAILURE;
  int result = 0;
  const std::unique_ptr<KbusHandleStruct, int (*)(KbusHandleStruct*)> bus(KbusOpenEx(serviceName, &result),
                                                                          KbusClose);
  if (result != 0) return EXIT_FAILURE;
  xfr::TransferServiceImpl client(bus.get());
  if (!client.initialize()) return EXIT_FAILURE;

  openlog("bench-floor", LOG_PID, LOG_LOCAL0);
  syslog(LOG_NOTICE, "ready");
  if (!fetch(client, argv[1], "/tmp/bench/document") || !fetch(client, argv[2], "/tmp/bench/archive"))
    return EXIT_FAILURE;
  return raise(SIGSTOP);
}
