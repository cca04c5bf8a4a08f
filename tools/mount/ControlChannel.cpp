#include <ovl/ControlChannel.hpp>

#include <condition_variable>
#include <mutex>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace ovl::mount {

namespace fs = std::filesystem;

namespace {

std::system_error systemError(std::string const& what) { return std::system_error(errno, std::generic_category(), what); }

// A descriptor closed when the holder goes.
struct Descriptor {
  int fd = -1;
  explicit Descriptor(int f) : fd(f) {}
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  Descriptor(Descriptor const&) = delete;
  Descriptor& operator=(Descriptor const&) = delete;
};

sockaddr_un addressOf(fs::path const& socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  auto const text = socket.string();
  if (text.size() >= sizeof(address.sun_path)) throw std::runtime_error(text + ": the socket path is too long");
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

// Writes all of `text`; false when the peer went away.
bool writeAll(int fd, std::string const& text) {
  for (std::size_t done = 0; done < text.size();) {
    auto const n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// Reads until end of file, or (when `line`) until the first newline.
std::string readAll(int fd, bool line) {
  std::string text;
  char buffer[4096];
  for (;;) {
    auto const n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
    if (line && text.find('\n') != std::string::npos) break;
  }
  if (line) text = text.substr(0, text.find('\n'));
  return text;
}

}  // namespace

fs::path controlSocketFor(fs::path const& mountPoint, bool makeFolder) {
  fs::path folder;
  if (char const* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
    folder = fs::path(runtime) / "ovl";
  } else if (::geteuid() == 0) {
    folder = "/run/ovl";
  } else {
    folder = fs::temp_directory_path() / ("ovl-" + std::to_string(::geteuid()));
  }
  if (makeFolder) {
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms::owner_all, fs::perm_options::replace);
  }
  // FNV-1a of the absolute path: a short name that the same mount point always gets.
  std::uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : fs::absolute(mountPoint).lexically_normal().string()) {
    hash = (hash ^ c) * 1099511628211ull;
  }
  char name[40];
  std::snprintf(name, sizeof name, "mount-%016llx.sock", static_cast<unsigned long long>(hash));
  return folder / name;
}

fs::path reportPathFor(fs::path const& socket) {
  auto report = socket;
  report.replace_extension(".result");
  return report;
}

struct ControlServer::State {
  fs::path socket;
  std::function<std::string(std::string const&)> answer;
  int listening = -1;
  int stop = -1;  // an eventfd the destructor signals
  std::thread thread;
  std::mutex mutex;
  std::condition_variable idle;
  int clients = 0;  // answering threads still running; guarded by mutex

  void waitForClients() {
    std::unique_lock lock(mutex);
    idle.wait(lock, [&] { return clients == 0; });
  }

  void serve() {
    pollfd watched[2] = {{listening, POLLIN, 0}, {stop, POLLIN, 0}};
    for (;;) {
      if (::poll(watched, 2, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (watched[1].revents) return;
      int const client = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      // Each client on a thread of its own: one that connects and says nothing must not
      // keep the others waiting.
      {
        std::lock_guard lock(mutex);
        ++clients;
      }
      std::thread([this, client] {
        Descriptor const held(client);
        timeval limit{5, 0};
        ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        auto const request = readAll(client, true);
        std::string reply;
        try {
          reply = answer(request);
        } catch (std::exception const& e) {
          reply = std::string("{\"error\": \"") + e.what() + "\"}\n";
        }
        writeAll(client, reply);
        std::lock_guard lock(mutex);
        if (--clients == 0) idle.notify_all();
      }).detach();
    }
  }
};

ControlServer::ControlServer(fs::path socket, std::function<std::string(std::string const&)> answer)
    : state_(std::make_unique<State>()) {
  state_->socket = std::move(socket);
  state_->answer = std::move(answer);
  if (askControl(state_->socket, "ping")) {
    throw std::runtime_error(state_->socket.string() + ": another ovl process serves this mount point");
  }
  ::unlink(state_->socket.c_str());  // a stale socket of a process that is gone
  auto const address = addressOf(state_->socket);
  Descriptor listening(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (listening.fd < 0) throw systemError("socket");
  if (::bind(listening.fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
    throw systemError(state_->socket.string());
  }
  if (::listen(listening.fd, 16) != 0) throw systemError(state_->socket.string());
  Descriptor stop(::eventfd(0, EFD_CLOEXEC));
  if (stop.fd < 0) throw systemError("eventfd");
  state_->listening = std::exchange(listening.fd, -1);
  state_->stop = std::exchange(stop.fd, -1);
  state_->thread = std::thread([state = state_.get()] { state->serve(); });
}

ControlServer::~ControlServer() {
  std::uint64_t one = 1;
  [[maybe_unused]] auto const written = ::write(state_->stop, &one, sizeof one);
  state_->thread.join();
  state_->waitForClients();
  ::close(state_->listening);
  ::close(state_->stop);
  ::unlink(state_->socket.c_str());
}

std::optional<std::string> askControl(fs::path const& socket, std::string const& request) {
  sockaddr_un address;
  try {
    address = addressOf(socket);
  } catch (std::exception const&) {
    return std::nullopt;
  }
  Descriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (client.fd < 0) return std::nullopt;
  if (::connect(client.fd, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) return std::nullopt;
  if (!writeAll(client.fd, request + "\n")) return std::nullopt;
  ::shutdown(client.fd, SHUT_WR);
  return readAll(client.fd, false);
}

}  // namespace ovl::mount
