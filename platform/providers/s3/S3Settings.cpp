#include <providers/s3/S3Settings.hpp>

#include <boost/property_tree/ptree.hpp>

#include <cstdlib>
#include <fstream>
#include <map>
#include <stdexcept>

namespace providers::s3 {

namespace {

std::optional<std::string> env(char const* name) {
  char const* value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return std::string(value);
}

std::string trimmed(std::string text) {
  auto const first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  auto const last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

// The "key = value" lines of one section of an INI-style file such as
// ~/.aws/credentials; empty when the file or the section is missing.
std::map<std::string, std::string> iniSection(std::string const& path, std::string const& section) {
  std::map<std::string, std::string> values;
  std::ifstream in(path);
  std::string line;
  bool inSection = false;
  while (std::getline(in, line)) {
    line = trimmed(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line.front() == '[' && line.back() == ']') {
      inSection = trimmed(line.substr(1, line.size() - 2)) == section;
      continue;
    }
    auto const eq = line.find('=');
    if (inSection && eq != std::string::npos) values[trimmed(line.substr(0, eq))] = trimmed(line.substr(eq + 1));
  }
  return values;
}

std::uint64_t number(boost::property_tree::ptree const& config, std::string const& key, std::uint64_t low,
                     std::uint64_t high) {
  auto const text = config.get<std::string>(key);
  std::size_t used = 0;
  unsigned long long value = 0;
  try {
    value = std::stoull(text, &used);
  } catch (std::exception const&) {
    used = 0;
  }
  if (used == 0 || used != text.size() || text[0] == '-' || value < low || value > high) {
    throw std::invalid_argument("the setting " + key + " must be a whole number from " + std::to_string(low) + " to " +
                                std::to_string(high) + ", not \"" + text + "\"");
  }
  return value;
}

}  // namespace

S3Settings S3Settings::fromEnvironment() {
  S3Settings settings;
  auto const home = env("HOME").value_or("");
  auto const profile = env("AWS_PROFILE").value_or("default");
  auto const credentials =
      iniSection(env("AWS_SHARED_CREDENTIALS_FILE").value_or(home + "/.aws/credentials"), profile);
  auto const config =
      iniSection(env("AWS_CONFIG_FILE").value_or(home + "/.aws/config"), profile == "default" ? profile : "profile " + profile);
  auto pick = [](std::optional<std::string> first, std::map<std::string, std::string> const& file,
                 char const* key) -> std::optional<std::string> {
    if (first) return first;
    auto const it = file.find(key);
    if (it != file.end() && !it->second.empty()) return it->second;
    return std::nullopt;
  };
  if (auto v = pick(env("AWS_ACCESS_KEY_ID"), credentials, "aws_access_key_id")) settings.accessKey = *v;
  if (auto v = pick(env("AWS_SECRET_ACCESS_KEY"), credentials, "aws_secret_access_key")) settings.secretKey = *v;
  if (auto v = pick(env("AWS_REGION") ? env("AWS_REGION") : env("AWS_DEFAULT_REGION"), config, "region")) {
    settings.region = *v;
  }
  if (auto v = pick(env("AWS_ENDPOINT_URL_S3") ? env("AWS_ENDPOINT_URL_S3") : env("AWS_ENDPOINT_URL"), config,
                    "endpoint_url")) {
    settings.endpoint = *v;
  }
  if (settings.endpoint.empty()) settings.endpoint = "https://s3." + settings.region + ".amazonaws.com";
  while (!settings.endpoint.empty() && settings.endpoint.back() == '/') settings.endpoint.pop_back();
  return settings;
}

S3Settings S3Settings::fromConfig(boost::property_tree::ptree const& config, S3Settings settings) {
  auto const* s3 = config.get_child_optional("s3").get_ptr();
  if (s3 == nullptr) return settings;
  auto text = [&](char const* key, std::string& into) {
    if (auto v = s3->get_optional<std::string>(key)) into = *v;
  };
  text("endpoint", settings.endpoint);
  text("region", settings.region);
  text("access_key", settings.accessKey);
  text("secret_key", settings.secretKey);
  while (!settings.endpoint.empty() && settings.endpoint.back() == '/') settings.endpoint.pop_back();
  auto has = [&](char const* key) { return s3->get_optional<std::string>(key).has_value(); };
  boost::property_tree::ptree const wrapped = [&] {
    boost::property_tree::ptree tree;
    tree.put_child("s3", *s3);
    return tree;
  }();
  std::uint64_t constexpr kMax = std::uint64_t(1) << 62;
  if (has("multipart_threshold")) settings.multipartThreshold = number(wrapped, "s3.multipart_threshold", 5u << 20, kMax);
  if (has("part_size")) settings.partSize = number(wrapped, "s3.part_size", 5u << 20, 5ull << 30);
  if (has("part_transfers")) settings.partTransfers = unsigned(number(wrapped, "s3.part_transfers", 1, 64));
  if (has("object_transfers")) settings.objectTransfers = unsigned(number(wrapped, "s3.object_transfers", 1, 64));
  if (has("retries")) settings.retries = unsigned(number(wrapped, "s3.retries", 0, 20));
  if (has("retry_delay_ms")) settings.retryDelay = std::chrono::milliseconds(number(wrapped, "s3.retry_delay_ms", 0, 60000));
  if (has("connect_timeout_ms")) {
    settings.connectTimeout = std::chrono::milliseconds(number(wrapped, "s3.connect_timeout_ms", 1, 600000));
  }
  if (has("stall_timeout_ms")) {
    settings.stallTimeout = std::chrono::milliseconds(number(wrapped, "s3.stall_timeout_ms", 1000, 3600000));
  }
  if (has("poll_interval_ms")) {
    settings.pollInterval = std::chrono::milliseconds(number(wrapped, "s3.poll_interval_ms", 10, 86400000));
  }
  if (has("capacity")) settings.capacity = number(wrapped, "s3.capacity", 1, kMax);
  return settings;
}

std::string S3Settings::describe() const {
  return "endpoint " + endpoint + ", region " + region + ", access key " + (accessKey.empty() ? "(none)" : accessKey);
}

}  // namespace providers::s3
