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

/// Value of `TransferStatus::getDeferredCode` when items of higher priority go first; the transfer
/// goes on later.
inline constexpr int deferredForHighPriorityItems = 9;

/// The service's handle for a submitted request. Belongs to whoever submitted it.
class Transfer {
 public:
  /// The service's number for the transfer, greater than 0. The reference is good while the handle lives.
  virtual const int& getId() = 0;
  virtual ~Transfer() = default;
};

/// A progress report, valid for the length of one `TransferListener::onProgress`.
class TransferStatus {
 public:
  /// The number of the transfer that the report is about.
  virtual int getId() = 0;
  /// One of the states above or an intermediate one.
  virtual int getState() = 0;
  /// The service's own number for what went wrong: from 100 on the server's HTTP status, else the exit
  /// number of the service's client. Means something for failed and deferred transfers only.
  virtual int getErrorCode() = 0;
  /// Why the transfer was put off, in state `transferDeferred`.
  virtual int getDeferredCode() = 0;

 protected:
  ~TransferStatus() = default;
};

/// Hears the reports about one transfer, on a thread of the library.
class TransferListener {
 public:
  /// Hears one report; the library keeps the status.
  virtual void onProgress(TransferStatus* transferStatus) = 0;
  /// Announces the handle of the request that names this listener, perhaps before `initiateTransfer`
  /// returns it. It belongs to the listener's owner while it is stored; with null the library has it again.
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

/// The client of the transfer service, reached over an open bus.
class TransferServiceImpl {
 public:
  /// `bus` must outlive the client.
  explicit TransferServiceImpl(KbusHandleStruct* bus);
  TransferServiceImpl(const TransferServiceImpl&) = delete;
  TransferServiceImpl& operator=(const TransferServiceImpl&) = delete;

  /// True when the client is ready.
  virtual bool initialize();

  /// Submits a request. Returns the handle, the same that the listener may have been given already and
  /// that belongs to the caller; null when the service refuses the request. Reports may reach the
  /// listener before this returns.
  virtual Transfer* initiateTransfer(TransferRequestDescImpl* request);

  /// Pauses a transfer. 0 on success. The daemon does not use it; it keeps its place in the order.
  virtual int suspendTransfer(Transfer* transfer);

  /// Ends the service's work on a transfer. No report about it reaches the listener once this has
  /// returned. The daemon gives the reason 0 and ignores the result.
  virtual int finishTransfer(Transfer* transfer, int reason);

  virtual ~TransferServiceImpl();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace xfr
