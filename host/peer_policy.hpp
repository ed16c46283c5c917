// Which peers may call what. For RpcServer, which asks before it reads a request, and for programs
// that serve methods which are not for everybody.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kel::host {

struct Peer {
  // Over a Unix socket, whose mode lets in nobody but this process's own user (and root).
  bool local = false;
  // The certificate's subject alternative names; without any, its common name. Empty over plain
  // TCP.
  std::vector<std::string> names;
};

// Returns why peer may not call path, as a sentence without its full stop, or nothing if it may.
// Runs on any number of threads at a time.
using PeerPolicy = std::function<std::string(const std::string& path, const Peer& peer)>;

// Opens everything to local peers and to those that bear one of names, and to all others only some
// paths: what is forgotten there is closed.
PeerPolicy restrictTo(std::vector<std::string> names, std::span<const std::string_view> openPaths);

}  // namespace kel::host
