#include <chrono>
#include <limits>
#include <thread>

#include "download/transfer_wrapper.h"
#include "tests/unit/fake_platform.h"

using fake::Request;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr int longTime = 60;

// "" or the text of the failure.
std::string download(int timeLimit) {
  zelo::TransferWrapper wrapper("https://x/y", "GET", "", "/tmp/file");
  return failureOf([&] { wrapper.download(timeLimit); });
}

struct Transfer : fake::Test {
  void TearDown() override { join(); }
  void join() {
    for (std::thread& thread : threads) thread.join();
    threads.clear();
  }
  std::vector<std::thread> threads;
};

TEST_F(Transfer, EndsByTheFirstReportOfAnEnd) {
  const std::string begin = "TransferWrapper:onProgress:";
  const std::string completed = "<5> I " + begin + "status=downloadCompleted:";
  const std::string invalid = "<4> W " + begin + "Invalid id=";
  const std::string deferred = "<4> W " + begin + "transferDeferred:error_code=500, deferred_code=";
  const std::string goesOn =
      "<5> I " + begin + "download deferred due to high priority items. continue monitoring progress.:";
  struct Report {
    int state, deferred, id, later = 0;
  };
  const struct {
    const char* name;
    std::vector<Report> reports;
    bool succeeds;
    Texts log;
  } rows[] = {{"completed", {{8, 0, 0}}, true, {completed}},
              {"failed at the second look", {{8, 0, 0, 9}}, false, {completed}},
              {"failed", {{9, 0, 0}}, false, {"<4> W " + begin + "transferFailed:error_code=500"}},
              {"deferred", {{6, 8, 0}}, false, {deferred + "8"}},
              {"deferred for others", {{6, 9, 0}, {8, 0, 0}}, true, {deferred + "9", goesOn, completed}},
              {"other states", {{-1, 0, 0}, {5, 9, 0}, {7, 0, 0}, {10, 0, 0}, {8, 0, 0}}, true, {completed}},
              {"other ids",
               {{8, 0, -1}, {9, 0, 999}, {8, 0, 0}},
               true,
               {invalid + "-1:", invalid + "999:", completed}},
              {"twice", {{8, 0, 0}, {8, 0, 0}}, true, {completed, completed}}};
  for (const auto& row : rows) {
    platform.log.clear();
    platform.calls.clear();
    platform.onInitiate = [&](Request& request) {
      request.announce();
      for (const Report& report : row.reports)
        request.report(report.state, report.deferred, report.id, report.later);
      return true;
    };
    const auto start = steady_clock::now();
    EXPECT_EQ(download(longTime), row.succeeds ? "" : "download failed") << row.name;
    ASSERT_LT(steady_clock::now() - start, seconds(longTime / 2)) << row.name;
    EXPECT_EQ(platform.log, row.log) << row.name;
    EXPECT_EQ(platform.calls, (Texts{"initiate https://x/y /tmp/file", "finish"})) << row.name;
  }
}

TEST_F(Transfer, ReportsWithoutStatusOrHandleAreIgnored) {
  platform.onInitiate = [](Request& request) {
    request.listener->onProgress(nullptr);
    request.report(9);
    return true;
  };
  platform.onFinish = [](Request& request) { request.report(8); };
  EXPECT_EQ(download(0), "") << "what counts is known when finishing is over";
  EXPECT_EQ(platform.log.at(0), "<4> W TransferWrapper:onProgress:transferStatus is NULL:");
  EXPECT_EQ(platform.log.at(1), "<4> W TransferWrapper:onProgress:transfer is NULL:");
}

TEST_F(Transfer, TheDeadlineCoversTheSubmission) {
  timespec submitted{};
  timespec until{};
  platform.onInitiate = [&](Request&) { return clock_gettime(CLOCK_REALTIME, &submitted) == 0; };
  platform.onTimedWait = [&](const timespec& deadline) {
    until = deadline;
    return ETIMEDOUT;
  };
  EXPECT_EQ(download(longTime), "download failed");
  EXPECT_LE(std::make_pair(until.tv_sec - longTime, until.tv_nsec),
            std::make_pair(submitted.tv_sec, submitted.tv_nsec));
}

TEST_F(Transfer, IdsBelowOneAreInvalidEvenWhereTheyMatch) {
  for (const int id : {-5, 0}) {
    platform.log.clear();
    platform.firstId = id;
    EXPECT_EQ(download(0), "download failed");
    EXPECT_EQ(platform.log.at(0), "<4> W TransferWrapper:onProgress:Invalid id=" + std::to_string(id) + ":");
  }
}

TEST_F(Transfer, DeadlinesSaturate) {
  constexpr time_t latest = std::numeric_limits<time_t>::max();
  EXPECT_EQ(zelo::deadlineAfter({100, 7}, 5).tv_sec, 105);
  EXPECT_EQ(zelo::deadlineAfter({100, 7}, -200).tv_sec, -100);
  EXPECT_EQ(zelo::deadlineAfter({latest - 5, 7}, 5).tv_sec, latest);
  EXPECT_EQ(zelo::deadlineAfter({latest - 5, 7}, 6).tv_sec, latest);
}

TEST_F(Transfer, ARefusedRequestLeavesItsHandleToTheLibrary) {
  platform.onInitiate = [](Request& request) {
    request.announce();
    return false;
  };
  EXPECT_EQ(download(longTime), "initiating download failed");
  EXPECT_EQ(platform.calls, Texts{"initiate https://x/y /tmp/file"});
  EXPECT_EQ(platform.log, Texts{"<4> W TransferWrapper:download:Initiating transfer failed:"});
}

TEST_F(Transfer, SpuriousWakeUpsDoNotEndTheWait) {
  Request running;
  platform.onInitiate = [&](Request& request) {
    running = request;
    return true;
  };
  int wakeUps = 0;
  platform.onTimedWait = [&](const timespec&) -> std::optional<int> {
    if (++wakeUps <= 5) return 0;
    threads.emplace_back([&] { running.report(8); });
    return std::nullopt;
  };
  platform.onFinish = [&](Request&) { EXPECT_EQ(wakeUps, 6) << "too early"; };
  EXPECT_EQ(download(longTime), "");
}

// The thread sanitizer watches this one.
TEST_F(Transfer, ReportsMayComeFromSeveralThreadsAtOnce) {
  for (int round = 0; round < 1000; ++round) {
    const int end = round % 2 == 0 ? xfr::downloadCompleted : xfr::transferFailed;
    platform.onInitiate = [&](Request& request) {
      request.announce();
      for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&request, end] {
          request.report(5);
          request.report(end, 1);
        });
      }
      return true;
    };
    platform.onFinish = [this](Request&) { join(); };
    ASSERT_EQ(download(longTime), round % 2 == 0 ? "" : "download failed") << round;
  }
}

}  // namespace
