// Helpers of the ovl tests: the outcome of one run of the program, and a fixture with a
// scratch folder of local files and the checks every command test makes on a run.
#pragma once

#include <support/TempFolder.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

namespace ovl_test {

struct Result {
  int status;
  std::string out;
  std::string err;
};

inline std::ostream& operator<<(std::ostream& os, Result const& r) {
  return os << "status " << r.status << "\n--- out:\n" << r.out << "--- err:\n" << r.err;
}

// Subclasses say how one command runs (command()); the checks run it that way.
class OvlFixture : public testing::Test {
 protected:
  explicit OvlFixture(std::string const& name) : scratch_(name), dir_(scratch_.path()) {}

  virtual Result command(std::vector<std::string> args) = 0;

  // Succeeds or fails the test with the whole result in the message.
  Result ok(std::vector<std::string> args) {
    auto result = command(std::move(args));
    EXPECT_EQ(result.status, 0) << result;
    EXPECT_EQ(result.err, "") << result;
    return result;
  }

  // Fails with exit status 1 and exactly the line "ovl <cmd>: <subject>: <cause...>".
  void failsNaming(std::vector<std::string> args, std::string const& subject, std::string const& cause) {
    auto const name = args[0];
    auto const result = command(std::move(args));
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_THAT(result.err, testing::StartsWith("ovl " + name + ": " + subject + ": " + cause)) << result;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result;
  }

  static void writeLocal(std::filesystem::path const& path, std::string const& content) {
    support::writeFile(path, content);
  }
  static std::string readLocal(std::filesystem::path const& path) { return support::readFile(path); }

  support::TempFolder const scratch_;
  std::filesystem::path const dir_;  // the scratch folder's path
};

}  // namespace ovl_test
