// Puts readers, thresholds and disk images together.
#include "host/diagnostics.hpp"

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/field_text.hpp"
#include "host/lines.hpp"

namespace kel::host {
namespace {

bool canBeMountPoint(const std::string& text) { return text.starts_with('/'); }

}  // namespace

Diagnostics::Diagnostics(Settings settings) : settings_(std::move(settings)) {
  if (!settings_.imageFolder.empty()) {
    images_ = std::make_unique<DiskImages>(settings_.imageFolder);
  }
}

ResultCode Diagnostics::setThreshold(const std::string& mountPoint, uint32_t percent) {
  if (!canBeMountPoint(mountPoint) || percent > DiskThresholds::kHighest) {
    return ResultCode::badArgument;
  }
  if (percent == 0) {
    return thresholds_.remove(mountPoint) ? ResultCode::done : ResultCode::notFound;
  }
  if (!findMount(readMounts(root()), mountPoint)) {
    return ResultCode::notFound;
  }
  thresholds_.set(mountPoint, percent);
  return ResultCode::done;
}

Diagnostics::UseReport Diagnostics::reportUse(const std::string& mountPoint) {
  if (!canBeMountPoint(mountPoint)) {
    return {ResultCode::badArgument, {}, {}, 0};
  }
  const auto mount = findMount(readMounts(root()), mountPoint);
  if (!mount) {
    return {ResultCode::notFound, {}, {}, 0};
  }
  const auto use = measureUse(root() / mountPoint.substr(1));
  if (!use) {
    const int error = errno;
    if (error == EACCES) {
      return {ResultCode::rightMissing, *mount, {}, 0};
    }
    complain(fmt::format("cannot measure {}: {}", shown(mountPoint), std::strerror(error)));
    return {ResultCode::failed, *mount, {}, 0};
  }
  const DiskThresholds::Verdict verdict = thresholds_.compare(mountPoint, use->usedPercent);
  if (verdict.newlyPassed && settings_.onOverload) {
    settings_.onOverload({*mount, *use, verdict.threshold, verdict.number});
  }
  return {ResultCode::done, *mount, *use, verdict.threshold};
}

ResultCode Diagnostics::formatImage(const std::string& name) {
  return images_ == nullptr ? ResultCode::noImageFolder : images_->format(name);
}

ResultCode Diagnostics::mountImage(const std::string& name) {
  return images_ == nullptr ? ResultCode::noImageFolder : images_->mount(name);
}

}  // namespace kel::host
