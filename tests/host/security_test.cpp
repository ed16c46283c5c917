// Who gets in, what they may call, and what they may cost the server.
#include <fcntl.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "host/rpc_server.hpp"
#include "tests/host/scripted_server.hpp"
#include "tests/host/test_authority.hpp"

namespace kel::host::test {
namespace {

constexpr char kLoopback[] = "127.0.0.1:0";
constexpr char kAlarmPath[] = "/KelSysdiagMaster/KelSendAlarm";

// Its pieces are all the same one, so that it takes hardly any memory here.
grpc::ByteBuffer messageOf(size_t bytes) {
  const grpc::Slice piece(std::string(std::min(bytes, size_t{1} << 20U), 'x'));
  std::vector<grpc::Slice> pieces(bytes / piece.size(), piece);
  pieces.push_back(piece.sub(0, bytes % piece.size()));
  return {pieces.data(), pieces.size()};
}

// A call without this system's framework, for the server's own words, which results do not carry.
class RawCall {
 public:
  // The request has left when this returns.
  explicit RawCall(const std::string& target, size_t bytes = 1,
                   grpc::ChannelArguments arguments = {},
                   const std::shared_ptr<grpc::ChannelCredentials>& credentials =
                       grpc::InsecureChannelCredentials()) {
    arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);  // whatever the environment says
    call_ = grpc::GenericStub(grpc::CreateCustomChannel(target, credentials, arguments))
                .PrepareCall(&context_, kAlarmPath, &queue_);
    call_->StartCall(nullptr);
    next();
    call_->WriteLast(messageOf(bytes), grpc::WriteOptions(), nullptr);
    next();
  }
  ~RawCall() { context_.TryCancel(); }
  RawCall(const RawCall&) = delete;
  RawCall& operator=(const RawCall&) = delete;

  grpc::Status end() {
    grpc::ByteBuffer reply;
    grpc::Status status;
    call_->Read(&reply, nullptr);
    next();
    call_->Finish(&status, nullptr);
    next();
    return status;
  }

 private:
  void next() {
    void* tag = nullptr;
    bool succeeded = false;
    queue_.Next(&tag, &succeeded);
  }

  grpc::ClientContext context_;
  grpc::CompletionQueue queue_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> call_;
};

class Security : public HostFixture {
 protected:
  RequestHandler handler() {
    return [this](const std::string&, std::span<const uint8_t>) {
      ++handled_;
      return Answer{AnswerStatus::ok, {}, okReply()};
    };
  }

  // Calls by the framework, and expects it to get as far as the handler only if it succeeds.
  void expectCall(int32_t expected) {
    const int before = handled_;
    EXPECT_EQ(call(), outcome(expected));
    EXPECT_EQ(handled_, before + (expected == kOk ? 1 : 0));
  }

  static void expectStatus(const grpc::Status& status, grpc::StatusCode code,
                           const std::string& words) {
    EXPECT_EQ(status.error_code(), code) << status.error_message();
    EXPECT_PRED_FORMAT2(testing::IsSubstring, words, status.error_message());
  }

  std::atomic<int> handled_ = 0;
};

TEST_F(Security, LetsInOnlyTheAuthoritysPeersAndGoesOnlyToTheRightServer) {
  const TestAuthority ours(folder, "ours");
  const TestAuthority others(folder, "others");
  const TlsFiles serverFiles = ours.issue("server", "subjectAltName=IP:127.0.0.1");
  setenv("http_proxy", "http://127.0.0.1:1", 1);  // which nobody is to go by
  const TlsFiles good = ours.issue("good");
  const TlsFiles late = ours.issue("late", "", -1);
  TlsFiles stranger = others.issue("stranger");
  stranger.authority = good.authority;
  TlsFiles expecting = good;
  expecting.authority = others.file("others", "pem");

  RpcServer server(kLoopback, handler(), {.security = {readTlsFiles(serverFiles)}});
  aimAt(server.target());
  struct Case {
    const char* what;
    CallSettings settings;
    int32_t expected;
  };
  const Case cases[] = {
      {"nothing configured", {}, kNotProtected},
      {"plain TCP", {.security = {.insecurePlainTcp = true}}, kUnreachable},
      {"a peer of ours", {.security = {readTlsFiles(good)}}, kOk},
      {"a peer of another authority", {.security = {readTlsFiles(stranger)}}, kUnreachable},
      {"a certificate that has expired",
       {.security = {TlsIdentity{contentOf(late.authority), contentOf(late.certificate),
                                 contentOf(late.key)}}},
       kUnreachable},
      {"a server of another authority", {.security = {readTlsFiles(expecting)}}, kUnreachable},
      {"a server of another name",
       {.security = {readTlsFiles(good)}, .serverName = "other"},
       kUnreachable},
      {"a peer of ours again", {.security = {readTlsFiles(good)}}, kOk},
  };
  for (const Case& peer : cases) {
    SCOPED_TRACE(peer.what);
    configureCalls(peer.settings);
    expectCall(peer.expected);
  }
  TlsFiles piped = good;  // which can be read only once
  piped.key = folder / "pipe";
  ASSERT_EQ(mkfifo(piped.key.c_str(), S_IRWXU), 0);
  std::thread writer([&] { std::ofstream(piped.key) << contentOf(good.key); });
  configureCalls({.security = {readTlsFiles(piped)}});
  writer.join();
  expectCall(kOk);
  const int before = handled_;
  const auto nameless = grpc::SslCredentials({contentOf(good.authority), "", ""});
  EXPECT_FALSE(RawCall(server.target(), 1, {}, nameless).end().ok());
  EXPECT_EQ(handled_, before);
}

TEST_F(Security, OpensChangingMethodsOnlyToThePeersThatAreNamed) {
  const TestAuthority ours(folder, "ours");
  const TlsFiles serverFiles = ours.issue("server", "subjectAltName=IP:127.0.0.1");
  constexpr std::string_view kOpen[] = {"/KelSysdiagMaster/KelGetDiskOvLoadCfgInfo"};
  const PeerPolicy policy = restrictTo({"operator", "operator.example"}, kOpen);
  const TransportSecurity plain{.insecurePlainTcp = true};
  RpcServer overTls(kLoopback, handler(),
                    {.security = {readTlsFiles(serverFiles)}, .policy = policy});
  RpcServer overTcp(kLoopback, handler(), {.security = plain, .policy = policy});
  RpcServer local(target, handler(), {.policy = policy});
  struct Case {
    const char* what;
    const RpcServer& server;
    TransportSecurity security;
    int32_t expected;
  };
  const auto issue = [&](const std::string& name, const std::string& extension = "") {
    return TransportSecurity{readTlsFiles(ours.issue(name, extension))};
  };
  std::string manyNames = "subjectAltName=DNS:other";
  for (int i = 0; i < 800; ++i) {
    manyNames += ",DNS:n" + std::to_string(i) + ".example";
  }
  const Case cases[] = {
      {"named by common name", overTls, issue("operator"), kOk},
      {"named by one of two alternative names", overTls,
       issue("a", "subjectAltName=DNS:other,DNS:operator.example"), kOk},
      {"not named", overTls, issue("somebody"), kNotPermitted},
      {"named only in part", overTls, issue("operator.example.org"), kNotPermitted},
      {"a common name besides alternative names", overTls,
       issue("operator", "subjectAltName=DNS:other"), kNotPermitted},
      {"of more names than a refusal has room for", overTls, issue("many", manyNames),
       kNotPermitted},
      {"nameless", overTcp, plain, kNotPermitted},
      {"the local user", local, {}, kOk},
  };
  for (const Case& peer : cases) {
    SCOPED_TRACE(peer.what);
    configureCalls({.security = peer.security});
    aimAt(peer.server.target());
    expectCall(peer.expected);
    OvLoadDiskCtlInput open{};
    OvLoadDiskCtlOutput output{};
    EXPECT_EQ(KelSysdiagMaster_KelGetDiskOvLoadCfgInfo(&open, &output, 0), kReplyNotDecoded)
        << "a method that is open to all";
  }
  expectStatus(RawCall(overTcp.target()).end(), grpc::StatusCode::PERMISSION_DENIED,
               "/KelSysdiagMaster/KelSendAlarm is not open to peers without a name");
}

TEST_F(Security, SaysWhyItCannotUseTlsFiles) {
  const TestAuthority ours(folder, "ours");
  const TlsFiles good = ours.issue("good");
  const TlsFiles other = ours.issue("other");
  const TlsFiles late = ours.issue("late", "", -1);
  const std::pair<TlsFiles, const char*> cases[] = {
      {{good.authority, good.certificate, ""}, "three files"},
      {{good.key, good.certificate, good.key}, "as the authority's certificate"},
      {{good.authority, good.key, good.key}, "as a certificate"},
      {{good.authority, good.certificate, other.key}, "as the key of"},
      {{"none.pem", good.certificate, good.key}, "cannot read none.pem: No such file"},
      {late, ".pem has expired"},
      {{late.certificate, good.certificate, good.key}, ".pem has expired"},
  };
  for (const auto& [files, expected] : cases) {
    EXPECT_PRED_FORMAT2(testing::IsSubstring, expected,
                        complaintOf([&] { (void)readTlsFiles(files); }));
  }
  const std::string both = folder / "both.pem";
  std::ofstream(both) << contentOf(late.certificate) << contentOf(good.authority);
  EXPECT_NO_THROW((void)readTlsFiles({both, good.certificate, good.key})) << "one takes over";
}

TEST_F(Security, SaysWhyItCannotServeOrCallAsConfigured) {
  const TestAuthority ours(folder, "ours");
  const TransportSecurity both{readTlsFiles(ours.issue("good")), true};
  std::ofstream(folder / "file") << "not a socket";
  const FileDescriptor datagrams = openSocket(folder / "datagrams", bind, SOCK_DGRAM);
  struct Case {
    std::string target;
    TransportSecurity security;
    const char* complaint;
  };
  const Case cases[] = {
      {kLoopback, {}, "--insecure-plain-tcp"},
      {"unix-abstract:name", {}, "--insecure-plain-tcp"},
      {kLoopback, both, "exclude each other"},
      {"127.0.0.1", {{}, true}, "ADDRESS:PORT"},
      {"127.0.0.1:port", {{}, true}, "cannot listen on 127.0.0.1:port"},
      {"192.0.2.1:1", {{}, true}, "Cannot assign requested address"},
      {"unix:" + std::string(108, 'x'), {}, "1 to 107 bytes"},
      {"unix:", {}, "1 to 107 bytes"},
      {"unix:" + (folder / "a%20b").string(), {}, "another socket: no %"},
      {"unix:" + (folder / "a,b").string(), {}, "or comma"},
      {"unix://relative", {}, "begins with a / behind unix://"},
      {"unix:///" + (folder / "a").string(), {}, "never with two"},
      {"unix:" + (folder / "file").string(), {}, "is no socket"},
      {"unix:" + (folder / "datagrams").string(), {}, "wrong type for socket"},
      {"unix:" + (folder / "locked" / "socket").string(), {}, "keeps the folder locked"},
  };
  std::filesystem::create_directory(folder / "locked");
  const FileDescriptor locked(open((folder / "locked").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(locked.get(), LOCK_EX), 0);
  for (const Case& ill : cases) {
    const auto serve = [&] { RpcServer(ill.target, handler(), {.security = ill.security}); };
    EXPECT_PRED_FORMAT2(testing::IsSubstring, ill.complaint, complaintOf(serve)) << ill.target;
  }
  EXPECT_TRUE(std::filesystem::exists(folder / "datagrams")) << "taken from who serves there";
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "exclude each other",
                      complaintOf([&] { configureCalls({.security = both}); }));
}

TEST_F(Security, CannotReplaceADeadSocketOfAnotherUser) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "takes root, to be two users";
  }
  using std::filesystem::perms;
  std::filesystem::permissions(folder, perms::all | perms::sticky_bit);
  const std::filesystem::path path = folder / "dead";
  (void)openSocket(path, bind);
  for (const perms mode : {perms::owner_read | perms::owner_write, perms::all}) {
    std::filesystem::permissions(path, mode);
    constexpr uid_t kNobody = 65534;
    ASSERT_EQ(seteuid(kNobody), 0);
    const std::string complaint =
        complaintOf([&] { RpcServer("unix:" + path.string(), handler()); });
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_PRED_FORMAT2(testing::IsSubstring, "another user's socket is there", complaint);
  }
}

TEST_F(Security, LeavesItsSuccessorsSocket) {
  std::optional<RpcServer> first(std::in_place, target, handler());
  std::filesystem::remove(folder / "socket");
  const RpcServer second(target, handler());
  first.reset();
  expectCall(kOk);
}

TEST_F(Security, KeepsTheUnixSocketToItsUserAndWarnsOfItsFolder) {
  std::filesystem::create_directory(folder / "inner");
  umask(0);
  constexpr uid_t kSomebody = 65534;
  struct Case {
    mode_t folder;
    bool warns;
    uid_t owner = geteuid();
    const char* inner = "";
  };
  for (const Case& place : {Case{0700, false}, Case{01777, false}, Case{0777, true},
                            Case{0777, true, geteuid(), "inner"}, Case{01777, true, kSomebody}}) {
    chmod(folder.c_str(), place.folder);
    if (chown(folder.c_str(), place.owner, static_cast<gid_t>(-1)) != 0) {
      GTEST_SKIP() << "only root can give a folder away";
    }
    testing::internal::CaptureStderr();
    const std::filesystem::path socket = folder / place.inner / "socket";
    const FileDescriptor changes(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(changes.get(), socket.parent_path().c_str(), IN_ATTRIB), 0);
    const RpcServer server("unix:" + socket.string(), handler());
    const std::string said = testing::internal::GetCapturedStderr();
    const std::string warning = "warning: others may replace the socket in " +
                                std::filesystem::canonical(folder).string() + ",";
    EXPECT_EQ(said.find(warning) != std::string::npos, place.warns) << said;
    struct stat status {};
    ASSERT_EQ(stat(socket.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    std::array<char, 512> change{};  // one with a name
    EXPECT_LT(read(changes.get(), change.data(), change.size()), 0) << "another mode at first";
  }
}

TEST_F(Security, RefusesMessagesBeyondTheLimitByASentence) {
  constexpr uint32_t kMost = 1000;
  std::atomic<size_t> replyBytes = 0;
  RpcServer server(target,
                   [&](const std::string&, std::span<const uint8_t> request) {
                     ++handled_;
                     EXPECT_LE(request.size(), kMost);
                     return Answer{AnswerStatus::ok, {}, Bytes(replyBytes, 'x')};
                   },
                   {.limits = {.messageBytes = kMost}});
  grpc::ChannelArguments zipped;
  zipped.SetCompressionAlgorithm(GRPC_COMPRESS_GZIP);
  struct Case {
    size_t request;
    size_t reply;
    grpc::ChannelArguments arguments;
    grpc::StatusCode code;
    const char* words;
  };
  constexpr grpc::StatusCode kExhausted = grpc::StatusCode::RESOURCE_EXHAUSTED;
  constexpr char kReplyTooLarge[] = "the reply has 1001 bytes, and this server sends 1000 at most";
  const Case cases[] = {
      {kMost, kMost, {}, grpc::StatusCode::OK, ""},
      {kMost + 1, kMost, {}, kExhausted, "1001 vs. 1000"},
      {1, kMost + 1, {}, kExhausted, kReplyTooLarge},
      // What is compressed is not unfolded, but handled as it is.
      {size_t{100} * kMost, kMost + 1, zipped, kExhausted, kReplyTooLarge},
  };
  for (const Case& sent : cases) {
    replyBytes = sent.reply;
    expectStatus(RawCall(target, sent.request, sent.arguments).end(), sent.code, sent.words);
  }
  EXPECT_EQ(handled_, 3);
  EXPECT_EQ(call(), outcome(kTooLarge));

  replyBytes = kMost;
  configureCalls({.messageBytes = kMost - 1});
  EXPECT_EQ(call(), outcome(kTooLarge)) << "beyond the caller's own limit";
  configureCalls({.messageBytes = 8});
  expectCall(kTooLarge);  // a request beyond it
}

constexpr size_t kFarBeyondLimits = 768U << 20U;

class LongAnswers : public grpc::CallbackGenericService {
  struct Reactor : grpc::ServerGenericBidiReactor {
    Reactor() { StartWriteAndFinish(&answer, {}, grpc::Status::OK); }
    void OnDone() override { delete this; }

    grpc::ByteBuffer answer = messageOf(kFarBeyondLimits);
  };
  grpc::ServerGenericBidiReactor* CreateReactor(grpc::GenericCallbackServerContext*) override {
    return new Reactor;
  }
};

// By how many bytes this process grows in between.
size_t growthDuring(const std::function<void()>& act) {
  const auto resident = [](const std::string& what) {
    const std::string status = contentOf("/proc/self/status");
    return std::stoul(status.substr(status.find(what) + what.size())) << 10U;
  };
  std::ofstream("/proc/self/clear_refs") << "5";  // forgets the peak
  const size_t before = resident("VmRSS:");
  act();
  return resident("VmHWM:") - before;
}

// gRPC itself looks at the size of a message only once it has all of it.
TEST_F(Security, KeepsLittleOfMessagesFarBeyondTheLimit) {
  constexpr uint32_t kMost = 1000;
  RpcServer server(target, handler(), {.limits = {.messageBytes = kMost}});
  EXPECT_LT(growthDuring([&] { EXPECT_FALSE(RawCall(target, kFarBeyondLimits).end().ok()); }),
            kFarBeyondLimits / 2);
  EXPECT_EQ(handled_, 0);
  expectCall(kOk);

  configureCalls({.messageBytes = kMost});
  LongAnswers answers;
  const std::string other = "unix:" + (folder / "other").string();
  const auto responder = grpc::ServerBuilder()
                             .AddListeningPort(other, grpc::InsecureServerCredentials())
                             .RegisterCallbackGenericService(&answers)
                             .BuildAndStart();
  aimAt(other);
  EXPECT_LT(growthDuring([] { EXPECT_EQ(call(), outcome(kTooLarge)); }), kFarBeyondLimits / 2);
  aimAt(server.target());
  expectCall(kOk);
}

// Even when the handlers keep every thread busy.
TEST_F(Security, RefusesCallsBeyondTheLimitAtOnceAndEndsLongOnes) {
  constexpr uint32_t kMostCalls = 20;
  std::atomic<bool> slow = true;
  std::atomic<uint32_t> taken = 0;
  RpcServer server(target,
                   [&](const std::string&, std::span<const uint8_t>) {
                     ++handled_;
                     for (int i = 0; i < 2500 && slow; ++i) {
                       std::this_thread::sleep_for(std::chrono::milliseconds(10));
                     }
                     return Answer{AnswerStatus::ok, {}, okReply()};
                   },
                   {.limits = {.calls = kMostCalls, .longestCall = std::chrono::seconds(10)},
                    .policy = [&](const std::string&, const Peer&) {
                      ++taken;
                      return std::string();
                    }});
  Completions completions;
  const AlarmInput alarm = sampleAlarm();
  const Clock::time_point began = Clock::now();
  for (uint32_t i = 0; i < kMostCalls; ++i) {
    EXPECT_EQ(completions.start(&alarm), kOk);
  }
  constexpr int kThreads = 16;
  EXPECT_TRUE(eventually([&] { return handled_ == kThreads && taken == kMostCalls; }));
  expectStatus(RawCall(target).end(), grpc::StatusCode::RESOURCE_EXHAUSTED,
               "the server is at work on 20 calls, and takes no more at a time");
  EXPECT_EQ(call(), outcome(kTooLarge));
  EXPECT_TRUE(completions.wait(0).empty()) << "refused only when the others had ended";
  for (const auto& completed : completions.wait(kMostCalls)) {
    EXPECT_EQ(outcome(completed.result), outcome(kDeadlinePassed));
  }
  EXPECT_LT(Clock::now() - began, std::chrono::seconds(20)) << "they waited for the handlers";
  slow = false;
  EXPECT_TRUE(eventually([] { return call() == outcome(kOk); })) << "once they have returned";
}

// gRPC tells this side of a reply's end some time after its reader has it.
TEST_F(Security, TakesEveryCallOfCallersThatKeepTheLimit) {
  for (const uint32_t callers : {1U, 8U}) {
    const RpcServer server(target, answerOk, {.limits = {.messageBytes = 300, .calls = callers}});
    EXPECT_TRUE(recovers()) << "connected before all ask at once";
    onThreads(callers, [&](uint32_t) {
      for (int i = 0; i < 400; ++i) {
        ASSERT_EQ(call(), outcome(kOk)) << i;
      }
    });
  }
}

// What the policy or the handler throws costs no place.
TEST_F(Security, SurvivesWhatIsThrown) {
  std::atomic<bool> bad = true;
  const RpcServer server(target,
                         [&](const std::string&, std::span<const uint8_t>) {
                           if (bad) throw 1;
                           return Answer{{}, {}, okReply()};
                         },
                         {.limits = {.calls = 1}, .policy = [&](const std::string&, const Peer&) {
                            if (handled_++ % 2 == 0 && bad) throw std::bad_alloc();
                            return std::string();
                          }});
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(call(), outcome(kGrpcStatus + 13));
  }
  bad = false;
  EXPECT_EQ(call(), outcome(kOk));
}

TEST_F(Security, EndsCallsWhoseReplyIsNotRead) {
  constexpr uint32_t kCalls = 4;
  constexpr int kPlaces = 5;  // for the largest replies: one more than calls
  RpcServer server(target,
                   [&](const std::string&, std::span<const uint8_t>) {
                     Bytes reply =
                         handled_ < kPlaces ? Bytes(kDefaultMessageBytes, 'x') : okReply();
                     ++handled_;  // last of all, since the test goes on then
                     return Answer{AnswerStatus::ok, {}, std::move(reply)};
                   },
                   {.limits = {.calls = kCalls, .longestCall = std::chrono::seconds(5)}});
  grpc::ChannelArguments unwilling;  // to take in more than it must
  unwilling.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  unwilling.SetInt(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  unwilling.SetInt(GRPC_ARG_HTTP2_STREAM_LOOKAHEAD_BYTES, 1024);
  std::deque<RawCall> unread;
  for (int i = 1; i <= kPlaces; ++i) {
    unread.emplace_back(target, 1, unwilling);
    ASSERT_TRUE(eventually([&] { return handled_ == i; }));
  }
  EXPECT_TRUE(eventually([] { return call() == outcome(kTooLarge); })) << "room for so many";
  EXPECT_TRUE(eventually([&] { return call() == outcome(kOk); })) << "they keep their places";
  EXPECT_EQ(unread.front().end().error_code(), grpc::StatusCode::CANCELLED);
}

}  // namespace
}  // namespace kel::host::test
