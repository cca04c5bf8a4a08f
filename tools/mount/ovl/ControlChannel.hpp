// ControlChannel: how `ovl status` and `ovl umount` reach the process that serves a mount.
//
// The mount process listens on a Unix socket whose name follows from the mount point
// (so no file in the mount has to be read to find it): in $XDG_RUNTIME_DIR/ovl, else
// /run/ovl for root, else /tmp/ovl-<uid>, as "mount-<hash of the mount point's absolute
// path>.sock". A client connects, writes one request line and reads one JSON answer (the
// mount's status) until the server closes the connection: "status"; "report", which also
// asks the mount process to write its final report beside the socket ("....result",
// JSON) when it ends, for `ovl umount` to read and remove; "no-report", which takes that
// back (an unmount that failed).
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace ovl::mount {

// The socket for the mount at `mountPoint` (made absolute and normalised); the report
// path is the same with ".result" for ".sock". Makes the folder (mode 0700) when
// `makeFolder`.
std::filesystem::path controlSocketFor(std::filesystem::path const& mountPoint, bool makeFolder);
std::filesystem::path reportPathFor(std::filesystem::path const& socket);

class ControlServer {
 public:
  // Listens on `socket` (a stale socket left by a dead process is replaced; one a live
  // process answers on is a std::runtime_error) and answers each request on a thread of
  // its own with `answer(request line)`. Throws std::system_error when it cannot listen.
  ControlServer(std::filesystem::path socket, std::function<std::string(std::string const&)> answer);
  // Stops answering and removes the socket.
  ~ControlServer();
  ControlServer(ControlServer const&) = delete;
  ControlServer& operator=(ControlServer const&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Sends `request` to the server on `socket` and returns its answer; nothing when no
// server answers there.
std::optional<std::string> askControl(std::filesystem::path const& socket, std::string const& request);

}  // namespace ovl::mount
