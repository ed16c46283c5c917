// The messages' shapes.
#include "fuzz/shapes.hpp"

#include <kel_sys_diag/records.h>

namespace kel::fuzz {
namespace {

Field u8(size_t at) { return {Kind::scalar, 1, at}; }
Field u16(size_t at) { return {Kind::scalar, 2, at}; }
Field u32(size_t at) { return {Kind::scalar, 4, at}; }
Field u64(size_t at) { return {Kind::scalar, 8, at}; }
Field bytes(uint32_t count, size_t at) { return {Kind::bytes, count, at}; }
Field text(size_t at) { return {Kind::string, 0, at}; }
Field table(const Shape& nested, size_t at) { return {Kind::table, 0, at, &nested}; }

// A reply that is a list of entries and nothing else.
Shape listOf(const Shape& entry) {
  return {16,
          {{Kind::vector, 0, offsetof(BrdPartInfo, entries), &entry,
            offsetof(BrdPartInfo, entryCount)}}};
}

using Sub = DiagSubRecord;
const Shape subRecord{
    12,
    {u16(offsetof(Sub, value16)), u8(offsetof(Sub, byte1)), u8(offsetof(Sub, byte2)),
     u8(offsetof(Sub, byte3)), u8(offsetof(Sub, byte4)), u8(offsetof(Sub, byte5)),
     u8(offsetof(Sub, byte6)), u32(offsetof(Sub, value32))}};

using Brd = BrdPartEntry;
const Shape brdPartEntry{
    232,
    {bytes(50, offsetof(Brd, bytes50a)), bytes(50, offsetof(Brd, bytes50b)),
     bytes(32, offsetof(Brd, bytes32)), u64(offsetof(Brd, value1)), u64(offsetof(Brd, value2)),
     u64(offsetof(Brd, value3)), u32(offsetof(Brd, value4)), bytes(64, offsetof(Brd, bytes64))}};

using Fd = FdProcEntry;
const Shape fdProcEntry{300,
                        {u32(offsetof(Fd, value1)), u32(offsetof(Fd, value2)),
                         table(subRecord, offsetof(Fd, sub1)), table(subRecord, offsetof(Fd, sub2)),
                         table(subRecord, offsetof(Fd, sub3)), bytes(256, offsetof(Fd, bytes256))}};

const Shape eraseEntry{
    16, {u32(offsetof(StorageEraseEntry, value1)), u64(offsetof(StorageEraseEntry, value2))}};

const Shape badBlockEntry{40,
                          {bytes(32, offsetof(StorageBadBlockEntry, bytes32)),
                           u64(offsetof(StorageBadBlockEntry, value1))}};

using Alarm = AlarmInput;
using Overload = OverloadAlarmInput;
using Disk = OverloadDiskAlarmInput;
using Ask = OvLoadDiskCtlInput;
using Answer = OvLoadDiskCtlOutput;
using Threshold = SysOvLoadDiskThreshold;
using Use = SysDiskUseInfoResult;

}  // namespace

namespace shape {

const Shape alarmInput{
    64,
    {u32(offsetof(Alarm, value1)), u32(offsetof(Alarm, value2)), text(offsetof(Alarm, text)),
     u32(offsetof(Alarm, value3)), u32(offsetof(Alarm, value4)),
     bytes(32, offsetof(Alarm, bytes32)), u32(offsetof(Alarm, value5))}};

const Shape alarmOutput{8, {text(offsetof(AlarmOutput, text))}};

const Shape overloadAlarmInput{
    116,
    {u32(offsetof(Overload, value1)), u32(offsetof(Overload, value2)),
     u32(offsetof(Overload, value3)), u32(offsetof(Overload, value4)),
     table(subRecord, offsetof(Overload, sub)), u32(offsetof(Overload, value5)),
     u32(offsetof(Overload, value6)), u32(offsetof(Overload, value7)),
     bytes(64, offsetof(Overload, bytes64)), u32(offsetof(Overload, value8)),
     u32(offsetof(Overload, value9)), u32(offsetof(Overload, value10))}};

const Shape overloadDiskAlarmInput{
    132,
    {u32(offsetof(Disk, value1)), u32(offsetof(Disk, value2)), u32(offsetof(Disk, value3)),
     u32(offsetof(Disk, value4)), table(subRecord, offsetof(Disk, sub)),
     bytes(64, offsetof(Disk, bytes64)), bytes(32, offsetof(Disk, bytes32)),
     u32(offsetof(Disk, value5)), u32(offsetof(Disk, value6))}};

const Shape ovLoadDiskCtlInput{
    114,
    {bytes(32, offsetof(Ask, bytes32a)), bytes(32, offsetof(Ask, bytes32b)),
     bytes(50, offsetof(Ask, bytes50))}};

const Shape ovLoadDiskCtlOutput{
    124,
    {bytes(32, offsetof(Answer, bytes32a)), bytes(32, offsetof(Answer, bytes32b)),
     u32(offsetof(Answer, value1)), u32(offsetof(Answer, value2)),
     bytes(50, offsetof(Answer, bytes50))}};

const Shape brdPartInfoInput{0, {}};
const Shape brdPartInfo = listOf(brdPartEntry);

const Shape fdProcInfoInput{
    8, {u32(offsetof(FdProcInfoInput, value1)), u32(offsetof(FdProcInfoInput, value2))}};
const Shape fdProcInfoOutput = listOf(fdProcEntry);

const Shape sysOvLoadDiskThreshold{
    56, {bytes(50, offsetof(Threshold, bytes50)), u32(offsetof(Threshold, value1))}};
const Shape operResult{4, {u32(offsetof(OperResult, result))}};

const Shape sysDiskUseInput{50, {bytes(50, offsetof(SysDiskUseInput, bytes50))}};
const Shape sysDiskUseInfoResult{
    168,
    {bytes(50, offsetof(Use, bytes50a)), bytes(50, offsetof(Use, bytes50b)),
     u64(offsetof(Use, value1)), u64(offsetof(Use, value2)), u32(offsetof(Use, value3)),
     bytes(32, offsetof(Use, bytes32)), u32(offsetof(Use, value4)), u32(offsetof(Use, value5))}};

const Shape storageEraseInfoInput{4, {u32(offsetof(StorageEraseInfoInput, value1))}};
const Shape storageEraseInfo = listOf(eraseEntry);

const Shape storageBadBlockInfoInput{32, {bytes(32, offsetof(StorageBadBlockInfoInput, bytes32))}};
const Shape storageBadBlockInfo = listOf(badBlockEntry);

}  // namespace shape
}  // namespace kel::fuzz
