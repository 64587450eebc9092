#pragma once

#include <string>

namespace zelo {

/// An unpacked bundle, ready to run.
class ZeloInstaller {
 public:
  /// Takes a directory with the bundle's script at its top level; looks at nothing before `run`.
  explicit ZeloInstaller(const std::string& unpackedDirectory);
  ZeloInstaller(const ZeloInstaller&) = default;
  ZeloInstaller& operator=(const ZeloInstaller&) = default;
  virtual ~ZeloInstaller() = default;

  /// Runs the bundle's script without arguments and drops its standard output. Throws `ZeloException` with
  /// the installer code.
  void run() const;

 private:
  std::string directory;
};

}  // namespace zelo
