// S3Settings: where an S3 store is and how the store talks to it.
//
// Settings come from three places, the first that names a value winning:
//  1. the store's configuration tree (keys below "s3.", see `fromConfig`),
//  2. the environment: AWS_ENDPOINT_URL, AWS_REGION (or AWS_DEFAULT_REGION),
//     AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY, AWS_PROFILE,
//  3. the shared files ~/.aws/credentials (aws_access_key_id, aws_secret_access_key) and
//     ~/.aws/config (region), section [default] or the profile's.
// Without an endpoint the store talks to https://s3.<region>.amazonaws.com. Requests
// always use path-style addressing (http://endpoint/bucket/key), which local gateways
// need and the public service still accepts.
//
// The secret never leaves this struct in text meant for people: `describe` names the
// endpoint, region and access key only.
#pragma once

#include <boost/property_tree/ptree_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace providers::s3 {

struct S3Settings {
  std::string endpoint;  // "http://127.0.0.1:7480", no trailing slash
  std::string region = "us-east-1";
  std::string accessKey;
  std::string secretKey;

  // Objects at or above this size are uploaded, and copied, in parts.
  std::uint64_t multipartThreshold = 16u << 20;
  // The size of each part (S3 needs at least 5 MiB for every part but the last).
  std::uint64_t partSize = 8u << 20;
  // How many parts of one object travel at once.
  unsigned partTransfers = 4;
  // How many objects a folder move, copy or removal handles at once.
  unsigned objectTransfers = 8;
  // How many times a request that failed for a passing cause (a 5xx answer, a time-out,
  // a refused or dropped connection) is sent again, with a back-off that doubles from
  // `retryDelay`.
  unsigned retries = 4;
  std::chrono::milliseconds retryDelay{100};
  std::chrono::milliseconds connectTimeout{5000};
  // A transfer that moves no byte for this long is given up (and retried).
  std::chrono::milliseconds stallTimeout{30000};
  // How often subscribed folders are listed again to find changes made elsewhere.
  std::chrono::milliseconds pollInterval{10000};
  // The capacity reported as storage information; S3 has no such figure of its own.
  std::optional<std::uint64_t> capacity;

  // The settings from the environment and the shared files (sources 2 and 3 above).
  static S3Settings fromEnvironment();
  // `base` with every "s3.*" key of `config` applied: s3.endpoint, s3.region,
  // s3.access_key, s3.secret_key, s3.multipart_threshold, s3.part_size,
  // s3.part_transfers, s3.object_transfers, s3.retries, s3.retry_delay_ms,
  // s3.connect_timeout_ms, s3.stall_timeout_ms, s3.poll_interval_ms, s3.capacity.
  // Throws std::invalid_argument naming the key for a value that is not a number or out
  // of range (a part size below 5 MiB, zero transfers).
  static S3Settings fromConfig(boost::property_tree::ptree const& config, S3Settings base);

  // "endpoint http://127.0.0.1:7480, region default, access key test": for error texts.
  std::string describe() const;
};

}  // namespace providers::s3
