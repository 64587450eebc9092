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
  const std::string archivePath = joinPath(getParentDirectory(signaturePath_), archiveFileName);
  return withRetries(limits.retries, "bundle", [&] {
    TransferWrapper transfer(url_, REQUEST_METHOD, "", archivePath);
    transfer.download(limits.timeoutSeconds);
    return ZeloInstallerBundle(archivePath, signaturePath_);
  });
}

}  // namespace zelo
