#include <ovl/Format.hpp>

#include <fl/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdio>
#include <typeinfo>

namespace ovl {

using foundation::storage::provider::ErrorCode;

std::string isoTime(boost::posix_time::ptime const& time) {
  if (time.is_special()) return "-";
  auto const day = time.date();
  auto const clock = time.time_of_day();
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", static_cast<int>(day.year()),
                static_cast<int>(day.month()), static_cast<int>(day.day()), static_cast<int>(clock.hours()),
                static_cast<int>(clock.minutes()), static_cast<int>(clock.seconds()));
  return text;
}

std::string describe(ErrorCode code) {
  switch (code) {
    case ErrorCode::FolderNotEmpty: return "folder is not empty";
    case ErrorCode::InvalidName: return "invalid name";
    case ErrorCode::NotWritable: return "not writable";
    case ErrorCode::AlreadyExists: return "already exists";
    case ErrorCode::DoesNotExist: return "does not exist";
    case ErrorCode::NoCacheSpace: return "no cache space left";
    case ErrorCode::InUse: return "in use";
    case ErrorCode::NotSupported: return "not supported";
    case ErrorCode::QuotaExceeded: return "quota exceeded";
    case ErrorCode::TransientFailure: return "temporary failure";
  }
  return "error " + std::to_string(static_cast<int>(code));
}

std::string causeText(std::optional<ErrorCode> code, std::string const& detail) {
  if (!code) return detail;
  bool const deniedRead = *code == ErrorCode::NotWritable && detail.rfind("cannot read", 0) == 0;
  std::string cause = deniedRead ? "cannot be read" : describe(*code);
  if (!detail.empty()) cause += " (" + detail + ")";
  return cause;
}

std::string causeOf(foundation::storage::provider::Exception const& e) { return causeText(e.getErrorCode(), e.getDetail()); }

std::string displayText(std::u16string const& text) {
  try {
    return fl::i18n::to_string(text);
  } catch (std::exception const&) {
    std::u16string repaired = text;
    for (std::size_t i = 0; i < repaired.size(); ++i) {
      char16_t const c = repaired[i];
      bool const high = c >= 0xD800 && c <= 0xDBFF;
      bool const low = c >= 0xDC00 && c <= 0xDFFF;
      if (high && i + 1 < repaired.size() && repaired[i + 1] >= 0xDC00 && repaired[i + 1] <= 0xDFFF) {
        ++i;
      } else if (high || low) {
        repaired[i] = 0xFFFD;
      }
    }
    return fl::i18n::to_string(repaired);
  }
}

namespace {

// `text` with control characters, and backslashes too when `backslashes`, as \xNN.
std::string escaped(std::string const& text, bool backslashes) {
  std::string out;
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7F || (backslashes && c == '\\')) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

template <class T>
bool numberText(boost::any const& value, std::string& text) {
  if (auto const* p = boost::any_cast<T>(&value)) {
    text = std::to_string(*p);
    return true;
  }
  return false;
}

}  // namespace

std::string printable(std::string const& text) { return escaped(text, false); }

std::string attributeText(boost::any const& value) {
  if (auto const* s = boost::any_cast<std::string>(&value)) return escaped(*s, true);
  if (auto const* s = boost::any_cast<char const*>(&value)) return escaped(*s, true);
  if (auto const* u = boost::any_cast<std::u16string>(&value)) return escaped(displayText(*u), true);
  if (auto const* b = boost::any_cast<bool>(&value)) return *b ? "true" : "false";
  std::string text;
  if (numberText<int>(value, text) || numberText<unsigned>(value, text) || numberText<long>(value, text) ||
      numberText<unsigned long>(value, text) || numberText<long long>(value, text) ||
      numberText<unsigned long long>(value, text) || numberText<double>(value, text)) {
    return text;
  }
  if (value.empty()) return "<empty>";
  return std::string("<value of type ") + value.type().name() + ">";
}

std::string humanSize(std::uint64_t bytes) {
  static char const* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024 && unit < 4) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  }
  return text;
}

ProgressBar::ProgressBar(std::ostream& out, std::uint64_t total, bool enabled, Unit unit)
    : out_(out), total_(total), enabled_(enabled), unit_(unit), start_(std::chrono::steady_clock::now()) {}

void ProgressBar::update(std::uint64_t done) {
  done_ = done;
  if (!enabled_) return;
  auto const now = std::chrono::steady_clock::now();
  if (now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  draw();
}

void ProgressBar::finish() {
  if (!enabled_ || finished_) return;
  finished_ = true;
  draw();
  out_ << '\n' << std::flush;
}

void ProgressBar::draw() {
  constexpr int kWidth = 30;
  int const percent = total_ == 0 ? 100 : static_cast<int>(done_ * 100 / total_);
  int const filled = std::min(kWidth, percent * kWidth / 100);
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  auto const rate = seconds > 0 ? static_cast<std::uint64_t>(static_cast<double>(done_) / seconds) : 0;
  out_ << '\r' << (percent < 10 ? "  " : percent < 100 ? " " : "") << percent << "% ["
       << std::string(static_cast<std::size_t>(filled), '#') << std::string(static_cast<std::size_t>(kWidth - filled), '.')
       << "] ";
  if (unit_ == Unit::Bytes) {
    out_ << humanSize(done_) << " / " << humanSize(total_) << "  " << humanSize(rate) << "/s";
  } else {
    out_ << done_ << " / " << total_;
  }
  // Padding wipes what a longer earlier label left on the line.
  out_ << "  " << label_ << std::string(label_.size() < 40 ? 40 - label_.size() : 0, ' ') << std::flush;
}

}  // namespace ovl
