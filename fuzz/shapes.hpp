// What each message's record holds and how it travels, as plain data typed by hand: shares nothing
// with the schemas, whose compile-time machinery it is to check. For fuzz programs and tests.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kel::fuzz {

enum class Kind : uint8_t { scalar, string, bytes, table, vector };

struct Shape;

struct Field {
  Kind kind;
  uint32_t width;  // in the record: of a scalar, a byte array
  size_t at;       // within the record; of a vector's element pointer
  const Shape* nested = nullptr;
  size_t countAt = 0;
};

struct Shape {
  size_t recordSize;
  std::vector<Field> fields;  // slot 0 first

  // The one field of a record that points at memory, if any; none of a nested table or element
  // does.
  [[nodiscard]] const Field* owner() const {
    const auto found = std::ranges::find_if(fields, [](const Field& field) {
      return field.kind == Kind::string || field.kind == Kind::vector;
    });
    return found == fields.end() ? nullptr : &*found;
  }
  [[nodiscard]] bool ownsMemory() const { return owner() != nullptr; }
  [[nodiscard]] bool owns(Kind kind) const { return ownsMemory() && owner()->kind == kind; }
};

// By message; twins share a shape.
namespace shape {
extern const Shape alarmInput, alarmOutput, overloadAlarmInput, overloadDiskAlarmInput,
    ovLoadDiskCtlInput, ovLoadDiskCtlOutput, brdPartInfoInput, brdPartInfo, fdProcInfoInput,
    fdProcInfoOutput, sysOvLoadDiskThreshold, operResult, sysDiskUseInput, sysDiskUseInfoResult,
    storageEraseInfoInput, storageEraseInfo, storageBadBlockInfoInput, storageBadBlockInfo;
}  // namespace shape

}  // namespace kel::fuzz
