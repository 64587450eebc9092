#pragma once

#include <string>

namespace zelo {

class ZeloInstaller;

/// A bundle on disk: the archive and its signature. Neither file is ever removed.
class ZeloInstallerBundle {
 public:
  /// Takes absolute paths; looks at neither file.
  ZeloInstallerBundle(const std::string& archiveFile, const std::string& signatureFile);
  ZeloInstallerBundle(const ZeloInstallerBundle&) = default;
  ZeloInstallerBundle& operator=(const ZeloInstallerBundle&) = default;
  virtual ~ZeloInstallerBundle() = default;

  /// Returns if the signature verifies with the production key or, on a device with debugging features, with
  /// the development key. Otherwise throws `ZeloException` with the validation code.
  virtual void validate() const;

  /// Unpacks the archive into its own directory. Throws `ZeloException` with the extraction code.
  [[nodiscard]] virtual ZeloInstaller extract() const;

  /// Moves archive and signature into a directory and returns the bundle there. Throws what `moveFile`
  /// throws, perhaps after moving the archive.
  [[nodiscard]] virtual ZeloInstallerBundle moveTo(const std::string& directory) const;

  /// Returns if the signature verifies with a PEM public key; otherwise throws `std::runtime_error`.
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
