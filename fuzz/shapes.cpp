// The messages' shapes.
#include "fuzz/shapes.hpp"

#include <kel_sys_diag/records.h>

namespace kel::fuzz {
namespace {

// A shape with fields of a record, which the macros after it place in there.
#define KEL_SHAPE(record, ...)              \
  Shape(sizeof(record), [] {                \
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

const Shape subRecord = KEL_SHAPE(DiagSubRecord, U16(value16), U8(byte1), U8(byte2), U8(byte3),
                                  U8(byte4), U8(byte5), U8(byte6), U32(value32));
const Shape brdPartEntry =
    KEL_SHAPE(BrdPartEntry, BYTES(50, bytes50a), BYTES(50, bytes50b), BYTES(32, bytes32),
              U64(value1), U64(value2), U64(value3), U32(value4), BYTES(64, bytes64));
const Shape fdProcEntry =
    KEL_SHAPE(FdProcEntry, U32(value1), U32(value2), TABLE(subRecord, sub1), TABLE(subRecord, sub2),
              TABLE(subRecord, sub3), BYTES(256, bytes256));
const Shape eraseEntry = KEL_SHAPE(StorageEraseEntry, U32(value1), U64(value2));
const Shape badBlockEntry = KEL_SHAPE(StorageBadBlockEntry, BYTES(32, bytes32), U64(value1));

}  // namespace

namespace shape {

const Shape alarmInput = KEL_SHAPE(AlarmInput, U32(value1), U32(value2), TEXT(text), U32(value3),
                                   U32(value4), BYTES(32, bytes32), U32(value5));
const Shape alarmOutput = KEL_SHAPE(AlarmOutput, TEXT(text));

const Shape overloadAlarmInput =
    KEL_SHAPE(OverloadAlarmInput, U32(value1), U32(value2), U32(value3), U32(value4),
              TABLE(subRecord, sub), U32(value5), U32(value6), U32(value7), BYTES(64, bytes64),
              U32(value8), U32(value9), U32(value10));
const Shape overloadDiskAlarmInput = KEL_SHAPE(
    OverloadDiskAlarmInput, U32(value1), U32(value2), U32(value3), U32(value4),
    TABLE(subRecord, sub), BYTES(64, bytes64), BYTES(32, bytes32), U32(value5), U32(value6));

const Shape ovLoadDiskCtlInput =
    KEL_SHAPE(OvLoadDiskCtlInput, BYTES(32, bytes32a), BYTES(32, bytes32b), BYTES(50, bytes50));
const Shape ovLoadDiskCtlOutput =
    KEL_SHAPE(OvLoadDiskCtlOutput, BYTES(32, bytes32a), BYTES(32, bytes32b), U32(value1),
              U32(value2), BYTES(50, bytes50));

const Shape brdPartInfoInput{0, {}};
const Shape brdPartInfo = listOf(brdPartEntry);

const Shape fdProcInfoInput = KEL_SHAPE(FdProcInfoInput, U32(value1), U32(value2));
const Shape fdProcInfoOutput = listOf(fdProcEntry);

const Shape sysOvLoadDiskThreshold =
    KEL_SHAPE(SysOvLoadDiskThreshold, BYTES(50, bytes50), U32(value1));
const Shape operResult = KEL_SHAPE(OperResult, U32(result));

const Shape sysDiskUseInput = KEL_SHAPE(SysDiskUseInput, BYTES(50, bytes50));
const Shape sysDiskUseInfoResult =
    KEL_SHAPE(SysDiskUseInfoResult, BYTES(50, bytes50a), BYTES(50, bytes50b), U64(value1),
              U64(value2), U32(value3), BYTES(32, bytes32), U32(value4), U32(value5));

const Shape storageEraseInfoInput = KEL_SHAPE(StorageEraseInfoInput, U32(value1));
const Shape storageEraseInfo = listOf(eraseEntry);

const Shape storageBadBlockInfoInput = KEL_SHAPE(StorageBadBlockInfoInput, BYTES(32, bytes32));
const Shape storageBadBlockInfo = listOf(badBlockEntry);

}  // namespace shape
}  // namespace kel::fuzz
