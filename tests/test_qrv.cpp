// QRV files: the writer against a byte-by-byte builder and an index out of reach (damaged files:
// test_qrv_reading.cpp; the hardware reader's seek limit: test_hw_decoder.cpp).
#include <gtest/gtest.h>
#include <zlib.h>

#include "container/checksum.h"
#include "support.h"

// Sample time = capture time / 1000; each index entry's spare word is the CRC-32 (zlib's, computed
// here) of its record's bytes; records carry 64 metadata words, shorter counts padded with zeros
// (the counts refused: test_recording_writes.cpp).
TEST(QrvWriter, MatchesTheBuilderByteForByte) {
    TestFile file = openBytes({'H', 'D', 'R', 0, 7});
    fseeko(file.get(), 0, SEEK_END);
    QrvBuilder expected({'H', 'D', 'R', 0, 7});
    std::vector<QrvIndexEntry> index;
    const uint64_t times[] = {1999, 0, 123456789012345ull, 999};
    for (uint32_t i = 0; i < 4; ++i) {
        const Bytes payload = randomBytes(i == 3 ? 4097 : i * 100, i);
        QrvSampleInfo info = testSampleInfo(0, i);
        const int32_t words = i == 2 ? 5 : 64;
        memset(info.metadata + 4 * words, 0, kMetadataBytes - 4 * size_t(words));
        index.push_back({uint64_t(ftello(file.get())), i == 0 ? kKeyFrameType : 1, 0});
        ASSERT_EQ(qrvWriteRecord(file.get(), {i + 1, times[i], index.back().frameType, payload.data(), payload.size(),
                                              reinterpret_cast<const uint32_t*>(info.metadata), words},
                                 &index.back().reserved), 0);
        expected.add(i + 1, times[i], index.back().frameType, payload);
        memcpy(&expected.records[expected.records.size() - kMetadataBytes], info.metadata, kMetadataBytes);
    }
    ASSERT_EQ(qrvWriteIndex(file.get(), index, 4), 0);
    Bytes bytes = expected.bytes();
    for (size_t r = 0; r < 4; ++r) {
        const size_t end = r + 1 < 4 ? expected.recordOffset(r + 1) : expected.records.size();
        putLittleEndian(bytes, expected.indexOffset(r) + 12,
                        crc32(0, &bytes[expected.recordOffset(r)], uInt(end - expected.recordOffset(r))), 4);
    }
    EXPECT_EQ(readAll(file.get()), bytes);
}

// A sparse file whose count claims 2^27 entries: the index (2 GiB + 4 bytes) fits in the file, but
// its distance from the end does not fit in a signed 32-bit integer.
TEST(QrvHostile, IndexBeyondTwoGibibytesIsOutOfReach) {
    const uint32_t count = 1u << 27;
    TestFile file = openBytes({});
    if (ftruncate(fileno(file.get()), off_t(count) * 16 + 4096) != 0) GTEST_SKIP() << "no sparse files here";
    ASSERT_TRUE(fseeko(file.get(), 0, SEEK_END) == 0 && fwrite(&count, 4, 1, file.get()) == 1 && fflush(file.get()) == 0);
    QrvHardwareReader hardware;
    QrvSoftwareIndex software;
    EXPECT_FALSE(hardware.readIndex(file.get()) || qrvReadSoftwareIndex(file.get(), software) || hardware.index().capacity());
}

// Record checksums are zlib's CRC-32 at every length and alignment, continued from any value, whichever
// way (folding 128 or 512 bits at a time, or zlib for the bytes after the blocks) they are computed.
TEST(QrvChecksum, IsZlibsCrc32) {
    const Bytes bytes = randomBytes(5000, 9);
    for (size_t length = 0; length < 1100; ++length)
        for (size_t offset : {0, 3}) {
            const uint32_t start = uint32_t(length * 2654435761u);
            ASSERT_EQ(qrvChecksum(start, &bytes[offset], length), crc32(start, &bytes[offset], uInt(length)))
                << length << " at " << offset;
        }
    EXPECT_EQ(qrvChecksum(0, bytes.data(), bytes.size()), crc32(0, bytes.data(), uInt(bytes.size())));
}
