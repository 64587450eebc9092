#include "bundle/bundle.h"

#include <stdexcept>

#include "bundle/installer.h"
#include "main/zelo_exception.h"
#include "utils/command_runner.h"
#include "utils/device.h"
#include "utils/files.h"
#include "utils/log.h"
#include "utils/paths.h"

namespace zelo {
namespace {

constexpr const char* developmentKey = "/etc/zelo/pubkeydev.pem";
constexpr const char* productionKey = "/etc/zelo/pubkeyprod.pem";
constexpr const char* accepted = "Verified OK\n";
constexpr const char* decodedSuffix = ".sha256";

}  // namespace

ZeloInstallerBundle::ZeloInstallerBundle(const std::string& archiveFile, const std::string& signatureFile)
    : bundlePath(archiveFile), signaturePath(signatureFile) {}

void ZeloInstallerBundle::validate() const {
  if (debugFeaturesEnabled()) {
    try {
      verifySignature(developmentKey);
      return;
    } catch (const std::runtime_error& error) {
      logError("E def:zeloinstall:zeloinstallerbundle:validation failed against dev key due to %s",
               error.what());
    }
  }
  try {
    verifySignature(productionKey);
  } catch (const std::runtime_error& error) {
    throw ZeloException(ERROR_CODE_VALIDATION, error.what());
  }
}

void ZeloInstallerBundle::verifySignature(const std::string& keyPath) const {
  const std::string decodedPath = decodeSignature(signaturePath);
  const std::string output = runCommand(
      {"/usr/bin/openssl", "dgst", "-sha256", "-verify", keyPath, "-signature", decodedPath, bundlePath});
  if (output != accepted) throw std::runtime_error(output);
}

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

std::string decodeSignature(const std::string& signatureFile) {
  const std::string decoded = runCommand({"/bin/base64", "-d", signatureFile});
  std::string decodedPath = signatureFile + decodedSuffix;
  writeFile(decodedPath, decoded);
  return decodedPath;
}

}  // namespace zelo
