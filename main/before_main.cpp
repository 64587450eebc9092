/// All process-wide objects with a constructor, in the order in which they are built before `main`.

#include <malloc.h>

#include "download/transfer_service_wrapper.h"
#include "download/work_directory.h"
#include "main/uncaught.h"
#include "utils/files.h"
#include "utils/inherited_state.h"

// Nothing can catch an exception here. The terminate handler, installed first, reports it and ends the
// process.

// NOLINTBEGIN(cert-err58-cpp)

namespace {

/// First, so that any later failure is reported, with working descriptors and signals.
struct ProcessFrame {
  ProcessFrame() {
    zelo::endOnUncaughtExceptions();
    zelo::repairInheritedState();
    // One heap for all threads: if memory is short, the libraries crash when a second one is refused.
    (void)mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe): there is only one thread yet
  }
};

const ProcessFrame g_process_frame;

}  // namespace

const std::string zelo::g_work_directory = zelo::createTempDirectory();

namespace {

const TransferServiceWrapper g_transfer_service_wrapper;

}  // namespace

// NOLINTEND(cert-err58-cpp)

xfr::TransferServiceImpl* getTransferService() {
  return g_transfer_service_wrapper.getService();
}
