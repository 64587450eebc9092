#include "bundle/installer.h"

#include <stdexcept>

#include "main/zelo_exception.h"
#include "utils/command_runner.h"
#include "utils/paths.h"

namespace zelo {
namespace {

constexpr const char* scriptFileName = "run.sh";

}  // namespace

ZeloInstaller::ZeloInstaller(const std::string& unpackedDirectory) : directory(unpackedDirectory) {}

void ZeloInstaller::run() const {
  try {
    (void)runCommand({joinPath(directory, scriptFileName)});
  } catch (const std::runtime_error& error) {
    throw ZeloException(ERROR_CODE_INSTALLER, error.what());
  }
}

}  // namespace zelo
