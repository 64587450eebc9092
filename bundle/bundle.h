#pragma once

#include <string>

namespace zelo {

class ZeloInstaller;

/// A bundle on disk: the archive and its signature. Neither file is ever removed.
class ZeloInstallerBundle {
 public:
  /// From absolute paths; neither file is examined.
  ZeloInstallerBundle(const std::string& archiveFile, const std::string& signatureFile);
  ZeloInstallerBundle(const ZeloInstallerBundle&) = default;
  ZeloInstallerBundle& operator=(const ZeloInstallerBundle&) = default;
  virtual ~ZeloInstallerBundle() = default;

  /// Returns when the archive's signature verifies against the production key or, on a device with
  /// debugging features, the development key. Throws `ZeloException` with the validation code.
  virtual void validate() const;

  /// Unpacks the archive into its own directory. Throws `ZeloException` with the extraction code.
  [[nodiscard]] virtual ZeloInstaller extract() const;

  /// Moves archive and signature into a directory and returns the bundle there. Throws what `moveFile`
  /// throws; the archive may have been moved then.
  [[nodiscard]] virtual ZeloInstallerBundle moveTo(const std::string& directory) const;

  /// Returns when the archive's signature verifies against a PEM public key; throws
  /// `std::runtime_error` otherwise.
  virtual void verifySignature(const std::string& keyPath) const;

  [[nodiscard]] const std::string& getBundlePath() const { return bundlePath; }
  [[nodiscard]] const std::string& getSignaturePath() const { return signaturePath; }

 private:
  std::string bundlePath;
  std::string signaturePath;
};

/// Decodes a base64 signature file into a file beside it and returns that file's path. Throws what
/// `runCommand` throws.
[[nodiscard]] std::string decodeSignature(const std::string& signatureFile);

}  // namespace zelo
