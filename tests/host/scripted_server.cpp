#include "tests/host/scripted_server.hpp"

#include <poll.h>
#include <sys/un.h>

#include <array>
#include <utility>

namespace kel::host::test {
namespace {

enum FrameType : uint8_t { kData = 0, kHeaders = 1, kSettings = 4 };
constexpr uint8_t kEndStream = 1;
constexpr uint8_t kEndHeaders = 4;

std::string bigEndian(size_t value, size_t bytes) {
  std::string text(bytes, '\0');
  for (; bytes-- > 0; value >>= 8U) {
    text[bytes] = static_cast<char>(value);
  }
  return text;
}

std::string frame(FrameType type, uint8_t flags, size_t stream, const std::string& content) {
  return bigEndian(content.size(), 3) + bigEndian(type, 1) + bigEndian(flags, 1) +
         bigEndian(stream, 4) + content;
}

std::string answerTo(size_t stream, const Script& script) {
  const std::string head(
      "\x88\x0F\x10\x10"
      "application/grpc");  // status 200, and of what type
  if (script.headOnly) {
    return frame(kHeaders, kEndHeaders | kEndStream, stream, head);
  }
  std::string answer = frame(kHeaders, kEndHeaders, stream, head);
  for (const Bytes& reply : script.replies) {
    answer += frame(kData, 0, stream,
                    bigEndian(reply.size(), 5) + std::string(reply.begin(), reply.end()));
  }
  const std::string status = std::to_string(script.grpcStatus);
  const std::string trailer = std::string(1, '\0') + "\x0Bgrpc-status";
  return answer + frame(kHeaders, kEndHeaders | kEndStream, stream,
                        trailer + bigEndian(status.size(), 1) + status);
}

bool hasSomethingToTake(int descriptor) {
  constexpr int kPatienceMs = 2;
  pollfd awaited{descriptor, POLLIN, 0};
  return poll(&awaited, 1, kPatienceMs) > 0;
}

}  // namespace

const std::string kHttpGreeting = frame(kSettings, 0, 0, "");

FileDescriptor openSocket(const std::string& path, const UseOfAddress& use, int type) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  FileDescriptor result(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  EXPECT_EQ(use(result.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  return result;
}

FileDescriptor connectTo(const std::string& path, const std::function<void()>& first) {
  return openSocket(path, [&](int caller, const sockaddr* address, socklen_t length) {
    first();
    return connect(caller, address, length);
  });
}

ScriptedServer::ScriptedServer(const std::string& path, Script script)
    : script_(std::move(script)), path_(path), listener_(openSocket(path, bind)) {
  EXPECT_EQ(listen(listener_.get(), SOMAXCONN), 0);
  thread_ = std::thread([this] { run(); });
}

ScriptedServer::~ScriptedServer() {
  stopping_ = true;
  thread_.join();
  std::filesystem::remove(path_);
}

void ScriptedServer::run() {
  std::vector<std::jthread> conversations;
  while (!stopping_) {
    if (hasSomethingToTake(listener_.get())) {
      conversations.emplace_back(
          [this, caller = FileDescriptor(accept4(listener_.get(), nullptr, nullptr,
                                                 SOCK_CLOEXEC))] { converse(caller.get()); });
    }
  }
}

void ScriptedServer::converse(int caller) {
  size_t said = 0;
  // Says whether the conversation goes on.
  const auto say = [&](std::string words) {
    const bool damaged = script_.position >= said && script_.position < said + words.size();
    const bool cut = damaged && script_.damage == Script::Damage::cut;
    if (cut) {
      words.resize(script_.position - said);
    } else if (damaged && script_.damage == Script::Damage::corrupt) {
      words[script_.position - said] ^= static_cast<char>(0xFF);
    }
    said += words.size();
    bytesSaid_ += words.size();
    return send(caller, words.data(), words.size(), MSG_NOSIGNAL) >= 0 && !cut;
  };

  bool goesOn = say(script_.greeting) && script_.patience > 0;
  std::string heard;
  std::array<char, 4096> some;
  constexpr std::string_view kRequest = "sample";
  for (size_t requests = 0; goesOn && !stopping_;) {
    if (!hasSomethingToTake(caller)) {
      continue;
    }
    const ssize_t length = recv(caller, some.data(), some.size(), 0);
    goesOn = length > 0;
    heard.append(some.data(), goesOn ? static_cast<size_t>(length) : 0);
    for (size_t at = 0; goesOn && (at = heard.find(kRequest)) != std::string::npos;) {
      heard.erase(0, at + kRequest.size());
      ++requests_;
      ++requests;
      goesOn = (!script_.answers || say(answerTo(2 * requests - 1, script_))) &&
               requests < script_.patience;
    }
  }
}

}  // namespace kel::host::test
