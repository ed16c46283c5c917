// What one server spends on its callers at most. For servers and whoever configures them;
// docs/security.md has the reasoning.
#pragma once

#include <chrono>
#include <cstdint>

namespace kel::host {

// Of a request or a reply, in either direction. The messages here are of some hundred bytes; what
// grows is a text.
inline constexpr uint32_t kDefaultMessageBytes = 4U << 20U;

// Of an alarm, as the master keeps it and answers with it.
inline constexpr uint32_t kLongestWords = 4096;

// Every alarm and its reply have to pass: the host takes one that does not for one that the master
// had no time for.
inline constexpr uint32_t kLeastMessageBytes = 2 * kLongestWords;

struct ServerLimits {
  uint32_t messageBytes = kDefaultMessageBytes;
  // Calls at a time, those that wait for a thread included. Times messageBytes it bounds what
  // requests take, beside message_quota's share for connections. Replies that have yet to be read
  // may take as much: when they take more no call is let in, but those at work may double it.
  uint32_t calls = 64;
  // However long a deadline the caller has. Making a file system is the slowest thing that anybody
  // asks for.
  std::chrono::milliseconds longestCall = std::chrono::minutes(5);
  // For a connection to say who it is and that it speaks gRPC.
  std::chrono::milliseconds handshake = std::chrono::seconds(10);
  // After this long without a sign of life a connection is asked for one, and closed if it gives
  // none for as long again.
  std::chrono::milliseconds keepalive = std::chrono::seconds(20);
};

// What calls in flight are given to end by themselves when a server is asked to stop: more than
// callers wait by default.
inline constexpr std::chrono::seconds kShutdownGrace(6);

}  // namespace kel::host
