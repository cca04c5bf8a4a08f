// random_file_ops: runs one random sequence of file operations on a file in DIR_A and on a
// file in DIR_B, and checks after every step that the two folders answered alike.
//
// What it promises: the same --seed, --steps and --max-size make the same calls (the draws
// depend only on the seed and on the file's size and name, which both sides must agree on,
// or the run stops there). After each step both sides must agree on the call's result
// (value and errno), on the file's size by fstat and by stat, and on its whole content read
// back with pread. The first difference is reported on stderr with the line that replays
// it, and the program exits 1. A run without a difference prints one line of counts and
// exits 0; bad usage, or a folder it cannot make its file in, exits 2. Whatever the outcome,
// the file and the subfolder it made are removed before it exits.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
constexpr std::uint64_t kMaxChunk = 64 * 1024;
constexpr std::uint64_t kMaxSizeLimit = 1024 * 1024 * 1024;  // the content is held in memory
constexpr const char* kUsage =
    "usage: random_file_ops [--seed N] [--steps N] [--max-size BYTES] DIR_A DIR_B";

// Numbers from mt19937_64 mapped to ranges by this program itself, so that a seed gives
// the same numbers with every standard library (the std distributions are not portable).
class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  // A number from lo to hi, both included; every one equally likely.
  std::uint64_t between(std::uint64_t lo, std::uint64_t hi) {
    const std::uint64_t span = hi - lo + 1;
    if (span == 0) return engine_();  // lo..hi is the whole 64-bit range
    const std::uint64_t limit = UINT64_MAX - UINT64_MAX % span;  // a multiple of span
    std::uint64_t x = engine_();
    while (x >= limit) x = engine_();
    return lo + x % span;
  }
  bool chance(unsigned percent) { return between(1, 100) <= percent; }
  void fill(Bytes& bytes) {
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
      const std::uint64_t x = engine_();
      std::memcpy(bytes.data() + i, &x, std::min<std::size_t>(8, bytes.size() - i));
    }
  }

 private:
  std::mt19937_64 engine_;
};

enum Op { Write, Append, Ftruncate, Truncate, Read, Reopen, Fsync, Rename, Mmap, StatClosed, kOps };
constexpr std::array<const char*, kOps> kOpNames{
    "write", "append", "ftruncate", "truncate", "read", "reopen", "fsync", "rename", "mmap", "stat"};
constexpr std::array<unsigned, kOps> kWeights{24, 6, 6, 5, 20, 8, 4, 6, 10, 5};

// One step's operation with everything it needs, decided before either side runs it.
struct Step {
  Op op = Read;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  int flags = 0;
  std::string name;  // a rename's new name
  Bytes data;        // what a write or an append writes
  std::string text;  // the operation and its arguments, for the report
};

// One folder's side of the run: its file's current name, the descriptor kept open, and
// what the run made there (only that is removed at the end).
struct Side {
  Side(std::string folder, const std::string& stem)
      : dir(std::move(folder)), name(stem + "0"), sub(stem + "sub") {}
  std::string dir;
  std::string name;
  std::string sub;  // the subfolder the file is renamed into now and then
  int fd = -1;
  bool madeSub = false;
  bool madeFile = false;
  Bytes bytes;    // what the step's call read (pread, mmap)
  Bytes content;  // the whole file, read back after the step
  std::string path(const std::string& relative) const { return dir + "/" + relative; }
  std::string path() const { return path(name); }
};

// Adds a call's result to out: its value, or -1 and the error. errno is read before
// anything else can change it, so call this right after the system call. An open's
// descriptor number may differ between the sides, so `number` false says just "ok".
void note(std::string& out, const char* label, long long value, bool number = true) {
  const int error = errno;
  out += (out.empty() ? "" : ", ") + std::string(label) + " ";
  out += value < 0 ? "-1 (" + std::string(std::strerror(error)) + ")"
                   : number ? std::to_string(value) : "ok";
}

void noteSize(std::string& out, const char* label, int r, const struct stat& st) {
  if (r == 0) out += (out.empty() ? "" : ", ") + std::string(label) + " size " + std::to_string(st.st_size);
  else note(out, label, r);
}

void appendTo(Side& side, const Bytes& data, std::string& out) {
  const int fd = ::open(side.path().c_str(), O_WRONLY | O_APPEND);
  note(out, "open", fd, false);
  if (fd < 0) return;
  note(out, "write", ::write(fd, data.data(), data.size()));
  note(out, "close", ::close(fd));
}

// Maps the whole file as fstat gives its size, and copies it into side.bytes.
void readMapped(Side& side, std::string& out) {
  struct stat st {};
  noteSize(out, "fstat", ::fstat(side.fd, &st), st);
  if (st.st_size <= 0) return;
  const auto size = static_cast<std::size_t>(st.st_size);
  void* map = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, side.fd, 0);
  if (map == MAP_FAILED) return note(out, "mmap", -1);
  const auto* first = static_cast<const unsigned char*>(map);
  side.bytes.assign(first, first + size);
  note(out, "munmap", ::munmap(map, size));
}

// Runs the step on one side and says what the calls gave; what a read got is in side.bytes.
std::string run(Side& side, const Step& s) {
  std::string out;
  struct stat st {};
  ssize_t n = 0;
  side.bytes.clear();
  switch (s.op) {
    case Write: note(out, "pwrite", ::pwrite(side.fd, s.data.data(), s.data.size(), s.offset)); break;
    case Append: appendTo(side, s.data, out); break;
    case Ftruncate: note(out, "ftruncate", ::ftruncate(side.fd, s.length)); break;
    case Truncate: note(out, "truncate", ::truncate(side.path().c_str(), s.length)); break;
    case Read:
      side.bytes.resize(s.length);
      n = ::pread(side.fd, side.bytes.data(), s.length, s.offset);
      note(out, "pread", n);
      side.bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
      break;
    case Fsync: note(out, "fsync", ::fsync(side.fd)); break;
    case Rename:
      note(out, "rename", ::rename(side.path().c_str(), side.path(s.name).c_str()));
      note(out, "then the old name", ::access(side.path().c_str(), F_OK));  // must be gone
      if (out.starts_with("rename 0")) side.name = s.name;
      break;
    case Mmap: readMapped(side, out); break;
    case Reopen:
    case StatClosed:  // closes, stats the file while nothing holds it open, reopens
      note(out, "close", ::close(side.fd));
      side.fd = -1;
      if (s.op == StatClosed) noteSize(out, "stat", ::stat(side.path().c_str(), &st), st);
      side.fd = ::open(side.path().c_str(), s.op == Reopen ? s.flags : O_RDWR);
      note(out, "open", side.fd, false);
      break;
    case kOps: break;
  }
  return out;
}

// The file as it stands: its sizes by fstat and by stat, and (in side.content) its content
// read back with pread up to the end of file, even past the size that fstat gave.
std::string snapshot(Side& side) {
  std::string out;
  struct stat byFd {}, byPath {};
  noteSize(out, "fstat", ::fstat(side.fd, &byFd), byFd);
  noteSize(out, "stat", ::stat(side.path().c_str(), &byPath), byPath);
  std::size_t got = 0;
  side.content.resize(static_cast<std::size_t>(std::max<off_t>(byFd.st_size, 0)) + 4096);
  for (;;) {
    if (got == side.content.size()) side.content.resize(2 * got);
    const ssize_t n = ::pread(side.fd, side.content.data() + got, side.content.size() - got,
                              static_cast<off_t>(got));
    if (n < 0) note(out, "pread of the content", n);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  side.content.resize(got);
  return out;
}

// Up to 8 bytes from `at`, in hex.
std::string hexAt(const Bytes& bytes, std::size_t at) {
  std::string out;
  char hex[4];
  for (std::size_t i = at; i < std::min(bytes.size(), at + 8); ++i) {
    std::snprintf(hex, sizeof hex, " %02x", bytes[i]);
    out += hex;
  }
  return out.empty() ? " (end of data)" : out;
}

// Where two byte strings first differ and a few bytes of each from there; empty if equal.
std::string firstDifference(const Bytes& a, const Bytes& b) {
  if (a == b) return {};
  const std::size_t common = std::min(a.size(), b.size());
  const std::size_t at = static_cast<std::size_t>(
      std::mismatch(a.begin(), a.begin() + common, b.begin()).first - a.begin());
  return "lengths " + std::to_string(a.size()) + " and " + std::to_string(b.size()) +
         ", first difference at offset " + std::to_string(at) + ": A" + hexAt(a, at) +
         ", B" + hexAt(b, at);
}

// Chooses each step's operation and arguments from the random numbers, the file's size
// and name as they stand, and what it chose before (a read-only descriptor, names used).
class Planner {
 public:
  Planner(Random& random, std::uint64_t maxSize, std::string stem, std::string sub)
      : random_(random), maxSize_(maxSize), stem_(std::move(stem)), sub_(std::move(sub)) {}

  Step next(std::uint64_t size, const std::string& name) {
    Step s;
    s.op = chooseOp();
    const bool readOnly = readOnlyLeft_ > 0;  // a write is expected to be refused then
    switch (s.op) {
      case Write: planWrite(s, size); break;
      case Append:
        s.data.resize(std::min(random_.between(1, kMaxChunk), maxSize_ - std::min(size, maxSize_)));
        random_.fill(s.data);
        s.text = std::to_string(s.data.size()) + " bytes";
        break;
      case Ftruncate:
      case Truncate: s.length = newLength(size); s.text = "to " + std::to_string(s.length); break;
      case Read:
        s.offset = random_.between(0, size + 4096);
        s.length = random_.between(1, kMaxChunk);
        s.text = std::to_string(s.length) + " bytes at offset " + std::to_string(s.offset);
        break;
      case Reopen: planReopen(s); break;
      case Rename: s.name = newName(name); s.text = "to " + s.name; break;
      case StatClosed: s.text = "by name after close, then open O_RDWR"; break;
      default: break;
    }
    s.text = kOpNames[s.op] + (s.text.empty() ? "" : " " + s.text) + " (file " + name +
             (readOnly ? ", opened O_RDONLY" : "") + ", size before " + std::to_string(size) + ")";
    return s;
  }

 private:
  // While the descriptor is read-only: reads, fsync and a write that must be refused;
  // the step after the last of them opens the file for writing again.
  Op chooseOp() {
    static constexpr std::array<Op, 5> kReadOnly{Read, Read, Mmap, Fsync, Write};
    if (readOnlyLeft_ > 0 && --readOnlyLeft_ == 0) backToWriting_ = true;
    if (backToWriting_) return Reopen;
    if (readOnlyLeft_ > 0) return kReadOnly[random_.between(0, kReadOnly.size() - 1)];
    std::uint64_t pick = random_.between(0, std::accumulate(kWeights.begin(), kWeights.end(), 0u) - 1);
    unsigned op = 0;
    while (pick >= kWeights[op]) pick -= kWeights[op++];
    return static_cast<Op>(op);
  }

  // Overwrites, writes at or past the end (a hole), and whole aligned 4096-byte blocks;
  // never past --max-size.
  void planWrite(Step& s, std::uint64_t size) {
    std::uint64_t length;
    if (random_.chance(25)) {
      s.offset = 4096 * random_.between(0, (maxSize_ - 1) / 4096);
      length = 4096 * random_.between(1, kMaxChunk / 4096);
    } else {
      s.offset = random_.chance(20) ? size + random_.between(1, kMaxChunk) : random_.between(0, size);
      length = random_.chance(50) ? random_.between(1, kMaxChunk) : random_.between(1, 512);
    }
    s.offset = std::min(s.offset, maxSize_ - 1);
    s.data.resize(std::min(length, maxSize_ - s.offset));
    random_.fill(s.data);
    s.text = std::to_string(s.data.size()) + " bytes at offset " + std::to_string(s.offset);
  }

  void planReopen(Step& s) {
    const std::uint64_t kind = backToWriting_ ? 0 : random_.between(0, 4);
    backToWriting_ = false;
    s.flags = kind == 4 ? O_RDONLY : kind == 3 ? O_RDWR | O_TRUNC : O_RDWR;
    if (kind == 4) readOnlyLeft_ = 1 + random_.between(1, 5);  // the last one reopens
    s.text = kind == 4 ? "O_RDONLY" : kind == 3 ? "O_RDWR|O_TRUNC" : "O_RDWR";
  }

  std::uint64_t newLength(std::uint64_t size) {
    const std::uint64_t kind = random_.between(0, 4);
    if (kind == 0) return 0;
    if (kind <= 2) return random_.between(0, std::min(size, maxSize_));
    return random_.between(std::min(size, maxSize_), std::min(maxSize_, size + 4 * kMaxChunk));
  }

  // A name not used before: into the subfolder or back out of it now and then.
  std::string newName(const std::string& name) {
    const bool inSub = name.find('/') != std::string::npos;
    const bool move = random_.chance(inSub ? 50 : 25);
    const std::string leaf = stem_ + std::to_string(++names_);
    return inSub != move ? sub_ + "/" + leaf : leaf;
  }

  Random& random_;
  const std::uint64_t maxSize_;
  const std::string stem_;
  const std::string sub_;
  unsigned names_ = 0;
  unsigned readOnlyLeft_ = 0;
  bool backToWriting_ = false;
};

struct Options {
  std::uint64_t seed = 0;
  bool seeded = false;
  bool help = false;
  std::uint64_t steps = 2000;
  std::uint64_t maxSize = 1024 * 1024;
  std::string dirA, dirB;
};

bool parseNumber(const std::string& text, std::uint64_t& out) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// Reads the command line into o; says what is wrong with it, or nothing.
std::string parseOptions(int argc, char** argv, Options& o) {
  std::vector<std::string> dirs;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::uint64_t* number = arg == "--seed" ? &o.seed : arg == "--steps" ? &o.steps
                          : arg == "--max-size" ? &o.maxSize : nullptr;
    if (arg == "-h" || arg == "--help") o.help = true;
    else if (number && (i + 1 == argc || !parseNumber(argv[++i], *number))) return arg + " needs a whole number";
    else if (number) o.seeded = o.seeded || number == &o.seed;
    else if (arg.size() > 1 && arg[0] == '-') return "unknown option " + arg;
    else dirs.push_back(arg);
  }
  if (o.help) return {};
  if (dirs.size() != 2) return "needs two folders, DIR_A and DIR_B";
  if (dirs[0] == dirs[1]) return "DIR_A and DIR_B must be different folders";
  if (o.maxSize == 0 || o.maxSize > kMaxSizeLimit) return "--max-size must be from 1 to " + std::to_string(kMaxSizeLimit);
  o.dirA = dirs[0];
  o.dirB = dirs[1];
  return {};
}

// Makes the subfolder and the first file in the side's folder; says why when it cannot.
bool setUp(Side& side, std::string& problem) {
  const std::string sub = side.path(side.sub), file = side.path();
  side.madeSub = ::mkdir(sub.c_str(), 0755) == 0;
  if (side.madeSub) side.fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
  side.madeFile = side.fd >= 0;
  if (!side.madeFile) problem = "cannot make " + (side.madeSub ? file : sub) + ": " + std::strerror(errno);
  return side.madeFile;
}

// Leaves the folder as it was found: closes the descriptor, removes what setUp made.
void tearDown(Side& side) {
  if (side.fd >= 0) ::close(side.fd);
  side.fd = -1;
  if (side.madeFile) ::unlink(side.path().c_str());
  if (side.madeSub) ::rmdir(side.path(side.sub).c_str());
}

// Runs the step on both sides and says what differs, or nothing; gotA and gotB are what
// each side gave for the part that differs.
std::string runOnBoth(const Step& s, Side& a, Side& b, std::string& gotA, std::string& gotB) {
  gotA = run(a, s);
  gotB = run(b, s);
  if (gotA != gotB) return "the call's result";
  if (std::string d = firstDifference(a.bytes, b.bytes); !d.empty()) return "the bytes the call read, " + d;
  gotA = snapshot(a);
  gotB = snapshot(b);
  if (gotA != gotB) return "the file's size afterwards, or reading it back";
  if (std::string d = firstDifference(a.content, b.content); !d.empty()) return "the file's content afterwards, " + d;
  return {};
}

// Runs the steps; reports the first difference and returns false, or prints the counts.
bool runSteps(const Options& o, Side& a, Side& b, const std::string& stem) {
  std::array<std::uint64_t, kOps> counts{};
  Random random(o.seed);
  Planner planner(random, o.maxSize, stem, a.sub);
  snapshot(a);
  for (std::uint64_t step = 1; step <= o.steps; ++step) {
    const Step s = planner.next(a.content.size(), a.name);
    std::string gotA, gotB;
    if (const std::string what = runOnBoth(s, a, b, gotA, gotB); !what.empty()) {
      std::cerr << "random_file_ops: difference at step " << step << " of " << o.steps
                << " (seed " << o.seed << ")\n  operation: " << s.text << "\n  differs: " << what
                << "\n  A (" << a.dir << "): " << gotA << "\n  B (" << b.dir << "): " << gotB
                << "\n  replay: random_file_ops --seed " << o.seed << " --steps " << step
                << (o.maxSize != Options{}.maxSize ? " --max-size " + std::to_string(o.maxSize) : "")
                << " " << o.dirA << " " << o.dirB << "\n";
      return false;
    }
    ++counts[s.op];
  }
  std::cout << "random_file_ops: seed " << o.seed << ", " << o.steps << " steps, no difference:";
  for (unsigned op = 0; op < kOps; ++op) std::cout << " " << kOpNames[op] << " " << counts[op];
  std::cout << std::endl;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  std::string problem = parseOptions(argc, argv, o);
  if (o.help) {
    std::cout << kUsage << "\n";
    return 0;
  }
  if (!problem.empty()) {
    std::cerr << "random_file_ops: " << problem << "; " << kUsage << "\n";
    return 2;
  }
  if (!o.seeded) {
    o.seed = (std::uint64_t{std::random_device{}()} << 32) ^ std::random_device{}();
    std::cout << "random_file_ops: seed " << o.seed << std::endl;  // before any step
  }
  const std::string stem = "random_file_ops." + std::to_string(::getpid()) + ".";
  Side a(o.dirA, stem), b(o.dirB, stem);
  int status = 2;
  if (!setUp(a, problem) || !setUp(b, problem)) std::cerr << "random_file_ops: " << problem << "\n";
  else status = runSteps(o, a, b, stem) ? 0 : 1;
  tearDown(a);
  tearDown(b);
  return status;
}
