// What each message's record holds and how it travels, as plain data typed by hand: shares nothing
// with the schemas, whose compile-time machinery it is to check. For the fuzz programs.
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

  // Whether a record points at memory; no nested table or element does.
  [[nodiscard]] bool ownsMemory() const {
    return std::any_of(fields.begin(), fields.end(), [](const Field& field) {
      return field.kind == Kind::string || field.kind == Kind::vector;
    });
  }
};

// By message; twins share a shape.
namespace shape {
extern const Shape alarmInput, alarmOutput, overloadAlarmInput, overloadDiskAlarmInput,
    ovLoadDiskCtlInput, ovLoadDiskCtlOutput, brdPartInfoInput, brdPartInfo, fdProcInfoInput,
    fdProcInfoOutput, sysOvLoadDiskThreshold, operResult, sysDiskUseInput, sysDiskUseInfoResult,
    storageEraseInfoInput, storageEraseInfo, storageBadBlockInfoInput, storageBadBlockInfo;
}  // namespace shape

}  // namespace kel::fuzz
