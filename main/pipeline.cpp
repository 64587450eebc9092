#include "main/pipeline.h"

#include <stdexcept>

#include "bundle/bundle.h"
#include "bundle/installer.h"
#include "download/bundle_metadata.h"
#include "main/notify_error.h"
#include "main/zelo_exception.h"
#include "utils/log.h"

namespace zelo {
namespace {

void install() {
  logInfo("I def:zeloinstall:main:Downloading metadata");
  const ZeloInstallerBundleMetadata metadata;

  logInfo("I def:zeloinstall:main:Downloading bundle");
  const ZeloInstallerBundle bundle = metadata.downloadBundle();

  logInfo("I def:zeloinstall:main:Validating bundle");
  bundle.validate();

  logInfo("I def:zeloinstall:main:Extracting bundle");
  const ZeloInstaller installer = bundle.extract();

  logInfo("I def:zeloinstall:main:Running installer");
  installer.run();
}

}  // namespace

void runPipeline() {
  try {
    install();
  } catch (const ZeloException& error) {
    notifyError(error);
  } catch (const std::runtime_error& error) {
    notifyError(ZeloException(ERROR_CODE_UNKNOWN, error.what()));
  }
}

}  // namespace zelo
