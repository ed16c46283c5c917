// A relay between caller and server that cuts connections and damages what the server says.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kel::host::test {

struct Damage {
  enum class Kind : uint8_t { none, cut, corrupt };
  Kind kind = Kind::none;
  size_t position = 0;  // in what the server says on a connection
};

class Relay {
 public:
  Relay(const std::string& listenPath, std::string serverPath);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // Cuts all connections; the damage is for those that come.
  void cutAndSet(Damage damage);
  // The most that the server has said on one connection without damage.
  [[nodiscard]] size_t longestSpeech() const { return longest_; }

 private:
  struct Line {
    int caller;
    int server;
    Damage damage;
    size_t said = 0;
  };

  void run();
  void take();
  // Both return whether the line goes on.
  static bool passRequest(const Line& line);
  bool passReply(Line& line);
  void cutAll();

  const std::string serverPath_;
  const int listener_;
  std::atomic<bool> stopping_ = false;
  std::atomic<size_t> longest_ = 0;
  std::mutex mutex_;
  Damage damage_;
  std::vector<Line> lines_;
  std::thread thread_;
};

// A connected or a listening Unix socket.
int connectTo(const std::string& path);
int listenAt(const std::string& path);

}  // namespace kel::host::test
