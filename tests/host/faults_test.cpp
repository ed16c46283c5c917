// Faults between caller and server, one after the other: each call ends in exactly one result, no
// alarm is kept twice, and afterwards everything is as before.
#include <fmt/format.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "host/os_allocator.hpp"
#include "host/rpc_server.hpp"
#include "tests/host/faulty_server.hpp"
#include "tests/host/host_fixture.hpp"
#include "tests/host/relay.hpp"
#include "tests/host/running_program.hpp"
#include "tests/host/test_authority.hpp"

namespace kel::host::test {
namespace {

constexpr std::chrono::seconds kSoon(2);  // bounded time, on a busy machine
constexpr uintptr_t kDeadlineMs = 3000;

// Tries until it holds or time is up.
bool eventually(const std::function<bool()>& holds) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(10);
  while (!holds()) {
    if (Clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// Numbered calls by both ways, and what became of them.
class Load {
 public:
  ~Load() { stop(); }

  void start(int threads) {
    for (int i = 0; i < threads; ++i) {
      threads_.emplace_back([this] {
        while (!stopping_) {
          if (callBothWays(kDeadlineMs) != kOk) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
        }
      });
    }
  }

  void stop() {
    stopping_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
    waitForCompletions();
  }

  // Returns the result of the synchronous one.
  int32_t callBothWays(uintptr_t deadlineMs) {
    Call& first = add();
    const AlarmInput alarm = numbered(first.number);
    const int32_t started = KelSysdiagMaster_KelSendAlarm_async(
        &alarm, reinterpret_cast<uintptr_t>(static_cast<Completion>(complete)),
        reinterpret_cast<uintptr_t>(&first), deadlineMs);
    EXPECT_EQ(outcome(started), outcome(kOk));
    Call& second = add();
    std::string reply;
    const int32_t result = sendAlarm(numbered(second.number), reply, deadlineMs);
    second.end(result, reply);
    return result;
  }

  // After stop. Each call has one result; output tells what the servers have kept: all that
  // succeeded, nothing of what never left, nothing twice, and without losses nothing else.
  void check(const std::string& output, bool losses = true) {
    std::map<uint32_t, int> kept;
    constexpr std::string_view kMark = "measured ";
    for (size_t at = 0; (at = output.find(kMark, at)) != std::string::npos;) {
      at += kMark.size();
      ++kept[static_cast<uint32_t>(std::stoul(output.substr(at, 10)))];
    }
    for (const Call& call : calls_) {
      ASSERT_EQ(call.ends, 1) << call.number;
      const bool mayBeKept = call.result == kOk || (losses && call.result != kUnreachable);
      ASSERT_LE(kept[call.number], mayBeKept ? 1 : 0) << outcome(call.result);
      ASSERT_GE(kept[call.number], call.result == kOk ? 1 : 0);
      ++results_[call.result];
    }
  }

  // After check.
  size_t count(int32_t result) { return results_[result]; }
  [[nodiscard]] size_t calls() const { return calls_.size(); }
  [[nodiscard]] std::string summary() const {
    std::string text;
    for (const auto& [result, count] : results_) {
      text += fmt::format("{} x {}\n", count, outcome(result));
    }
    return text;
  }

 private:
  struct Call {
    uint32_t number;
    std::atomic<int> ends = 0;
    int32_t result = kOk;

    void end(int32_t how, const std::string& reply) {
      result = how;
      ++ends;
      if (how == kOk) {
        EXPECT_NE(reply.find(fmt::format("measured {},", number)), std::string::npos) << reply;
      }
    }
  };

  static AlarmInput numbered(uint32_t number) {
    AlarmInput alarm = sampleAlarm();
    alarm.value3 = number;
    return alarm;
  }

  static void complete(int32_t result, void* output, uintptr_t context) {
    reinterpret_cast<Call*>(context)->end(
        result, output == nullptr ? "" : static_cast<const AlarmOutput*>(output)->text);
  }

  Call& add() {
    const std::scoped_lock lock(mutex_);
    Call& call = calls_.emplace_back();
    call.number = static_cast<uint32_t>(calls_.size());
    return call;
  }

  std::mutex mutex_;
  std::deque<Call> calls_;
  std::map<int32_t, size_t> results_;
  std::atomic<bool> stopping_ = false;
  std::vector<std::thread> threads_;
};

class Faults : public HostFixture {
 protected:
  Faults() {
    std::ofstream(folder / "rules.json") << R"({"rules": []})";
    signal(SIGPIPE, SIG_IGN);
  }
  ~Faults() override { configureCalls({}); }

  [[nodiscard]] std::unique_ptr<RunningProgram> launchMaster(
      const std::string& where, const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {"--listen", where, "--config", folder / "rules.json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<RunningProgram>(beside("kel_master"), arguments, folder / "output");
  }

  [[nodiscard]] std::unique_ptr<RunningProgram> startMaster() const {
    auto master = launchMaster(target);
    EXPECT_TRUE(master->says("listens on")) << master->output();
    return master;
  }

  // Of all servers so far.
  std::string output() {
    std::ifstream file(folder / "output");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  static std::string call(uintptr_t deadlineMs = kDeadlineMs) {
    std::string reply;
    return outcome(sendAlarm(sampleAlarm(), reply, deadlineMs));
  }

  // Runs a fault twice, since the first time leaves what is made once, and compares.
  static void expectNothingLeft(const std::function<void()>& fault) {
    constexpr size_t kTolerance = 256U << 10U;  // gRPC and the allocator keep caches
    fault();
    waitForCompletions();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const size_t descriptors = openDescriptors();
    const size_t memory = mallinfo2().uordblks;
    fault();
    waitForCompletions();
    EXPECT_TRUE(eventually([&] { return openDescriptors() <= descriptors; }))
        << openDescriptors() << " after " << descriptors;
    EXPECT_TRUE(eventually([&] { return mallinfo2().uordblks <= memory + kTolerance; }))
        << mallinfo2().uordblks << " after " << memory;
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }
};

TEST_F(Faults, ServerKilledAndRestartedUnderLoad) {
  expectNothingLeft([&] {
    constexpr int kRounds = 25;  // twice
    auto master = startMaster();
    Load load;
    load.start(2);
    for (int i = 0; i < kRounds; ++i) {
      master->signal(SIGKILL);
      master->end();
      master = startMaster();
      EXPECT_EQ(call(), outcome(kOk)) << i;
    }
    load.stop();
    load.check(output());
    EXPECT_GT(load.count(kOk), 2U * kRounds) << load.summary();
    std::filesystem::remove(folder / "output");
  });
}

TEST_F(Faults, ServerStoppedAndContinued) {
  const auto master = startMaster();
  EXPECT_EQ(call(), outcome(kOk));
  expectNothingLeft([&] {
    Load load;
    for (int i = 0; i < 5; ++i) {
      master->signal(SIGSTOP);
      siginfo_t stopped{};
      EXPECT_EQ(waitid(P_PID, static_cast<id_t>(master->id()), &stopped, WSTOPPED), 0);
      EXPECT_EQ(load.callBothWays(50), kDeadlinePassed);
      master->signal(SIGCONT);
      EXPECT_EQ(load.callBothWays(kDeadlineMs), kOk);
    }
    load.stop();
  });
}

TEST_F(Faults, ConnectionsCutAndCorruptedAtEveryTenthByte) {
  const auto master = startMaster();
  Relay relay(folder / "relay", folder / "socket");
  aimAt("unix:" + (folder / "relay").string());
  EXPECT_EQ(call(), outcome(kOk));
  constexpr std::chrono::milliseconds kNoticing(15);  // that a connection has been cut
  const size_t speech = relay.longestSpeech();
  EXPECT_GT(speech, 100U);
  expectNothingLeft([&] {
    Load load;
    size_t failed = 0;
    for (const Damage::Kind kind : {Damage::Kind::cut, Damage::Kind::corrupt}) {
      for (size_t position = 0; position < speech; position += 10) {
        SCOPED_TRACE(fmt::format("damage {} at {}", static_cast<int>(kind), position));
        relay.cutAndSet({kind, position});
        std::this_thread::sleep_for(kNoticing);
        const Clock::time_point began = Clock::now();
        std::string reply;
        failed += sendAlarm(sampleAlarm(), reply, 100) == kOk ? 0U : 1U;
        EXPECT_LT(Clock::now() - began, kSoon);
        relay.cutAndSet({});
        std::this_thread::sleep_for(kNoticing);
        EXPECT_EQ(load.callBothWays(kDeadlineMs), kOk);
        waitForCompletions();
      }
    }
    EXPECT_GT(failed, speech / 10) << "of twice as many that were damaged";
    load.stop();
    load.check(output());
    EXPECT_EQ(load.count(kOk), load.calls()) << load.summary();
    std::ofstream(folder / "output");  // the next load counts from one again
  });
}

TEST_F(Faults, DescriptorsExhaustedAtTheServer) {
  const auto master = startMaster();
  const std::string id = std::to_string(master->id());
  EXPECT_EQ(call(), outcome(kOk));
  const size_t before = openDescriptors(id);
  const rlimit few{before + 20, before + 20};
  ASSERT_EQ(prlimit(master->id(), RLIMIT_NOFILE, &few, nullptr), 0);
  expectNothingLeft([&] {
    std::vector<int> idlers;
    for (int i = 0; i < 100; ++i) {
      idlers.push_back(connectTo(folder / "socket"));
    }
    EXPECT_EQ(call(), outcome(kOk)) << "on a connection that is there already";
    configureCalls({});  // gives one up
    EXPECT_TRUE(eventually([&] {
      idlers.push_back(connectTo(folder / "socket"));
      return call() != outcome(kOk);
    }));
    const Clock::time_point began = Clock::now();
    EXPECT_EQ(call(), outcome(kUnreachable)) << "on a new one";
    EXPECT_LT(Clock::now() - began, kSoon);
    std::ranges::for_each(idlers, close);
    EXPECT_TRUE(eventually([&] { return openDescriptors(id) <= before; }));
    EXPECT_EQ(call(), outcome(kOk));
  });
}

TEST_F(Faults, DescriptorsExhaustedAtTheCaller) {
  const auto master = startMaster();
  EXPECT_EQ(call(), outcome(kOk));
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  expectNothingLeft([&] {
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(call(), outcome(kOk)) << "on a connection that is there already";
    configureCalls({});
    EXPECT_EQ(call(), outcome(kUnreachable));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(call(), outcome(kOk));
  });
}

TEST_F(Faults, CallersThatConnectAndSayNothing) {
  RpcServer server(target,
                   [](const std::string&, std::span<const uint8_t>) {
                     return Answer{AnswerStatus::ok, {}, okReply()};
                   },
                   {.limits = {.handshake = std::chrono::milliseconds(300)}});
  expectNothingLeft([&] {
    std::vector<int> silent;
    for (int i = 0; i < 50; ++i) {
      silent.push_back(connectTo(folder / "socket"));
    }
    EXPECT_EQ(call(), outcome(kOk));
    for (const int one : silent) {
      const timeval patience{3, 0};
      setsockopt(one, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
      char byte = 0;
      ssize_t length = 0;
      while ((length = recv(one, &byte, 1, 0)) > 0) {  // a server speaks first
      }
      EXPECT_EQ(length, 0) << "not closed";
      close(one);
    }
    EXPECT_EQ(call(), outcome(kOk));
  });
}

TEST_F(Faults, SeveralServersOnOneSocket) {
  expectNothingLeft([&] {
    startMaster()->signal(SIGKILL);  // leaves its socket
    for (int round = 0; round < 5; ++round) {
      std::vector<std::unique_ptr<RunningProgram>> masters;
      for (int i = 0; i < 3; ++i) {
        masters.push_back(launchMaster(target));
      }
      const auto serving = [&] {
        return std::ranges::count_if(masters, [](const auto& master) { return !master->ended(); });
      };
      EXPECT_TRUE(eventually([&] { return serving() <= 1; }));
      EXPECT_EQ(serving(), 1);
      EXPECT_EQ(call(), outcome(kOk));
    }
  });
}

TEST_F(Faults, OneOfTwoServersDies) {
  const TestAuthority authority(folder, "authority");
  const TlsFiles files = authority.issue("server", "subjectAltName=DNS:kel-server");
  const std::vector<std::string> options = {"--tls-ca",        files.authority, "--tls-certificate",
                                            files.certificate, "--tls-key",     files.key};
  const auto portOf = [](const RunningProgram& master) {
    EXPECT_TRUE(master.says("listens on 127.0.0.1:")) << master.output();
    const std::string said = master.output();
    const std::string port = said.substr(said.find("127.0.0.1:") + 10);
    return port.substr(0, port.find('\n'));
  };
  const auto steady = launchMaster("127.0.0.1:0", options);
  const std::string steadyPort = portOf(*steady);
  auto mortal = launchMaster("127.0.0.1:0", options);
  const std::string mortalAddress = "127.0.0.1:" + portOf(*mortal);
  configureCalls({.security = {files}, .serverName = "kel-server"});
  aimAt(fmt::format("ipv4:{},127.0.0.1:{}", mortalAddress, steadyPort));

  constexpr int kThreads = 3;
  Load load;
  load.start(kThreads);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_TRUE(mortal->says("measured")) << "nothing goes to one of the two";
  mortal->signal(SIGKILL);
  mortal->end();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  mortal = launchMaster(mortalAddress, options);
  EXPECT_TRUE(mortal->says("measured")) << "nothing goes to the one that is back";
  load.stop();
  load.check(output());
  // Each thread waits for one call, and has started one more before.
  EXPECT_LE(load.count(kConnectionLost), 2U * kThreads) << load.summary();
  EXPECT_EQ(load.count(kOk) + load.count(kConnectionLost), load.calls()) << load.summary();
}

TEST_F(Faults, OrderlyShutdown) {
  expectNothingLeft([&] {
    Load load;
    auto master = startMaster();
    load.start(2);
    for (int i = 0; i < 3; ++i) {
      EXPECT_TRUE(master->says("measured"));
      master->signal(SIGTERM);
      EXPECT_EQ(master->end(), 0);
      master = startMaster();
    }
    load.stop();
    load.check(output(), false);
    EXPECT_EQ(load.count(kOk) + load.count(kUnreachable) + load.count(kConnectionLost),
              load.calls())
        << load.summary();
    master->signal(SIGTERM);
    EXPECT_EQ(master->end(), 0);
    std::filesystem::remove(folder / "output");
  });
}

// What is in flight ends well if it can within the grace time, and otherwise at its end.
TEST_F(Faults, ShutdownWithSlowCalls) {
  constexpr std::chrono::milliseconds kSlow(300);
  for (const bool patient : {true, false}) {
    std::atomic<bool> entered = false;
    RpcServer server(target, [&](const std::string&, std::span<const uint8_t>) {
      entered = true;
      std::this_thread::sleep_for(kSlow);
      return Answer{AnswerStatus::ok, {}, okReply()};
    });
    std::string inFlight;
    std::thread caller([&] { inFlight = call(); });
    EXPECT_TRUE(eventually([&] { return entered.load(); }));
    std::thread stopper([&] { server.stop(patient ? 10 * kSlow : kSlow / 10); });
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(folder / "socket"); }));
    EXPECT_EQ(call(), outcome(kUnreachable)) << "a new call";
    caller.join();
    stopper.join();
    EXPECT_EQ(inFlight == outcome(kOk), patient) << inFlight;
  }
}

}  // namespace
}  // namespace kel::host::test
