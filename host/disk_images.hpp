// Formats and mounts disk images, and nothing but the files of one folder. For the served methods.
//
// A name has to be plain and that of a regular file with no second name. The file is opened first
// and examined then, and what follows works on the open file, so that no name can be swapped
// meanwhile; so it is with the folder of the mount points, since others may write to the one around
// it. While an image is being formatted or is mounted, it is locked: it is in use for every other
// call, also of another host on the same folder.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/file_descriptor.hpp"
#include "host/result_code.hpp"

namespace kel::host {

class DiskImages {
 public:
  // Throws std::runtime_error with a sentence when the folder cannot be opened. mkfs.ext4 is looked
  // for in the program folders.
  explicit DiskImages(const std::filesystem::path& folder,
                      std::vector<std::filesystem::path> programFolders = {"/usr/sbin", "/sbin"});
  // Unmounts everything and removes the folder of the mount points.
  ~DiskImages();
  DiskImages(const DiskImages&) = delete;
  DiskImages& operator=(const DiskImages&) = delete;

  // Makes an empty ext4 file system that fills the image. Its content is lost.
  ResultCode format(const std::string& name);

  // Mounts the ext4 file system of an image at a folder of its name, beside the images' folder:
  // "<folder>.mounted.<six characters>/<name>".
  ResultCode mount(const std::string& name);

 private:
  struct Opened {
    ResultCode code = ResultCode::failed;
    FileDescriptor file;
  };

  [[nodiscard]] Opened open(const std::string& name) const;
  ResultCode makeMountFolder();
  ResultCode makeMountPoint(const std::string& name);
  [[nodiscard]] std::filesystem::path mountPoint(const std::string& name) const;

  const FileDescriptor directory_;
  std::filesystem::path folder_;  // without links or dots
  const std::vector<std::filesystem::path> programFolders_;
  std::mutex mutex_;                               // for what follows
  FileDescriptor mountFolder_;                     // closed until the first mount
  std::map<std::string, FileDescriptor> mounted_;  // the locked images by name
};

}  // namespace kel::host
