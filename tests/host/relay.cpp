#include "tests/host/relay.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

namespace kel::host::test {
namespace {

using Chunk = std::array<char, 4096>;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

}  // namespace

int connectTo(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  const int result = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(connect(result, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  return result;
}

int listenAt(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  const int result = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(result, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(listen(result, SOMAXCONN), 0);
  return result;
}

Relay::Relay(const std::string& listenPath, std::string serverPath)
    : serverPath_(std::move(serverPath)), listener_(listenAt(listenPath)) {
  thread_ = std::thread([this] { run(); });
}

Relay::~Relay() {
  stopping_ = true;
  thread_.join();
  cutAll();
  close(listener_);
}

void Relay::cutAndSet(Damage damage) {
  const std::scoped_lock lock(mutex_);
  damage_ = damage;
  cutAll();
}

void Relay::cutAll() {
  for (const Line& line : lines_) {
    close(line.caller);
    close(line.server);
  }
  lines_.clear();
}

void Relay::run() {
  constexpr int kTickMs = 1;  // between looks at what the test wants
  while (!stopping_) {
    std::unique_lock lock(mutex_);
    std::vector<pollfd> awaited = {{listener_, POLLIN, 0}};
    for (const Line& line : lines_) {
      awaited.push_back({line.caller, POLLIN, 0});
      awaited.push_back({line.server, POLLIN, 0});
    }
    const int ready = poll(awaited.data(), awaited.size(), 0);
    for (size_t i = lines_.size(); i-- > 0;) {
      const bool goesOn = (awaited[1 + 2 * i].revents == 0 || passRequest(lines_[i])) &&
                          (awaited[2 + 2 * i].revents == 0 || passReply(lines_[i]));
      if (!goesOn) {
        close(lines_[i].caller);
        close(lines_[i].server);
        lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
    if (awaited[0].revents != 0) {
      take();
    }
    lock.unlock();
    if (ready == 0) {
      poll(nullptr, 0, kTickMs);
    }
  }
}

void Relay::take() {
  const int caller = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  lines_.push_back({caller, connectTo(serverPath_), damage_});
}

bool Relay::passRequest(const Line& line) {
  Chunk chunk;
  const ssize_t length = recv(line.caller, chunk.data(), chunk.size(), 0);
  return length > 0 &&
         send(line.server, chunk.data(), static_cast<size_t>(length), MSG_NOSIGNAL) == length;
}

bool Relay::passReply(Line& line) {
  Chunk chunk;
  const ssize_t received = recv(line.server, chunk.data(), chunk.size(), 0);
  if (received <= 0) {
    return false;
  }
  auto length = static_cast<size_t>(received);
  bool goesOn = true;
  if (line.damage.kind != Damage::Kind::none && line.damage.position < line.said + length) {
    if (line.damage.kind == Damage::Kind::cut) {
      length = line.damage.position - std::min(line.damage.position, line.said);
      goesOn = false;
    } else if (line.damage.position >= line.said) {
      chunk[line.damage.position - line.said] ^= static_cast<char>(0xFF);
    }
  }
  line.said += length;
  if (line.damage.kind == Damage::Kind::none) {
    longest_ = std::max(longest_.load(), line.said);
  }
  return send(line.caller, chunk.data(), length, MSG_NOSIGNAL) == static_cast<ssize_t>(length) &&
         goesOn;
}

}  // namespace kel::host::test
