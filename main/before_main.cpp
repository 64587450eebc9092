/// All process-wide objects with a constructor, in the order in which they are built before `main`.

#include "download/transfer_service_wrapper.h"
#include "download/work_directory.h"
#include "main/uncaught.h"
#include "utils/files.h"
#include "utils/heap.h"
#include "utils/inherited_state.h"

// An exception here has no catcher: the terminate handler, installed first, ends the process in order.
// NOLINTBEGIN(cert-err58-cpp)

namespace {

/// First, so that whatever fails behind it ends the process in order, with sane descriptors and signals.
struct ProcessFrame {
  ProcessFrame() {
    zelo::endOnUncaughtExceptions();
    zelo::repairInheritedState();
    zelo::reserveHeap();
  }
};

const ProcessFrame processFrame;

}  // namespace

const std::string zelo::g_work_directory = zelo::createTempDirectory();

namespace {

const TransferServiceWrapper transferServiceWrapper;

}  // namespace

// NOLINTEND(cert-err58-cpp)

xfr::TransferServiceImpl* getTransferService() {
  return transferServiceWrapper.getService();
}
