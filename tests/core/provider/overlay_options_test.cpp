// The environment variables: their conversions, and a provider reading them once, at its
// first operation, unless it was given their values. (The configuration keys are covered
// through doConfigure in overlay_provider_test.)
#include <core/exec/BackendExecutor.hpp>
#include <core/provider/OverlayOptions.hpp>
#include <core/provider/OverlayProvider.hpp>

#include <providers/mem/MemoryProvider.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

namespace fsp = foundation::storage::provider;
using storage::overlayprovider::BackendExecutor;
using storage::overlayprovider::OverlayOptions;
using storage::overlayprovider::OverlayProvider;
using std::chrono::milliseconds;

namespace {

constexpr char const* kTimeout = "QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT";
constexpr char const* kWaitForZero = "QV_OVERLAY_WAIT_FOR_ZERO_PERIOD";
constexpr char const* kNoMetrics = "QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE";

// Each test changes the environment only while no thread of its own runs, and leaves the
// three variables unset.
class OverlayOptionsTest : public ::testing::Test {
 protected:
  void SetUp() override { unsetAll(); }
  void TearDown() override { unsetAll(); }

  static void set(char const* name, char const* value) { ::setenv(name, value, 1); }
  static void unsetAll() {
    for (char const* name : {kTimeout, kWaitForZero, kNoMetrics}) ::unsetenv(name);
  }

  static bool capturesMetrics(OverlayProvider const& provider) {
    auto const* queue = dynamic_cast<BackendExecutor const*>(provider.executor().get());
    EXPECT_NE(queue, nullptr);
    return queue != nullptr && queue->isMetricsCaptureEnabled();
  }

  std::shared_ptr<providers::mem::MemoryProvider> store = std::make_shared<providers::mem::MemoryProvider>();
  fsp::StorageItem inner{store, store->root()};
  fsp::StorageIRI anywhere{u"overlay", store->root(), u"/x"};
};

TEST_F(OverlayOptionsTest, VariablesConvertWithAtolAndMetricsStopOnlyForExactlyTrue) {
  auto const unset = OverlayOptions::fromEnvironment();
  EXPECT_EQ(unset.eventRobustnessTimeout, milliseconds(3000));
  EXPECT_EQ(unset.waitForZeroPeriod, milliseconds(2000));
  EXPECT_TRUE(unset.captureQueueMetrics);

  std::pair<char const*, long> const numbers[] = {{"250", 250}, {"abc", 0}, {"1500ms", 1500}};
  for (auto const& [text, millis] : numbers) {
    SCOPED_TRACE(text);
    set(kTimeout, text);
    set(kWaitForZero, text);
    EXPECT_EQ(OverlayOptions::fromEnvironment().eventRobustnessTimeout, milliseconds(millis));
    EXPECT_EQ(OverlayOptions::fromEnvironment().waitForZeroPeriod, milliseconds(millis));
  }

  std::pair<char const*, bool> const switches[] = {{"true", false}, {"True", true}, {"TRUE", true},
                                                   {"1", true},     {"true ", true}, {"", true}};
  for (auto const& [text, capture] : switches) {
    SCOPED_TRACE(std::string("\"") + text + "\"");
    set(kNoMetrics, text);
    EXPECT_EQ(OverlayOptions::fromEnvironment().captureQueueMetrics, capture);
  }
}

TEST_F(OverlayOptionsTest, AProviderReadsTheEnvironmentAtItsFirstOperationOnly) {
  OverlayProvider provider(inner);
  set(kTimeout, "abc");  // after construction, before the first operation: used
  set(kWaitForZero, "250");
  set(kNoMetrics, "true");
  EXPECT_FALSE(provider.doFileExists(anywhere));
  provider.doShutdown();  // no thread of the provider is left to see the changes below

  set(kTimeout, "999");
  set(kWaitForZero, "999");
  ::unsetenv(kNoMetrics);
  EXPECT_EQ(provider.timedLatch()->getTimeout(), milliseconds(0));
  EXPECT_EQ(provider.workingFileEntryParams().getWaitForZeroPeriod(), milliseconds(250));
  EXPECT_FALSE(capturesMetrics(provider));
}

TEST_F(OverlayOptionsTest, AProviderGivenTheValuesDoesNotReadTheEnvironment) {
  set(kTimeout, "abc");
  set(kWaitForZero, "abc");
  set(kNoMetrics, "true");
  OverlayProvider provider(inner);
  OverlayOptions given;
  given.eventRobustnessTimeout = milliseconds(40);
  given.waitForZeroPeriod = milliseconds(7);
  given.captureQueueMetrics = true;
  provider.setEnvironmentOptions(given);
  EXPECT_FALSE(provider.doFileExists(anywhere));
  EXPECT_EQ(provider.timedLatch()->getTimeout(), milliseconds(40));
  EXPECT_EQ(provider.workingFileEntryParams().getWaitForZeroPeriod(), milliseconds(7));
  EXPECT_TRUE(capturesMetrics(provider));
  provider.doShutdown();
}

}  // namespace
