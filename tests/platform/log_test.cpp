// Boost 1.74's JSON parser still includes <boost/bind.hpp>, which otherwise prints a
// deprecation note.

#include "foundation/log/Configuration.hpp"
#include "foundation/log/MemorySink.hpp"
#include "foundation/log/ScopedTrace.hpp"
#include "foundation/log/Severity.hpp"
#include "foundation/log/basic_diagnostic_logger.hpp"

#include "fl/filesystem.hpp"

#include <support/LogRecords.hpp>
#include <support/ScopedEnv.hpp>
#include <support/TempFolder.hpp>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

namespace lg = foundation::log;
using lg::MemorySink;
using support::messagesContaining;
using support::readFile;
using support::ScopedEnv;
using support::TempFolder;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

// Every test starts and ends with the default set-up: failures only, to stderr.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { lg::configure("stderr", lg::Error); }
  void TearDown() override { lg::configure("stderr", lg::Error); }

  lg::diagnostic_logger logger_{"storage::overlayprovider"};
};

TEST_F(LogTest, RecordsBelowTheThresholdAreDropped) {
  EXPECT_FALSE(logger_.isEnabled(lg::Trace));
  EXPECT_TRUE(logger_.isEnabled(lg::Error));
  {
    MemorySink sink(lg::Info);
    EXPECT_TRUE(logger_.isEnabled(lg::Info));
    EXPECT_FALSE(logger_.isEnabled(lg::Debug));
    for (unsigned severity : {lg::Trace, lg::Debug, lg::Info, lg::Diagnostic, lg::Notice,
                              lg::Warning, lg::Error}) {
      logger_.log(severity, "at " + lg::severityName(severity));
    }
    EXPECT_THAT(messagesContaining(sink), ElementsAre("at info", "at diagnostic", "at notice",
                                            "at warning", "at error"));
    EXPECT_EQ(1u, sink.count(lg::Error));
    EXPECT_EQ(0u, sink.count(lg::Debug));
  }
  // Removing the sink restores what loggers report as enabled.
  EXPECT_FALSE(logger_.isEnabled(lg::Info));
  EXPECT_TRUE(logger_.isEnabled(lg::Error));
}

TEST_F(LogTest, RecordsCarryChannelSeverityAndMessage) {
  MemorySink sink;
  lg::diagnostic_logger other("other::channel");
  EXPECT_EQ("other::channel", other.channel());
  logger_.log(lg::Diagnostic, "Exception caught: boom");
  other.log(lg::Debug, "from elsewhere");

  auto const records = sink.records();
  ASSERT_EQ(2u, records.size());
  EXPECT_EQ("storage::overlayprovider", records[0].channel);
  EXPECT_EQ(16u, records[0].severity);
  EXPECT_EQ("Exception caught: boom", records[0].message);
  EXPECT_EQ("other::channel", records[1].channel);
  EXPECT_EQ(4u, records[1].severity);
  EXPECT_TRUE(sink.contains("caught: bo"));
  EXPECT_FALSE(sink.contains("not logged"));

  sink.clear();
  EXPECT_TRUE(sink.records().empty());
}

TEST_F(LogTest, MemorySinksKeepTheirOwnThresholds) {
  MemorySink everything;
  {
    MemorySink failures(lg::Error);
    logger_.log(lg::Trace, "trace");
    logger_.log(lg::Error, "failure");
    EXPECT_THAT(messagesContaining(failures), ElementsAre("failure"));
  }
  logger_.log(lg::Debug, "after");
  EXPECT_THAT(messagesContaining(everything), ElementsAre("trace", "failure", "after"));
}

TEST_F(LogTest, ScopedTraceWritesEntryAndExit) {
  MemorySink sink;
  {
    lg::ScopedTrace trace(logger_, "void f(int)", "src/core/OverlayProvider.cpp", 42,
                          "iri=overlay://x/");
    logger_.log(lg::Debug, "inside");
  }
  { lg::ScopedTrace trace(logger_, "void g()", "g.cpp", 7); }
  EXPECT_THAT(messagesContaining(sink),
              ElementsAre("void f(int) src/core/OverlayProvider.cpp:42 iri=overlay://x/",
                          "inside", "void f(int)", "void g() g.cpp:7", "void g()"));
  for (auto const& r : sink.records()) {
    if (r.message != "inside") {
      EXPECT_EQ(lg::Trace, r.severity);
    }
  }
}

TEST_F(LogTest, ScopedTraceMarksAnExitByException) {
  MemorySink sink;
  EXPECT_THROW(
      {
        lg::ScopedTrace trace(logger_, "void h()", "h.cpp", 1);
        throw std::runtime_error("boom");
      },
      std::runtime_error);

  // A scope opened and closed normally while another exception unwinds is not a throw.
  struct TracesInDestructor {
    lg::diagnostic_logger const& logger;
    ~TracesInDestructor() { lg::ScopedTrace trace(logger, "cleanup()", "c.cpp", 2); }
  };
  try {
    TracesInDestructor guard{logger_};
    throw std::runtime_error("unwinding");
  } catch (std::runtime_error const&) {
  }
  EXPECT_THAT(messagesContaining(sink), ElementsAre("void h() h.cpp:1", "void h() [throw]",
                                          "cleanup() c.cpp:2", "cleanup()"));
}

TEST_F(LogTest, ScopedTraceIsSilentWhenTraceIsDisabled) {
  std::optional<MemorySink> late;
  {
    lg::ScopedTrace trace(logger_, "void quiet()", "q.cpp", 3);
    // Trace becomes enabled inside the scope: no exit record without an entry record.
    late.emplace();
  }
  EXPECT_TRUE(late->records().empty());
}

TEST_F(LogTest, JsonRecordsAreOneLineAndParseBack) {
  MemorySink sink;
  boost::property_tree::ptree tree;
  tree.put("overlay.error.message", "Failure in local cache writing");
  tree.put("overlay.error.location", "overlay://host/a b/\"quoted\"");
  tree.put("overlay.queueStats.timeToEmpty", 12);
  logger_.logJson(lg::Info, tree);

  auto const records = sink.records();
  ASSERT_EQ(1u, records.size());
  std::string const& text = records[0].message;
  EXPECT_EQ(std::string::npos, text.find('\n'));
  EXPECT_EQ('{', text.front());
  EXPECT_EQ('}', text.back());
  EXPECT_THAT(text, HasSubstr(R"("timeToEmpty":"12")"));

  std::istringstream in(text);
  boost::property_tree::ptree parsed;
  boost::property_tree::read_json(in, parsed);
  EXPECT_EQ(tree, parsed);
}

TEST_F(LogTest, MainSinkWritesToAFileAtItsThreshold) {
  TempFolder dir("fl_log_test");
  auto const file = dir.path() / "overlay.log";
  lg::configure(file.string(), lg::Info);
  EXPECT_EQ(lg::Info, lg::threshold());

  lg::diagnostic_logger logger("test.file");
  logger.log(lg::Debug, "too low");
  logger.log(lg::Info, "hello");
  EXPECT_THAT(readFile(file),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z "
                           "\\[info\\] test\\.file: hello\n"));

  lg::setThreshold(lg::Trace);
  EXPECT_EQ(lg::Trace, lg::threshold());
  EXPECT_TRUE(logger.isEnabled(lg::Trace));
  logger.log(lg::Trace, "now written");
  lg::setThreshold(lg::Error);
  EXPECT_FALSE(logger.isEnabled(lg::Warning));
  logger.log(lg::Warning, "dropped again");

  std::string const content = readFile(file);
  EXPECT_THAT(content, HasSubstr("[trace] test.file: now written\n"));
  EXPECT_THAT(content, Not(HasSubstr("too low")));
  EXPECT_THAT(content, Not(HasSubstr("dropped again")));

  EXPECT_THROW(lg::configure((dir.path() / "missing" / "x.log").string(), lg::Info),
               std::runtime_error);
}

TEST_F(LogTest, ConfigurationFromTheEnvironment) {
  TempFolder dir("fl_log_test");
  auto const file = dir.path() / "env.log";
  {
    ScopedEnv env;
    env.set("OVERLAY_LOG", file.c_str());
    env.set("OVERLAY_LOG_LEVEL", "8");
    lg::configureFromEnvironment();
  }
  EXPECT_EQ(lg::Info, lg::threshold());
  logger_.log(lg::Info, "to the file");
  EXPECT_THAT(readFile(file), HasSubstr("[info] storage::overlayprovider: to the file\n"));

  for (char const* level : {"abc", "", "8x", "-1", static_cast<char const*>(nullptr)}) {
    ScopedEnv env;
    env.set("OVERLAY_LOG", "stderr");
    env.set("OVERLAY_LOG_LEVEL", level);
    lg::configureFromEnvironment();
    EXPECT_EQ(512u, lg::threshold()) << (level ? level : "(unset)");
  }

  // A file that cannot be opened: stderr instead, and a failure record saying so.
  MemorySink sink;
  {
    ScopedEnv env;
    env.set("OVERLAY_LOG", (dir.path() / "missing" / "x.log").c_str());
    env.set("OVERLAY_LOG_LEVEL", "4");
    lg::configureFromEnvironment();
  }
  EXPECT_EQ(lg::Debug, lg::threshold());
  ASSERT_EQ(1u, sink.count(lg::Error));
  EXPECT_THAT(sink.records()[0].message, HasSubstr("Cannot open log file"));
}

TEST(LogFirstUseTest, FirstLoggerSetsUpFromTheEnvironment) {
  // The statement runs in a freshly started copy of this program, where no logger has
  // been used yet. Both processes run this body; the child inherits the file name.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::optional<TempFolder> dir;
  std::string target;
  if (char const* inherited = std::getenv("FL_LOG_TEST_TARGET")) {
    target = inherited;
  } else {
    dir.emplace("fl_log_test");
    target = (dir->path() / "first-use.log").string();
  }
  ScopedEnv env;
  env.set("FL_LOG_TEST_TARGET", target.c_str());
  env.set("OVERLAY_LOG", target.c_str());
  env.set("OVERLAY_LOG_LEVEL", "8");

  EXPECT_EXIT(
      {
        lg::diagnostic_logger logger("first.use");
        logger.log(lg::Debug, "below the level");
        logger.log(lg::Info, "configured on first use");
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
  std::string const content = readFile(target);
  EXPECT_THAT(content, HasSubstr("[info] first.use: configured on first use\n"));
  EXPECT_THAT(content, Not(HasSubstr("below the level")));
}

TEST_F(LogTest, ConcurrentLoggingLosesNothing) {
  MemorySink sink(lg::Debug);
  constexpr int kThreads = 4;
  constexpr int kRecords = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kRecords; ++i) {
        logger_.log(lg::Debug, "thread " + std::to_string(t) + " record " + std::to_string(i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(static_cast<std::size_t>(kThreads * kRecords), sink.count(lg::Debug));
  EXPECT_TRUE(sink.contains("thread 3 record 499"));
}

}  // namespace
