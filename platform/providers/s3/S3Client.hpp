// S3Client: signed HTTP requests to one bucket of an S3 endpoint, over pooled
// connections.
//
// Every request is signed by libcurl (AWS Signature Version 4, with the payload declared
// UNSIGNED-PAYLOAD) and sent path-style: ENDPOINT/BUCKET/KEY?QUERY, the key and the query
// percent-encoded the way the signature expects (parameters sorted, every byte but
// A-Z a-z 0-9 - _ . ~ encoded; "/" kept in the key only).
//
// Connections: each request borrows a libcurl handle from a pool and gives it back, so
// the connection it opened stays open for the next request; concurrent requests get
// handles of their own and run in parallel. Idle handles beyond `kKeptHandles` are closed.
//
// Retries: a request that got no answer (refused, dropped or stalled connection, time-out)
// or a 500, 502, 503 or 504 answer is sent again up to `retries` times, waiting
// retryDelay, 2 x retryDelay, ... (at most 5 s) in between. Request bodies are read again
// from their source for each attempt, so retrying never sends half a body.
//
// Thread-safe: `send` may be called from any number of threads at once.
#pragma once

#include <providers/s3/S3Settings.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace providers::s3::detail {

// A request body: `text`, or `length` bytes of the open file `fd` from `offset`.
struct Body {
  std::string_view text;
  int fd = -1;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;

  std::uint64_t size() const { return fd >= 0 ? length : text.size(); }
};

struct Request {
  std::string method = "GET";  // GET, HEAD, PUT, POST or DELETE
  std::string key;             // the object's key (UTF-8); empty for the bucket itself
  std::vector<std::pair<std::string, std::string>> query;  // names and values as they are
  std::vector<std::string> headers;                        // "Name: value"
  Body body;
};

struct Response {
  long status = 0;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  // The header's value, "" when absent.
  std::string header(std::string const& lowerCaseName) const;
  bool ok() const { return status >= 200 && status < 300; }
};

// No answer came from the endpoint, even after the retries.
class TransportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class S3Client {
 public:
  S3Client(S3Settings settings, std::string bucket);
  ~S3Client();
  S3Client(S3Client const&) = delete;
  S3Client& operator=(S3Client const&) = delete;

  // Sends `request` (again after passing failures, see above) and returns the answer,
  // whatever its status. Throws TransportError, naming the endpoint and the cause, when
  // no answer came.
  Response send(Request const& request) const;

  S3Settings const& settings() const { return settings_; }
  std::string const& bucket() const { return bucket_; }
  // "bucket B at endpoint E, region R, access key K" for error texts (never the secret).
  std::string describe() const;

 private:
  struct Handle;
  // One attempt; false with `error` set when no answer came.
  bool attempt(Handle& handle, Request const& request, std::string const& url, Response& response,
               std::string& error) const;
  std::unique_ptr<Handle> acquire() const;
  void release(std::unique_ptr<Handle> handle) const;

  static constexpr std::size_t kKeptHandles = 32;

  S3Settings const settings_;
  std::string const bucket_;
  std::string const signing_;  // "aws:amz:REGION:s3"
  mutable std::mutex poolMutex_;
  mutable std::vector<std::unique_ptr<Handle>> idle_;  // guarded by poolMutex_
};

// Percent-encodes `text` for a signed S3 URL: every byte but A-Z a-z 0-9 - _ . ~ (and "/"
// when `keepSlash`) as %XX with upper-case hex digits.
std::string uriEncode(std::string_view text, bool keepSlash);

}  // namespace providers::s3::detail
