#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

#include "platform/qorvex_daemon.h"
#include "tests/unit/expect_failure.h"
#include "tests/unit/fake_platform.h"
#include "tests/unit/memory_limit.h"
#include "utils/device.h"
#include "utils/files.h"
#include "utils/json_wrapper.h"
#include "utils/log.h"
#include "utils/paths.h"
#include "utils/settings.h"
#include "utils/url_encode.h"

using namespace zelo;
using Error = std::runtime_error;

namespace {

class Utils : public testing::Test {
 protected:
  void SetUp() override { fake::reset(); }
  void TearDown() override { fake::reset(); }
  fake::Platform& platform = fake::platform();
  const std::string directory = fake::temporaryDirectory();
};

TEST_F(Utils, PathsAreTakenApartAndJoined) {
  const struct {
    std::string path, parent, name;  // "!" stands before the text of a failure
  } rows[] = {{"/tmp/z.Ab/meta.json", "/tmp/z.Ab", "meta.json"},
              {"run.sh", "run.sh", "run.sh"},
              {"/tmp/x/", "/tmp/x/", "!path ends with a /"},
              {"/", "/", "!path ends with a /"},
              {"/file", "", "file"},
              {"a//b", "a/", "b"},
              {"", "!empty path", "!invalid path"}};
  const auto outcome = [](auto function, const std::string& path) {
    try {
      return function(path);
    } catch (const Error& error) {
      return "!" + std::string(error.what());
    }
  };
  for (const auto& row : rows) {
    EXPECT_EQ(outcome(getParentDirectory, row.path), row.parent) << row.path;
    EXPECT_EQ(outcome(getFileName, row.path), row.name) << row.path;
  }
  EXPECT_EQ(joinPath("/tmp/x", "run.sh"), "/tmp/x/run.sh");
  EXPECT_EQ(joinPath("/tmp/x/", "run.sh"), "/tmp/x/run.sh");
  EXPECT_EQ(joinPath("", "run.sh"), "run.sh");
  EXPECT_EQ(joinPath("/tmp", "/a"), "/tmp//a");
}

TEST_F(Utils, DirectoriesArePrivate) {
  const std::string made = directory + "/made";
  const mode_t before = umask(0);
  makeDirectory(made);
  const std::string temporary = fake::temporaryDirectory();
  umask(before);
  for (const std::string& path : {made, temporary}) {
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U) << path;
  }
  EXPECT_NE(temporary, directory);
  EXPECT_EQ(temporary.size(), 23U);
  makeDirectory(made);
  EXPECT_EQ(failureOf<Error>([&] { makeDirectory(directory + "/a/b"); }),
            "unable to create directory " + directory + "/a/b errno 2");
}

TEST_F(Utils, FilesAreReadAndWrittenWhole) {
  const std::string file = directory + "/file";
  std::string bytes(100000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  for (const std::string& content : {bytes, std::string("short"), std::string()}) {
    writeFile(file, content);
    EXPECT_EQ(readFile(file), content);
    EXPECT_EQ(access(file.c_str(), F_OK), 0);
  }
  const std::string fifo = directory + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {std::string(), directory, directory + "/none", directory + "/file/x", fifo,
                                  std::string("/dev/zero")}) {
    EXPECT_EQ(readFile(path), "") << path;
    if (path != "/dev/zero") writeFile(path, "x");
  }
}

TEST_F(Utils, ReadingMoreThanTheMemoryHoldsYieldsNothing) {
  if (!memoryCanBeLimited()) GTEST_SKIP() << "a limit on memory has no effect here";
  const std::string big = directory + "/big";
  writeFile(big, "");
  ASSERT_EQ(truncate(big.c_str(), 400L << 20), 0);
  EXPECT_EXIT(
      {
        limitMemory(200);
        _exit(readFile(big).empty() ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(Utils, MovingMakesTheDirectory) {
  const std::string source = directory + "/x.sig";
  writeFile(source, "signature");
  EXPECT_EQ(moveFile(source, directory + "/b"), directory + "/b/x.sig");
  EXPECT_EQ(readFile(directory + "/b/x.sig"), "signature");
  EXPECT_NE(access(source.c_str(), F_OK), 0);
  EXPECT_EQ(failureOf<Error>([&] { moveFile(source, directory + "/c"); }), "failed to execute command");
  EXPECT_EQ(failureOf<Error>([&] { moveFile(directory + "/", directory + "/d"); }), "path ends with a /");
  EXPECT_EQ(access((directory + "/d").c_str(), F_OK), 0);
}

TEST_F(Utils, PausesAreCountedInMicroseconds) {
  for (const std::uint32_t seconds : {0U, 3U, maxSleepSeconds}) sleepSeconds(seconds);
  EXPECT_EQ(platform.pauses, (std::vector<unsigned>{0, 3000000, 4294000000}));
}

TEST_F(Utils, DeviceTextsOrTheirFailure) {
  for (const std::int64_t version : {std::int64_t{123456789012}, std::int64_t{-1}, std::int64_t{0},
                                     std::numeric_limits<std::int64_t>::min()}) {
    platform.version = version;
    EXPECT_EQ(getSoftwareVersionText(), std::to_string(version));
  }
  EXPECT_EQ(getSoftwarePackageNameText(), "package");
  platform.version.reset();
  platform.packageName.reset();
  const std::string noName = "could not get software package name";
  EXPECT_EQ(failureOf<Error>(getSoftwareVersionText), "could not get software version");
  EXPECT_EQ(failureOf<Error>(getSoftwarePackageNameText), noName);
  platform.succeedWithoutText = true;
  EXPECT_EQ(failureOf<Error>(getSoftwarePackageNameText), noName);
  EXPECT_EQ(failureOf<Error>([] { (void)getConfigValue("key"); }), "key does not exist");
}

TEST_F(Utils, SettingsAreNumbersWithDefaults) {
  EXPECT_EQ(getDownloadRetries(), 10);
  EXPECT_EQ(getDownloadTimeoutSeconds(), 900);
  const std::string tail = " key does not exist in prefbox";
  EXPECT_EQ(platform.log,
            (std::vector<std::string>{
                "<4> W def:zeloinstall:zeloutils:zelo.installer.download.retries" + tail,
                "<4> W def:zeloinstall:zeloutils:zelo.installer.download.timeout.seconds" + tail}));
  const struct {
    const char* text;
    int value;
  } rows[] = {{"3", 3}, {" 7", 7}, {"5 times", 5}, {"-1", -1}, {"+2", 2}, {"2147483647", 2147483647}};
  for (const auto& row : rows) {
    platform.settings[DOWNLOAD_RETRIES_KEY] = row.text;
    EXPECT_EQ(getDownloadRetries(), row.value) << row.text;
  }
  for (const char* text : {"", "many", "-"}) {
    platform.settings[DOWNLOAD_TIMEOUT_KEY] = text;
    EXPECT_EQ(failureOf<std::invalid_argument>(getDownloadTimeoutSeconds), "stoi") << text;
  }
  platform.settings[DOWNLOAD_RETRIES_KEY] = "99999999999";
  EXPECT_EQ(failureOf<std::out_of_range>(getDownloadRetries), "stoi");
  EXPECT_EQ(platform.log.size(), 2U);
}

TEST_F(Utils, EachLevelHasItsMaskBit) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    g_qorvex_log_mask = 1U << bit;
    logInfo("I %u", bit);
    logWarning("W %u", bit);
    logError("E %u", bit);
  }
  EXPECT_EQ(platform.log, (std::vector<std::string>{"<5> I 23", "<4> W 24", "<3> E 25"}));
}

TEST_F(Utils, TextsAreEncodedForQueries) {
  EXPECT_EQ(urlEncode(""), "");
  EXPECT_EQ(urlEncode("a b/c"), "a%20b%2Fc");
  EXPECT_EQ(urlEncode("%41"), "%2541");
  EXPECT_EQ(urlEncode("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(urlEncode(std::string("\0\xff+&", 4)), "%00%FF%2B%26");
}

TEST_F(Utils, JsonStringsByName) {
  const JSONWrapper document(R"({"a":"b","q":"x\"y","n":1,"A":"upper","o":{},"z":null})");
  EXPECT_EQ(document.getString("a"), "b");
  EXPECT_EQ(document.getString("q"), "x\"y");
  for (const std::string name : {"c", "n", "o", "z", "Q", ""}) {
    EXPECT_EQ(failureOf<Error>([&] { (void)document.getString(name); }), "key " + name + " not found");
  }
  for (const std::string text : {"", "hello", "{", R"({"a":})"}) {
    EXPECT_EQ(failureOf<Error>([&] { const JSONWrapper invalid(text); }), "invalid json " + text);
  }
  EXPECT_EQ(failureOf<Error>([] { (void)JSONWrapper(R"(["a"])").getString("a"); }), "key a not found");
  JSONWrapper built;
  EXPECT_EQ(built.toString(), "{}");
  built.addString("a", "b");
  built.addString("a", "c\n");
  EXPECT_EQ(built.toString(), R"({"a":"b","a":"c\n"})");
  EXPECT_EQ(built.getString("a"), "b");
}

}  // namespace
