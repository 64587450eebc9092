#pragma once

#include <string>

namespace zelo {

class ZeloInstallerBundle;

/// Where the bundle meant for this device can be downloaded and where its signature lies on disk.
class ZeloInstallerBundleMetadata {
 public:
  /// The metadata stage: downloads the metadata document, writes the signature into its file and
  /// checks the bundle's address. Throws `ZeloException` with the download code when the document
  /// cannot be had or the address is refused; `std::runtime_error` when the request address cannot be
  /// built or the retry count is negative; what `readDownloadLimits` throws.
  ZeloInstallerBundleMetadata();

  /// From an address and the path of a signature file that are known already.
  ZeloInstallerBundleMetadata(const std::string& bundleUrl, const std::string& signatureFile);
  ZeloInstallerBundleMetadata(const ZeloInstallerBundleMetadata&) = default;
  ZeloInstallerBundleMetadata& operator=(const ZeloInstallerBundleMetadata&) = default;
  virtual ~ZeloInstallerBundleMetadata() = default;

  /// The bundle stage: downloads the archive into the signature file's directory. Throws
  /// `ZeloException` with the download code; `std::runtime_error` when the retry count is negative or
  /// the signature path empty; what `readDownloadLimits` throws. Defined in bundle/download_bundle.cpp,
  /// since it makes a bundle.
  [[nodiscard]] ZeloInstallerBundle downloadBundle() const;

 private:
  [[nodiscard]] static std::string buildMetadataUrl();
  [[nodiscard]] static ZeloInstallerBundleMetadata download();
  [[nodiscard]] static ZeloInstallerBundleMetadata attempt(const std::string& metadataUrl,
                                                           const std::string& documentPath,
                                                           int timeoutSeconds);

  std::string url;
  std::string signaturePath;
};

}  // namespace zelo
