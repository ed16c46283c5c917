// Takes in connections at a gRPC target, so that want of descriptors, which gRPC's own listener
// does not outlive, only makes callers wait. For RpcServer.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <thread>

#include "host/file_descriptor.hpp"

namespace kel::host {

class Listener {
 public:
  // Listens at "unix:PATH" or "ADDRESS:PORT", also with "ipv4:" or "ipv6:" in front. A Unix socket
  // has mode 0600 from the first moment; one that nobody serves any more is replaced, by one server
  // at a time. Throws std::runtime_error with a sentence. Says on standard error if others may
  // replace the socket.
  explicit Listener(const std::string& target);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // With the port that was chosen for port 0.
  [[nodiscard]] const std::string& target() const { return target_; }

  // Calls take with every new connection, which is then take's to close, on a thread of its own.
  void start(std::function<void(int connection)> take);

  // Takes in no more, and removes the Unix socket if it is still this one.
  void stop();

  // After stop: ends the connections that are left, whatever they have still to carry.
  void cutConnections() const;

 private:
  void listenOnUnixSocket(const std::string& path);
  void listenOnTcp();
  void run(const std::function<void(int)>& take);
  // Returns whether there are descriptors left.
  [[nodiscard]] bool acceptOne(const std::function<void(int)>& take);

  std::string target_;
  std::string path_;  // of the Unix socket
  unsigned long device_ = 0;
  unsigned long inode_ = 0;
  FileDescriptor socket_;
  FileDescriptor wakeUp_;
  std::map<int, unsigned long> taken_;  // by descriptor, the socket that it last was given out for
  std::thread thread_;
};

}  // namespace kel::host
