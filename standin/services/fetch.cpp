#include "standin/services/fetch.h"

#include <sys/prctl.h>

#include <csignal>
#include <sstream>

namespace {

constexpr int partOfFile = 18;  // the numbers are curl's own
constexpr int refusedByServer = 22;
constexpr int ok = 200;

// What curl reports about a response.
constexpr const char* responseFormat =
    "%{stderr}%{response_code} %{http_version} %{size_download} "
    "%header{transfer-encoding}:%header{content-length}";

// A body that ends with the connection may have been cut, and curl takes it as it is.
bool isKnownToBeWhole(const std::string& version, const std::string& size, const std::string& framing) {
  return version >= "2" || g_ascii_strcasecmp(framing.c_str(), "chunked:") == 0 || framing == ":" + size;
}

int resultOf(GSubprocess* process, const char* response) {
  if (g_subprocess_get_if_exited(process) == FALSE || response == nullptr) return Fetch::couldNotBegin;
  const int exitStatus = g_subprocess_get_exit_status(process);
  if (exitStatus != 0 && exitStatus != refusedByServer) return exitStatus;

  int status = 0;
  std::string version;
  std::string size;
  std::string framing;
  std::istringstream(response) >> status >> version >> size >> framing;
  if (exitStatus != 0 || status != ok) return status;
  return isKnownToBeWhole(version, size, framing) ? Fetch::whole : partOfFile;
}

}  // namespace

bool Fetch::start(const std::string& address, const std::string& destination) {
  g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDERR_PIPE);
  // Or curl would go on writing to the file after this service has died.
  g_subprocess_launcher_set_child_setup(
      launcher, [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGKILL); }, nullptr, nullptr);
  // clang-format off
  const char* command[] = {
      "/usr/bin/curl", "--disable",  // reads no settings of its own; has to come first
      "--silent", "--fail", "--globoff", "--noproxy", "*",
      "--location", "--max-redirs", "10", "--proto", "=https", "--proto-redir", "=https",
      "--connect-to", "::127.0.0.1:",  // where every server of this device's world is
      // Without another directory of authorities it would trust those in the usual one as well.
      "--cacert", "/etc/ssl/certs/ca-certificates.crt", "--capath", "/dev/null",
      "--connect-timeout", "30", "--speed-limit", "1", "--speed-time", "30",
      "--write-out", responseFormat, "--output", destination.c_str(), "--", address.c_str(), nullptr};
  // clang-format on
  process_.reset(g_subprocess_launcher_spawnv(launcher, command, nullptr));
  if (!process_) return false;
  g_subprocess_communicate_utf8_async(process_.get(), nullptr, listening_.get(), onEnd, this);
  return true;
}

Fetch::~Fetch() {
  g_cancellable_cancel(listening_.get());
  if (!process_) return;
  g_subprocess_force_exit(process_.get());
  g_subprocess_wait(process_.get(), nullptr, nullptr);
}

void Fetch::onEnd(GObject* process, GAsyncResult* result, gpointer self) {
  g_autofree char* response = nullptr;
  g_autoptr(GError) error = nullptr;
  g_subprocess_communicate_utf8_finish(G_SUBPROCESS(process), result, nullptr, &response, &error);
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) return;  // by the destructor
  const auto ended = std::move(static_cast<Fetch*>(self)->ended_);
  ended(resultOf(G_SUBPROCESS(process), response));
}
