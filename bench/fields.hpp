// Every record's fields in slot order, once for all rivals, whose generated accessors bear the same
// names. For bench/.
//
// KEL_FIELDS_<Record>(SCALAR, BYTES, TEXT, TABLE, ENTRIES) expands to one of its arguments a field,
// applied to the field's name as records, protobuf and nanopb write it and as Cap'n Proto's
// accessors do.
#pragma once

#include <kel_sys_diag/records.h>

namespace kel::bench {

// C has no empty records, so the public headers cannot hold this one.
struct BrdPartInfoInput {};

}  // namespace kel::bench

// Those without a message of their own come first: the others refer to them.
#define KEL_FOR_EACH_NESTED_RECORD(visit)                                              \
  visit(DiagSubRecord) visit(BrdPartEntry) visit(FdProcEntry) visit(StorageEraseEntry) \
      visit(StorageBadBlockEntry)

// Twins stand here once.
#define KEL_FOR_EACH_MESSAGE_RECORD(visit)                                                         \
  visit(AlarmInput) visit(AlarmOutput) visit(OverloadAlarmInput) visit(OverloadDiskAlarmInput)     \
      visit(OvLoadDiskCtlInput) visit(OvLoadDiskCtlOutput) visit(BrdPartInfoInput)                 \
          visit(BrdPartInfo) visit(FdProcInfoInput) visit(FdProcInfoOutput)                        \
              visit(SysOvLoadDiskThreshold) visit(OperResult) visit(SysDiskUseInput)               \
                  visit(SysDiskUseInfoResult) visit(StorageEraseInfoInput) visit(StorageEraseInfo) \
                      visit(StorageBadBlockInfoInput) visit(StorageBadBlockInfo)

#define KEL_FOR_EACH_RECORD(visit) \
  KEL_FOR_EACH_NESTED_RECORD(visit) KEL_FOR_EACH_MESSAGE_RECORD(visit)

#define KEL_FIELDS_DiagSubRecord(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  SCALAR(value16, Value16)                                            \
  SCALAR(byte1, Byte1)                                                \
  SCALAR(byte2, Byte2)                                                \
  SCALAR(byte3, Byte3)                                                \
  SCALAR(byte4, Byte4) SCALAR(byte5, Byte5) SCALAR(byte6, Byte6) SCALAR(value32, Value32)

#define KEL_FIELDS_BrdPartEntry(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  BYTES(bytes50a, Bytes50a)                                          \
  BYTES(bytes50b, Bytes50b)                                          \
  BYTES(bytes32, Bytes32)                                            \
  SCALAR(value1, Value1)                                             \
  SCALAR(value2, Value2) SCALAR(value3, Value3) SCALAR(value4, Value4) BYTES(bytes64, Bytes64)

#define KEL_FIELDS_FdProcEntry(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  SCALAR(value1, Value1)                                            \
  SCALAR(value2, Value2)                                            \
  TABLE(sub1, Sub1) TABLE(sub2, Sub2) TABLE(sub3, Sub3) BYTES(bytes256, Bytes256)

#define KEL_FIELDS_StorageEraseEntry(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  SCALAR(value1, Value1) SCALAR(value2, Value2)

#define KEL_FIELDS_StorageBadBlockEntry(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  BYTES(bytes32, Bytes32) SCALAR(value1, Value1)

#define KEL_FIELDS_AlarmInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  SCALAR(value1, Value1)                                           \
  SCALAR(value2, Value2)                                           \
  TEXT(text, Text)                                                 \
  SCALAR(value3, Value3) SCALAR(value4, Value4) BYTES(bytes32, Bytes32) SCALAR(value5, Value5)

#define KEL_FIELDS_AlarmOutput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) TEXT(text, Text)

#define KEL_FIELDS_OverloadAlarmInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  SCALAR(value1, Value1)                                                   \
  SCALAR(value2, Value2)                                                   \
  SCALAR(value3, Value3)                                                   \
  SCALAR(value4, Value4)                                                   \
  TABLE(sub, Sub)                                                          \
  SCALAR(value5, Value5)                                                   \
  SCALAR(value6, Value6)                                                   \
  SCALAR(value7, Value7)                                                   \
  BYTES(bytes64, Bytes64) SCALAR(value8, Value8) SCALAR(value9, Value9) SCALAR(value10, Value10)

#define KEL_FIELDS_OverloadDiskAlarmInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  SCALAR(value1, Value1)                                                       \
  SCALAR(value2, Value2)                                                       \
  SCALAR(value3, Value3)                                                       \
  SCALAR(value4, Value4)                                                       \
  TABLE(sub, Sub)                                                              \
  BYTES(bytes64, Bytes64) BYTES(bytes32, Bytes32) SCALAR(value5, Value5) SCALAR(value6, Value6)

#define KEL_FIELDS_OvLoadDiskCtlInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  BYTES(bytes32a, Bytes32a) BYTES(bytes32b, Bytes32b) BYTES(bytes50, Bytes50)

#define KEL_FIELDS_OvLoadDiskCtlOutput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  BYTES(bytes32a, Bytes32a)                                                 \
  BYTES(bytes32b, Bytes32b) SCALAR(value1, Value1) SCALAR(value2, Value2) BYTES(bytes50, Bytes50)

#define KEL_FIELDS_BrdPartInfoInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES)

#define KEL_FIELDS_BrdPartInfo(SCALAR, BYTES, TEXT, TABLE, ENTRIES) ENTRIES(entries, Entries)

#define KEL_FIELDS_FdProcInfoInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  SCALAR(value1, Value1) SCALAR(value2, Value2)

#define KEL_FIELDS_FdProcInfoOutput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) ENTRIES(entries, Entries)

#define KEL_FIELDS_SysOvLoadDiskThreshold(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  BYTES(bytes50, Bytes50) SCALAR(value1, Value1)

#define KEL_FIELDS_OperResult(SCALAR, BYTES, TEXT, TABLE, ENTRIES) SCALAR(result, Result)

#define KEL_FIELDS_SysDiskUseInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) BYTES(bytes50, Bytes50)

#define KEL_FIELDS_SysDiskUseInfoResult(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  BYTES(bytes50a, Bytes50a)                                                  \
  BYTES(bytes50b, Bytes50b)                                                  \
  SCALAR(value1, Value1)                                                     \
  SCALAR(value2, Value2)                                                     \
  SCALAR(value3, Value3) BYTES(bytes32, Bytes32) SCALAR(value4, Value4) SCALAR(value5, Value5)

#define KEL_FIELDS_StorageEraseInfoInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) SCALAR(value1, Value1)

#define KEL_FIELDS_StorageEraseInfo(SCALAR, BYTES, TEXT, TABLE, ENTRIES) ENTRIES(entries, Entries)

#define KEL_FIELDS_StorageBadBlockInfoInput(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  BYTES(bytes32, Bytes32)

#define KEL_FIELDS_StorageBadBlockInfo(SCALAR, BYTES, TEXT, TABLE, ENTRIES) \
  ENTRIES(entries, Entries)
