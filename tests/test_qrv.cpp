// QRV files: the writer against a byte-by-byte builder and an index out of reach (damaged files:
// test_qrv_reading.cpp; the hardware reader's seek limit: test_hw_decoder.cpp).
#include <gtest/gtest.h>
#include <zlib.h>

#include "support.h"

// Sample time = capture time / 1000; each index entry's spare word is its record's CRC-32 (zlib's, here),
// over records of 284 to 4381 bytes (metadata: test_recording_writes).
TEST(QrvWriter, MatchesTheBuilderByteForByte) {
    TestFile file = openBytes({'H', 'D', 'R', 0, 7});
    fseeko(file.get(), 0, SEEK_END);
    QrvBuilder expected({'H', 'D', 'R', 0, 7});
    std::vector<QrvIndexEntry> index;
    const uint64_t times[] = {1999, 0, 123456789012345ull, 999};
    for (uint32_t i = 0; i < 4; ++i) {
        const Bytes payload = randomBytes(i == 3 ? 4097 : i * 100, i);
        const QrvSampleInfo info = testSampleInfo(0, i);
        index.push_back({uint64_t(ftello(file.get())), i == 0 ? kKeyFrameType : 1, 0});
        ASSERT_EQ(qrvWriteRecord(file.get(), {i + 1, times[i], index.back().frameType, payload.data(), payload.size(),
                                              reinterpret_cast<const uint32_t*>(info.metadata), 64},
                                 &index.back().reserved), 0);
        const size_t start = expected.records.size();
        expected.add(i + 1, times[i], index.back().frameType, payload);
        expected.index.back().reserved = crc32(0, &expected.records[start], uInt(expected.records.size() - start));
    }
    ASSERT_EQ(qrvWriteIndex(file.get(), index, 4), 0);
    EXPECT_EQ(readAll(file.get()), expected.bytes());
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
