// Disk images: what really formats and mounts, what is refused, and what is missing for it.
#include "host/disk_images.hpp"

#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>

#include "host/child_process.hpp"
#include "host/mount_table.hpp"
#include "tests/host/host_fixture.hpp"

namespace kel::host::test {
namespace {

using std::filesystem::path;

class Images : public FolderFixture {
 protected:
  Images() {
    std::filesystem::create_directory(folder);
    addImage(folder / "disk.img");
  }

  static bool hasExt4(const path& image) {
    constexpr std::streamoff kMagic = 1024 + 56;
    std::ifstream file(image);
    file.seekg(kMagic);
    return file.get() == 0x53 && file.get() == 0xEF;
  }

  // A stand-in for mkfs.ext4 that does what the shell is told.
  path fakePrograms(const std::string& script) const {
    path programs = top / "programs";
    std::filesystem::create_directories(programs);
    std::ofstream(programs / "mkfs.ext4") << "#!/bin/sh\n" << script << '\n';
    std::filesystem::permissions(programs / "mkfs.ext4", std::filesystem::perms::owner_all);
    return programs;
  }

  // The folder beside the images, once there is one.
  path mountFolder() const {
    for (const auto& entry : std::filesystem::directory_iterator(top)) {
      if (entry.path().filename().string().starts_with("images.mounted.")) {
        return entry.path();
      }
    }
    return {};
  }

  // How it is mounted, as the kernel tells; nothing if it is not.
  static std::string mountOptions(const path& mountPoint) {
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    while (std::getline(mounts, line) && line.find(mountPoint.string()) == std::string::npos) {
    }
    return line;
  }

  // What comes of it in a child without root's rights, whoever runs this. No thread may run, since
  // the child would inherit the locks that it holds.
  ResultCode withoutRights(const std::function<ResultCode()>& use) const {
    constexpr uid_t kNobody = 65534;
    constexpr int kStillRoot = 100;
    const pid_t child = fork();
    if (child == 0) {
      if (geteuid() == 0) {
        std::filesystem::permissions(top, std::filesystem::perms::all);
        std::filesystem::permissions(folder, std::filesystem::perms::all);
        std::filesystem::permissions(folder / "disk.img", std::filesystem::perms::all);
        if (setresgid(kNobody, kNobody, kNobody) != 0 ||
            setresuid(kNobody, kNobody, kNobody) != 0) {
          _exit(kStillRoot);
        }
      }
      _exit(static_cast<int>(use()));
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    return ResultCode{static_cast<uint32_t>(WEXITSTATUS(status))};
  }

  const path top = FolderFixture::folder;
  const path folder = top / "images";
};

TEST_F(Images, AreOnlyPlainFilesOfTheFolder) {
  addImage(top / "outside.img");
  std::filesystem::create_symlink("disk.img", folder / "link");
  std::filesystem::create_symlink(top / "outside.img", folder / "link.out");
  std::filesystem::create_symlink("nowhere", folder / "link.broken");
  std::filesystem::create_hard_link(top / "outside.img", folder / "second.name");
  std::filesystem::create_directory(folder / "folder");
  addImage(folder / "folder" / "inner.img");
  ASSERT_EQ(mkfifo((folder / "pipe").c_str(), S_IRWXU), 0);
  const bool withDevice = mknod((folder / "null").c_str(), S_IFCHR | S_IRWXU, makedev(1, 3)) == 0;

  DiskImages images(folder, {fakePrograms("echo formatted >" + (top / "formatted").string())});
  const std::string absolute = top / "outside.img";
  std::vector<std::pair<std::string, ResultCode>> cases = {
      {"", ResultCode::badArgument},
      {".", ResultCode::outsideFolder},
      {"..", ResultCode::outsideFolder},
      {"../outside.img", ResultCode::outsideFolder},
      {"./disk.img", ResultCode::outsideFolder},
      {"folder/inner.img", ResultCode::outsideFolder},
      {"/", ResultCode::outsideFolder},
      {absolute, ResultCode::outsideFolder},
      {"/dev/loop0", ResultCode::outsideFolder},
      {std::string("disk.img\0/..", 12), ResultCode::outsideFolder},
      {"link", ResultCode::outsideFolder},
      {"link.out", ResultCode::outsideFolder},
      {"link.broken", ResultCode::outsideFolder},
      {"second.name", ResultCode::outsideFolder},
      {"folder", ResultCode::outsideFolder},
      {"pipe", ResultCode::outsideFolder},
      {"none.img", ResultCode::notFound},
      {std::string(50, 'n'), ResultCode::notFound},
  };
  if (withDevice) {
    cases.emplace_back("null", ResultCode::outsideFolder);
  }
  for (const auto& [name, code] : cases) {
    EXPECT_EQ(images.format(name), code) << name;
    EXPECT_EQ(images.mount(name), code) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(top / "formatted")) << "mkfs ran all the same";
  EXPECT_TRUE(mountFolder().empty());
  EXPECT_EQ(images.format("disk.img"), ResultCode::done);
  EXPECT_TRUE(std::filesystem::exists(top / "formatted"));
  EXPECT_THROW(DiskImages(top / "none"), std::runtime_error);
  EXPECT_THROW(DiskImages(folder / "disk.img"), std::runtime_error);
}

TEST_F(Images, SayWhatBecameOfMkfs) {
  EXPECT_EQ(DiskImages(folder, {top}).format("disk.img"), ResultCode::programMissing);
  EXPECT_EQ(DiskImages(folder, {fakePrograms("exit 1")}).format("disk.img"), ResultCode::failed);
  EXPECT_EQ(DiskImages(folder, {fakePrograms("kill -9 $$")}).format("disk.img"),
            ResultCode::failed);
  // It gets the open file and nothing else: no name to be swapped, no environment, no descriptors.
  setenv("KEL_TEST_SECRET", "1", 1);
  const FileDescriptor inheritable(fcntl(STDERR_FILENO, F_DUPFD, 20));
  const std::string expected = fmt::format(
      "[ \"$*\" = '-q -F /proc/self/fd/3' ] && [ -z \"$KEL_TEST_SECRET\" ] || exit 1\n"
      "[ ! -e /proc/self/fd/{} ]",
      inheritable.get());
  EXPECT_EQ(DiskImages(folder, {fakePrograms(expected)}).format("disk.img"), ResultCode::done);
  EXPECT_EQ(DiskImages(folder, {fakePrograms("printf swapped >$3")}).format("disk.img"),
            ResultCode::done);
  std::string text(7, '\0');
  std::ifstream(folder / "disk.img").read(text.data(), 7);
  EXPECT_EQ(text, "swapped");
}

TEST_F(Images, AreInUseForOneCallerAtATime) {
  const FileDescriptor other(open((folder / "disk.img").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(flock(other.get(), LOCK_EX | LOCK_NB), 0);
  DiskImages images(folder, {fakePrograms("exit 0")});
  EXPECT_EQ(images.format("disk.img"), ResultCode::inUse);
  EXPECT_EQ(images.mount("disk.img"), ResultCode::inUse);
  ASSERT_EQ(flock(other.get(), LOCK_UN), 0);
  EXPECT_EQ(images.format("disk.img"), ResultCode::done);
}

TEST(ChildProcess, IsKilledWithItsChildrenWhenItsTimeIsUp) {
  const auto began = std::chrono::steady_clock::now();
  EXPECT_FALSE(runChild({"/bin/sh", "-c", "sleep 600 & wait"}, STDERR_FILENO,
                        std::chrono::milliseconds(200)));
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
  EXPECT_FALSE(runChild({"/nonexistent"}, STDERR_FILENO, std::chrono::seconds(20)));
  EXPECT_TRUE(runChild({"/bin/sh", "-c", "exit 0"}, STDERR_FILENO, std::chrono::seconds(20)));
}

TEST_F(Images, AreReallyFormattedAndMounted) {
  {
    DiskImages images(folder);
    const ResultCode formatted = images.format("disk.img");
    if (formatted == ResultCode::programMissing) {
      GTEST_SKIP() << "there is no mkfs.ext4 here";
    }
    ASSERT_EQ(formatted, ResultCode::done);
    EXPECT_TRUE(hasExt4(folder / "disk.img"));
    addImage(folder / "blank.img");
    const ResultCode mounted = images.mount("disk.img");
    if (mounted == ResultCode::rightMissing || mounted == ResultCode::loopMissing) {
      GTEST_SKIP() << "mounting takes rights and a loop device: " << describe(mounted);
    }
    ASSERT_EQ(mounted, ResultCode::done);
    EXPECT_EQ(images.mount("blank.img"), ResultCode::failed) << "it has no file system";
    const path mountPoint = mountFolder() / "disk.img";
    const std::string options = mountOptions(mountPoint);
    for (const char* harmless : {"nosuid", "nodev", "noexec", "errors=remount-ro"}) {
      EXPECT_PRED_FORMAT2(testing::IsSubstring, harmless, options);
    }
    std::ofstream(mountPoint / "hello") << "kept";
    EXPECT_EQ(images.mount("disk.img"), ResultCode::inUse);
    EXPECT_EQ(images.format("disk.img"), ResultCode::inUse);
    EXPECT_EQ(DiskImages(folder).format("disk.img"), ResultCode::inUse) << "another host's";
    // A new file of that name is another image, but its place is taken.
    std::filesystem::rename(folder / "disk.img", folder / "old.img");
    addImage(folder / "disk.img");
    EXPECT_EQ(images.mount("disk.img"), ResultCode::inUse);
    std::filesystem::rename(folder / "old.img", folder / "disk.img");
    // Whoever may write to the folder around it puts something else in the place of the mounts'.
    std::filesystem::create_directories(top / "others" / "blank.img");
    const path mounts = mountFolder();
    std::filesystem::rename(mounts, top / "moved");
    std::filesystem::create_symlink("others", mounts);
    EXPECT_EQ(images.format("blank.img"), ResultCode::done);
    EXPECT_EQ(images.mount("blank.img"), ResultCode::done);
    EXPECT_TRUE(std::filesystem::exists(top / "moved" / "blank.img" / "lost+found"));
  }
  EXPECT_TRUE(std::filesystem::exists(top / "others" / "blank.img")) << "another's folder";
  EXPECT_FALSE(std::filesystem::exists(top / "moved")) << "left behind at the end";
  std::filesystem::remove(mountFolder());
  for (const Mount& mount : readMounts("/")) {
    EXPECT_FALSE(mount.mountPoint.starts_with(top.string())) << mount.mountPoint;
  }
  DiskImages images(folder / ".");
  std::filesystem::create_directory(top / "hand");
  const auto byHand = [&](const std::string& command) { return std::system(command.c_str()); };
  ASSERT_EQ(byHand(fmt::format("mount -o loop {0}/images/disk.img {0}/hand", top.string())), 0);
  EXPECT_EQ(images.mount("disk.img"), ResultCode::inUse) << "what others wrote would be lost";
  EXPECT_EQ(images.format("disk.img"), ResultCode::inUse);
  EXPECT_EQ(withoutRights([&] { return DiskImages(folder).format("disk.img"); }), ResultCode::inUse)
      << "for a user who may not open the loop device";
  ASSERT_EQ(byHand(fmt::format("umount {}/hand", top.string())), 0);
  std::filesystem::remove_all(mountFolder());  // as whoever clears old files away
  EXPECT_EQ(images.mount("disk.img"), ResultCode::done);
  std::string text;
  std::ifstream(mountFolder() / "disk.img" / "hello") >> text;
  EXPECT_EQ(text, "kept");
}

TEST_F(Images, SayThatTheRightIsMissing) {
  const ResultCode code = withoutRights([&] { return DiskImages(folder).mount("disk.img"); });
  if (code == ResultCode::loopMissing) {
    GTEST_SKIP() << "no loop device to have no right to";
  }
  EXPECT_EQ(code, ResultCode::rightMissing) << describe(code);

  std::filesystem::permissions(folder / "disk.img", std::filesystem::perms::none);
  if (geteuid() != 0) {
    EXPECT_EQ(DiskImages(folder).format("disk.img"), ResultCode::rightMissing);
  }
}

}  // namespace
}  // namespace kel::host::test
