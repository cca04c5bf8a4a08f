#include "S3Objects.hpp"

#include "S3Streams.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>

#include <unistd.h>

namespace providers::s3::detail {

namespace pt = boost::posix_time;
using sp::ErrorCode;

namespace {

boost::property_tree::ptree parseXml(std::string const& text) {
  boost::property_tree::ptree tree;
  std::istringstream in(text);
  boost::property_tree::read_xml(in, tree, boost::property_tree::xml_parser::trim_whitespace);
  return tree;
}

// "2026-11-24T08:00:00.123Z" (listings).
pt::ptime isoTime(std::string const& text) {
  if (text.size() < 19) return pt::from_time_t(0);
  try {
    std::string t = text.substr(0, 10) + " " + text.substr(11, 8);
    auto time = pt::time_from_string(t);
    if (text.size() > 20 && text[19] == '.') {
      auto const digits = text.substr(20, std::min<std::size_t>(6, text.find('Z', 20) - 20));
      long micros = std::stol(digits);
      for (auto n = digits.size(); n < 6; ++n) micros *= 10;
      time += pt::microseconds(micros);
    }
    return time;
  } catch (std::exception const&) {
    return pt::from_time_t(0);
  }
}

// "Tue, 24 Nov 2026 08:00:00 GMT" (the Last-Modified header).
pt::ptime httpTime(std::string const& text) {
  static char const* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::istringstream in(text);
  std::string weekday, monthName, clock, zone;
  int day = 0, year = 0;
  in >> weekday >> day >> monthName >> year >> clock >> zone;
  int month = 0;
  for (int i = 0; i < 12; ++i) {
    if (monthName == months[i]) month = i + 1;
  }
  if (!in || month == 0 || clock.size() != 8) return pt::from_time_t(0);
  try {
    return pt::ptime(boost::gregorian::date(year, month, day),
                     pt::hours(std::stoi(clock.substr(0, 2))) + pt::minutes(std::stoi(clock.substr(3, 2))) +
                         pt::seconds(std::stoi(clock.substr(6, 2))));
  } catch (std::exception const&) {
    return pt::from_time_t(0);
  }
}

std::string unquoted(std::string text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  return text;
}

}  // namespace

pt::ptime ObjectInfo::lastModified() const {
  auto const it = metadata.find(kTimeKey);
  if (it != metadata.end()) {
    try {
      return pt::from_time_t(0) + pt::microseconds(std::stoll(it->second));
    } catch (std::exception const&) {
      // Not ours, or damaged: the stored time is the honest answer.
    }
  }
  return stored;
}

bool ObjectInfo::writable() const {
  auto const it = metadata.find(kWritableKey);
  return it == metadata.end() || it->second != "false";
}

std::vector<std::string> metadataHeaders(Metadata const& metadata) {
  std::vector<std::string> headers;
  for (auto const& [name, value] : metadata) headers.push_back("x-amz-meta-" + name + ": " + value);
  return headers;
}

void forEachInParallel(std::size_t count, unsigned threads, std::function<void(std::size_t)> const& fn) {
  if (count == 0) return;
  std::atomic<std::size_t> next{0};
  std::atomic<bool> failed{false};
  std::exception_ptr first;
  std::mutex firstMutex;
  auto work = [&] {
    for (std::size_t i; !failed.load() && (i = next.fetch_add(1)) < count;) {
      try {
        fn(i);
      } catch (...) {
        std::lock_guard lock(firstMutex);
        if (!first) first = std::current_exception();
        failed = true;
      }
    }
  };
  std::vector<std::thread> pool;
  auto const extra = std::min<std::size_t>(count, std::max(1u, threads)) - 1;
  for (std::size_t i = 0; i < extra; ++i) pool.emplace_back(work);
  work();
  for (auto& thread : pool) thread.join();
  if (first) std::rethrow_exception(first);
}

void S3Objects::failure(Response const& response, std::string const& what, sp::StorageIRI const& subject) const {
  std::string code, message;
  if (!response.body.empty()) {
    try {
      auto const tree = parseXml(response.body);
      code = tree.get("Error.Code", "");
      message = tree.get("Error.Message", "");
    } catch (std::exception const&) {
      // Not XML (HEAD answers have no body at all): the status is all there is.
    }
  }
  std::string detail = what + " answered HTTP " + std::to_string(response.status);
  if (!code.empty()) detail += " " + code;
  if (!message.empty()) detail += " (" + message + ")";
  ErrorCode error = ErrorCode::TransientFailure;
  switch (response.status) {
    case 404:
      error = ErrorCode::DoesNotExist;
      if (code == "NoSuchBucket") detail = "the bucket " + client_->bucket() + " does not exist at " + client_->settings().endpoint;
      break;
    case 403:
      error = code == "QuotaExceeded" ? ErrorCode::QuotaExceeded : ErrorCode::NotWritable;
      if (code == "SignatureDoesNotMatch" || code == "InvalidAccessKeyId") {
        detail += ": the " + client_->settings().describe() + " was refused; check the access key and its secret";
      } else if (code == "AccessDenied") {
        detail += ": access denied to " + client_->describe();
      } else if (code.empty()) {
        // HEAD answers carry no error text: say what may be wrong.
        detail += ": refused by " + client_->describe() + " (a wrong access key or secret, or no access to the bucket)";
      }
      break;
    case 409:
    case 412: error = ErrorCode::AlreadyExists; break;
    case 400: error = ErrorCode::InvalidName; break;
    case 507: error = ErrorCode::QuotaExceeded; break;
    default: break;
  }
  throw sp::Exception(error, subject, detail);
}

void S3Objects::failure(TransportError const& error, sp::StorageIRI const& subject) const {
  throw sp::Exception(ErrorCode::TransientFailure, subject, error.what());
}

Response S3Objects::send(Request const& request, sp::StorageIRI const& subject) const {
  try {
    return client_->send(request);
  } catch (TransportError const& e) {
    failure(e, subject);
  }
}

std::optional<ObjectInfo> S3Objects::head(std::string const& key, sp::StorageIRI const& subject) const {
  Request request;
  request.method = "HEAD";
  request.key = key;
  auto const response = send(request, subject);
  if (response.status == 404) return std::nullopt;
  if (!response.ok()) failure(response, "HEAD " + key, subject);
  ObjectInfo info;
  auto const length = response.header("content-length");
  info.size = length.empty() ? 0 : std::stoull(length);
  info.stored = httpTime(response.header("last-modified"));
  info.etag = unquoted(response.header("etag"));
  for (auto const& [name, value] : response.headers) {
    if (name.rfind("x-amz-meta-", 0) == 0) info.metadata[name.substr(11)] = value;
  }
  return info;
}

bool S3Objects::bucketExists(sp::StorageIRI const& subject) const {
  Request request;
  request.method = "HEAD";
  auto const response = send(request, subject);
  if (response.status == 404) return false;
  if (!response.ok()) failure(response, "HEAD bucket " + client_->bucket(), subject);
  return true;
}

Listing S3Objects::list(std::string const& prefix, std::string const& delimiter, sp::StorageIRI const& subject,
                        std::size_t limit) const {
  Listing listing;
  std::string token;
  do {
    Request request;
    request.query = {{"list-type", "2"}, {"prefix", prefix}};
    if (!delimiter.empty()) request.query.emplace_back("delimiter", delimiter);
    if (!token.empty()) request.query.emplace_back("continuation-token", token);
    if (limit > 0 && limit < 1000) request.query.emplace_back("max-keys", std::to_string(limit));
    auto const response = send(request, subject);
    if (!response.ok()) failure(response, "listing " + client_->bucket() + "/" + prefix, subject);
    boost::property_tree::ptree tree;
    try {
      tree = parseXml(response.body);
    } catch (std::exception const& e) {
      throw sp::Exception(ErrorCode::TransientFailure, subject,
                          "the listing of " + prefix + " from " + client_->settings().endpoint + " is not valid XML: " + e.what());
    }
    boost::property_tree::ptree const empty;
    auto const found = tree.get_child_optional("ListBucketResult");
    auto const& result = found ? *found : empty;
    for (auto const& [name, node] : result) {
      if (name == "Contents") {
        listing.objects.push_back({node.get("Key", ""), node.get<std::uint64_t>("Size", 0),
                                   isoTime(node.get("LastModified", "")), unquoted(node.get("ETag", ""))});
      } else if (name == "CommonPrefixes") {
        listing.prefixes.push_back(node.get("Prefix", ""));
      }
    }
    token = result.get<std::string>("IsTruncated", "false") == "true"
                ? result.get<std::string>("NextContinuationToken", "")
                : std::string();
  } while (!token.empty() && (limit == 0 || listing.objects.size() + listing.prefixes.size() < limit));
  return listing;
}

bool S3Objects::anyBelow(std::string const& prefix, sp::StorageIRI const& subject) const {
  auto const listing = list(prefix, "", subject, 1);
  return !listing.objects.empty();
}

std::string S3Objects::getRange(std::string const& key, std::uint64_t offset, std::uint64_t length,
                                sp::StorageIRI const& subject) const {
  if (length == 0) return {};
  Request request;
  request.key = key;
  request.headers.push_back("Range: bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length - 1));
  auto response = send(request, subject);
  if (response.status == 416) return {};
  if (!response.ok()) failure(response, "GET " + key, subject);
  // A server that ignores the range answers 200 with the whole object.
  if (response.status == 200 && offset > 0) {
    response.body = offset < response.body.size() ? response.body.substr(offset, length) : std::string();
  }
  if (response.body.size() > length) response.body.resize(length);
  return std::move(response.body);
}

void S3Objects::put(std::string const& key, Body const& body, Metadata const& metadata,
                    sp::StorageIRI const& subject) const {
  if (body.fd >= 0 && body.size() >= client_->settings().multipartThreshold) {
    putInParts(key, body, metadata, subject);
    return;
  }
  Request request;
  request.method = "PUT";
  request.key = key;
  request.body = body;
  request.headers = metadataHeaders(metadata);
  auto const response = send(request, subject);
  if (!response.ok()) failure(response, "PUT " + key, subject);
}

void S3Objects::remove(std::string const& key, sp::StorageIRI const& subject) const {
  Request request;
  request.method = "DELETE";
  request.key = key;
  auto const response = send(request, subject);
  if (!response.ok() && response.status != 404) failure(response, "DELETE " + key, subject);
}

void S3Objects::copy(std::string const& from, std::string const& to, std::uint64_t size,
                     std::optional<Metadata> const& metadata, sp::StorageIRI const& subject) const {
  if (size > kLargestSingleCopy) {
    Metadata kept;
    if (metadata) {
      kept = *metadata;
    } else if (auto info = head(from, subject)) {
      kept = info->metadata;
    }
    copyThroughHere(from, to, size, kept, subject);
    return;
  }
  Request request;
  request.method = "PUT";
  request.key = to;
  request.headers.push_back("x-amz-copy-source: /" + uriEncode(client_->bucket(), false) + "/" + uriEncode(from, true));
  if (metadata) {
    request.headers.push_back("x-amz-metadata-directive: REPLACE");
    for (auto const& header : metadataHeaders(*metadata)) request.headers.push_back(header);
  }
  auto const response = send(request, subject);
  // A copy can fail after the 200 status went out; the body then holds an Error.
  if (!response.ok() || response.body.find("<Error>") != std::string::npos) {
    failure(response.ok() ? Response{500, {}, response.body} : response, "copying " + from + " to " + to, subject);
  }
}

std::string S3Objects::startUpload(std::string const& key, Metadata const& metadata,
                                   sp::StorageIRI const& subject) const {
  Request request;
  request.method = "POST";
  request.key = key;
  request.query = {{"uploads", ""}};
  request.headers = metadataHeaders(metadata);
  auto const response = send(request, subject);
  if (!response.ok()) failure(response, "starting the upload of " + key, subject);
  auto const id = parseXml(response.body).get("InitiateMultipartUploadResult.UploadId", "");
  if (id.empty()) throw sp::Exception(ErrorCode::TransientFailure, subject, "no upload id in the answer for " + key);
  return id;
}

void S3Objects::finishUpload(std::string const& key, std::string const& uploadId, std::vector<std::string> const& etags,
                             sp::StorageIRI const& subject) const {
  std::string xml = "<CompleteMultipartUpload>";
  for (std::size_t i = 0; i < etags.size(); ++i) {
    xml += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>\"" + etags[i] + "\"</ETag></Part>";
  }
  xml += "</CompleteMultipartUpload>";
  Request request;
  request.method = "POST";
  request.key = key;
  request.query = {{"uploadId", uploadId}};
  request.body.text = xml;
  auto const response = send(request, subject);
  if (!response.ok() || response.body.find("<Error>") != std::string::npos) {
    failure(response.ok() ? Response{500, {}, response.body} : response, "completing the upload of " + key, subject);
  }
}

void S3Objects::abortUpload(std::string const& key, std::string const& uploadId) const {
  Request request;
  request.method = "DELETE";
  request.key = key;
  request.query = {{"uploadId", uploadId}};
  try {
    client_->send(request);
  } catch (std::exception const&) {
    // The upload's parts stay until the bucket's life-cycle rules remove them.
  }
}

void S3Objects::putInParts(std::string const& key, Body const& body, Metadata const& metadata,
                           sp::StorageIRI const& subject) const {
  auto const partSize = client_->settings().partSize;
  auto const parts = static_cast<std::size_t>((body.size() + partSize - 1) / partSize);
  auto const id = startUpload(key, metadata, subject);
  std::vector<std::string> etags(parts);
  try {
    forEachInParallel(parts, client_->settings().partTransfers, [&](std::size_t i) {
      Request request;
      request.method = "PUT";
      request.key = key;
      request.query = {{"partNumber", std::to_string(i + 1)}, {"uploadId", id}};
      request.body.fd = body.fd;
      request.body.offset = body.offset + i * partSize;
      request.body.length = std::min<std::uint64_t>(partSize, body.size() - i * partSize);
      auto const response = send(request, subject);
      if (!response.ok()) failure(response, "uploading part " + std::to_string(i + 1) + " of " + key, subject);
      etags[i] = unquoted(response.header("etag"));
    });
    finishUpload(key, id, etags, subject);
  } catch (...) {
    abortUpload(key, id);
    throw;
  }
}

void S3Objects::download(std::string const& key, std::uint64_t size, int fd, sp::StorageIRI const& subject) const {
  std::uint64_t const chunk = client_->settings().partSize;
  std::vector<std::uint64_t> offsets;
  for (std::uint64_t offset = 0; offset < size; offset += chunk) offsets.push_back(offset);
  forEachInParallel(offsets.size(), client_->settings().partTransfers, [&](std::size_t i) {
    auto const bytes = getRange(key, offsets[i], std::min(chunk, size - offsets[i]), subject);
    if (::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offsets[i])) != static_cast<ssize_t>(bytes.size())) {
      throw sp::Exception(ErrorCode::TransientFailure, subject,
                          "cannot keep a local copy of " + key + ": " + std::strerror(errno));
    }
  });
}

void S3Objects::copyThroughHere(std::string const& from, std::string const& to, std::uint64_t size,
                                const Metadata& metadata, sp::StorageIRI const& subject) const {
  int const fd = makeSpoolFile(subject);
  try {
    download(from, size, fd, subject);
    Body body;
    body.fd = fd;
    body.length = size;
    put(to, body, metadata, subject);
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::close(fd);
}

}  // namespace providers::s3::detail
