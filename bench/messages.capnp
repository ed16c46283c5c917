# The records as Cap'n Proto sees them. For bench/.
@0xa7c3b51e90d24f68;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("kel::bench::cp");

struct DiagSubRecord {
  value16 @0 :UInt16;
  byte1 @1 :UInt8;
  byte2 @2 :UInt8;
  byte3 @3 :UInt8;
  byte4 @4 :UInt8;
  byte5 @5 :UInt8;
  byte6 @6 :UInt8;
  value32 @7 :UInt32;
}

struct BrdPartEntry {
  bytes50a @0 :Data;
  bytes50b @1 :Data;
  bytes32 @2 :Data;
  value1 @3 :UInt64;
  value2 @4 :UInt64;
  value3 @5 :UInt64;
  value4 @6 :UInt32;
  bytes64 @7 :Data;
}

struct FdProcEntry {
  value1 @0 :UInt32;
  value2 @1 :UInt32;
  sub1 @2 :DiagSubRecord;
  sub2 @3 :DiagSubRecord;
  sub3 @4 :DiagSubRecord;
  bytes256 @5 :Data;
}

struct StorageEraseEntry {
  value1 @0 :UInt32;
  value2 @1 :UInt64;
}

struct StorageBadBlockEntry {
  bytes32 @0 :Data;
  value1 @1 :UInt64;
}

struct AlarmInput {
  value1 @0 :UInt32;
  value2 @1 :UInt32;
  text @2 :Text;
  value3 @3 :UInt32;
  value4 @4 :UInt32;
  bytes32 @5 :Data;
  value5 @6 :UInt32;
}

struct AlarmOutput {
  text @0 :Text;
}

struct OverloadAlarmInput {
  value1 @0 :UInt32;
  value2 @1 :UInt32;
  value3 @2 :UInt32;
  value4 @3 :UInt32;
  sub @4 :DiagSubRecord;
  value5 @5 :UInt32;
  value6 @6 :UInt32;
  value7 @7 :UInt32;
  bytes64 @8 :Data;
  value8 @9 :UInt32;
  value9 @10 :UInt32;
  value10 @11 :UInt32;
}

struct OverloadDiskAlarmInput {
  value1 @0 :UInt32;
  value2 @1 :UInt32;
  value3 @2 :UInt32;
  value4 @3 :UInt32;
  sub @4 :DiagSubRecord;
  bytes64 @5 :Data;
  bytes32 @6 :Data;
  value5 @7 :UInt32;
  value6 @8 :UInt32;
}

struct OvLoadDiskCtlInput {
  bytes32a @0 :Data;
  bytes32b @1 :Data;
  bytes50 @2 :Data;
}

struct OvLoadDiskCtlOutput {
  bytes32a @0 :Data;
  bytes32b @1 :Data;
  value1 @2 :UInt32;
  value2 @3 :UInt32;
  bytes50 @4 :Data;
}

struct BrdPartInfoInput {}

struct BrdPartInfo {
  entries @0 :List(BrdPartEntry);
}

struct FdProcInfoInput {
  value1 @0 :UInt32;
  value2 @1 :UInt32;
}

struct FdProcInfoOutput {
  entries @0 :List(FdProcEntry);
}

struct SysOvLoadDiskThreshold {
  bytes50 @0 :Data;
  value1 @1 :UInt32;
}

struct OperResult {
  result @0 :UInt32;
}

struct SysDiskUseInput {
  bytes50 @0 :Data;
}

struct SysDiskUseInfoResult {
  bytes50a @0 :Data;
  bytes50b @1 :Data;
  value1 @2 :UInt64;
  value2 @3 :UInt64;
  value3 @4 :UInt32;
  bytes32 @5 :Data;
  value4 @6 :UInt32;
  value5 @7 :UInt32;
}

struct StorageEraseInfoInput {
  value1 @0 :UInt32;
}

struct StorageEraseInfo {
  entries @0 :List(StorageEraseEntry);
}

struct StorageBadBlockInfoInput {
  bytes32 @0 :Data;
}

struct StorageBadBlockInfo {
  entries @0 :List(StorageBadBlockEntry);
}
