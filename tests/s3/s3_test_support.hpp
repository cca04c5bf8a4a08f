// What the S3 store's tests share: the gateway the test run started, and fresh working
// folders in its bucket.
//
// The gateway is described by the file named in OVL_S3_ENV (KEY=VALUE lines written by
// scripts/ceph-s3.sh start: AWS_ENDPOINT_URL, AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY,
// AWS_REGION, OVL_S3_BUCKET). Without it the tests skip, saying why.
#pragma once

#include <providers/s3/S3Provider.hpp>

#include <support/ConformanceSuite.hpp>

#include <fl/i18n.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include <unistd.h>

namespace s3test {

namespace sp = foundation::storage::provider;

struct Gateway {
  providers::s3::S3Settings settings;
  std::string bucket;
  std::map<std::string, std::string> values;  // every line of the file
};

// The gateway of this test run, or nothing (with `why` set) when there is none.
inline std::optional<Gateway> gateway(std::string* why = nullptr) {
  char const* file = std::getenv("OVL_S3_ENV");
  if (file == nullptr || *file == '\0') {
    if (why) *why = "OVL_S3_ENV is not set (the tests run through ctest, which starts the gateway)";
    return std::nullopt;
  }
  std::ifstream in(file);
  if (!in) {
    if (why) *why = std::string("no gateway was started: ") + file + " does not exist";
    return std::nullopt;
  }
  Gateway gateway;
  for (std::string line; std::getline(in, line);) {
    auto const eq = line.find('=');
    if (eq != std::string::npos) gateway.values[line.substr(0, eq)] = line.substr(eq + 1);
  }
  gateway.settings.endpoint = gateway.values["AWS_ENDPOINT_URL"];
  gateway.settings.accessKey = gateway.values["AWS_ACCESS_KEY_ID"];
  gateway.settings.secretKey = gateway.values["AWS_SECRET_ACCESS_KEY"];
  gateway.settings.region = gateway.values["AWS_REGION"];
  gateway.bucket = gateway.values["OVL_S3_BUCKET"];
  // Small parts, so that the tests reach the multipart paths with a few MiB; few
  // retries, so that a stopped gateway is reported soon.
  gateway.settings.multipartThreshold = 5u << 20;
  gateway.settings.partSize = 5u << 20;
  gateway.settings.retries = 2;
  gateway.settings.retryDelay = std::chrono::milliseconds(50);
  gateway.settings.capacity = 1ull << 40;
  return gateway;
}

// Skips the current test when there is no gateway.
#define S3_GATEWAY_OR_SKIP(name)                            \
  std::string skipReason_;                                  \
  auto name##Found = ::s3test::gateway(&skipReason_);       \
  if (!name##Found) GTEST_SKIP() << skipReason_;            \
  auto const& name = *name##Found

// A folder name no other test (of this or another process) uses.
inline std::string uniqueName(std::string const& stem) {
  static std::atomic<int> counter{0};
  static std::string const run = std::to_string(::getpid()) + "-" + std::to_string(std::random_device{}() % 100000);
  return stem + "-" + run + "-" + std::to_string(counter++);
}

// A store on the gateway's bucket and a fresh folder in it, removed at the end.
class Folder {
 public:
  Folder(Gateway const& gateway, std::string const& stem = "t")
      : provider_(std::make_shared<providers::s3::S3Provider>(gateway.bucket, gateway.settings)),
        root_(u"s3://" + fl::i18n::to_ustring(gateway.bucket) + u"/" + fl::i18n::to_ustring(uniqueName(stem))) {
    provider_->doCreateFolder(root_);
  }
  ~Folder() {
    try {
      provider_->doRemoveFolderRecursively(root_);
    } catch (...) {
      // Best effort: the bucket is thrown away with the gateway.
    }
    provider_->doShutdown();
  }
  std::shared_ptr<providers::s3::S3Provider> const& provider() const { return provider_; }
  sp::StorageIRI const& root() const { return root_; }
  sp::StorageIRI at(std::u16string const& path) const { return sp::StorageIRI(root_, path); }
  sp::StorageItem item(std::u16string const& path) const { return sp::StorageItem(provider_, at(path)); }

 private:
  std::shared_ptr<providers::s3::S3Provider> provider_;
  sp::StorageIRI root_;
};

// The s3 store as the conformance suite puts it under test.
inline ovltest::StoreUnderTest s3Store() {
  return {"s3", []() -> std::shared_ptr<ovltest::Harness> {
            std::string why;
            auto found = gateway(&why);
            if (!found) throw std::runtime_error(why);
            auto folder = std::make_shared<Folder>(*found);
            ovltest::StoreCapabilities capabilities;
            capabilities.listingsCarrySetAttributes = false;
            return std::make_shared<ovltest::SimpleHarness>(folder->item(u""), capabilities,
                                                           [folder]() mutable { folder.reset(); });
          }};
}

}  // namespace s3test
