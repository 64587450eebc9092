#include "standin/services/fetch.h"

#include <fcntl.h>
#include <sys/prctl.h>

#include <csignal>
#include <sstream>

namespace {

constexpr int couldNotBegin = 2;  // the numbers are curl's own
constexpr int partOfFile = 18;
constexpr int couldNotWrite = 23;
constexpr int refusedByServer = 22;
constexpr int ok = 200;
constexpr mode_t ownerOnly = 0600;

// What curl is to say of a response.
constexpr const char* responseFormat =
    "%{stderr}%{response_code} %{http_version} %{size_download} "
    "%header{transfer-encoding}:%header{content-length}";

// A body that ends with the connection may have been cut, and curl takes it as it is.
bool isKnownToBeWhole(const std::string& version, const std::string& size, const std::string& framing) {
  return version >= "2" || g_ascii_strcasecmp(framing.c_str(), "chunked:") == 0 || framing == ":" + size;
}

int errorCode(GSubprocess* process, const char* response) {
  if (g_subprocess_get_if_exited(process) == FALSE) return couldNotBegin;
  const int exitStatus = g_subprocess_get_exit_status(process);
  if (exitStatus != 0 && exitStatus != refusedByServer) return exitStatus;

  int status = 0;
  std::string version, size, framing;
  std::istringstream(response) >> status >> version >> size >> framing;
  if (status == 0) return couldNotBegin;
  if (exitStatus != 0 || status != ok) return status;
  return isKnownToBeWhole(version, size, framing) ? Fetch::whole : partOfFile;
}

}  // namespace

int Fetch::start(const std::string& address, const std::string& destination) {
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
  const int file = open(destination.c_str(), flags, ownerOnly);
  if (file < 0) return couldNotWrite;

  const std::unique_ptr<GSubprocessLauncher, kbus::Unref> launcher(
      g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDERR_PIPE));
  g_subprocess_launcher_take_stdout_fd(launcher.get(), file);
  const char* environment[] = {nullptr};
  g_subprocess_launcher_set_environ(launcher.get(), const_cast<char**>(environment));
  // Or it would go on writing to the file after this service has died.
  g_subprocess_launcher_set_child_setup(
      launcher.get(), [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGKILL); }, nullptr, nullptr);
  // clang-format off
  const char* command[] = {
      "/usr/bin/curl", "--disable",  // reads no settings of its own; has to come first
      "--silent", "--fail", "--globoff", "--noproxy", "*",
      "--location", "--max-redirs", "10", "--proto", "=https", "--proto-redir", "=https",
      "--connect-to", "::127.0.0.1:",  // where every server of this device's world is
      // Without another directory of authorities it would trust those in the usual one as well.
      "--cacert", "/etc/ssl/certs/ca-certificates.crt", "--capath", "/dev/null",
      "--connect-timeout", "30", "--speed-limit", "1", "--speed-time", "30",
      "--write-out", responseFormat, "--", address.c_str(), nullptr};
  // clang-format on
  process_.reset(g_subprocess_launcher_spawnv(launcher.get(), command, nullptr));
  if (!process_) return couldNotBegin;
  g_subprocess_communicate_utf8_async(process_.get(), nullptr, nullptr, onEnd, this);
  return whole;
}

void Fetch::stop() {
  stopped_ = true;
  g_subprocess_force_exit(process_.get());
}

void Fetch::onEnd(GObject* process, GAsyncResult* result, gpointer self) {
  char* response = nullptr;
  g_subprocess_communicate_utf8_finish(G_SUBPROCESS(process), result, nullptr, &response, nullptr);
  const std::unique_ptr<char, decltype(&g_free)> owned(response, g_free);
  auto& fetch = *static_cast<Fetch*>(self);
  const int code = errorCode(G_SUBPROCESS(process), response == nullptr ? "" : response);
  const auto ended = std::move(fetch.ended_);
  ended(fetch.stopped_ ? stopped : code);
}
