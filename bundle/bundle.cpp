#include "bundle/bundle.h"

#include <stdexcept>

#include "bundle/installer.h"
#include "main/zelo_exception.h"
#include "utils/command_runner.h"
#include "utils/files.h"
#include "utils/paths.h"

namespace zelo {

ZeloInstallerBundle::ZeloInstallerBundle(const std::string& bundlePath, const std::string& signaturePath)
    : bundlePath_(bundlePath), signaturePath_(signaturePath) {}

ZeloInstaller ZeloInstallerBundle::extract() const {
  try {
    const std::string directory = getParentDirectory(bundlePath_);
    (void)runCommand({"/bin/tar", "-xzf", bundlePath_, "-C", directory});
    return ZeloInstaller(directory);
  } catch (const std::runtime_error& error) {
    throw ZeloException(ERROR_CODE_EXTRACTION, error.what());
  }
}

ZeloInstallerBundle ZeloInstallerBundle::moveTo(const std::string& directory) const {
  const std::string bundlePath = moveFile(bundlePath_, directory);
  const std::string signaturePath = moveFile(signaturePath_, directory);
  return {bundlePath, signaturePath};
}

}  // namespace zelo
