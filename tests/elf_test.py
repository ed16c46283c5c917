#!/usr/bin/python3
"""Checks the shared libraries as files: what leaves them, what they need, how they are protected.

Usage: elf_test.py BUILD_FOLDER
The expected names are written out here and not taken from the version scripts they check.
"""

import pathlib
import sys
import unittest

from elftools.elf.dynamic import DynamicSection
from elftools.elf.elffile import ELFFile
from elftools.elf.sections import NoteSection

CLIENT_METHODS = ["KelSendAlarm", "KelSendOverloadAlarm", "KelSendMobileDiskOverloadAlarm",
                  "KelGetDiskOvLoadCfgInfo"]
SERVED_METHODS = {
    "KelBrdPartInfoQuery": ("BrdPartInfoInput", "BrdPartInfo"),
    "FdProcInfoQuery": ("FdProcInfoInput", "FdProcInfoOutput"),
    "KelSysOvLoadDiskThresholdSet": ("SysOvLoadDiskThreshold", "OperResult"),
    "KelGetSysDiskUseInfo": ("SysDiskUseInput", "SysDiskUseInfoResult"),
    "KelResetDiskMakeFS": ("ResetDiskCondition", "ResetDiskResult"),
    "KelMountDisk": ("MountDiskInput", "MountDiskResult"),
    "KelQueryStorageEraseInfo": ("StorageEraseInfoInput", "StorageEraseInfo"),
    "KelQueryStorageBadBlockInfo": ("StorageBadBlockInfoInput", "StorageBadBlockInfo"),
}
FUNCTIONS = [
    *(f"KelSysdiagMaster_{method}{suffix}" for method in CLIENT_METHODS
      for suffix in ("SetIdl", "", "_async")),
    *(f"{method}_wrapper" for method in SERVED_METHODS),
]
DATA_SIZES = {
    "g_stServerAddr_KelSysdiagMaster": 104,
    "__module_spec_KelSysdiagQarne": 120,
    "intf_tbl_KelSysdiagQarne": 792,
    "msgdesc_tbl_KelSysdiagQarne": 272,
}
HOST = {
    "RPC_GetRpcInvoke", "RPC_IdlSyncCallStub", "RPC_IdlAsyncCallStub", "RPC_IdlServiceWrapper",
    *(name for method in SERVED_METHODS for name in (method, f"{method}_free")),
}

RECEIVED = ["AlarmInput", "OverloadAlarmInput", "OverloadDiskAlarmInput", "OvLoadDiskCtlInput",
            *(reply for request, reply in SERVED_METHODS.values())]
SENT = ["AlarmOutput", "OvLoadDiskCtlOutput",
        *(request for request, reply in SERVED_METHODS.values())]
PEER_FUNCTIONS = [
    *(f"Kel_sys_diag_{message}_pack" for message in SENT),
    *(f"Kel_sys_diag_{message}_{routine}" for message in RECEIVED
      for routine in ("unpack", "free_unpacked")),
]

# All that codecs may ask of the C library; the stack protector is for distributions that turn it on,
# and has its ARM half in the C library's loader.
LIBC = {
    "__stack_chk_fail", "__stack_chk_guard", "dlsym", "free", "malloc", "memcpy", "memset",
    "pthread_mutex_lock", "pthread_mutex_unlock", "strlen",
}

AARCH64_FEATURE_1_AND = 0xC0000000
BTI_AND_PAC = 3


class Library:
    """One ELF file, read as far as the checks need it."""

    def __init__(self, path):
        self.elf = ELFFile(path.open("rb"))
        sections = list(self.elf.iter_sections())
        self.dynamic = next(s for s in sections if isinstance(s, DynamicSection))
        self.symbols = [s for s in self.elf.get_section_by_name(".dynsym").iter_symbols() if s.name]
        self.all_symbols = list(self.elf.get_section_by_name(".symtab").iter_symbols())
        self.notes = [n for s in sections if isinstance(s, NoteSection) for n in s.iter_notes()]
        self.section_names = {s.name for s in sections}

    def tags(self, name):
        return [t for t in self.dynamic.iter_tags() if t.entry.d_tag == name]

    def defined(self):
        return {s.name: s for s in self.symbols if s["st_shndx"] != "SHN_UNDEF"}

    def undefined(self):
        return {s.name for s in self.symbols if s["st_shndx"] == "SHN_UNDEF"}

    def segment(self, kind):
        return next(s for s in self.elf.iter_segments() if s["p_type"] == kind)

    def aarch64_features(self):
        return next((int.from_bytes(p.pr_data, "little") for n in self.notes
                     if n["n_type"] == "NT_GNU_PROPERTY_TYPE_0" for p in n["n_desc"]
                     if p.pr_type == AARCH64_FEATURE_1_AND), 0)


class SharedLibrary:
    """What holds for either library; the classes below say which."""

    def test_exports_exactly_the_public_names(self):
        self.assertEqual(sorted(self.library.defined()), sorted([*self.functions, *self.data]))
        for name, symbol in self.library.defined().items():
            kind = "STT_OBJECT" if name in self.data else "STT_FUNC"
            self.assertEqual(symbol["st_info"]["type"], kind, name)
            self.assertEqual(symbol["st_other"]["visibility"], "STV_DEFAULT", name)
            if name in self.data:
                self.assertEqual(symbol["st_size"], self.data[name], name)

    def test_needs_libc_and_the_host_only(self):
        needed = [t.needed for t in self.library.tags("DT_NEEDED")]
        undefined = self.library.undefined()
        loader = ["ld-linux-aarch64.so.1"] if "__stack_chk_guard" in undefined else []
        self.assertEqual(needed, ["libc.so.6", *loader])
        self.assertEqual({n for n in undefined if n not in LIBC}, self.host)

    def test_runs_nothing_when_loaded(self):
        for tag in ("DT_INIT", "DT_FINI", "DT_INIT_ARRAY", "DT_FINI_ARRAY", "DT_PREINIT_ARRAY"):
            self.assertEqual(self.library.tags(tag), [], tag)
        unwanted = {".init", ".fini", ".init_array", ".fini_array", ".ctors", ".dtors"}
        self.assertEqual(self.library.section_names & unwanted, set())

    def test_is_hardened(self):
        flags = self.library.tags("DT_FLAGS_1")
        self.assertTrue(flags and flags[0].entry.d_val & 0x1, "not bound at load")
        self.assertIsNotNone(self.library.segment("PT_GNU_RELRO"))
        self.assertEqual(self.library.segment("PT_GNU_STACK")["p_flags"] & 1, 0, "executable stack")
        self.assertEqual(self.library.tags("DT_TEXTREL"), [])
        for segment in self.library.elf.iter_segments():
            if segment["p_type"] == "PT_LOAD":
                self.assertNotEqual(segment["p_flags"] & 3, 3, "writable and executable")

    def test_constants_are_read_only(self):
        relro = self.library.segment("PT_GNU_RELRO")
        writable = {s.name for s in self.library.all_symbols
                    if s["st_info"]["type"] == "STT_OBJECT" and s["st_shndx"] != "SHN_UNDEF"
                    and s["st_value"] >= relro["p_vaddr"] + relro["p_memsz"]}
        self.assertEqual(writable, {*self.data, *self.runtimes})

    def test_has_its_soname(self):
        self.assertEqual([t.soname for t in self.library.tags("DT_SONAME")], [self.soname])

    def test_is_branch_protected_on_arm(self):
        if self.library.elf["e_machine"] != "EM_AARCH64":
            self.skipTest("not built for ARM")
        self.assertEqual(self.library.aarch64_features() & BTI_AND_PAC, BTI_AND_PAC)


class MainLibrary(SharedLibrary, unittest.TestCase):
    soname = "libkel_sys_diag.so.1"
    functions = FUNCTIONS
    data = DATA_SIZES
    host = HOST
    runtimes = {"_ZN3kel13clientRuntimeE", "_ZN3kel13serverRuntimeE"}


class PeerLibrary(SharedLibrary, unittest.TestCase):
    soname = "libkel_sys_diag_peer.so.1"
    functions = PEER_FUNCTIONS
    data = {}
    host = set()
    runtimes = {"_ZN3kel11peerRuntimeE"}


if __name__ == "__main__":
    build = pathlib.Path(sys.argv.pop(1))
    MainLibrary.library = Library(build / MainLibrary.soname)
    PeerLibrary.library = Library(build / PeerLibrary.soname)
    unittest.main()
