#include "bundle/bundle.h"
#include "download/bundle_metadata.h"
#include "download/retry.h"
#include "download/transfer_wrapper.h"
#include "utils/paths.h"

namespace zelo {
namespace {

constexpr const char* archiveFileName = "zelo_installer.tar.gz";

}  // namespace

ZeloInstallerBundle ZeloInstallerBundleMetadata::downloadBundle() const {
  const DownloadLimits limits = readDownloadLimits();
  const std::string archivePath = joinPath(getParentDirectory(signaturePath), archiveFileName);
  return withRetries(limits.retries, "bundle", [&] {
    TransferWrapper transfer(url, REQUEST_METHOD, "", archivePath);
    transfer.download(limits.timeoutSeconds);
    return ZeloInstallerBundle(archivePath, signaturePath);
  });
}

}  // namespace zelo
