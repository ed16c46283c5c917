// The policy of a short list of names.
#include "host/peer_policy.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>

namespace kel::host {
namespace {

// Characters of a path and of a peer's names: a refusal beyond what a caller takes of headers does
// not arrive.
constexpr int kMostShown = 300;

}  // namespace

PeerPolicy restrictTo(std::vector<std::string> names, std::span<const std::string_view> openPaths) {
  return [names = std::move(names),
          open = std::vector<std::string>(openPaths.begin(), openPaths.end())](
             const std::string& path, const Peer& peer) {
    if (peer.local || std::ranges::find(open, path) != open.end() ||
        std::ranges::find_first_of(peer.names, names) != peer.names.end()) {
      return std::string();
    }
    const std::string whom = peer.names.empty() ? "peers without a name"
                                                : fmt::format("{}", fmt::join(peer.names, ", "));
    return fmt::format("{:.{}} is not open to {:.{}}", path, kMostShown, whom, kMostShown);
  };
}

}  // namespace kel::host
