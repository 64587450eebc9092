#include "download/transfer_service_wrapper.h"

#include <stdexcept>

#include "utils/log.h"

TransferServiceWrapper::TransferServiceWrapper() {
  int result = 0;
  bus.reset(KbusOpenEx(SERVICE_NAME, &result));
  if (result != 0) throw std::runtime_error("Failed to initialize kbus handle");

  service = std::make_unique<xfr::TransferServiceImpl>(bus.get());
  if (!service->initialize()) {
    zelo::logError("E def:TransferServiceWrapper:Transfer Service initialization failed:");
  }
}
