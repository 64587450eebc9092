#include <algorithm>

#include "bundle/bundle.h"
#include "download/bundle_metadata.h"
#include "download/work_directory.h"
#include "main/zelo_exception.h"
#include "tests/unit/fake_platform.h"
#include "utils/files.h"

using namespace zelo;

namespace {

struct Stages : fake::Test {
  Stages() {
    retries = "2";
    limit = "60";
    platform.settings["url.zelo.installer.metadata"] = "https://m/";
  }

  // A document for every request after some failures.
  void serve(unsigned failures, const std::string& document) {
    platform.log.clear();
    platform.pauses.clear();
    platform.onInitiate = [failures, document](fake::Request& request) mutable {
      writeFile(request.destination, document);
      request.announce();
      request.report(failures-- > 0 ? xfr::transferFailed : xfr::downloadCompleted);
      return true;
    };
  }

  const std::string signaturePath = g_work_directory + "/zelo_installer.tar.gz.sig";
  const ZeloInstallerBundleMetadata metadata{"https://b/x", signaturePath};
  std::string& retries = platform.settings["zelo.installer.download.retries"];
  std::string& limit = platform.settings["zelo.installer.download.timeout.seconds"];
};

void fetchMetadata() {
  const ZeloInstallerBundleMetadata fetched;
}

TEST_F(Stages, TheSignatureIsWrittenBeforeTheAddressIsRefused) {
  serve(0, R"({"url":"http://b/x","signature":"s\n"})");
  const std::string refused = "zelo exception: http/loopback address not allowed. code=02";
  EXPECT_EQ(failureOf<ZeloException>(fetchMetadata), refused);
  EXPECT_EQ(readFile(signaturePath), "s\n");
}

TEST_F(Stages, WhatIsBrokenIsFoundInThisOrder) {
  retries = "x";
  limit = "99999999999";
  platform.settings.erase("url.zelo.installer.metadata");
  platform.packageName.reset();
  platform.version.reset();
  EXPECT_EQ(failureOf<std::invalid_argument>(fetchMetadata), "stoi");
  EXPECT_EQ(failureOf<std::invalid_argument>([&] { (void)metadata.downloadBundle(); }), "stoi");
  retries = "-1";
  EXPECT_EQ(failureOf<std::out_of_range>(fetchMetadata), "stoi");
  limit = "60";
  EXPECT_EQ(failureOf(fetchMetadata), "could not get software version");
  platform.version = 1;
  EXPECT_EQ(failureOf(fetchMetadata), "could not get software package name");
  platform.packageName = "package";
  EXPECT_EQ(failureOf(fetchMetadata), "key does not exist");
  platform.settings["url.zelo.installer.metadata"] = "https://m/%d";
  EXPECT_EQ(failureOf(fetchMetadata), "invalid metadata url template");
  platform.settings["url.zelo.installer.metadata"] = "https://m/";
  EXPECT_EQ(failureOf(fetchMetadata), "illegal state");
  EXPECT_EQ(failureOf([] { (void)ZeloInstallerBundleMetadata("u", "").downloadBundle(); }), "empty path");
  EXPECT_TRUE(platform.calls.empty() && platform.pauses.empty());
}

TEST_F(Stages, DownloadsAreRetriedWithGrowingPauses) {
  const std::string warning =
      "<4> W def:zeloinstall:ZeloInstallerBundleMetadata:bundle download failed due to download failed";
  const struct {
    const char* retries;
    unsigned failures;
    unsigned attempts;
    unsigned lastPause;
  } rows[] = {{"5", 3, 4, 3000000},
              {"0", 1, 1, 0},
              {"10", 11, 11, 10000000},
              {"4295", 4296, 4296, 4294000000}};  // the longest pause that can be counted
  for (const auto& row : rows) {
    retries = row.retries;
    serve(row.failures, "archive");
    EXPECT_EQ(failureOf<ZeloException>([&] { (void)metadata.downloadBundle(); }),
              row.failures < row.attempts ? "" : "zelo exception: download failed. code=02");
    ASSERT_EQ(platform.pauses.size(), row.attempts) << row.retries;
    EXPECT_EQ(platform.pauses.front(), 0U) << row.retries;
    EXPECT_EQ(platform.pauses.back(), row.lastPause) << row.retries;
    const auto warnings = std::count(platform.log.begin(), platform.log.end(), warning);
    EXPECT_EQ(static_cast<unsigned>(warnings), row.failures) << row.retries;
  }
}

}  // namespace
