#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "bundle/bundle.h"
#include "bundle/installer.h"
#include "main/zelo_exception.h"
#include "tests/unit/expect_failure.h"
#include "tests/unit/fake_platform.h"
#include "tests/unit/memory_limit.h"
#include "utils/command_runner.h"
#include "utils/device.h"
#include "utils/files.h"

using namespace zelo;

namespace {

// A real signed archive in a directory of its own.
class Bundle : public testing::Test {
 protected:
  void SetUp() override {
    fake::reset();
    writeFile(directory + "/run.sh", "#!/bin/sh\necho dropped\nexit 0\n");
    const std::string script = "cd " + directory +
                               " && PATH=/usr/bin:/bin && chmod 755 run.sh && tar -czf a.tar.gz run.sh && "
                               "openssl ecparam -genkey -name prime256v1 -noout -out key.pem && openssl ec "
                               "-in key.pem -pubout -out pub.pem && "
                               "openssl dgst -sha256 -sign key.pem a.tar.gz | base64 > a.sig && rm run.sh";
    testing::internal::CaptureStderr();
    (void)runCommand({"/bin/sh", "-c", script});
    (void)testing::internal::GetCapturedStderr();
  }
  void TearDown() override { fake::reset(); }

  const std::string directory = fake::temporaryDirectory();
  const ZeloInstallerBundle bundle{directory + "/a.tar.gz", directory + "/a.sig"};
};

TEST_F(Bundle, VerifiesUnpacksAndRuns) {
  bundle.verifySignature(directory + "/pub.pem");
  EXPECT_GT(readFile(directory + "/a.sig.sha256").size(), 60U);
  for (int i = 0; i < 2; ++i) bundle.extract().run();
}

TEST_F(Bundle, RefusesWhateverDoesNotVerify) {
  const std::string archive = readFile(bundle.getBundlePath());
  const std::string signature = readFile(bundle.getSignaturePath());
  const auto refused = [&](const std::string& key) {
    return failureOf<std::runtime_error>([&] { bundle.verifySignature(directory + key); });
  };
  testing::internal::CaptureStderr();
  EXPECT_EQ(refused("/none.pem"), "failed to execute command");
  EXPECT_EQ(refused(""), "failed to execute command");
  std::string changed = archive;
  changed[20] = static_cast<char>(changed[20] ^ 1);
  writeFile(bundle.getBundlePath(), changed);
  EXPECT_EQ(refused("/pub.pem"), "failed to execute command");
  writeFile(bundle.getBundlePath(), archive);
  writeFile(bundle.getSignaturePath(), "no base64!" + signature);
  EXPECT_EQ(refused("/pub.pem"), "failed to execute command");
  writeFile(bundle.getSignaturePath(), "");
  EXPECT_EQ(refused("/pub.pem"), "failed to execute command");
  (void)testing::internal::GetCapturedStderr();
}

TEST_F(Bundle, FailuresCarryTheStagesCode) {
  testing::internal::CaptureStderr();
  writeFile(bundle.getBundlePath(), "no gzip");
  EXPECT_EQ(failureOf<ZeloException>([&] { (void)bundle.extract(); }),
            "zelo exception: failed to execute command. code=01");
  EXPECT_EQ(failureOf<ZeloException>([] { (void)ZeloInstallerBundle("", "").extract(); }),
            "zelo exception: empty path. code=01");
  const std::string runFailed = "zelo exception: failed to execute command. code=03";
  const ZeloInstaller installer(directory);
  EXPECT_EQ(failureOf<ZeloException>([&] { installer.run(); }), runFailed) << "no script";
  writeFile(directory + "/run.sh", "#!/bin/sh\nexit 1\n");
  EXPECT_EQ(failureOf<ZeloException>([&] { installer.run(); }), runFailed) << "not executable";
  chmod((directory + "/run.sh").c_str(), 0700);
  EXPECT_EQ(failureOf<ZeloException>([&] { installer.run(); }), runFailed) << "status 1";
  writeFile(directory + "/run.sh", "#!/bin/sh\nkill -9 $$\n");
  EXPECT_NO_THROW(installer.run()) << "an end by a signal is no failure";
  (void)testing::internal::GetCapturedStderr();
}

// Another type of failure than the stage's own, and the script is ended and reaped all the same.
TEST_F(Bundle, TheScriptsOutputIsLargerThanTheMemory) {
  if (!memoryCanBeLimited()) GTEST_SKIP() << "a limit on memory has no effect here";
  writeFile(directory + "/run.sh", "#!/bin/sh\nexec /bin/cat /dev/zero\n");
  chmod((directory + "/run.sh").c_str(), 0700);
  EXPECT_EXIT(
      {
        limitMemory(300);
        try {
          ZeloInstaller(directory).run();
        } catch (const std::bad_alloc&) {
          _exit(waitpid(-1, nullptr, 0) < 0 ? 0 : 2);
        }
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(Bundle, MovesBothFiles) {
  const ZeloInstallerBundle moved = bundle.moveTo(directory + "/there");
  EXPECT_EQ(moved.getBundlePath(), directory + "/there/a.tar.gz");
  EXPECT_EQ(moved.getSignaturePath(), directory + "/there/a.sig");
  moved.verifySignature(directory + "/pub.pem");
  EXPECT_EQ(failureOf<std::runtime_error>([&] { (void)bundle.moveTo(directory); }),
            "failed to execute command");
}

// Answers for the keys instead of openssl.
class ScriptedBundle : public ZeloInstallerBundle {
 public:
  explicit ScriptedBundle(std::string goodKey)
      : ZeloInstallerBundle("a", "s"), goodKey_(std::move(goodKey)) {}
  void verifySignature(const std::string& keyPath) const override {
    tried.push_back(keyPath);
    if (goodKey_ == "logic") throw std::logic_error("another type");
    if (keyPath != goodKey_) throw std::runtime_error("not " + keyPath);
  }
  mutable std::vector<std::string> tried;

 private:
  const std::string goodKey_;
};

TEST_F(Bundle, ValidationWithoutTheMarkerTriesTheProductionKeyOnly) {
  ASSERT_FALSE(debugFeaturesEnabled());
  const std::string production = "/etc/zelo/pubkeyprod.pem";
  for (const std::string& good : {production, std::string("/etc/zelo/pubkeydev.pem")}) {
    const ScriptedBundle scripted(good);
    if (good == production) {
      scripted.validate();
    } else {
      EXPECT_EQ(failureOf<ZeloException>([&] { scripted.validate(); }),
                "zelo exception: not /etc/zelo/pubkeyprod.pem. code=00");
    }
    EXPECT_EQ(scripted.tried, std::vector<std::string>{production});
  }
  EXPECT_EQ(failureOf<std::logic_error>([] { ScriptedBundle("logic").validate(); }), "another type");
  EXPECT_TRUE(fake::platform().log.empty());
}

}  // namespace
