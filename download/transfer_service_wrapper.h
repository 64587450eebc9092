#pragma once

#include <memory>

#include "platform/kbus.h"
#include "platform/xfr.h"

/// The daemon's name on the message bus.
inline constexpr const char* SERVICE_NAME = "com.qorvex.zeloinstall";

/// Owns the connection to the message bus and the client of the transfer service. One process-wide
/// object, built before `main` runs.
class TransferServiceWrapper {
 public:
  /// Throws `std::runtime_error` "Failed to initialize kbus handle". If the client does not get ready, that
  /// is only logged, and the downloads fail later.
  TransferServiceWrapper();
  TransferServiceWrapper(const TransferServiceWrapper&) = delete;
  TransferServiceWrapper& operator=(const TransferServiceWrapper&) = delete;
  virtual ~TransferServiceWrapper() = default;

  /// Never null; lives as long as this object.
  [[nodiscard]] xfr::TransferServiceImpl* getService() const { return service.get(); }

 private:
  struct CloseBus {
    void operator()(KbusHandleStruct* handle) const { KbusClose(handle); }
  };

  std::unique_ptr<KbusHandleStruct, CloseBus> bus;
  std::unique_ptr<xfr::TransferServiceImpl> service;  // after the bus, so deleted before it is closed
};

/// The client that every download uses. Any thread may call this once `main` runs. Defined in
/// main/before_main.cpp, next to the one `TransferServiceWrapper`.
[[nodiscard]] xfr::TransferServiceImpl* getTransferService();
