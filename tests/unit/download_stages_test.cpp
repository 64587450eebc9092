#include <unistd.h>

#include "bundle/bundle.h"
#include "download/bundle_metadata.h"
#include "download/work_directory.h"
#include "main/zelo_exception.h"
#include "tests/unit/expect_failure.h"
#include "tests/unit/fake_platform.h"
#include "utils/files.h"

using namespace zelo;

namespace {

const std::string failedStage = "zelo exception: download failed. code=02";
const std::string warning = "<4> W def:zeloinstall:ZeloInstallerBundleMetadata:";

class Stages : public testing::Test {
 protected:
  void SetUp() override {
    fake::reset();
    platform.settings = {{"url.zelo.installer.metadata", "https://m/?v=%s&p=%s"},
                         {"zelo.installer.download.retries", "2"},
                         {"zelo.installer.download.timeout.seconds", "60"}};
    unlink(signaturePath.c_str());
  }
  void TearDown() override { fake::reset(); }

  // Serves a document to every attempt; "" stands for a failed transfer.
  void serve(std::vector<std::string> documents) {
    platform.onInitiate = [documents, n = std::size_t{0}](fake::Request& request) mutable {
      const std::string& document = documents[std::min(n++, documents.size() - 1)];
      request.listener->setTransfer(request.handle);
      writeFile(request.destination, document);
      request.report(document.empty() ? xfr::transferFailed : xfr::downloadCompleted);
      return true;
    };
  }

  fake::Platform& platform = fake::platform();
  const std::string signaturePath = g_work_directory + "/zelo_installer.tar.gz.sig";
};

const std::string good = R"({"url":"https://b/x","signature":"c2ln\n"})";

TEST_F(Stages, MetadataSucceeds) {
  platform.version = -5;
  platform.packageName = "a b";
  serve({good});
  const ZeloInstallerBundleMetadata metadata;
  EXPECT_EQ(readFile(signaturePath), "c2ln\n");
  EXPECT_EQ(fake::count(platform.log, "<4>"), 0);
  EXPECT_EQ(platform.calls.front(),
            "initiate https://m/?v=-5&p=a%20b " + g_work_directory + "/zelo_installer_meta.json");

  platform.calls.clear();
  const ZeloInstallerBundle bundle = metadata.downloadBundle();
  EXPECT_EQ(platform.calls.front(), "initiate https://b/x " + bundle.getBundlePath());
  EXPECT_EQ(bundle.getBundlePath(), g_work_directory + "/zelo_installer.tar.gz");
  EXPECT_EQ(bundle.getSignaturePath(), signaturePath);
}

TEST_F(Stages, MetadataAttemptsAndTheirFailures) {
  const std::string refused = "zelo exception: http/loopback address not allowed. code=02";
  const struct {
    std::string document, reason;  // no reason: not retried
    std::string failure;
    bool signatureWritten;
  } rows[] = {{"", "download failed", failedStage, false},
              {"no json", "invalid json no json", "", false},
              {"{}", "key url not found", "", false},
              {R"({"url":"https://b/x"})", "key signature not found", "", false},
              {R"({"url":7,"signature":"s"})", "key url not found", "", false},
              {R"({"url":"http://b/x","signature":"s"})", "", refused, true},
              {R"({"url":"https://127.0.0.1/x","signature":"s"})", "", refused, true}};
  for (const auto& row : rows) {
    platform.log.clear();
    platform.pauses.clear();
    unlink(signaturePath.c_str());
    serve({row.document});
    const std::string failure =
        row.failure.empty() ? "zelo exception: " + row.reason + ". code=02" : row.failure;
    EXPECT_EQ(failureOf<ZeloException>([] { const ZeloInstallerBundleMetadata metadata; }), failure);
    const bool retried = !row.reason.empty();
    EXPECT_EQ(fake::count(platform.log, warning + "metadata download failed due to " + row.reason),
              retried ? 3 : 0);
    EXPECT_EQ(platform.pauses.size(), retried ? 3U : 1U) << row.document;
    EXPECT_EQ(access(signaturePath.c_str(), F_OK) == 0, row.signatureWritten) << row.document;
  }
}

TEST_F(Stages, MetadataIsNotTriedAtAll) {
  const auto failure = [] {
    return failureOf<std::runtime_error>([] { const ZeloInstallerBundleMetadata metadata; });
  };
  platform.settings["zelo.installer.download.retries"] = "-1";
  EXPECT_EQ(failure(), "illegal state");
  platform.settings["url.zelo.installer.metadata"] = "https://m/%d";
  EXPECT_EQ(failure(), "invalid metadata url template");
  platform.settings.erase("url.zelo.installer.metadata");
  EXPECT_EQ(failure(), "key does not exist");
  platform.packageName.reset();
  EXPECT_EQ(failure(), "could not get software package name");
  platform.version.reset();
  EXPECT_EQ(failure(), "could not get software version");
  platform.settings["zelo.installer.download.timeout.seconds"] = "99999999999";
  EXPECT_EQ(failureOf<std::out_of_range>([] { const ZeloInstallerBundleMetadata metadata; }), "stoi");
  platform.settings["zelo.installer.download.retries"] = "x";
  EXPECT_EQ(failureOf<std::invalid_argument>([] { const ZeloInstallerBundleMetadata metadata; }), "stoi");
  EXPECT_TRUE(platform.calls.empty());
  EXPECT_TRUE(platform.log.empty());
}

TEST_F(Stages, DownloadsAreRetriedWithGrowingPauses) {
  const ZeloInstallerBundleMetadata metadata("https://b/x", signaturePath);
  const auto outcome = [&](const std::string& retries, std::vector<std::string> documents) {
    platform.settings["zelo.installer.download.retries"] = retries;
    platform.pauses.clear();
    platform.log.clear();
    serve(std::move(documents));
    try {
      (void)metadata.downloadBundle();
      return std::string();
    } catch (const std::exception& error) {
      return std::string(error.what());
    }
  };
  const auto warnings = [&] {
    return fake::count(platform.log, warning + "bundle download failed due to download failed");
  };

  EXPECT_EQ(outcome("5", {"", "", "", "archive"}), "");
  EXPECT_EQ(platform.pauses, (std::vector<unsigned>{0, 1000000, 2000000, 3000000}));
  EXPECT_EQ(warnings(), 3);
  EXPECT_EQ(outcome("0", {""}), failedStage);
  EXPECT_EQ(platform.pauses.size(), 1U);
  EXPECT_EQ(warnings(), 1);
  EXPECT_EQ(outcome("10", {""}), failedStage);
  EXPECT_EQ(platform.pauses.size(), 11U);
  EXPECT_EQ(platform.pauses.back(), 10000000U);
  EXPECT_EQ(warnings(), 11);
  EXPECT_EQ(outcome("-1", {""}), "illegal state");
  EXPECT_TRUE(platform.pauses.empty());
  EXPECT_EQ(outcome("4295", {""}), failedStage);
  EXPECT_EQ(platform.pauses.back(), 4294000000U) << "the longest pause that can be counted";
  EXPECT_EQ(
      failureOf<std::runtime_error>([] { (void)ZeloInstallerBundleMetadata("u", "").downloadBundle(); }),
      "empty path");
  platform.onInitiate = [](fake::Request&) -> bool { throw std::logic_error("another type"); };
  platform.log.clear();
  EXPECT_EQ(failureOf<std::logic_error>([&] { (void)metadata.downloadBundle(); }), "another type");
  EXPECT_TRUE(platform.log.empty());
}

}  // namespace
