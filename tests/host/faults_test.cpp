// Faults between caller and server, one after the other: each call ends in exactly one result, no
// alarm is kept twice, and afterwards everything is as before.
#include <fmt/ranges.h>
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <deque>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <thread>

#include "host/field_text.hpp"
#include "host/os_allocator.hpp"
#include "host/qarne_client.hpp"
#include "host/result_code.hpp"
#include "host/rpc_server.hpp"
#include "tests/host/running_program.hpp"
#include "tests/host/scripted_server.hpp"
#include "tests/host/test_authority.hpp"

namespace kel::host::test {
namespace {

// Whose memory comes back late, or never.
constexpr bool kSanitized = KEL_SANITIZED;

constexpr int kKilled = kSanitized || KEL_EMULATED ? 8 : 25;  // servers, in each of two runs

// Numbered calls by both ways, and what became of them.
class Load {
 public:
  ~Load() { stop(); }

  void start(int threads) {
    for (int i = 0; i < threads; ++i) {
      threads_.emplace_back([this] {
        while (!stopping_) {
          if (callBothWays(kCallMs) != kOk) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
        }
      });
    }
  }

  void stop() {
    stopping_ = true;
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

  // After stop. Each call has one result, a success or the loss of its server; output tells what
  // the servers have kept: all that succeeded, nothing of what never left, nothing twice, and
  // without losses nothing else. Returns how many failed.
  size_t check(const std::string& output, bool losses = true) {
    std::map<uint32_t, int> kept;
    constexpr std::string_view kMark = "measured ";
    for (size_t at = 0; (at = output.find(kMark, at)) != std::string::npos;) {
      at += kMark.size();
      ++kept[static_cast<uint32_t>(std::stoul(output.substr(at, 10)))];
    }
    size_t failed = 0;
    for (const Call& call : calls_) {
      const bool succeeded = call.result == kOk;
      const bool lost = call.result == kConnectionLost;
      EXPECT_EQ(call.ends, 1);
      EXPECT_TRUE(succeeded || lost || call.result == kUnreachable) << outcome(call.result);
      EXPECT_LE(kept[call.number], succeeded || (lost && losses) ? 1 : 0) << outcome(call.result);
      EXPECT_GE(kept[call.number], succeeded ? 1 : 0);
      failed += succeeded ? 0U : 1U;
    }
    return failed;
  }

 private:
  struct Call {
    uint32_t number;
    std::atomic<int> ends = 0;
    int32_t result = kOk;

    void end(int32_t how, const std::string& reply) {
      result = how;
      if (how == kOk) {
        EXPECT_PRED_FORMAT2(testing::IsSubstring, fmt::format("measured {},", number), reply);
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
  std::atomic<bool> stopping_ = false;
  std::vector<std::jthread> threads_;
};

class Faults : public HostFixture {
 protected:
  Faults() {
    std::ofstream(folder / "rules.json") << R"({"rules": []})";
    signal(SIGPIPE, SIG_IGN);
  }

  [[nodiscard]] std::unique_ptr<RunningProgram> startMaster(
      const std::string& where, const Arguments& more = {},
      const std::string& ready = "listens on") const {
    return startMasterWithOutput(outputs, where, more, ready);
  }

  [[nodiscard]] std::unique_ptr<RunningProgram> startMasterWithOutput(
      const std::filesystem::path& output, const std::string& where, const Arguments& more,
      const std::string& ready = "listens on") const {
    return std::make_unique<RunningProgram>(
        built("kel_master") + Arguments{"--listen", where, "--config", folder / "rules.json"} +
            more,
        output, ready);
  }

  // Runs a fault twice, since the first time leaves what is made once, and compares: this process,
  // and the server if it is the same one all the time.
  static void expectNothingLeft(const std::function<void()>& fault,
                                const RunningProgram* server = nullptr) {
    // gRPC and the allocator keep caches, and a server gives back whole pages only.
    constexpr Use kTolerance = {0, 256U << 10U, 0, kSanitized ? SIZE_MAX / 2 : 4096U << 10U};
    fault();
    waitForCompletions();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const Use before = useOf(server);
    fault();
    waitForCompletions();
    Use after{};
    const auto isBack = [&] {
      after = useOf(server);
      bool within = true;
      for (size_t i = 0; i < after.size(); ++i) {
        within = within && after[i] <= before[i] + kTolerance[i];
      }
      return within;
    };
    EXPECT_TRUE(eventually(isBack)) << fmt::format("{}\nafter\n{}", after, before);
    EXPECT_EQ(allocatorUse().outstanding, 0U);
  }

  // One server after the other ends under load.
  void endUnderLoad(int number, int rounds) const {
    const bool orderly = number == SIGTERM;
    expectNothingLeft([&] {
      auto master = startMaster(target);
      Load load;
      load.start(2);
      for (int i = 0; i < rounds; ++i) {
        EXPECT_TRUE(master->says("measured"));
        master->signal(number);
        EXPECT_EQ(master->end(), orderly ? 0 : -1) << master->output();
        master = startMaster(target);
        EXPECT_TRUE(recovers()) << i;
      }
      load.stop();
      load.check(contentOf(outputs), !orderly);
      std::filesystem::remove(outputs);
    });
  }

  static void halt(const RunningProgram& server) {
    server.signal(SIGSTOP);
    siginfo_t stopped{};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(server.id()), &stopped, WSTOPPED), 0);
  }

  const std::filesystem::path outputs = folder / "output";  // of masters that share it

 private:
  // Descriptors and bytes here, and at the server.
  using Use = std::array<size_t, 4>;

  static Use useOf(const RunningProgram* server) {
    Use use = {openDescriptors(), mallinfo2().uordblks};
    if (server != nullptr) {
      const std::string process = std::to_string(server->id());
      use[2] = openDescriptors(process);
      size_t all = 0;
      std::ifstream(fmt::format("/proc/{}/statm", process)) >> all >> use[3];
      use[3] *= static_cast<size_t>(getpagesize());
    }
    return use;
  }
};

TEST_F(Faults, ServerKilledAndRestartedUnderLoad) { endUnderLoad(SIGKILL, kKilled); }

TEST_F(Faults, OrderlyShutdown) { endUnderLoad(SIGTERM, 3); }

TEST_F(Faults, ServerStoppedAndContinued) {
  const auto master = startMaster(target);
  EXPECT_EQ(call(), outcome(kOk));
  expectNothingLeft(
      [&] {
        Load load;
        for (int i = 0; i < 5; ++i) {
          halt(*master);
          const int32_t result = load.callBothWays(50);
          EXPECT_TRUE(result == kDeadlinePassed || result == kNotSent) << outcome(result);
          master->signal(SIGCONT);
          EXPECT_EQ(load.callBothWays(kCallMs), kOk);
        }
        load.stop();
      },
      master.get());
}

// The kernel takes connections for it. Those that it greets after all are used or closed.
TEST_F(Faults, ServerThatGreetsLate) {
  constexpr std::chrono::milliseconds kLate(3500);  // for a first attempt to connect
  const auto master = startMaster(target);
  const std::string id = std::to_string(master->id());
  EXPECT_EQ(call(), outcome(kOk));
  const size_t here = openDescriptors();
  const size_t there = openDescriptors(id);
  configureCalls({});  // gives that connection up
  halt(*master);
  Load load;
  for (const Clock::time_point began = Clock::now(); Clock::now() - began < kLate;) {
    const int32_t result = load.callBothWays(100);
    EXPECT_TRUE(result == kNotSent || result == kUnreachable) << outcome(result);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  master->signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return load.callBothWays(kCallMs) == kOk; }));
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= here && openDescriptors(id) <= there; }))
      << "a connection is left";
}

TEST_F(Faults, ConnectionsCutAndCorruptedAtEveryTenthByte) {
  size_t speech = 0;
  const auto callBothWays = [&](Script::Damage damage, size_t position) {
    // Gives the last server up, after every attempt to connect to it has failed.
    EXPECT_TRUE(eventually([] { return call() == outcome(kUnreachable); }));
    waitForCompletions();
    configureCalls({});
    const ScriptedServer server(folder / "socket", {.damage = damage, .position = position});
    const uintptr_t deadlineMs = damage == Script::Damage::none ? kCallMs : 100;
    const Clock::time_point began = Clock::now();
    const AlarmInput alarm = sampleAlarm();
    Completions completions;
    EXPECT_EQ(completions.start(&alarm, deadlineMs), kOk);
    const bool succeeded = call(deadlineMs) == outcome(kOk);
    const auto completed = completions.wait(1);
    EXPECT_EQ(completed.size(), 1U);
    EXPECT_LT(Clock::now() - began, kSoon);
    EXPECT_LE(server.requests(), 2U) << "sent twice";
    speech = server.bytesSaid();
    return succeeded && completed.at(0).result == kOk;
  };
  EXPECT_TRUE(callBothWays(Script::Damage::none, 0));
  const size_t whole = speech;
  expectNothingLeft([&] {
    size_t failed = 0;
    bool cuts = true;
    for (size_t position = 0; position < whole; position += 5, cuts = !cuts) {
      SCOPED_TRACE(fmt::format("{} at {}", cuts ? "cut" : "corrupted", position));
      const Script::Damage damage = cuts ? Script::Damage::cut : Script::Damage::corrupt;
      failed += callBothWays(damage, position) ? 0U : 1U;
      EXPECT_TRUE(callBothWays(Script::Damage::none, 0));
    }
    EXPECT_GT(failed, whole / 10) << "of twice as many that were damaged";
  });
}

TEST_F(Faults, DescriptorsExhaustedAtTheServer) {
  const auto master = startMaster(target);
  const std::string id = std::to_string(master->id());
  EXPECT_EQ(call(), outcome(kOk));
  const size_t before = openDescriptors(id);
  const rlimit few{before + 20, before + 20};
  ASSERT_EQ(prlimit(master->id(), RLIMIT_NOFILE, &few, nullptr), 0);
  expectNothingLeft(
      [&] {
        std::vector<FileDescriptor> idlers;
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
        idlers.clear();
        EXPECT_TRUE(eventually([&] { return openDescriptors(id) <= before; }));
        EXPECT_EQ(call(), outcome(kOk));
      },
      master.get());
}

TEST_F(Faults, DescriptorsExhaustedAtTheCaller) {
  const auto master = startMaster(target);
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

// A server's first byte, which it says unasked; the end of the connection is 0.
ssize_t receiveOne(const FileDescriptor& connection) {
  const timeval patience{20, 0};
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  char byte = 0;
  return recv(connection.get(), &byte, 1, 0);
}

// A connection that there is no descriptor for waits until there is one, and costs nothing.
TEST_F(Faults, NoDescriptorForAConnection) {
  const RpcServer server(target, answerOk);
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  expectNothingLeft([&] {
    const rlimit few{2, usual.rlim_max};  // all taken; fewer are also too few for poll
    const FileDescriptor caller =
        connectTo(folder / "socket", [&] { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0); });
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 50) << "tries all the time";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(receiveOne(caller), 1) << "not served";
  });
}

TEST_F(Faults, CallersThatConnectAndSayNothing) {
  RpcServer server(target, answerOk, {.limits = {.handshake = std::chrono::seconds(1)}});
  expectNothingLeft([&] {
    std::vector<FileDescriptor> silent;
    for (int i = 0; i < 50; ++i) {
      silent.push_back(connectTo(folder / "socket"));
    }
    EXPECT_EQ(call(), outcome(kOk));
    for (const FileDescriptor& one : silent) {
      ssize_t length = 0;
      while ((length = receiveOne(one)) > 0) {
      }
      EXPECT_EQ(length, 0) << "not closed";
    }
    EXPECT_EQ(call(), outcome(kOk));
  });
}

// One that keeps asking until the server has more to say than its connection takes.
TEST_F(Faults, ShutdownWithACallerThatReadsNothing) {
  const std::string greeting = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
  std::string settings;  // each is to be acknowledged
  for (int i = 0; i < 1000; ++i) {
    settings.append({0, 0, 0, 4, 0, 0, 0, 0, 0});
  }
  RpcServer server(target, answerOk);
  const FileDescriptor silent = connectTo(folder / "socket");
  const timeval patience{0, 300'000};
  setsockopt(silent.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  EXPECT_GT(send(silent.get(), greeting.data(), greeting.size(), 0), 0);
  while (send(silent.get(), settings.data(), settings.size(), 0) ==
         static_cast<ssize_t>(settings.size())) {
  }
  EXPECT_EQ(call(), outcome(kOk));
  const Clock::time_point began = Clock::now();
  server.stop(std::chrono::milliseconds(100));
  EXPECT_LT(Clock::now() - began, kSoon);
}

TEST_F(Faults, SeveralServersOnOneSocket) {
  expectNothingLeft([&] {
    startMaster(target)->signal(SIGKILL);  // leaves its socket
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
      EXPECT_TRUE(eventually([] { return call() == outcome(kOk); }))
          << "an attempt to connect may have begun before it listened, but not the next one";
    }
  });
}

TEST_F(Faults, OneOfTwoServersDies) {
  const TestAuthority authority(folder, "authority");
  const TlsFiles files = authority.issue("server", "subjectAltName=DNS:kel-server");
  const std::vector<std::string> options = optionsOf(files);
  const auto steady = startMaster("127.0.0.1:0", options);
  const std::filesystem::path mortalOutput = folder / "mortal.output";
  auto mortal = startMasterWithOutput(mortalOutput, "127.0.0.1:0", options);
  const std::string mortalAddress = mortal->address();
  configureCalls({.security = {readTlsFiles(files)}, .serverName = "kel-server"});
  aimAt(fmt::format("ipv4:{},{}", mortalAddress, steady->address()));

  constexpr int kThreads = 3;
  Load load;
  load.start(kThreads);
  EXPECT_TRUE(mortal->says("measured")) << "nothing goes to one of the two";
  mortal->signal(SIGKILL);
  mortal->end();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // for calls while there is one
  mortal = startMasterWithOutput(mortalOutput, mortalAddress, options);
  EXPECT_TRUE(mortal->says("measured")) << "nothing goes to the one that is back";
  load.stop();
  EXPECT_LE(load.check(contentOf(outputs) + contentOf(mortalOutput)), 8U * kThreads)
      << "each has two in flight, and may pick the dying connection until its end is noticed";
}

class ServingFaults : public Faults {
 protected:
  ServingFaults() {
    std::filesystem::create_directory(images);
    aimAt("unix:" + (folder / "master").string());
  }

  ResultCode format(const std::string& name) const {
    ResetDiskCondition condition{};
    putText(condition.bytes50, name);
    const auto reply = QarneClient(target, kCallMs).call(kResetDiskMakeFS, condition);
    EXPECT_EQ(outcome(reply.result()), outcome(kOk));
    return ResultCode{reply->result};
  }

  // The program that the host runs at this moment; 0 if there is none.
  static pid_t haltChildOf(const RunningProgram& host) {
    const std::string threads = fmt::format("/proc/{}/task", host.id());
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
      pid_t child = 0;
      if (std::ifstream(thread.path() / "children") >> child && kill(child, SIGSTOP) == 0 &&
          contentOf(fmt::format("/proc/{}/stat", child)).find(") T ") != std::string::npos) {
        return child;
      }
    }
    return 0;
  }

  const std::filesystem::path images = folder / "images";
};

TEST_F(ServingFaults, DiskOfTheImagesFull) {
  // With its own view of what is mounted where, in which there is room for half a megabyte.
  const std::string script = fmt::format(
      "mount -t tmpfs -o size=512k none {0} && exec {1} serve --listen {2} --images {0}",
      images.string(), fmt::join(built("kel_host"), " "), target);
  RunningProgram host({"unshare", geteuid() == 0 ? "-m" : "-mr", "sh", "-c", script},
                      folder / "host.output");
  if (!host.says("listens on")) {
    GTEST_SKIP() << "no disk of its own is to be had here";
  }
  // The folder as the host sees it.
  const std::filesystem::path seen = fmt::format("/proc/{}/root{}", host.id(), images.string());
  expectNothingLeft(
      [&] {
        addImage(seen / "disk.img");
        std::ofstream filler(seen / "filler");
        while (filler.put('x').flush()) {
        }
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(describe(format("disk.img")), describe(ResultCode::failed));
        std::filesystem::remove(seen / "filler");
        filler.close();
        EXPECT_EQ(describe(format("disk.img")), describe(ResultCode::done));
      },
      &host);
  EXPECT_PRED_FORMAT2(testing::IsSubstring, "mkfs.ext4: No space left on device", host.output());
  host.signal(SIGTERM);
  EXPECT_EQ(host.end(), 0) << host.output();
}

// What a host is at work on when it is told to stop still ends well, and new calls find nobody.
TEST_F(ServingFaults, OrderlyShutdownOfAHost) {
  addImage(images / "disk.img");
  RunningProgram host(
      built("kel_host") + Arguments{"serve", "--listen", target, "--images", images},
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
    return QarneClient(target, kCallMs).call(kBrdPartInfoQuery, {}).result() == kUnreachable;
  }));
  kill(making, SIGCONT);
  caller.join();
  EXPECT_EQ(host.end(), 0) << host.output();
  EXPECT_PRED_FORMAT2(testing::IsSubstring, " 0 are outstanding", host.output());
}

// What is in flight ends well if it can within the grace time, and otherwise at its end.
TEST_F(Faults, ShutdownWithSlowCalls) {
  for (const bool patient : {true, false}) {
    std::atomic<bool> entered = false;
    std::atomic<bool> leaves = false;
    RpcServer server(target, [&](const std::string&, std::span<const uint8_t>) {
      if (!entered.exchange(true)) {
        leaves.wait(false);
      }
      return Answer{AnswerStatus::ok, {}, okReply()};
    });
    std::future<std::string> inFlight = std::async(std::launch::async, [] {
      std::string reply;
      return explain(sendAlarm(sampleAlarm(), reply, kCallMs));
    });
    EXPECT_TRUE(eventually([&] { return entered.load(); }));
    std::thread stopper([&] { server.stop(std::chrono::milliseconds(patient ? kCallMs : 30)); });
    EXPECT_TRUE(eventually([] { return call() == outcome(kUnreachable); })) << "a new call";
    if (!patient) {
      EXPECT_EQ(inFlight.get(), describe(kConnectionLost) + " (Cancelling all calls)")
          << "while the handler is at work, and before connections are cut off";
    }
    leaves = true;
    leaves.notify_all();
    if (patient) {
      EXPECT_EQ(inFlight.get(), describe(kOk));
    }
    stopper.join();
  }
}

}  // namespace
}  // namespace kel::host::test
