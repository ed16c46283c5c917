// The policy of a short list of names.
#include "host/peer_policy.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>

namespace kel::host {
namespace {

// Characters of a peer's names: a refusal beyond what a caller takes of headers does not arrive.
constexpr int kMostShown = 300;

}  // namespace

PeerPolicy restrictTo(std::vector<std::string> names, std::span<const std::string_view> paths) {
  return
      [names = std::move(names), restricted = std::vector<std::string>(paths.begin(), paths.end())](
          const std::string& path, const Peer& peer) {
        if (peer.local || std::ranges::find(restricted, path) == restricted.end() ||
            std::ranges::find_first_of(peer.names, names) != peer.names.end()) {
          return std::string();
        }
        return peer.names.empty()
                   ? fmt::format("{} is not open to peers without a name", path)
                   : fmt::format("{} is not open to {:.{}}", path,
                                 fmt::format("{}", fmt::join(peer.names, ", ")), kMostShown);
      };
}

}  // namespace kel::host
