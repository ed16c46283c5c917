// The messages' shapes.
#include "fuzz/shapes.hpp"

#include <kel_sys_diag/records.h>

namespace kel::fuzz {
namespace {

// A shape with fields of a record, which the macros after it place in there.
#define KEL_SHAPE(record, size, ...)        \
  Shape(size, [] {                          \
    using Record = record;                  \
    return std::vector<Field>{__VA_ARGS__}; \
  }())
#define U8(member) Field(Kind::scalar, 1, offsetof(Record, member))
#define U16(member) Field(Kind::scalar, 2, offsetof(Record, member))
#define U32(member) Field(Kind::scalar, 4, offsetof(Record, member))
#define U64(member) Field(Kind::scalar, 8, offsetof(Record, member))
#define BYTES(count, member) Field(Kind::bytes, count, offsetof(Record, member))
#define TEXT(member) Field(Kind::string, 0, offsetof(Record, member))
#define TABLE(nested, member) Field(Kind::table, 0, offsetof(Record, member), &(nested))

// A reply that is a list of entries and nothing else.
Shape listOf(const Shape& entry) {
  return {16,
          {{Kind::vector, 0, offsetof(BrdPartInfo, entries), &entry,
            offsetof(BrdPartInfo, entryCount)}}};
}

const Shape subRecord = KEL_SHAPE(DiagSubRecord, 12, U16(value16), U8(byte1), U8(byte2), U8(byte3),
                                  U8(byte4), U8(byte5), U8(byte6), U32(value32));
const Shape brdPartEntry =
    KEL_SHAPE(BrdPartEntry, 232, BYTES(50, bytes50a), BYTES(50, bytes50b), BYTES(32, bytes32),
              U64(value1), U64(value2), U64(value3), U32(value4), BYTES(64, bytes64));
const Shape fdProcEntry =
    KEL_SHAPE(FdProcEntry, 300, U32(value1), U32(value2), TABLE(subRecord, sub1),
              TABLE(subRecord, sub2), TABLE(subRecord, sub3), BYTES(256, bytes256));
const Shape eraseEntry = KEL_SHAPE(StorageEraseEntry, 16, U32(value1), U64(value2));
const Shape badBlockEntry = KEL_SHAPE(StorageBadBlockEntry, 40, BYTES(32, bytes32), U64(value1));

}  // namespace

namespace shape {

const Shape alarmInput = KEL_SHAPE(AlarmInput, 64, U32(value1), U32(value2), TEXT(text),
                                   U32(value3), U32(value4), BYTES(32, bytes32), U32(value5));
const Shape alarmOutput = KEL_SHAPE(AlarmOutput, 8, TEXT(text));

const Shape overloadAlarmInput =
    KEL_SHAPE(OverloadAlarmInput, 116, U32(value1), U32(value2), U32(value3), U32(value4),
              TABLE(subRecord, sub), U32(value5), U32(value6), U32(value7), BYTES(64, bytes64),
              U32(value8), U32(value9), U32(value10));
const Shape overloadDiskAlarmInput = KEL_SHAPE(
    OverloadDiskAlarmInput, 132, U32(value1), U32(value2), U32(value3), U32(value4),
    TABLE(subRecord, sub), BYTES(64, bytes64), BYTES(32, bytes32), U32(value5), U32(value6));

const Shape ovLoadDiskCtlInput = KEL_SHAPE(OvLoadDiskCtlInput, 114, BYTES(32, bytes32a),
                                           BYTES(32, bytes32b), BYTES(50, bytes50));
const Shape ovLoadDiskCtlOutput =
    KEL_SHAPE(OvLoadDiskCtlOutput, 124, BYTES(32, bytes32a), BYTES(32, bytes32b), U32(value1),
              U32(value2), BYTES(50, bytes50));

const Shape brdPartInfoInput{0, {}};
const Shape brdPartInfo = listOf(brdPartEntry);

const Shape fdProcInfoInput = KEL_SHAPE(FdProcInfoInput, 8, U32(value1), U32(value2));
const Shape fdProcInfoOutput = listOf(fdProcEntry);

const Shape sysOvLoadDiskThreshold =
    KEL_SHAPE(SysOvLoadDiskThreshold, 56, BYTES(50, bytes50), U32(value1));
const Shape operResult = KEL_SHAPE(OperResult, 4, U32(result));

const Shape sysDiskUseInput = KEL_SHAPE(SysDiskUseInput, 50, BYTES(50, bytes50));
const Shape sysDiskUseInfoResult =
    KEL_SHAPE(SysDiskUseInfoResult, 168, BYTES(50, bytes50a), BYTES(50, bytes50b), U64(value1),
              U64(value2), U32(value3), BYTES(32, bytes32), U32(value4), U32(value5));

const Shape storageEraseInfoInput = KEL_SHAPE(StorageEraseInfoInput, 4, U32(value1));
const Shape storageEraseInfo = listOf(eraseEntry);

const Shape storageBadBlockInfoInput = KEL_SHAPE(StorageBadBlockInfoInput, 32, BYTES(32, bytes32));
const Shape storageBadBlockInfo = listOf(badBlockEntry);

}  // namespace shape
}  // namespace kel::fuzz
