// The record checksum that the index entry's spare word carries.
#pragma once

#include <cstddef>
#include <cstdint>

// CRC-32 (zlib's, the polynomial of gzip and PNG) of `bytes`, continuing from `crc` (0 to start),
// so that a record written or read in pieces gets the checksum of its bytes in file order:
// head, payload, sample time and metadata.
uint32_t qrvChecksum(uint32_t crc, const void* bytes, size_t byteCount);
