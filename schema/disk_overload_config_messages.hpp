// KelGetDiskOvLoadCfgInfo's request and reply. Schemas for every room above; routines for client/.
#pragma once

#include <kel_sys_diag/records.h>
#include <kel_sys_diag/rpc.h>

#include "codec/korva_schema.hpp"

template <>
struct korva::Schema<OvLoadDiskCtlInput>
    : korva::Slots<&OvLoadDiskCtlInput::bytes32a, &OvLoadDiskCtlInput::bytes32b,
                   &OvLoadDiskCtlInput::bytes50> {};

template <>
struct korva::Schema<OvLoadDiskCtlOutput>
    : korva::Slots<&OvLoadDiskCtlOutput::bytes32a, &OvLoadDiskCtlOutput::bytes32b,
                   &OvLoadDiskCtlOutput::value1, &OvLoadDiskCtlOutput::value2,
                   &OvLoadDiskCtlOutput::bytes50> {};

extern "C" {

uint32_t Kel_sys_diag_OvLoadDiskCtlInput_pack(const PackTarget* target, const void* record);
int32_t Kel_sys_diag_OvLoadDiskCtlInput_fixed_pack(uint8_t* buffer, const void* record);
uint32_t Kel_sys_diag_OvLoadDiskCtlInput_fixed_size(void);

uintptr_t Kel_sys_diag_OvLoadDiskCtlOutput_unpack(const void* bytes, uint32_t length, void* record);
void Kel_sys_diag_OvLoadDiskCtlOutput_free_unpacked(void* record);

}  // extern "C"
