#include "download/bundle_metadata.h"

#include "download/address_policy.h"
#include "download/address_template.h"
#include "download/retry.h"
#include "download/transfer_wrapper.h"
#include "download/work_directory.h"
#include "main/zelo_exception.h"
#include "utils/device.h"
#include "utils/files.h"
#include "utils/json_wrapper.h"
#include "utils/paths.h"
#include "utils/settings.h"
#include "utils/url_encode.h"

namespace zelo {
namespace {

constexpr const char* documentFileName = "zelo_installer_meta.json";
constexpr const char* signatureFileName = "zelo_installer.tar.gz.sig";

}  // namespace

ZeloInstallerBundleMetadata::ZeloInstallerBundleMetadata() : ZeloInstallerBundleMetadata(fetch()) {}

ZeloInstallerBundleMetadata::ZeloInstallerBundleMetadata(const std::string& bundleUrl,
                                                         const std::string& signatureFile)
    : url(bundleUrl), signaturePath(signatureFile) {}

std::string ZeloInstallerBundleMetadata::buildMetadataUrl() {
  const std::string version = urlEncode(getSoftwareVersionText());
  const std::string packageName = urlEncode(getSoftwarePackageNameText());
  return expandAddressTemplate(getConfigValue(METADATA_URL_KEY), version, packageName);
}

ZeloInstallerBundleMetadata ZeloInstallerBundleMetadata::fetch() {
  const DownloadLimits limits = readDownloadLimits();
  const std::string documentPath = joinPath(g_work_directory, documentFileName);
  const std::string metadataUrl = buildMetadataUrl();
  return withRetries(limits.retries, "metadata",
                     [&] { return attempt(metadataUrl, documentPath, limits.timeoutSeconds); });
}

ZeloInstallerBundleMetadata ZeloInstallerBundleMetadata::attempt(const std::string& metadataUrl,
                                                                 const std::string& documentPath,
                                                                 int timeoutSeconds) {
  TransferWrapper transfer(metadataUrl, REQUEST_METHOD, "", documentPath);
  transfer.download(timeoutSeconds);

  const JSONWrapper document(readFile(documentPath));
  const std::string bundleUrl = document.getString("url");
  const std::string signatureFile = joinPath(getParentDirectory(documentPath), signatureFileName);
  writeFile(signatureFile, document.getString("signature"));
  if (isAddressNotAllowed(bundleUrl)) {
    throw ZeloException(ERROR_CODE_DOWNLOAD, "http/loopback address not allowed");
  }
  return {bundleUrl, signatureFile};
}

}  // namespace zelo
