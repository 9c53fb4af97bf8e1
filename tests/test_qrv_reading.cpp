// How the readers fetch the bytes of a file: a regular file is read by offset in large pieces,
// an in-memory stream through the stream. Both give the same tables, on real recordings and on
// damaged ones, and no index makes a reader hold much more than the file.
#include <gtest/gtest.h>

#include <cstring>

#include "container/qrv_file.h"
#include "support/hevc_streams.h"
#include "support/qrv_builder.h"
#include "support/test_streams.h"

namespace {

template <typename T>
void appendTable(std::vector<uint8_t>& out, const std::vector<T>& table) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(table.data());
    out.insert(out.end(), bytes, bytes + table.size() * sizeof(T));
}

// Both readers' results, every table byte and where each left the stream.
std::vector<uint8_t> readBoth(FILE* stream) {
    QrvHardwareReader hardware;
    QrvSoftwareIndex software;
    std::vector<uint8_t> out;
    // A braced list is evaluated left to right.
    appendTable(out, std::vector<int64_t>{hardware.readIndex(stream), ftello(stream), hardware.frameCount(),
                                          qrvReadSoftwareIndex(stream, software), ftello(stream), software.sampleCount});
    appendTable(out, hardware.index());
    appendTable(out, hardware.sampleInfos());
    appendTable(out, software.frameList);
    appendTable(out, software.recordHeads);
    appendTable(out, software.sampleInfos);
    return out;
}

std::vector<uint8_t> readFromMemory(std::vector<uint8_t> bytes) {
    return readBoth(QrvTestFile(fmemopen(bytes.data(), bytes.size(), "rb")).get());
}

void patch(std::vector<uint8_t>& bytes, size_t at, uint64_t value, size_t width) {
    if (at + width <= bytes.size()) memcpy(bytes.data() + at, &value, width);
}

// A recording, and damaged copies of it: cut short, index entries pointing elsewhere or out
// of order, a wrong trailer.
std::vector<std::vector<uint8_t>> damagedCopies(const std::vector<uint8_t>& whole) {
    uint32_t n = 0;
    memcpy(&n, whole.data() + whole.size() - 4, 4);
    const size_t index = whole.size() - 4 - size_t(n) * 16;
    std::vector<std::vector<uint8_t>> copies(12, whole);
    copies[1].resize(whole.size() - 1);
    copies[2].resize(whole.size() / 2);
    copies[3].resize(index + 10);
    patch(copies[4], index + 16, 0, 8);                                  // before any record
    patch(copies[5], index + 16 * (n / 2), whole.size(), 8);             // at the end
    patch(copies[6], index + 16 * (n / 2), (uint64_t(1) << 63) + 5, 8);  // far outside
    patch(copies[7], index + 16 * 2, 300, 8);                            // inside a record
    std::swap_ranges(copies[8].begin() + long(index), copies[8].begin() + long(index + 16),
                     copies[8].begin() + long(index + 16 * (n - 1)));  // first and last
    patch(copies[9], whole.size() - 4, n - 1, 4);  // trailers that lie
    patch(copies[10], whole.size() - 4, n + 3, 4);
    for (size_t e = 0; e < n; ++e) patch(copies[11], index + 16 * e, 16, 8);  // all at one place
    return copies;
}

}  // namespace

TEST(QrvReading, RegularFilesAndStreamsGiveTheSameTables) {
    HEVC_STREAMS_OR_SKIP(streams, "tests");
    for (const HevcStream& s : streams) {
        const auto copies = damagedCopies(readFileBytes(s.qrvPath));
        for (size_t c = 0; c < copies.size(); ++c)
            EXPECT_EQ(readBoth(qrvOpenBytes(copies[c]).get()), readFromMemory(copies[c])) << s.name << " copy " << c;
    }
}

TEST(QrvReading, TablesAcrossLargeAndSparseRecords) {
    // Runs of small records longer than one read, and records of 600 KB: records close
    // together share a read, records far apart do not.
    QrvBuilder builder(std::vector<uint8_t>(7, 0xEE));
    const uint32_t n = 4000;
    std::vector<QrvIndexEntry> index;
    std::vector<QrvRecordHead> heads;
    std::vector<QrvSampleInfo> infos;  // the builder's, made independently of the writer
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t type = i % 3 == 0 ? kKeyFrameType : 1;
        builder.addRecord(i + 1, 5000 + i * 1000, type, std::vector<uint8_t>(i % 1500 ? 500 + i % 97 : 600000, 1));
        index.push_back({builder.recordOffset(i), type, 0});
        heads.push_back({i + 1, type, 5000 + i * 1000});
        infos.push_back(qrvTestSampleInfo(5000 + i * 1000, qrvTestMetadata(i)));
    }
    std::vector<uint8_t> expected;
    appendTable(expected, std::vector<int64_t>{true, 0, n, true, 0, n});
    appendTable(expected, index);
    appendTable(expected, std::vector<QrvSampleInfo>(infos.begin(), infos.end() - 1));  // N - 1 here
    appendTable(expected, index);
    appendTable(expected, heads);
    appendTable(expected, infos);
    EXPECT_EQ(readBoth(qrvOpenBytes(builder.bytes()).get()), expected);
    EXPECT_EQ(readFromMemory(builder.bytes()), expected);
}

TEST(QrvReading, IndexPointingManyEntriesAtOneRecordIsRefused) {
    // Each 16-byte entry would cost a 264-byte sample info (and a head). Every record takes
    // at least 300 bytes of a file, so no table may hold more entries than that allows.
    for (uint32_t entries : {2u, 4096u}) {
        QrvBuilder builder(std::vector<uint8_t>(300, 0xEE));
        builder.addRecord(1, 1000, kKeyFrameType, {1, 2, 3});
        builder.omitIndex();
        std::vector<uint8_t> bytes = builder.bytes();
        bytes.resize(bytes.size() + entries * 16 + 4);
        for (uint32_t e = 0; e < entries; ++e) patch(bytes, bytes.size() - 4 - 16 * (e + 1), 300, 8);  // the record
        patch(bytes, bytes.size() - 4, entries, 4);
        QrvTestFile file = qrvOpenBytes(bytes);
        QrvHardwareReader hardware;
        QrvSoftwareIndex software;  // (2 entries fit, 4096 do not)
        const bool fits = entries * 300 + 4 <= bytes.size();
        EXPECT_EQ(hardware.readIndex(file.get()), fits) << entries;
        EXPECT_EQ(qrvReadSoftwareIndex(file.get(), software), fits) << entries;
        EXPECT_LE(hardware.sampleInfos().capacity() * sizeof(QrvSampleInfo), bytes.size()) << entries;
        EXPECT_LE(software.sampleInfos.capacity() * sizeof(QrvSampleInfo), bytes.size()) << entries;
    }
}
