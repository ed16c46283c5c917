// A file descriptor that closes itself. For disk_images and listener.
#pragma once

#include <unistd.h>

#include <utility>

namespace kel::host {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int number) : number_(number) {}
  ~FileDescriptor() {
    if (isOpen()) {
      close(number_);
    }
  }
  FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  // To whoever closes it.
  int release() { return std::exchange(number_, -1); }
  [[nodiscard]] bool isOpen() const { return number_ >= 0; }
  [[nodiscard]] int get() const { return number_; }

 private:
  int number_ = -1;
};

}  // namespace kel::host
