#!/usr/bin/env python3
"""Lists the device code that a shared library or object carries, and checks it.

Reads the ELF section .nv_fatbin, which holds one fat binary per CUDA translation unit, one
after the other (8-byte aligned, zero padding between them). Layout as read from the bytes:

  fat binary header (16 bytes): u32 magic 0xBA55ED50, u16 version, u16 header size,
                                u64 size of the entries that follow
  entry header (header size given inside): u16 kind (1 PTX, 2 ELF), u16 version,
                                u32 header size, u64 payload size, ..., u32 sm arch at 28,
                                u64 flags at 40 (0x8000 / 0x2000: compressed payload),
                                u64 uncompressed size at 72 (compressed entries only)

Kernel names are looked for inside uncompressed entries and among the host-side registration
strings (the file's non-device bytes). The registration strings of one module lie in the order
in which its kernels are registered, so each --kernel list, one module's kernels, must appear
in that order.

  fatbin_inspect.py LIB                      print the entries
  fatbin_inspect.py LIB --sm 75 80 --ptx 120 --kernel NAME ... [--kernel NAME ...]
                                             check; exit status 1 on a miss
"""

import argparse
import struct
import sys

FATBIN_MAGIC = 0xBA55ED50
KIND_PTX = 1
KIND_ELF = 2
COMPRESSED_FLAGS = 0x8000 | 0x2000


def read_section(data, wanted):
    """Returns (offset, size) of the named section of a 64-bit little-endian ELF file."""
    if data[:4] != b"\x7fELF" or data[4] != 2 or data[5] != 1:
        raise ValueError("not a 64-bit little-endian ELF file")
    shoff = struct.unpack_from("<Q", data, 0x28)[0]
    shentsize, shnum, shstrndx = struct.unpack_from("<HHH", data, 0x3A)

    def header(index):
        base = shoff + index * shentsize
        name, _type, _flags, _addr, offset, size = struct.unpack_from("<IIQQQQ", data, base)
        return name, offset, size

    _, strtab_offset, _ = header(shstrndx)
    for index in range(shnum):
        name, offset, size = header(index)
        end = data.index(b"\0", strtab_offset + name)
        if data[strtab_offset + name:end].decode() == wanted:
            return offset, size
    raise ValueError("no section " + wanted)


def parse_entries(section):
    """Yields dicts describing each entry of each fat binary in the section."""
    position = 0
    while position + 16 <= len(section):
        magic, _version, header_size, entries_size = struct.unpack_from("<IHHQ", section, position)
        if magic != FATBIN_MAGIC:
            if any(section[position:position + 8]):
                raise ValueError("bad fat binary magic at offset %d" % position)
            position += 8  # padding between fat binaries
            continue
        entry = position + header_size
        end = entry + entries_size
        while entry < end:
            kind, _ver, entry_header, payload_size = struct.unpack_from("<HHIQ", section, entry)
            arch = struct.unpack_from("<I", section, entry + 28)[0]
            flags = struct.unpack_from("<Q", section, entry + 40)[0]
            payload = section[entry + entry_header:entry + entry_header + payload_size]
            yield {
                "kind": {KIND_PTX: "ptx", KIND_ELF: "elf"}.get(kind, "kind%d" % kind),
                "arch": arch,
                "compressed": bool(flags & COMPRESSED_FLAGS),
                "payload": payload,
            }
            entry += entry_header + payload_size
        position = (end + 7) & ~7


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("library")
    parser.add_argument("--sm", type=int, nargs="*", default=[], help="native code required for these archs")
    parser.add_argument("--ptx", type=int, nargs="*", default=[], help="PTX required for these archs")
    parser.add_argument("--kernel", nargs="*", action="append", default=[],
                        help="mangled kernel names of one module, in registration order")
    args = parser.parse_args()

    data = open(args.library, "rb").read()
    offset, size = read_section(data, ".nv_fatbin")
    section = data[offset:offset + size]
    entries = list(parse_entries(section))
    checking = bool(args.sm or args.ptx or args.kernel)
    if not checking:
        for e in entries:
            print("%s sm_%d %s %d bytes" % (e["kind"], e["arch"], "compressed" if e["compressed"] else "plain",
                                           len(e["payload"])))
        return 0

    failures = []
    for kind, archs in (("elf", args.sm), ("ptx", args.ptx)):
        for arch in archs:
            if not any(e["kind"] == kind and e["arch"] == arch for e in entries):
                failures.append("no %s entry for %d" % (kind, arch))
    host_bytes = data[:offset] + data[offset + size:]
    for module in args.kernel:
        positions = [host_bytes.find(name.encode() + b"\0") for name in module]
        found = [p for p in positions if p >= 0]
        if found != sorted(found):
            failures.append("kernels not registered in the order " + " ".join(module))
    kernels = [name for module in args.kernel for name in module]
    for name in kernels:
        encoded = name.encode()
        if encoded + b"\0" not in host_bytes:
            failures.append("%s: no host registration string" % name)
        for kind, archs in (("elf", args.sm), ("ptx", args.ptx)):
            for arch in archs:
                readable = [e for e in entries if e["kind"] == kind and e["arch"] == arch and not e["compressed"]]
                if not any(encoded in e["payload"] for e in readable):
                    failures.append("%s: not in an uncompressed %s entry for %d" % (name, kind, arch))
    for failure in failures:
        print("FAIL " + failure)
    print("%d device code entries, %d kernels, %d failures" % (len(entries), len(kernels), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
