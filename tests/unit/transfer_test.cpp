#include <pthread.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <random>
#include <thread>

#include "download/transfer_service_wrapper.h"
#include "download/transfer_wrapper.h"
#include "platform/qorvex_daemon.h"
#include "tests/unit/expect_failure.h"
#include "tests/unit/fake_platform.h"

using fake::Request;
using std::chrono::steady_clock;
using zelo::TransferWrapper;

namespace {

constexpr int longTime = 60;
constexpr int succeeds = 0;
constexpr int fails = 1;

class Transfer : public testing::Test {
 protected:
  void SetUp() override { fake::reset(); }
  void TearDown() override {
    join();
    fake::reset();
  }

  // "" or the text of the failure.
  static std::string download(int seconds) {
    TransferWrapper wrapper("https://x/y", "GET", "", "/tmp/file");
    try {
      wrapper.download(seconds);
      return "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  // Has the reports come from a thread of the service, as soon as the request is submitted.
  template <typename Reports>
  void onThread(Reports reports) {
    platform.onInitiate = [this, reports](Request& request) {
      request.listener->setTransfer(request.handle);
      threads.emplace_back([reports, request] { reports(request); });
      return true;
    };
    platform.onFinish = [this](Request&) { join(); };
  }

  void join() {
    for (std::thread& thread : threads) thread.join();
    threads.clear();
  }

  fake::Platform& platform = fake::platform();
  std::vector<std::thread> threads;
};

TEST_F(Transfer, EndsByTheFirstReportOfAnEnd) {
  const std::string failed = "<4> W TransferWrapper:onProgress:transferFailed:error_code=500";
  const std::string deferred =
      "<4> W TransferWrapper:onProgress:transferDeferred:error_code=500, deferred_code=";
  const std::string goesOn =
      "<5> I TransferWrapper:onProgress:download deferred due to high priority items. continue monitoring "
      "progress.:";
  const std::string completed = "<5> I TransferWrapper:onProgress:status=downloadCompleted:";
  const struct {
    const char* what;
    std::function<void(const Request&)> reports;
    int outcome;
    std::vector<std::string> log;
  } rows[] = {{"completed", [](const Request& r) { r.report(8); }, succeeds, {completed}},
              {"failed", [](const Request& r) { r.report(9); }, fails, {failed}},
              {"deferred", [](const Request& r) { r.report(6, 8); }, fails, {deferred + "8"}},
              {"deferred for others, then completed",
               [](const Request& r) { r.report(6, 9), r.report(8); },
               succeeds,
               {deferred + "9", goesOn, completed}},
              {"intermediate states",
               [](const Request& r) {
                 for (int state = -1; state < 20; ++state) {
                   if (state != 6 && state != 8 && state != 9) r.report(state);
                 }
                 r.report(8);
               },
               succeeds,
               {completed}},
              {"no report, then wrong ids",
               [](const Request& r) {
                 r.listener->onProgress(nullptr);
                 r.report(8, 0, -1);
                 r.report(9, 0, r.id + 1);
                 r.report(8);
               },
               succeeds,
               {"<4> W TransferWrapper:onProgress:transferStatus is NULL:",
                "<4> W TransferWrapper:onProgress:Invalid id=-1:",
                "<4> W TransferWrapper:onProgress:Invalid id=", completed}},
              {"completed twice",
               [](const Request& r) { r.report(8), r.report(8); },
               succeeds,
               {completed, completed}}};
  for (const auto& row : rows) {
    for (const bool threaded : {false, true}) {
      fake::reset();
      if (threaded) {
        onThread(row.reports);
      } else {
        platform.onInitiate = [&](Request& request) {
          request.listener->setTransfer(request.handle);
          row.reports(request);
          return true;
        };
      }
      const auto start = steady_clock::now();
      EXPECT_EQ(download(longTime), row.outcome == succeeds ? "" : "download failed") << row.what;
      EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5))
          << row.what << ": an end costs no deadline";
      ASSERT_EQ(platform.log.size(), row.log.size()) << row.what;
      for (std::size_t i = 0; i < row.log.size(); ++i) {
        EXPECT_EQ(platform.log[i].compare(0, row.log[i].size(), row.log[i]), 0) << platform.log[i];
      }
      EXPECT_EQ(fake::count(platform.calls, "finish"), 1) << row.what;
    }
  }
}

TEST_F(Transfer, AReportBeforeTheHandleIsKnownIsIgnored) {
  platform.onInitiate = [](Request& request) {
    request.report(9);
    return true;
  };
  platform.onFinish = [](Request& request) { request.report(8); };
  EXPECT_EQ(download(0), "") << "what counts is known when finishing is over";
  EXPECT_EQ(platform.log.front(), "<4> W TransferWrapper:onProgress:transfer is NULL:");
}

TEST_F(Transfer, EndsAtTheDeadline) {
  platform.onInitiate = [](Request&) { return true; };
  for (const int seconds : {1, 0, -1, std::numeric_limits<int>::min()}) {
    const auto start = steady_clock::now();
    EXPECT_EQ(download(seconds), "download failed");
    const std::chrono::duration<double> took = steady_clock::now() - start;
    EXPECT_NEAR(took.count(), seconds > 0 ? seconds : 0, 0.5);
  }
  EXPECT_EQ(fake::count(platform.calls, "finish"), 4);
}

TEST_F(Transfer, TheDeadlineCoversTheSubmission) {
  platform.onInitiate = [](Request&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    return true;
  };
  const auto start = steady_clock::now();
  EXPECT_EQ(download(1), "download failed");
  EXPECT_LT(steady_clock::now() - start, std::chrono::milliseconds(1500));
}

TEST_F(Transfer, IdsBelowOneAreInvalidEvenWhereTheyMatch) {
  for (const int id : {-5, 0}) {
    platform.firstId = id;
    platform.onInitiate = [](Request& request) {
      request.listener->setTransfer(request.handle);
      fake::Report report(8, request.id);
      request.listener->onProgress(&report);
      return true;
    };
    EXPECT_EQ(download(0), "download failed");
    EXPECT_EQ(platform.log.back(), "<4> W TransferWrapper:onProgress:Invalid id=" + std::to_string(id) + ":");
  }
}

TEST_F(Transfer, DeadlinesSaturate) {
  constexpr time_t latest = std::numeric_limits<time_t>::max();
  const struct {
    time_t now;
    int seconds;
    time_t deadline;
  } rows[] = {{100, 5, 105},
              {100, -200, -100},
              {latest - 5, 5, latest},
              {latest - 5, 6, latest},
              {latest - 5, std::numeric_limits<int>::max(), latest}};
  for (const auto& row : rows) {
    const timespec deadline = zelo::deadlineAfter({row.now, 7}, row.seconds);
    EXPECT_EQ(deadline.tv_sec, row.deadline) << row.seconds;
    EXPECT_EQ(deadline.tv_nsec, 7);
  }
}

TEST_F(Transfer, RefusalsAndAMissingClock) {
  for (const bool handleKnown : {false, true}) {
    platform.onInitiate = [&](Request& request) {
      if (handleKnown) request.listener->setTransfer(request.handle);
      return false;
    };
    EXPECT_EQ(download(longTime), "initiating download failed");
  }
  EXPECT_EQ(platform.log.back(), "<4> W TransferWrapper:download:Initiating transfer failed:");
  EXPECT_EQ(fake::count(platform.calls, "finish"), 0);
  platform.calls.clear();
  platform.clockFails = true;
  const std::string outcome = download(longTime);
  platform.clockFails = false;
  EXPECT_EQ(outcome, "clock_gettime failed");
  EXPECT_TRUE(platform.calls.empty());
}

TEST_F(Transfer, SpuriousWakeUpsDoNotEndTheWait) {
  onThread([](const Request& request) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    request.report(8);
  });
  platform.spuriousWakeUps = 5;
  // Without finishing's help: what has not ended by then has not succeeded.
  platform.onFinish = [this](Request&) {
    platform.calls.push_back(fake::count(platform.log, "<5>") == 1 ? "ended" : "too early");
  };
  EXPECT_EQ(download(longTime), "");
  EXPECT_EQ(platform.calls.back(), "ended");
  EXPECT_EQ(platform.spuriousWakeUps, 0);
}

// A service that does whatever a service could do, at random, against the outcome that the reports allow.
TEST_F(Transfer, AdversarialServiceNeverChangesTheOutcome) {
  g_qorvex_log_mask = 0;
  std::mt19937 random(20);
  const auto pick = [&](int bound) { return static_cast<int>(random() % static_cast<unsigned>(bound)); };
  for (int round = 0; round < 4000; ++round) {
    const bool early = round % 1500 == 0 || pick(2) == 0;  // the handle is known before a report can come
    const bool late = round % 1500 == 0;                   // ends a hair around the deadline
    const int callers = 1 + pick(2);
    const int end = std::array{8, 9, 6}[static_cast<std::size_t>(pick(3))];
    const int noise = pick(20);
    const int repeats = 1 + pick(3);
    std::atomic<bool> accepted{false};
    std::atomic<bool> perhapsAccepted{false};
    const auto reports = [&](const Request& request) {
      if (late) std::this_thread::sleep_for(std::chrono::milliseconds(990 + round % 21));
      for (int i = 0; i < noise; ++i) {
        request.report(i % 6);
        request.report(6, 9);
        request.report(end, 0, -1 - i);
        request.report(end, 0, request.id + 1 + i);
        if (i % 5 == 0) request.listener->onProgress(nullptr);
      }
      for (int i = 0; i < repeats; ++i) {
        if (request.listener->getTransfer() != nullptr) accepted = true;
        request.report(end, 1);
        if (request.listener->getTransfer() != nullptr) perhapsAccepted = true;
      }
    };
    platform.onInitiate = [&](Request& request) {
      if (early) request.listener->setTransfer(request.handle);
      for (int i = 0; i < callers; ++i) threads.emplace_back([reports, request] { reports(request); });
      if (pick(2) == 0) std::this_thread::yield();
      return true;
    };
    platform.onFinish = [&](Request& request) {
      request.report(3);
      join();
    };
    // Without the handle a report may be lost, and then only the deadline ends the wait.
    const auto start = steady_clock::now();
    const std::string outcome = download(late ? 1 : early ? longTime : 0);
    EXPECT_TRUE(outcome.empty() ? end == 8 && perhapsAccepted : end != 8 || !accepted) << "round " << round;
    if (early && !late) {
      EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10)) << "round " << round;
    }
    if (HasFailure()) break;
  }
}

TEST_F(Transfer, TheWrapperOwnsBusAndClient) {
  platform.ready = false;
  { const TransferServiceWrapper wrapper; }
  EXPECT_EQ(platform.calls, (std::vector<std::string>{"open com.qorvex.zeloinstall", "initialize",
                                                      "delete service", "close"}));
  EXPECT_EQ(platform.log, std::vector<std::string>{
                              "<3> E def:TransferServiceWrapper:Transfer Service initialization failed:"});
  platform.busResult = 5;
  EXPECT_EQ(failureOf<std::runtime_error>([] { const TransferServiceWrapper wrapper; }),
            "Failed to initialize kbus handle");
}

}  // namespace
