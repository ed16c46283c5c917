// Opens, formats and mounts the image files.
#include "host/disk_images.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/loop.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "host/child_process.hpp"
#include "host/field_text.hpp"
#include "host/kernel_files.hpp"
#include "host/lines.hpp"

namespace kel::host {
namespace {

using std::filesystem::path;

constexpr std::chrono::seconds kFormatLimit(60);
constexpr char kFileSystem[] = "ext4";
constexpr char kFormatter[] = "mkfs.ext4";

path openPath(int descriptor) { return path("/proc/self/fd") / std::to_string(descriptor); }

ResultCode codeOf(int error) {
  switch (error) {
    case ENOENT:
      return ResultCode::notFound;
    case EACCES:
    case EPERM:
    case EROFS:
      return ResultCode::rightMissing;
    case EBUSY:
      return ResultCode::inUse;
    default:
      return ResultCode::failed;
  }
}

// For the host's operator, who may know what to do about it.
ResultCode report(const char* what, const std::string& name, int error) {
  complain(fmt::format("{} {}: {}", what, shown(name), std::strerror(error)));
  return codeOf(error);
}

bool isPlain(const std::string& name) {
  return name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

// A second name might be one outside of the folder.
bool isFileOfItsOwn(int descriptor) {
  struct stat state {};
  return fstat(descriptor, &state) == 0 && S_ISREG(state.st_mode) && state.st_nlink == 1;
}

// Whether an image is behind a loop device. The device itself tells or, where this user may not
// open it, the path that everybody may read; where want of a descriptor hides that too, it may be.
bool holds(const std::string& loopDevice, const struct stat& image) {
  const FileDescriptor device(::open((path("/dev") / loopDevice).c_str(), O_RDONLY | O_CLOEXEC));
  if (device.isOpen()) {
    loop_info64 info{};
    return ioctl(device.get(), LOOP_GET_STATUS64, &info) == 0 && info.lo_device == image.st_dev &&
           info.lo_inode == image.st_ino;
  }
  const path backingFile = path("/sys/block") / loopDevice / "loop/backing_file";
  const auto file = readText(backingFile);
  if (!file) {
    return access(backingFile.c_str(), F_OK) == 0;
  }
  struct stat state {};
  return stat(file->c_str(), &state) == 0 && state.st_dev == image.st_dev &&
         state.st_ino == image.st_ino;
}

// A mounted device cannot be opened exclusively. One that this user may not open counts as mounted,
// for all that is known; one that has just been given up (ENXIO) does not.
bool carriesMount(const std::string& device) {
  const FileDescriptor alone(
      ::open((path("/dev") / device).c_str(), O_RDONLY | O_EXCL | O_CLOEXEC));
  return !alone.isOpen() && errno != ENXIO;
}

// Whether an image is mounted by somebody who takes no lock on it, as mount(8) does not.
bool isMounted(int image) {
  struct stat state {};
  if (fstat(image, &state) != 0) {
    return false;
  }
  // A container may lack either list, or have it without some of its devices.
  std::vector<std::string> names = namesIn("/sys/block");
  std::ranges::copy(namesIn("/dev"), std::back_inserter(names));
  if (names.empty()) {
    return true;  // for all that is known, where no descriptor is free to look
  }
  return std::ranges::any_of(names, [&](const std::string& name) {
    return name.starts_with("loop") && holds(name, state) && carriesMount(name);
  });
}

struct LoopDevice {
  ResultCode code;
  FileDescriptor device;
  std::string path;
};

LoopDevice noLoopDevice(int error) {
  const bool missing = error == ENOENT || error == ENODEV || error == ENXIO;
  return {
      missing ? ResultCode::loopMissing : report("cannot attach", "a loop device", error), {}, {}};
}

// A free device may be another's by the time that it is opened.
constexpr int kAttempts = 16;

LoopDevice attach(int image) {
  const FileDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
  if (!control.isOpen()) {
    return noLoopDevice(errno);
  }
  loop_config config{};
  config.fd = static_cast<uint32_t>(image);
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;  // gone with the last use
  int error = EBUSY;
  for (int i = 0; i < kAttempts && error == EBUSY; ++i) {
    const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0) {
      return noLoopDevice(errno);
    }
    std::string devicePath = fmt::format("/dev/loop{}", number);
    FileDescriptor device(::open(devicePath.c_str(), O_RDWR | O_CLOEXEC));
    if (!device.isOpen()) {
      return noLoopDevice(errno);
    }
    if (ioctl(device.get(), LOOP_CONFIGURE, &config) == 0) {
      return {ResultCode::done, std::move(device), std::move(devicePath)};
    }
    error = errno;
  }
  return noLoopDevice(error);
}

}  // namespace

DiskImages::DiskImages(const path& folder, std::vector<path> programFolders)
    : directory_(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
      programFolders_(std::move(programFolders)) {
  std::error_code error(errno, std::generic_category());
  if (directory_.isOpen()) {
    folder_ = std::filesystem::canonical(openPath(directory_.get()), error);
  }
  if (error) {
    throw std::runtime_error(
        fmt::format("cannot open the folder {}: {}", folder.string(), error.message()));
  }
}

DiskImages::~DiskImages() {
  for (const auto& [name, image] : mounted_) {
    if (umount2(mountPoint(name).c_str(), UMOUNT_NOFOLLOW) != 0) {
      umount2(mountPoint(name).c_str(), UMOUNT_NOFOLLOW | MNT_DETACH);  // somebody is in there
    }
  }
  // Only folders that are empty go away, so that nothing is lost if one is still mounted.
  for (const std::string& name : namesIn(openPath(mountFolder_.get()))) {
    unlinkat(mountFolder_.get(), name.c_str(), AT_REMOVEDIR);
  }
  std::error_code ignored;
  rmdir(std::filesystem::read_symlink(openPath(mountFolder_.get()), ignored).c_str());
}

// Without any rights on the file at first: opening a device, say, might already act on it.
DiskImages::Opened DiskImages::open(const std::string& name) const {
  if (name.empty()) {
    return {ResultCode::badArgument, {}};
  }
  if (!isPlain(name)) {
    return {ResultCode::outsideFolder, {}};
  }
  const FileDescriptor found(
      openat(directory_.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!found.isOpen()) {
    return {report("cannot find the image", name, errno), {}};
  }
  if (!isFileOfItsOwn(found.get())) {
    return {ResultCode::outsideFolder, {}};
  }
  FileDescriptor file(::open(openPath(found.get()).c_str(), O_RDWR | O_CLOEXEC));
  if (!file.isOpen()) {
    return {report("cannot open the image", name, errno), {}};
  }
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    return {ResultCode::inUse, {}};
  }
  return {ResultCode::done, std::move(file)};
}

ResultCode DiskImages::format(const std::string& name) {
  const Opened image = open(name);
  if (image.code != ResultCode::done) {
    return image.code;
  }
  if (isMounted(image.file.get())) {
    return ResultCode::inUse;
  }
  const auto folder = std::ranges::find_if(programFolders_, [](const path& candidate) {
    return access((candidate / kFormatter).c_str(), X_OK) == 0;
  });
  if (folder == programFolders_.end()) {
    return ResultCode::programMissing;
  }
  // Forced, since whatever the image holds is to go.
  const path program = *folder / kFormatter;
  if (!runChild({program, "-q", "-F", openPath(kInherited)}, image.file.get(), kFormatLimit)) {
    complain(fmt::format("{} failed for the image {}", program.string(), shown(name)));
    return ResultCode::failed;
  }
  return ResultCode::done;
}

ResultCode DiskImages::makeMountFolder() {
  std::string name = folder_.string() + ".mounted.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    return report("no folder for mount points beside", folder_, errno);
  }
  FileDescriptor made(::open(name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!made.isOpen()) {
    return report("cannot open the folder", name, errno);
  }
  constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
  struct stat state {};
  if (fstat(made.get(), &state) != 0 || state.st_uid != geteuid() ||
      (state.st_mode & kOthers) != 0) {
    return report("somebody has replaced the folder", name, EACCES);
  }
  mountFolder_ = std::move(made);
  return ResultCode::done;
}

ResultCode DiskImages::makeMountPoint(const std::string& name) {
  const auto make = [&] {
    return mkdirat(mountFolder_.get(), name.c_str(), S_IRWXU) == 0 || errno == EEXIST ? 0 : errno;
  };
  int error = make();
  // While nothing is mounted in the folder, whoever clears old files away may remove it.
  if (error == EBADF || error == ENOENT) {
    if (const ResultCode code = makeMountFolder(); code != ResultCode::done) {
      return code;
    }
    error = make();
  }
  return error == 0 ? ResultCode::done : report("no mount point for", name, error);
}

path DiskImages::mountPoint(const std::string& name) const {
  return openPath(mountFolder_.get()) / name;
}

// Whoever made an image may have put anything into it, so nothing in it is run or is a device, and
// its wish that the machine stop at the first inconsistency is not heeded.
ResultCode DiskImages::mount(const std::string& name) {
  Opened image = open(name);
  if (image.code != ResultCode::done) {
    return image.code;
  }
  const std::scoped_lock lock(mutex_);
  if (const ResultCode code = makeMountPoint(name); code != ResultCode::done) {
    return code;
  }
  if (mounted_.contains(name)) {
    return ResultCode::inUse;  // by an image that had this name
  }
  if (isMounted(image.file.get())) {
    return ResultCode::inUse;
  }
  const LoopDevice loop = attach(image.file.get());
  if (loop.code != ResultCode::done) {
    return loop.code;
  }
  if (::mount(loop.path.c_str(), mountPoint(name).c_str(), kFileSystem,
              MS_NOSUID | MS_NODEV | MS_NOEXEC, "errors=remount-ro") != 0) {
    return report("cannot mount", name, errno);
  }
  mounted_.emplace(name, std::move(image.file));
  return ResultCode::done;
}

}  // namespace kel::host
