#pragma once

#include <string>

namespace zelo {

class ZeloInstallerBundle;

/// The address of the bundle meant for this device, and the path of its signature file.
class ZeloInstallerBundleMetadata {
 public:
  /// The metadata stage: downloads the document, writes the signature to its file and checks the bundle's
  /// address. Throws `ZeloException` with the download code if there is no usable document or the address is
  /// refused, `std::runtime_error` if the request address cannot be built or the retry count is negative, and
  /// what `readDownloadLimits` throws.
  ZeloInstallerBundleMetadata();

  /// For an address and a signature file that are known already.
  ZeloInstallerBundleMetadata(const std::string& bundleUrl, const std::string& signatureFile);
  ZeloInstallerBundleMetadata(const ZeloInstallerBundleMetadata&) = default;
  ZeloInstallerBundleMetadata& operator=(const ZeloInstallerBundleMetadata&) = default;
  virtual ~ZeloInstallerBundleMetadata() = default;

  /// The bundle stage: downloads the archive into the signature file's directory. Throws `ZeloException` with
  /// the download code, `std::runtime_error` if the retry count is negative or the signature path empty, and
  /// what `readDownloadLimits` throws. Defined in bundle/download_bundle.cpp, because it makes a bundle.
  [[nodiscard]] ZeloInstallerBundle downloadBundle() const;

 private:
  [[nodiscard]] static std::string buildMetadataUrl();
  [[nodiscard]] static ZeloInstallerBundleMetadata fetch();
  [[nodiscard]] static ZeloInstallerBundleMetadata attempt(const std::string& metadataUrl,
                                                           const std::string& documentPath,
                                                           int timeoutSeconds);

  std::string url;
  std::string signaturePath;
};

}  // namespace zelo
