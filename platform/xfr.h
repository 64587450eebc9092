#pragma once

#include <glib.h>

#include <memory>

#include "platform/kbus.h"

/// The client library of the device's transfer service.
///
/// The order of the virtual operations is part of the interface: the library and its users call each other
/// through it. So is the size of `TransferServiceImpl` and `TransferRequestDescImpl`: their users allocate
/// them, and a library whose own have more members writes beyond their end. A device whose library differs is
/// built with the maker's header in place of this one (ZELO_PLATFORM_HEADERS).
namespace xfr {

/// Values of `TransferStatus::getState`; every other value is an intermediate report.
inline constexpr int transferDeferred = 6;
inline constexpr int downloadCompleted = 8;
inline constexpr int transferFailed = 9;

/// Value of `TransferStatus::getDeferredCode` if items of higher priority go first; the transfer continues
/// later.
inline constexpr int deferredForHighPriorityItems = 9;

/// The service's handle for a submitted request. The submitter owns it.
class Transfer {
 public:
  /// The service's number for the transfer, greater than 0. The reference is valid while the handle lives.
  virtual const int& getId() = 0;
  virtual ~Transfer() = default;
};

/// A progress report, valid during one call of `TransferListener::onProgress`.
class TransferStatus {
 public:
  /// The number of the transfer that the report is about.
  virtual int getId() = 0;
  /// One of the states above or an intermediate one.
  virtual int getState() = 0;
  /// What went wrong: from 100 on the server's HTTP status, below that the exit status of the service's
  /// client. Only for failed and deferred transfers.
  virtual int getErrorCode() = 0;
  /// Why the transfer was put off, in state `transferDeferred`.
  virtual int getDeferredCode() = 0;

 protected:
  ~TransferStatus() = default;
};

/// Receives the reports about one transfer, on a thread of the library.
class TransferListener {
 public:
  /// Receives a report. The library owns the status.
  virtual void onProgress(TransferStatus* transferStatus) = 0;
  /// Announces the handle of this listener's request, perhaps before `initiateTransfer` returns it. The
  /// listener owns it while it is stored. Null takes it back.
  virtual void setTransfer(Transfer* transfer) = 0;
  /// The handle that is stored, or null.
  virtual Transfer* getTransfer() = 0;
  virtual ~TransferListener() = default;
};

/// What to transfer. The texts are not copied: they and the listener must outlive the descriptor.
class TransferRequestDescImpl {
 public:
  TransferRequestDescImpl(const char* sourceAddress, const char* unused2, const char* method,
                          const char* destinationPath, const char* unused5, int unused6, const char* unused7,
                          GHashTable* unused8, const char* clientName, const char* unused10,
                          const char* displayAddress, const char* unused12, const char* passThrough,
                          int unused14, int unused15, const char* requestName, TransferListener* listener,
                          bool unused18, int unused19, const char* unused20);
  TransferRequestDescImpl(const TransferRequestDescImpl&) = delete;
  TransferRequestDescImpl& operator=(const TransferRequestDescImpl&) = delete;
  virtual ~TransferRequestDescImpl();

 private:
  friend class TransferServiceImpl;
  struct State;
  std::unique_ptr<State> state_;
};

/// The client of the transfer service, over an open bus.
class TransferServiceImpl {
 public:
  /// `bus` must outlive the client.
  explicit TransferServiceImpl(KbusHandleStruct* bus);
  TransferServiceImpl(const TransferServiceImpl&) = delete;
  TransferServiceImpl& operator=(const TransferServiceImpl&) = delete;

  /// True when the client is ready.
  virtual bool initialize();

  /// Submits a request. Returns its handle, which the caller owns and which the listener may have got
  /// already, or null if the service refuses. Reports may reach the listener before this returns.
  virtual Transfer* initiateTransfer(TransferRequestDescImpl* request);

  /// Pauses a transfer. 0 on success. Unused by the daemon; here because the order counts.
  virtual int suspendTransfer(Transfer* transfer);

  /// Ends the service's work on a transfer. After it returns, the listener gets no more reports. The daemon
  /// passes the reason 0 and ignores the result.
  virtual int finishTransfer(Transfer* transfer, int reason);

  virtual ~TransferServiceImpl();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace xfr
