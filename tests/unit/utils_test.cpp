#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "bundle/bundle.h"
#include "download/work_directory.h"
#include "platform/qorvex_daemon.h"
#include "tests/unit/fake_platform.h"
#include "utils/device.h"
#include "utils/file_descriptor.h"
#include "utils/files.h"
#include "utils/json_wrapper.h"
#include "utils/log.h"
#include "utils/paths.h"
#include "utils/settings.h"
#include "utils/url_encode.h"

using namespace zelo;

namespace {

struct Utils : fake::Test {
  Utils() { std::filesystem::create_directory(directory); }
  ~Utils() override { std::filesystem::remove_all(directory); }
  const std::string directory = g_work_directory + "/utils";
};

TEST_F(Utils, PathsAreTakenApartAndJoined) {
  EXPECT_EQ(getParentDirectory("/tmp/z.Ab/meta.json"), "/tmp/z.Ab");
  EXPECT_EQ(getFileName("/tmp/z.Ab/meta.json"), "meta.json");
  EXPECT_EQ(getParentDirectory("run.sh"), "run.sh");
  EXPECT_EQ(getFileName("run.sh"), "run.sh");
  EXPECT_EQ(getParentDirectory("/file"), "");
  EXPECT_EQ(getParentDirectory("a//b"), "a/");
  EXPECT_EQ(getParentDirectory("/tmp/x/") + getParentDirectory("/"), "/tmp/x//");
  EXPECT_EQ(failureOf([] { (void)getParentDirectory(""); }), "empty path");
  EXPECT_EQ(failureOf([] { (void)getFileName(""); }), "invalid path");
  for (const char* path : {"/", "/tmp/x/"})
    EXPECT_EQ(failureOf([&] { (void)getFileName(path); }), "path ends with a /") << path;
  EXPECT_EQ(joinPath("/tmp/x", "run.sh") + joinPath("/tmp/x/", "run.sh"), "/tmp/x/run.sh/tmp/x/run.sh");
  EXPECT_EQ(joinPath("", "run.sh") + joinPath("/tmp", "/a"), "run.sh/tmp//a");
}

TEST_F(Utils, DirectoriesArePrivateAndFilesAsTheProcessWantsThem) {
  const std::string made = directory + "/made";
  const std::string orphan = made + "/a/b";
  const mode_t before = umask(0);
  for (int i = 0; i < 2; ++i) makeDirectory(made);
  writeFile(made + "/file", "");
  umask(before);
  EXPECT_EQ(std::filesystem::status(made).permissions(), std::filesystem::perms{0700});
  EXPECT_EQ(std::filesystem::status(made + "/file").permissions(), std::filesystem::perms{0666});
  EXPECT_EQ(failureOf([&] { makeDirectory(orphan); }), "unable to create directory " + orphan + " errno 2");
}

TEST_F(Utils, FilesAreReadAndWrittenWhole) {
  const std::string file = directory + "/file";
  std::string bytes(100000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  for (const std::string& content : {bytes, std::string("1"), std::string()}) {
    writeFile(file, content);
    EXPECT_EQ(readFile(file), content);
  }
  writeFile(file, "of 2040");
  const timespec in2040[] = {{2208988800, 0}, {2208988800, 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), in2040, 0), 0);
  EXPECT_EQ(readFile(file), "of 2040");
  const std::string fifo = directory + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const char* path : {"", directory.c_str(), "/none", fifo.c_str()})
    EXPECT_EQ(readFile(path), "") << path;
  const FileDescriptor writer(open(fifo.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(write(writer.get(), "x", 1), 1);
  EXPECT_EQ(readFile(fifo), "") << "not a regular file";
}

TEST_F(Utils, BundlesAreMoved) {
  const ZeloInstallerBundle bundle(directory + "/x", directory + "/x.sig");
  writeFile(bundle.getBundlePath(), "archive");
  writeFile(bundle.getSignaturePath(), "signature");
  const ZeloInstallerBundle moved = bundle.moveTo(directory + "/b");
  EXPECT_EQ(moved.getBundlePath(), directory + "/b/x");
  EXPECT_EQ(moved.getSignaturePath(), directory + "/b/x.sig");
  EXPECT_EQ(readFile(moved.getBundlePath()) + readFile(moved.getSignaturePath()), "archivesignature");
  EXPECT_EQ(readFile(bundle.getBundlePath()), "");
  EXPECT_EQ(failureOf([&] { moveFile(directory + "/", directory + "/d"); }), "path ends with a /");
  EXPECT_TRUE(std::filesystem::exists(directory + "/d"));
}

TEST_F(Utils, PausesLastTheirWholeLength) {
  for (const std::uint32_t seconds : {0U, 3U, maxSleepSeconds}) sleepSeconds(seconds);
  EXPECT_EQ(platform.pauses, (std::vector<unsigned>{0, 3000000, 4294000000}));
  platform.pauses.clear();
  platform.onPause = [this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return platform.pauses.size() < 2;
  };
  sleepSeconds(0);
  EXPECT_EQ(platform.pauses, (std::vector<unsigned>{0, 0})) << "interrupted when the time is over";
  platform.pauses.clear();
  platform.onPause = [this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return platform.pauses.size() < 3;
  };
  sleepSeconds(60);
  const std::vector<unsigned>& p = platform.pauses;
  EXPECT_TRUE(p.size() == 3 && p[0] == 60000000 && p[1] < p[0] && p[2] < p[1] && p[2] > 30000000)
      << testing::PrintToString(p);
}

TEST_F(Utils, SettingsHaveDefaultsAndSuccessNeedsAText) {
  platform.settings[DOWNLOAD_RETRIES_KEY] = "5 times";
  EXPECT_EQ(getDownloadRetries(), 5);
  EXPECT_EQ(getDownloadTimeoutSeconds(), 900);
  platform.settings.clear();
  EXPECT_EQ(getDownloadRetries(), 10);
  platform.succeedWithoutText = true;
  EXPECT_EQ(failureOf([] { (void)getConfigValue("key"); }), "key does not exist");
  EXPECT_EQ(failureOf([] { (void)getSoftwarePackageNameText(); }), "could not get software package name");
}

TEST_F(Utils, EachLevelHasItsMaskBit) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    g_qorvex_log_mask = 1U << bit;
    logInfo("I %u", bit);
    logWarning("W %u", bit);
    logError("E %u", bit);
  }
  EXPECT_EQ(platform.log, (Texts{"<5> I 23", "<4> W 24", "<3> E 25"}));
}

TEST_F(Utils, TextsAreEncodedForQueries) {
  EXPECT_EQ(urlEncode(""), "");
  EXPECT_EQ(urlEncode("AZaz09-._~ /%41"), "AZaz09-._~%20%2F%2541");
  EXPECT_EQ(urlEncode(std::string("\0\xff+&", 4)), "%00%FF%2B%26");
}

TEST_F(Utils, JsonStringsByName) {
  const JSONWrapper document(R"({"a":"b","q":"x\"y","e":"","n":1,"A":"upper","o":{},"z":null})");
  const std::pair<const char*, const char*> rows[] = {{"a", "b"}, {"q", "x\"y"}, {"e", ""}};
  for (const auto& [name, text] : rows) EXPECT_EQ(document.getString(name), text) << name;
  for (const std::string name : {"c", "n", "o", "z", "Q", ""})
    EXPECT_EQ(failureOf([&] { (void)document.getString(name); }), "key " + name + " not found");
  EXPECT_EQ(failureOf([&] { const JSONWrapper invalid("{"); }), "invalid json {");
  EXPECT_EQ(failureOf([] { (void)JSONWrapper(R"(["a"])").getString("a"); }), "key a not found");
  JSONWrapper built;
  EXPECT_EQ(built.toString(), "{}");
  built.addString("a", "b");
  built.addString("a", "c\n");
  EXPECT_EQ(built.toString(), R"({"a":"b","a":"c\n"})");
}

}  // namespace
