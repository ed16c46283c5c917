// Faults between caller and server, one after the other: each call ends in exactly one result, no
// alarm is kept twice, and afterwards everything is as before.
#include <fcntl.h>
#include <fmt/format.h>
#include <malloc.h>
#include <signal.h>
#include <sys/file.h>
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

#include "host/field_text.hpp"
#include "host/file_descriptor.hpp"
#include "host/os_allocator.hpp"
#include "host/qarne_client.hpp"
#include "host/result_code.hpp"
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

// Whose memory comes back late, or never.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

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

  // Returns the result of the synchronous one, when both have ended.
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
    first.ends.wait(0);
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
      if (how == kOk) {
        EXPECT_NE(reply.find(fmt::format("measured {},", number)), std::string::npos) << reply;
      }
      ++ends;
      ends.notify_all();
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

  [[nodiscard]] std::unique_ptr<RunningProgram> startMaster(
      const std::string& where, const std::vector<std::string>& more = {},
      const std::string& ready = "listens on") const {
    std::vector<std::string> arguments = {"--listen", where, "--config", folder / "rules.json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<RunningProgram>(beside("kel_master"), arguments, folder / "output",
                                            ready);
  }

  [[nodiscard]] std::unique_ptr<RunningProgram> startMaster() const { return startMaster(target); }

  // Of all servers so far.
  std::string output() {
    std::ifstream file(folder / "output");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  static std::string call(uintptr_t deadlineMs = kDeadlineMs) {
    std::string reply;
    return outcome(sendAlarm(sampleAlarm(), reply, deadlineMs));
  }

  // Runs a fault twice, since the first time leaves what is made once, and compares: this process,
  // and the server if it is the same one all the time.
  static void expectNothingLeft(const std::function<void()>& fault,
                                const RunningProgram* server = nullptr) {
    fault();
    waitForCompletions();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const Use before = useOf(server);
    fault();
    waitForCompletions();
    EXPECT_TRUE(eventually([&] { return useOf(server).isWithin(before); }))
        << useOf(server).words() << "\nafter\n"
        << before.words();
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }

 private:
  struct Use {
    size_t descriptors;
    size_t memory;
    size_t serverDescriptors = 0;
    size_t serverMemory = 0;

    [[nodiscard]] bool isWithin(const Use& other) const {
      constexpr size_t kTolerance = 256U << 10U;         // gRPC and the allocator keep caches
      constexpr size_t kServerTolerance = 4096U << 10U;  // and give back whole pages only
      return descriptors <= other.descriptors && memory <= other.memory + kTolerance &&
             serverDescriptors <= other.serverDescriptors &&
             (kSanitized || serverMemory <= other.serverMemory + kServerTolerance);
    }
    [[nodiscard]] std::string words() const {
      return fmt::format("{} descriptors, {} bytes here; {} descriptors, {} bytes at the server",
                         descriptors, memory, serverDescriptors, serverMemory);
    }
  };

  static Use useOf(const RunningProgram* server) {
    Use use{openDescriptors(), mallinfo2().uordblks};
    if (server != nullptr) {
      const std::string process = std::to_string(server->id());
      use.serverDescriptors = openDescriptors(process);
      size_t all = 0;
      std::ifstream(fmt::format("/proc/{}/statm", process)) >> all >> use.serverMemory;
      use.serverMemory *= static_cast<size_t>(getpagesize());
    }
    return use;
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
      // The first may have joined an attempt to connect that failed while there was no server.
      EXPECT_TRUE(call() == outcome(kOk) || call() == outcome(kOk)) << i;
    }
    load.stop();
    load.check(output());
    EXPECT_GE(load.count(kOk), size_t{kRounds}) << load.summary();
    std::filesystem::remove(folder / "output");
  });
}

TEST_F(Faults, ServerStoppedAndContinued) {
  const auto master = startMaster();
  EXPECT_EQ(call(), outcome(kOk));
  expectNothingLeft(
      [&] {
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
      },
      master.get());
}

TEST_F(Faults, ConnectionsCutAndCorruptedAtEveryTenthByte) {
  const auto master = startMaster();
  Relay relay(folder / "relay", folder / "socket");
  aimAt("unix:" + (folder / "relay").string());
  EXPECT_EQ(call(), outcome(kOk));
  constexpr std::chrono::milliseconds kNoticing(15);  // that a connection has been cut
  const size_t speech = relay.longestSpeech();
  EXPECT_GT(speech, 100U);
  expectNothingLeft(
      [&] {
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
      },
      master.get());
}

TEST_F(Faults, DescriptorsExhaustedAtTheServer) {
  const auto master = startMaster();
  const std::string id = std::to_string(master->id());
  EXPECT_EQ(call(), outcome(kOk));
  const size_t before = openDescriptors(id);
  const rlimit few{before + 20, before + 20};
  ASSERT_EQ(prlimit(master->id(), RLIMIT_NOFILE, &few, nullptr), 0);
  expectNothingLeft(
      [&] {
        std::vector<int> idlers;
        for (int i = 0; i < 100; ++i) {
          idlers.push_back(connectTo(folder / "socket"));
        }
        EXPECT_EQ(call(), outcome(kOk)) << "on a connection that is there already";
        EXPECT_TRUE(eventually([&] {
          configureCalls({});  // gives the connection up, and so a descriptor, if there is one
          idlers.push_back(connectTo(folder / "socket"));
          idlers.push_back(connectTo(folder / "socket"));
          const Clock::time_point began = Clock::now();
          const std::string result = call();
          EXPECT_LT(Clock::now() - began, kSoon);
          return result == outcome(kUnreachable);
        })) << "on a new one";
        std::ranges::for_each(idlers, close);
        EXPECT_TRUE(eventually([&] { return openDescriptors(id) <= before; }));
        EXPECT_EQ(call(), outcome(kOk));
      },
      master.get());
}

TEST_F(Faults, DescriptorsExhaustedAtTheCaller) {
  const auto master = startMaster();
  EXPECT_EQ(call(), outcome(kOk));
  EXPECT_EQ(call(), outcome(kOk));  // a sanitizer takes descriptors to examine what it sees first
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
        masters.push_back(startMaster(target, {}, ""));
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
    const std::string said = master.output();
    const std::string port = said.substr(said.find("127.0.0.1:") + 10);
    return port.substr(0, port.find('\n'));
  };
  const auto steady = startMaster("127.0.0.1:0", options);
  const std::string steadyPort = portOf(*steady);
  auto mortal = startMaster("127.0.0.1:0", options);
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
  mortal = startMaster(mortalAddress, options);
  EXPECT_TRUE(mortal->says("measured")) << "nothing goes to the one that is back";
  load.stop();
  load.check(output());
  // Each thread had two calls in flight at most. The request of one or the other may not have left.
  const size_t lost = load.count(kConnectionLost) + load.count(kUnreachable);
  EXPECT_LE(lost, 2U * kThreads) << load.summary();
  EXPECT_EQ(load.count(kOk) + lost, load.calls()) << load.summary();
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

class ServingFaults : public Faults {
 protected:
  ServingFaults() {
    std::filesystem::create_directory(images);
    aimAt("unix:" + (folder / "master").string());
  }

  // With its own view of what is mounted where, in which the images' folder has room for half a
  // megabyte. Null where that is not to be had.
  std::unique_ptr<RunningProgram> serveOnSmallDisk() {
    const std::string script = fmt::format(
        "mount -t tmpfs -o size=512k none {0} && exec {1} serve --listen {2} --images {0}",
        images.string(), beside("kel_host").string(), target);
    std::vector<std::string> arguments = {"--mount"};
    if (geteuid() != 0) {
      arguments.push_back("--map-root-user");
    }
    arguments.insert(arguments.end(), {"sh", "-c", script});
    auto host =
        std::make_unique<RunningProgram>("/usr/bin/unshare", arguments, folder / "host.output");
    return host->says("listens on") ? std::move(host) : nullptr;
  }

  ResultCode format(const std::string& name) const {
    ResetDiskCondition condition{};
    putText(condition.bytes50, name);
    const auto reply = QarneClient(target, kFormatMs).call(kResetDiskMakeFS, condition);
    EXPECT_EQ(outcome(reply.result()), outcome(kOk));
    return ResultCode{reply->result};
  }

  // The program that the host runs at this moment; 0 if there is none.
  static pid_t haltChildOf(const RunningProgram& host) {
    pid_t child = 0;
    for (const auto& thread :
         std::filesystem::directory_iterator(fmt::format("/proc/{}/task", host.id()))) {
      if (std::ifstream(thread.path() / "children") >> child) {
        break;
      }
    }
    std::string name;
    char state = '-';
    if (child != 0 && kill(child, SIGSTOP) == 0) {
      std::ifstream(fmt::format("/proc/{}/stat", child)) >> child >> name >> state;
    }
    return state == 'T' ? child : 0;
  }

  // All that there is room for.
  static void fill(const std::filesystem::path& file) {
    std::ofstream filler(file);
    while (filler.put('x').flush()) {
    }
    EXPECT_EQ(errno, ENOSPC);
  }

  static void addImage(const std::filesystem::path& file, uintmax_t bytes) {
    std::ofstream(file).put('x');
    std::filesystem::resize_file(file, bytes);
  }

  static constexpr uint32_t kFormatMs = 60'000;
  const std::filesystem::path images = folder / "images";
};

TEST_F(ServingFaults, DiskOfTheImagesFull) {
  const auto host = serveOnSmallDisk();
  if (host == nullptr) {
    GTEST_SKIP() << "no disk of its own is to be had here";
  }
  // The folder as the host sees it.
  const std::filesystem::path seen = fmt::format("/proc/{}/root{}", host->id(), images.string());
  expectNothingLeft(
      [&] {
        addImage(seen / "disk.img", uintmax_t{8} << 20U);
        fill(seen / "filler");
        EXPECT_EQ(describe(format("disk.img")), describe(ResultCode::failed));
        std::filesystem::remove(seen / "filler");
        EXPECT_EQ(describe(format("disk.img")), describe(ResultCode::done));
      },
      host.get());
  EXPECT_NE(host->output().find("mkfs.ext4: No space left on device"), std::string::npos);
  host->signal(SIGTERM);
  EXPECT_EQ(host->end(), 0) << host->output();
}

// What a host is at work on when it is told to stop still ends well, and new calls find nobody.
TEST_F(ServingFaults, OrderlyShutdownOfAHost) {
  addImage(images / "disk.img", uintmax_t{8} << 20U);
  RunningProgram host(beside("kel_host"), {"serve", "--listen", target, "--images", images},
                      folder / "host.output", "listens on");
  std::atomic<pid_t> making = 0;
  std::thread caller([&] {
    do {
      EXPECT_EQ(describe(format("disk.img")), describe(ResultCode::done));
    } while (making == 0);
  });
  EXPECT_TRUE(eventually([&] { return (making = haltChildOf(host)) != 0; }));
  host.signal(SIGTERM);
  EXPECT_TRUE(eventually([&] {
    return QarneClient(target, kDeadlineMs).call(kBrdPartInfoQuery, {}).result() == kUnreachable;
  }));
  kill(making, SIGCONT);
  caller.join();
  EXPECT_EQ(host.end(), 0) << host.output();
  EXPECT_NE(host.output().find(" 0 are outstanding"), std::string::npos);
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
    EXPECT_TRUE(eventually([] { return call() == outcome(kUnreachable); })) << "a new call";
    caller.join();
    stopper.join();
    EXPECT_EQ(inFlight == outcome(kOk), patient) << inFlight;
  }
}

}  // namespace
}  // namespace kel::host::test
