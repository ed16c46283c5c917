// Sockets that listen, and the thread that accepts.
#include "host/listener.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "host/credentials.hpp"
#include "host/lines.hpp"

namespace kel::host {
namespace {

// What new connections leave for those that are served: files, pipes, connections to others.
constexpr rlim_t kReservedDescriptors = 32;

[[noreturn]] void fail(const std::string& target, const std::string& why) {
  throw std::runtime_error(fmt::format("cannot listen on {}: {}", target, why));
}

[[noreturn]] void failWithErrno(const std::string& target) { fail(target, std::strerror(errno)); }

FileDescriptor openSocket(int family, const std::string& target) {
  FileDescriptor result(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!result.isOpen()) {
    failWithErrno(target);
  }
  return result;
}

std::string withoutScheme(const std::string& target) {
  std::string rest = target.substr(target.find(':') + 1);
  if (rest.starts_with("//")) {
    rest.erase(0, 2);
  }
  return rest;
}

std::filesystem::path folderOf(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  return folder.empty() ? "." : folder;
}

// What to do about a folder in which others may replace what is there; nothing where they may not.
std::string remedyFor(const std::filesystem::path& folder) {
  struct stat status {};
  constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
  if (stat(folder.c_str(), &status) != 0) {
    return {};
  }
  if (status.st_uid != 0 && status.st_uid != geteuid()) {
    return "the folder is another user's, so use one of your own";
  }
  if ((status.st_mode & kOthersWrite) != 0 && (status.st_mode & S_ISVTX) == 0) {
    return fmt::format(
        "take the right to write from them (chmod go-w {}) or use a folder of its own",
        folder.string());
  }
  return {};
}

// Whoever may replace a folder around the socket's replaces the socket with it. A folder that is
// not there is told of when it is opened.
void warnOfUnsafeFolder(const std::filesystem::path& innermost) {
  std::error_code error;
  std::filesystem::path folder = std::filesystem::canonical(innermost, error);
  for (; folder.has_relative_path(); folder = folder.parent_path()) {
    if (const std::string remedy = remedyFor(folder); !remedy.empty()) {
      complain(
          fmt::format("warning: others may replace the socket in {}, and answer in its place: {}",
                      folder.string(), remedy));
      return;
    }
  }
}

// Whoever holds the folder's lock may find a dead socket and replace it. Bounded, since in a folder
// for all anybody can take the lock.
FileDescriptor lockFolder(const std::filesystem::path& folder, const std::string& target) {
  FileDescriptor result(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!result.isOpen()) {
    failWithErrno(target);
  }
  constexpr int kAttempts = 200;
  constexpr useconds_t kPause = 10'000;
  for (int i = 0; i < kAttempts; ++i) {
    if (flock(result.get(), LOCK_EX | LOCK_NB) == 0) {
      return result;
    }
    usleep(kPause);
  }
  fail(target, "another process keeps the folder locked");
}

constexpr auto kOfAnotherUser =
    "another user's socket is there: have that user remove it, or listen elsewhere";

// Only a refusal tells that nobody listens; a socket of another kind or user may well be served.
void demandThatNobodyServes(const sockaddr_un& address, const std::string& target) {
  const FileDescriptor probe = openSocket(AF_UNIX, target);
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
      errno == EAGAIN) {  // somebody listens, and has much to do
    fail(target, "another process serves there");
  }
  if (errno == EACCES) {
    fail(target, kOfAnotherUser);
  }
  if (errno != ECONNREFUSED && errno != ENOENT) {
    failWithErrno(target);
  }
}

void removeDeadSocket(const sockaddr_un& address, const std::string& target) {
  const char* const path = address.sun_path;
  struct stat status {};
  if (lstat(path, &status) != 0) {
    return;
  }
  if (!S_ISSOCK(status.st_mode)) {
    fail(target, "there is a file of that name that is no socket");
  }
  demandThatNobodyServes(address, target);
  if (unlink(path) != 0 && errno == EPERM) {  // in a folder where only the owner may
    fail(target, kOfAnotherUser);
  }
}

struct HostAndPort {
  std::string host;
  std::string port;
};

HostAndPort hostAndPortOf(const std::string& target) {
  const bool hasScheme = target.starts_with("ipv4:") || target.starts_with("ipv6:");
  std::string host = hasScheme ? withoutScheme(target) : target;
  const size_t colon = host.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    fail(target, "it is neither unix:PATH nor ADDRESS:PORT");
  }
  std::string port = host.substr(colon + 1);
  uint16_t number = 0;
  const auto parsed = std::from_chars(port.data(), port.data() + port.size(), number);
  if (parsed.ec != std::errc() || parsed.ptr != port.data() + port.size()) {
    fail(target, fmt::format("\"{}\" is no port", port));
  }
  host.resize(colon);
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  }
  return {std::move(host), std::move(port)};
}

struct FreeAddresses {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

std::unique_ptr<addrinfo, FreeAddresses> resolve(const std::string& target) {
  const auto [host, port] = hostAndPortOf(target);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  if (error != 0) {
    fail(target, gai_strerror(error));
  }
  return std::unique_ptr<addrinfo, FreeAddresses>(list);
}

unsigned portOf(int bound) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  getsockname(bound, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                             : reinterpret_cast<sockaddr_in&>(address).sin_port);
}

// The kernel gives out the lowest number that is free, so a high one tells that many are in use.
bool isOfTheReserve(int descriptor) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t reserved = std::min(kReservedDescriptors, limit.rlim_cur / 4);
  return static_cast<rlim_t>(descriptor) >= limit.rlim_cur - reserved;
}

// No two have the same number; 0 if it is no socket.
unsigned long socketBehind(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

}  // namespace

Listener::Listener(const std::string& target)
    : target_(target), wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeUp_.isOpen()) {
    failWithErrno(target);
  }
  isUnixSocket(target) ? listenOnUnixSocket(withoutScheme(target)) : listenOnTcp();
}

Listener::~Listener() { stop(); }

void Listener::listenOnUnixSocket(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    fail(target_, fmt::format("a socket's path has 1 to {} bytes", sizeof(address.sun_path) - 1));
  }
  if (path.find_first_of("%?#,") != std::string::npos || path.starts_with("//") ||
      (target_.starts_with("unix://") && !path.starts_with('/'))) {
    fail(target_,
         "gRPC's callers would look for another socket: no %, ?, # or comma may be in its path, "
         "which begins with a / behind unix://, and never with two");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  warnOfUnsafeFolder(folderOf(path));
  const FileDescriptor lock = lockFolder(folderOf(path), target_);
  removeDeadSocket(address, target_);
  socket_ = openSocket(AF_UNIX, target_);
  // The file takes its mode from the socket when it is bound, so there is no moment with another.
  if (fchmod(socket_.get(), S_IRUSR | S_IWUSR) != 0 ||
      bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(socket_.get(), SOMAXCONN) != 0) {
    failWithErrno(target_);
  }
  struct stat status {};
  stat(path.c_str(), &status);
  path_ = path;
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

void Listener::listenOnTcp() {
  const auto resolved = resolve(target_);
  socket_ = openSocket(resolved->ai_family, target_);
  const int on = 1;
  // A peer that reads nothing keeps what is to be written, and a connection does not close before
  // that has gone or failed.
  const unsigned unreadMs = 40'000;
  if (setsockopt(socket_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      // Inherited by the connections.
      setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0 ||
      setsockopt(socket_.get(), IPPROTO_TCP, TCP_USER_TIMEOUT, &unreadMs, sizeof(unreadMs)) != 0 ||
      bind(socket_.get(), resolved->ai_addr, resolved->ai_addrlen) != 0 ||
      listen(socket_.get(), SOMAXCONN) != 0) {
    failWithErrno(target_);
  }
  target_ = fmt::format("{}:{}", target_.substr(0, target_.rfind(':')), portOf(socket_.get()));
}

void Listener::start(std::function<void(int)> take) {
  thread_ = std::thread([this, take = std::move(take)] { run(take); });
}

void Listener::stop() {
  if (thread_.joinable()) {
    eventfd_write(wakeUp_.get(), 1);
    thread_.join();
  }
  if (!path_.empty()) {
    // As long as this socket listens, no other server takes the path for a dead one's.
    struct stat status {};
    if (stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == inode_) {
      unlink(path_.c_str());
    }
    path_.clear();
  }
  socket_ = FileDescriptor();
}

void Listener::run(const std::function<void(int)>& take) {
  constexpr int kForever = -1;
  constexpr int kPauseMs = 50;  // until descriptors or memory may have come free
  std::array<pollfd, 2> awaited = {{{wakeUp_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}}};
  bool able = true;
  while ((awaited[0].revents & POLLIN) == 0) {
    if (able || poll(awaited.data(), 1, kPauseMs) == 0) {
      poll(awaited.data(), awaited.size(), kForever);
    }
    if ((awaited[1].revents & POLLIN) != 0) {
      able = acceptOne(take);
    }
  }
}

bool Listener::acceptOne(const std::function<void(int)>& take) {
  FileDescriptor connection(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!connection.isOpen()) {
    return errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM;
  }
  if (!isOfTheReserve(connection.get())) {
    taken_[connection.get()] = socketBehind(connection.get());
    take(connection.release());
  }
  return true;
}

// Their descriptors may long have been closed, and stand for something else.
void Listener::cutConnections() const {
  for (const auto& [descriptor, socket] : taken_) {
    if (socketBehind(descriptor) == socket) {
      shutdown(descriptor, SHUT_RDWR);
    }
  }
}

}  // namespace kel::host
