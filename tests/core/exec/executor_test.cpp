// BackendExecutor and SynchronousExecutor: what owners rely on that needs no contention
// between producers (see executor_concurrency_test.cpp for that): logging, statistics,
// the metrics switch, shutdown, failures of tasks, and the transaction type names.
#include "exec/executor_test_support.hpp"

#include <core/exec/BackendExecutor.hpp>
#include <core/exec/ObservableTransactionType.hpp>
#include <core/exec/SynchronousExecutor.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace overlay_test;
using storage::overlayprovider::BackendExecutor;
using storage::overlayprovider::kStatisticsReportOrder;
using storage::overlayprovider::ObservableTransactionType;
using storage::overlayprovider::statisticsKeyWord;
using storage::overlayprovider::SynchronousExecutor;
using T = ObservableTransactionType;
using foundation::log::MemorySink;

std::string printed(ObservableTransactionType type) {
  std::ostringstream out;
  out << type;
  return out.str();
}

std::vector<std::string> childKeys(boost::property_tree::ptree const& tree) {
  std::vector<std::string> keys;
  for (auto const& child : tree) keys.push_back(child.first);
  return keys;
}

std::string counter(boost::property_tree::ptree const& stats, char const* kind, ObservableTransactionType type) {
  return stats.get<std::string>(std::string("overlay.queueStats.transaction.") + kind + "." +
                                std::string(statisticsKeyWord(type)));
}

TEST(ObservableTransactionTypeTest, PrintsNamesAndKeyWordsInOrder) {
  std::vector<std::pair<std::string, std::string>> const expected{
      {"FILE_OPEN_READONLY", "openReadOnly"},
      {"FILE_OPEN_READWRITE", "openReadWrite"},
      {"FILE_WRITE", "write"},
      {"FILE_CLOSE", "close"},
      {"FILE_CREATION", "createFile"},
      {"FILE_REMOVAL", "removeFile"},
      {"FILE_MOVE", "moveFile"},
      {"FILE_COPY", "copyFile"},
      {"FOLDER_CREATION", "createFolder"},
      {"FOLDER_CREATION_RECURSIVE", "createFolderRecursive"},
      {"FOLDER_REMOVAL", "removeFolder"},
      {"FOLDER_REMOVAL_RECURSIVE", "removeFolderRecursive"},
      {"FOLDER_MOVE", "moveFolder"},
      {"SET_LAST_MODIFIED", "setLastModified"},
      {"SET_WRITABLE", "setWritable"},
      {"WAKEUP_FLUSH", "wakeupFlush"},
      {"EXTERNAL_EVENT", "externalEvent"},
  };
  ASSERT_EQ(expected.size(), static_cast<std::size_t>(storage::overlayprovider::kObservableTransactionTypeCount));
  for (std::size_t i = 0; i < expected.size(); ++i) {
    auto const type = static_cast<ObservableTransactionType>(i);
    EXPECT_EQ(expected[i].first, printed(type));
    EXPECT_EQ(expected[i].second, statisticsKeyWord(type));
  }
  EXPECT_EQ(15, static_cast<int>(T::WAKEUP_FLUSH));

  // Out of range: nothing at all.
  EXPECT_EQ("", printed(static_cast<ObservableTransactionType>(17)));
  EXPECT_EQ("", printed(static_cast<ObservableTransactionType>(-1)));
  EXPECT_EQ("", statisticsKeyWord(static_cast<ObservableTransactionType>(99)));

  // The report lists "createFile" before "write" and "close".
  std::vector<std::string> reportOrder;
  for (auto type : kStatisticsReportOrder) reportOrder.emplace_back(statisticsKeyWord(type));
  EXPECT_EQ((std::vector<std::string>{"openReadOnly", "openReadWrite", "createFile", "write", "close", "removeFile",
                                      "moveFile", "copyFile", "createFolder", "createFolderRecursive", "removeFolder",
                                      "removeFolderRecursive", "moveFolder", "setLastModified", "setWritable",
                                      "wakeupFlush", "externalEvent"}),
            reportOrder);
}

TEST(BackendExecutorTest, ReportsEmptyStatisticsRightAfterConstruction) {
  MemorySink sink;
  BackendExecutor executor([] {}, 10);
  ExecutorStopper stop(executor);

  EXPECT_TRUE(sink.contains("BackendExecutor initialized with a max queue weight of 10"));
  sink.clear();
  executor.logQueueStatistics();
  auto const reports = messagesContaining(sink, "queueStats");
  ASSERT_EQ(1u, reports.size());
  std::string const& line = reports.front();
  EXPECT_EQ(std::string::npos, line.find('\n')) << "one line, no pretty printing";
  for (auto const& record : sink.records()) {
    if (record.message == line) {
      EXPECT_EQ(unsigned(foundation::log::Info), record.severity);
      EXPECT_EQ("storage::overlayprovider", record.channel);
    }
  }

  auto const stats = parseJson(line);
  auto const& queueStats = stats.get_child("overlay.queueStats");
  EXPECT_EQ((std::vector<std::string>{"size", "weight", "avQTime_ms", "maxQTime_ms", "transaction"}),
            childKeys(queueStats));
  EXPECT_EQ((std::vector<std::string>{"now", "totalOverTime"}), childKeys(queueStats.get_child("transaction")));

  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.size"));
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.weight"));
  // 0 ms over 0 records: the JSON writer writes the value as a string, and a
  // not-a-number double is written as "nan" (or "-nan" when its sign bit is set).
  std::string const average = stats.get<std::string>("overlay.queueStats.avQTime_ms");
  EXPECT_TRUE(average == "nan" || average == "-nan") << average;
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.maxQTime_ms"));

  for (char const* kind : {"now", "totalOverTime"}) {
    auto const& counters = queueStats.get_child(std::string("transaction.") + kind);
    std::vector<std::string> keys;
    for (auto const& [key, value] : counters) {
      keys.push_back(key);
      EXPECT_EQ("0", value.data()) << kind << "." << key;
    }
    std::vector<std::string> expected;
    for (auto type : kStatisticsReportOrder) expected.emplace_back(statisticsKeyWord(type));
    EXPECT_EQ(expected, keys) << kind;
  }
}

TEST(BackendExecutorTest, LogsWeightsAsDecimalNumbers) {
  MemorySink sink;
  BackendExecutor executor([] {}, 104857600);
  ExecutorStopper stop(executor);
  EXPECT_TRUE(sink.contains("BackendExecutor initialized with a max queue weight of 104857600"));

  executor.setMaxQueueWeight(0.5);
  auto const updates = messagesContaining(sink, "Updating BackendExecutor max queue weight to ");
  ASSERT_EQ(1u, updates.size());
  EXPECT_EQ("Updating BackendExecutor max queue weight to 0.5", updates.front());
}

TEST(BackendExecutorTest, RefusesTasksAfterShutdownWithoutRunningThemOrTheIdleCallback) {
  MemorySink sink;
  std::atomic<int> idleCalls{0};
  BackendExecutor executor([&] { ++idleCalls; }, 0);
  executor.shutdown(false);
  executor.join();
  EXPECT_TRUE(executor.isShutdown());
  int const idleBefore = idleCalls.load();

  sink.clear();
  bool ran = false;
  executor.execute([&] { ran = true; }, T::FILE_WRITE, 1);
  EXPECT_FALSE(ran);
  EXPECT_EQ(idleBefore, idleCalls.load());

  auto const records = sink.records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("Attempted to execute task when no longer accepting.", records[0].message);
  EXPECT_EQ(512u, records[0].severity);
  EXPECT_EQ("ObservableTransactionType: FILE_WRITE", records[1].message);
  EXPECT_EQ(4u, records[1].severity);
}

TEST(BackendExecutorTest, SkipsTasksThatThrowAndKeepsTheLastActivityTimeOfSuccesses) {
  ManualClock clock;
  MemorySink sink;
  BackendExecutor executor([] {}, 0, clock.source());
  ExecutorStopper stop(executor);
  auto const constructed = clock.now();
  EXPECT_EQ(constructed, executor.getLastActivityTime());

  std::vector<int> ran;  // touched by the worker only, read after waitForPendingToFinish
  clock.advance(5s);
  executor.execute([&] { throw std::runtime_error("task failure text"); }, T::FILE_WRITE, 0);
  executor.execute([&] { throw 42; }, T::FILE_CLOSE, 0);
  executor.execute({}, T::FILE_CLOSE, 0);  // empty: bad_function_call, also swallowed
  executor.waitForPendingToFinish();
  EXPECT_EQ(constructed, executor.getLastActivityTime()) << "no task returned normally";

  executor.execute([&] { ran.push_back(1); }, T::FILE_WRITE, 0);
  executor.execute([&] {
    ran.push_back(2);
    throw std::logic_error("second failure");
  }, T::FILE_WRITE, 0);
  executor.execute([&] { ran.push_back(3); }, T::FILE_WRITE, 0);
  executor.waitForPendingToFinish();

  EXPECT_EQ((std::vector<int>{1, 2, 3}), ran);
  EXPECT_EQ(clock.now(), executor.getLastActivityTime());
  EXPECT_FALSE(sink.contains("task failure text"));
  EXPECT_FALSE(sink.contains("second failure"));
  EXPECT_EQ(0u, sink.count(foundation::log::Error));
}

TEST(BackendExecutorTest, CancellingShutdownDropsQueuedTasksButKeepsTheirWeightAndCounters) {
  MemorySink sink;
  Gate gate;
  BackendExecutor executor([] {}, 100);
  std::atomic<int> ran{0};
  executor.execute([&] { gate.pass(); }, T::FILE_OPEN_READWRITE, 0);
  gate.waitArrived();
  for (int i = 0; i < 3; ++i) executor.execute([&] { ++ran; }, T::FILE_WRITE, 5);
  EXPECT_EQ(15.0, executor.getCurrentQueueWeight());

  // Returns while the worker is still held in the gate: nothing is left to wait for.
  executor.shutdown(true);
  EXPECT_TRUE(executor.isShutdown());
  EXPECT_EQ(1u, messagesContaining(sink, "Cancelling outstanding").size());

  auto const stats = statistics(executor, sink);
  EXPECT_EQ("15", stats.get<std::string>("overlay.queueStats.weight")) << "clearing releases no weight";
  EXPECT_EQ("3", counter(stats, "now", T::FILE_WRITE)) << "clearing does not count down";
  EXPECT_EQ("3", counter(stats, "totalOverTime", T::FILE_WRITE));
  EXPECT_EQ("1", counter(stats, "now", T::WAKEUP_FLUSH)) << "the shutdown marker";
  EXPECT_EQ("1", stats.get<std::string>("overlay.queueStats.size")) << "only the marker is queued";

  gate.open();
  executor.join();
  EXPECT_EQ(0, ran.load());
  // A second shutdown (the provider's destructor does one) is harmless.
  executor.shutdown(true);
  executor.join();
}

TEST(BackendExecutorTest, WaitForPendingToFinishCountsItsMarkerUpButNeverDown) {
  MemorySink sink;
  BackendExecutor executor([] {}, 0);
  ExecutorStopper stop(executor);

  executor.waitForPendingToFinish();  // idle executor: returns once the marker is popped
  EXPECT_TRUE(executor.isQueueEmpty());
  auto before = statistics(executor, sink);
  EXPECT_EQ("1", counter(before, "now", T::WAKEUP_FLUSH));

  executor.execute([] {}, T::EXTERNAL_EVENT, 0);
  executor.waitForPendingToFinish();
  auto after = statistics(executor, sink);
  EXPECT_EQ("2", counter(after, "now", T::WAKEUP_FLUSH));
  EXPECT_EQ("2", counter(after, "totalOverTime", T::WAKEUP_FLUSH));
  EXPECT_EQ("0", counter(after, "now", T::EXTERNAL_EVENT)) << "a task run is no longer counted";
  EXPECT_EQ("1", counter(after, "totalOverTime", T::EXTERNAL_EVENT));

  auto again = statistics(executor, sink);
  EXPECT_EQ("2", counter(again, "now", T::WAKEUP_FLUSH)) << "stays one higher per wait";
}

TEST(BackendExecutorTest, MetricsSwitchIsFixedAtConstruction) {
  for (bool const capture : {true, false}) {
    SCOPED_TRACE(capture ? "capture" : "no capture");
    MemorySink sink;
    std::optional<BackendExecutor> executor;
    executor.emplace([] {}, 0, &storage::overlayprovider::steadyNow, capture);
    EXPECT_EQ(capture, executor->isMetricsCaptureEnabled());
    Signal done;
    executor->execute([&] { done.set(); }, T::FILE_CREATION, 0);
    done.wait();  // popped from an otherwise empty queue
    executor->waitForPendingToFinish();
    EXPECT_EQ(capture, !messagesContaining(sink, "timeToEmpty").empty());
    auto const stats = statistics(*executor, sink);
    EXPECT_EQ(capture ? "1" : "0", counter(stats, "totalOverTime", T::FILE_CREATION));
    EXPECT_EQ(capture ? "1" : "0", counter(stats, "now", T::WAKEUP_FLUSH));
    executor->shutdown(true);
    executor->join();
  }
}

TEST(BackendExecutorTest, OneTaskOnAnIdleQueueReportsItsQueueTimeAndTimeToEmpty) {
  ManualClock clock;
  MemorySink sink;
  Gate gate;
  BackendExecutor executor([] {}, 0, clock.source());
  ExecutorStopper stop(executor, {&gate});

  // Hold the worker so that the next task waits in the queue for a known time.
  executor.execute([&] { gate.pass(); }, T::FILE_OPEN_READONLY, 0);
  gate.waitArrived();
  sink.clear();

  Signal ran;
  executor.execute([&] { ran.set(); }, T::FILE_WRITE, 0);  // into an empty queue: a busy period starts
  clock.advance(250ms + 999us);                               // truncated to whole milliseconds
  gate.open();
  ran.wait();  // statistics are updated when the task is popped, before it runs

  auto const timeToEmpty = messagesContaining(sink, "timeToEmpty");
  ASSERT_EQ(1u, timeToEmpty.size());
  EXPECT_EQ(R"({"overlay":{"queueStats":{"timeToEmpty":"250"}}})", timeToEmpty.front());

  auto const stats = statistics(executor, sink);
  EXPECT_EQ("250", stats.get<std::string>("overlay.queueStats.maxQTime_ms"));
  EXPECT_EQ("250", stats.get<std::string>("overlay.queueStats.avQTime_ms"));
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.size"));

  // A shorter queue time does not lower the maximum.
  Signal second;
  executor.execute([&] { second.set(); }, T::FILE_WRITE, 0);
  second.wait();
  auto const later = statistics(executor, sink);
  EXPECT_EQ("250", later.get<std::string>("overlay.queueStats.maxQTime_ms"));
  EXPECT_EQ("0", later.get<std::string>("overlay.queueStats.avQTime_ms")) << "a new busy period";
}

TEST(BackendExecutorTest, WritesThePeriodicReportAfterElevenSecondsOfDequeueActivity) {
  ManualClock clock;
  MemorySink sink;
  Gate first, second, third;
  BackendExecutor executor([] {}, 0, clock.source());
  ExecutorStopper stop(executor, {&first, &second, &third});

  // The clock only moves while the worker is held, so each pop happens at a known time.
  executor.execute([&] { first.pass(); }, T::FILE_WRITE, 0);
  first.waitArrived();
  executor.execute([&] { second.pass(); }, T::FILE_WRITE, 0);
  clock.advance(11s - 1ns);
  first.open();
  second.waitArrived();  // popped 1 ns short of the period: no report
  EXPECT_TRUE(messagesContaining(sink, "avQTime_ms").empty());

  executor.execute([&] { third.pass(); }, T::FILE_CLOSE, 0);
  clock.advance(1ns);
  second.open();
  third.waitArrived();  // popped exactly 11 s after construction
  auto reports = messagesContaining(sink, "avQTime_ms");
  ASSERT_EQ(1u, reports.size());
  auto const stats = parseJson(reports.front());
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.size"));
  EXPECT_EQ("1", counter(stats, "totalOverTime", T::FILE_CLOSE));
  EXPECT_EQ("0", counter(stats, "now", T::FILE_CLOSE)) << "counted down before the report";
  EXPECT_EQ("2", counter(stats, "totalOverTime", T::FILE_WRITE));
  // The periodic report comes before the time-to-empty record of the same pop.
  auto const records = sink.records();
  std::size_t reportAt = records.size(), emptyAt = records.size();
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (records[i].message.find("avQTime_ms") != std::string::npos) reportAt = i;
    if (records[i].message.find("timeToEmpty") != std::string::npos) emptyAt = i;
  }
  EXPECT_LT(reportAt, emptyAt);

  // The next one is due 11 s after this one, not after construction.
  Signal fourth;
  executor.execute([&] { fourth.set(); }, T::FILE_CLOSE, 0);
  clock.advance(10s);
  third.open();
  fourth.wait();
  EXPECT_EQ(1u, messagesContaining(sink, "avQTime_ms").size());
}

TEST(BackendExecutorTest, MaximumOfZeroOrLessNeverBlocksAndKeepsWeightAtZero) {
  for (double max : {0.0, -1.0}) {
    SCOPED_TRACE(max);
    Gate gate;
    BackendExecutor executor([] {}, max);
    ExecutorStopper stop(executor, {&gate});
    executor.execute([&] { gate.pass(); }, T::FILE_WRITE, 0);
    gate.waitArrived();
    std::atomic<int> ran{0};
    for (int i = 0; i < 100; ++i) executor.execute([&] { ++ran; }, T::FILE_WRITE, 1e6);
    EXPECT_EQ(0.0, executor.getCurrentQueueWeight());
    EXPECT_EQ(100u, executor.getQueueSize());
    gate.open();
    executor.waitForPendingToFinish();
    EXPECT_EQ(100, ran.load());
    EXPECT_EQ(0.0, executor.getCurrentQueueWeight());
  }
}

TEST(BackendExecutorTest, RaisingTheMaximumFromZeroWhileQueuedDrivesTheWeightNegative) {
  MemorySink sink;
  Gate gate;
  BackendExecutor executor([] {}, 0);
  ExecutorStopper stop(executor, {&gate});
  executor.execute([&] { gate.pass(); }, T::FILE_WRITE, 0);
  gate.waitArrived();
  executor.execute([] {}, T::FILE_WRITE, 4);
  executor.execute([] {}, T::FILE_WRITE, 6);  // neither weight is added: limiting is off

  executor.setMaxQueueWeight(10);
  gate.open();
  executor.waitForPendingToFinish();  // both pops subtract their weight
  EXPECT_EQ(-10.0, executor.getCurrentQueueWeight());
  EXPECT_EQ("-10", statistics(executor, sink).get<std::string>("overlay.queueStats.weight"));

  // A negative weight only makes admission easier: 20 is admitted at once.
  Gate again;
  executor.execute([&] { again.pass(); }, T::FILE_WRITE, 0);
  again.waitArrived();
  executor.execute([] {}, T::FILE_WRITE, 20);
  EXPECT_EQ(10.0, executor.getCurrentQueueWeight());
  again.open();
}

TEST(SynchronousExecutorTest, RunsInlineAndCallsTheIdleCallbackEvenAfterShutdown) {
  ManualClock clock;
  MemorySink sink;
  int idleCalls = 0;
  SynchronousExecutor executor([&] { ++idleCalls; }, clock.source());
  EXPECT_EQ(clock.now(), executor.getLastActivityTime());
  EXPECT_TRUE(executor.isQueueEmpty());
  EXPECT_FALSE(executor.isShutdown());

  std::thread::id ranOn;
  clock.advance(1s);
  executor.execute([&] { ranOn = std::this_thread::get_id(); }, T::FILE_WRITE, 1e9);
  EXPECT_EQ(std::this_thread::get_id(), ranOn);
  EXPECT_EQ(1, idleCalls);
  EXPECT_EQ(clock.now(), executor.getLastActivityTime());

  // A failing task fails the caller; nothing after it happens.
  auto const before = executor.getLastActivityTime();
  clock.advance(1s);
  EXPECT_THROW(executor.execute([] { throw std::runtime_error("inline failure"); }, T::FILE_CLOSE, 0),
               std::runtime_error);
  EXPECT_EQ(before, executor.getLastActivityTime());
  EXPECT_EQ(1, idleCalls);

  // The rest of the interface does nothing.
  executor.setMaxQueueWeight(1);
  executor.waitForPendingToFinish();
  executor.join();
  sink.clear();
  executor.logQueueStatistics();
  EXPECT_TRUE(sink.records().empty());

  executor.shutdown(false);
  EXPECT_TRUE(executor.isShutdown());
  bool ran = false;
  executor.execute([&] { ran = true; }, T::FILE_WRITE, 0);
  EXPECT_FALSE(ran);
  EXPECT_EQ(2, idleCalls) << "called whether or not the task ran";
  EXPECT_EQ(before, executor.getLastActivityTime());

  SynchronousExecutor noCallback({});
  bool ranFirst = false;
  EXPECT_THROW(noCallback.execute([&] { ranFirst = true; }, T::FILE_WRITE, 0), std::bad_function_call);
  EXPECT_TRUE(ranFirst);
}

}  // namespace
