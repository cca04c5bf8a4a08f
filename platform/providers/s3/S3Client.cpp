#include "S3Client.hpp"

#include <curl/curl.h>

#include <foundation/log/basic_diagnostic_logger.hpp>

#include <algorithm>
#include <cctype>
#include <random>
#include <thread>

#include <unistd.h>

namespace providers::s3::detail {

namespace {

// libcurl's global state is set up once per process, before the first handle.
void initialiseCurl() {
  static bool const done = [] {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return true;
  }();
  (void)done;
}

foundation::log::diagnostic_logger& logger() {
  static foundation::log::diagnostic_logger instance("providers::s3");
  return instance;
}

bool retryableStatus(long status) { return status == 500 || status == 502 || status == 503 || status == 504; }

struct Transfer {
  Request const* request = nullptr;
  std::uint64_t sent = 0;
  Response* response = nullptr;
  int readErrno = 0;
};

std::size_t readBody(char* buffer, std::size_t size, std::size_t count, void* userdata) {
  auto& transfer = *static_cast<Transfer*>(userdata);
  auto const& body = transfer.request->body;
  std::uint64_t const left = body.size() - transfer.sent;
  std::size_t const n = static_cast<std::size_t>(std::min<std::uint64_t>(left, size * count));
  if (n == 0) return 0;
  if (body.fd >= 0) {
    auto const got = ::pread(body.fd, buffer, n, static_cast<off_t>(body.offset + transfer.sent));
    if (got <= 0) {
      transfer.readErrno = got < 0 ? errno : EIO;
      return CURL_READFUNC_ABORT;
    }
    transfer.sent += static_cast<std::uint64_t>(got);
    return static_cast<std::size_t>(got);
  }
  std::copy_n(body.text.data() + transfer.sent, n, buffer);
  transfer.sent += n;
  return n;
}

std::size_t writeBody(char* data, std::size_t size, std::size_t count, void* userdata) {
  static_cast<Transfer*>(userdata)->response->body.append(data, size * count);
  return size * count;
}

std::size_t takeHeader(char* data, std::size_t size, std::size_t count, void* userdata) {
  std::string_view line(data, size * count);
  auto& headers = static_cast<Transfer*>(userdata)->response->headers;
  // A new status line (after "100 Continue" or a redirect) starts a new set of headers.
  if (line.substr(0, 5) == "HTTP/") headers.clear();
  auto const colon = line.find(':');
  if (colon != std::string_view::npos) {
    std::string name(line.substr(0, colon));
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    auto value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) value.remove_suffix(1);
    headers[name] = std::string(value);
  }
  return size * count;
}

}  // namespace

struct S3Client::Handle {
  CURL* curl = nullptr;
  Handle() : curl(curl_easy_init()) {
    if (curl == nullptr) throw TransportError("cannot make a libcurl handle");
  }
  ~Handle() { curl_easy_cleanup(curl); }
};

std::string Response::header(std::string const& lowerCaseName) const {
  auto const it = headers.find(lowerCaseName);
  return it == headers.end() ? std::string() : it->second;
}

std::string uriEncode(std::string_view text, bool keepSlash) {
  static char const hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || (keepSlash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

S3Client::S3Client(S3Settings settings, std::string bucket)
    : settings_(std::move(settings)), bucket_(std::move(bucket)), signing_("aws:amz:" + settings_.region + ":s3") {
  initialiseCurl();
}

S3Client::~S3Client() = default;

std::string S3Client::describe() const { return "bucket " + bucket_ + " at " + settings_.describe(); }

std::unique_ptr<S3Client::Handle> S3Client::acquire() const {
  {
    std::lock_guard lock(poolMutex_);
    if (!idle_.empty()) {
      auto handle = std::move(idle_.back());
      idle_.pop_back();
      return handle;
    }
  }
  return std::make_unique<Handle>();
}

void S3Client::release(std::unique_ptr<Handle> handle) const {
  std::lock_guard lock(poolMutex_);
  if (idle_.size() < kKeptHandles) idle_.push_back(std::move(handle));
}

Response S3Client::send(Request const& request) const {
  std::string url = settings_.endpoint + "/" + uriEncode(bucket_, false);
  if (!request.key.empty()) url += "/" + uriEncode(request.key, true);
  if (!request.query.empty()) {
    auto query = request.query;
    std::sort(query.begin(), query.end());
    char separator = '?';
    for (auto const& [name, value] : query) {
      url += separator + uriEncode(name, false) + "=" + uriEncode(value, false);
      separator = '&';
    }
  }
  auto handle = acquire();
  Response response;
  std::string error;
  thread_local std::minstd_rand jitter(std::random_device{}());
  for (unsigned attempt = 0;; ++attempt) {
    response = Response();
    bool const answered = this->attempt(*handle, request, url, response, error);
    bool const passing = !answered || retryableStatus(response.status);
    if (logger().isEnabled(foundation::log::Debug)) {
      logger().log(foundation::log::Debug, request.method + " " + bucket_ + "/" + request.key +
                                               (request.query.empty() ? "" : " ?" + request.query.front().first + "...") +
                                               ": " + (answered ? std::to_string(response.status) : error));
    }
    if (!passing || attempt >= settings_.retries) break;
    // A failed handle may hold a broken connection; start the next attempt afresh.
    if (!answered) handle = std::make_unique<Handle>();
    auto delay = settings_.retryDelay * (1u << std::min(attempt, 6u));
    delay = std::min<std::chrono::milliseconds>(delay, std::chrono::seconds(5));
    delay += std::chrono::milliseconds(jitter() % (delay.count() / 4 + 1));
    std::this_thread::sleep_for(delay);
  }
  if (response.status == 0) {
    throw TransportError("no answer from " + settings_.endpoint + " for " + request.method + " " +
                         (request.key.empty() ? bucket_ : bucket_ + "/" + request.key) + " after " +
                         std::to_string(settings_.retries + 1) + " attempts: " + error);
  }
  release(std::move(handle));
  return response;
}

bool S3Client::attempt(Handle& handle, Request const& request, std::string const& url, Response& response,
                       std::string& error) const {
  CURL* curl = handle.curl;
  curl_easy_reset(curl);
  Transfer transfer{&request, 0, &response, 0};
  char errorBuffer[CURL_ERROR_SIZE] = {0};
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
  // Large bodies go out after the server's "100 Continue"; on a refusal (a wrong key, a
  // missing bucket) nothing is sent in vain. (An empty "Expect:" header to switch this off
  // would break the signature: libcurl signs the header it then leaves out.)
  curl_easy_setopt(curl, CURLOPT_EXPECT_100_TIMEOUT_MS, 1000L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings_.connectTimeout.count()));
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME,
                   std::max(1L, static_cast<long>(settings_.stallTimeout.count() / 1000)));
  curl_easy_setopt(curl, CURLOPT_AWS_SIGV4, signing_.c_str());
  curl_easy_setopt(curl, CURLOPT_USERNAME, settings_.accessKey.c_str());
  curl_easy_setopt(curl, CURLOPT_PASSWORD, settings_.secretKey.c_str());
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, takeHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);

  curl_slist* headers = nullptr;
  headers = curl_slist_append(headers, "x-amz-content-sha256: UNSIGNED-PAYLOAD");
  for (auto const& header : request.headers) headers = curl_slist_append(headers, header.c_str());

  auto const size = static_cast<curl_off_t>(request.body.size());
  if (request.method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (request.method == "PUT") {
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, size);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
  } else if (request.method == "POST") {
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, size);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
  } else if (request.method != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);

  CURLcode const code = curl_easy_perform(curl);
  curl_slist_free_all(headers);
  if (code != CURLE_OK) {
    error = errorBuffer[0] != '\0' ? std::string(errorBuffer) : std::string(curl_easy_strerror(code));
    if (transfer.readErrno != 0) error += " (reading the local copy failed: errno " + std::to_string(transfer.readErrno) + ")";
    response.status = 0;
    return false;
  }
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  return true;
}

}  // namespace providers::s3::detail
