#include "bundle/bundle.h"

#include <stdexcept>

#include "bundle/installer.h"
#include "main/zelo_exception.h"
#include "utils/command_runner.h"
#include "utils/files.h"
#include "utils/paths.h"

namespace zelo {

ZeloInstallerBundle::ZeloInstallerBundle(const std::string& archiveFile, const std::string& signatureFile)
    : bundlePath(archiveFile), signaturePath(signatureFile) {}

ZeloInstaller ZeloInstallerBundle::extract() const {
  try {
    const std::string directory = getParentDirectory(bundlePath);
    (void)runCommand({"/bin/tar", "-xzf", bundlePath, "-C", directory});
    return ZeloInstaller(directory);
  } catch (const std::runtime_error& error) {
    throw ZeloException(ERROR_CODE_EXTRACTION, error.what());
  }
}

ZeloInstallerBundle ZeloInstallerBundle::moveTo(const std::string& directory) const {
  const std::string movedArchive = moveFile(bundlePath, directory);
  const std::string movedSignature = moveFile(signaturePath, directory);
  return {movedArchive, movedSignature};
}

}  // namespace zelo
