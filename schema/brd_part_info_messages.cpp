// The board partition messages' routines in the server unit.
#include "schema/brd_part_info_messages.hpp"

#include "schema/server_routines.hpp"
#include "schema/server_unit.hpp"

using BrdPartInfoInputCodec = kel::ServerCodec<kel::message::BrdPartInfoInput>;
using BrdPartInfoCodec = kel::ServerCodec<kel::message::BrdPartInfo>;

uintptr_t Kel_sys_diag_BrdPartInfoInput_unpack(const void* bytes, uint32_t length, void* record) {
  return BrdPartInfoInputCodec::unpack(bytes, length, record);
}

uint32_t Kel_sys_diag_BrdPartInfo_pack(const PackTarget* target, const void* record) {
  return BrdPartInfoCodec::pack(target, record, Kel_sys_diag_BrdPartInfo_pack);
}

void Kel_sys_diag_BrdPartInfo_free_unpacked(void* record) { BrdPartInfoCodec::release(record); }
