// How the readers fetch the bytes of a file: a regular file is read by offset in large pieces,
// an in-memory stream through the stream. Both give the same tables, on real recordings and on
// damaged ones, and no index makes a reader hold much more than the file.
#include <gtest/gtest.h>

#include "support.h"

namespace {

template <typename T>
void appendTable(Bytes& out, const std::vector<T>& table) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(table.data());
    out.insert(out.end(), bytes, bytes + table.size() * sizeof(T));
}

// Both readers' results, every table byte and where each left the stream.
Bytes readBoth(FILE* stream) {
    QrvHardwareReader hardware;
    QrvSoftwareIndex software;
    Bytes out;
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

Bytes readFromMemory(Bytes bytes) { return readBoth(TestFile(fmemopen(bytes.data(), bytes.size(), "rb")).get()); }

// A recording, and damaged copies of it: cut short, index entries pointing elsewhere or out
// of order, a wrong trailer.
std::vector<Bytes> damagedCopies(const Bytes& whole) {
    uint32_t n = 0;
    memcpy(&n, whole.data() + whole.size() - 4, 4);
    const size_t index = whole.size() - 4 - size_t(n) * 16;
    std::vector<Bytes> copies(12, whole);
    copies[1].resize(whole.size() - 1);
    copies[2].resize(whole.size() / 2);
    copies[3].resize(index + 10);
    putLittleEndian(copies[4], index + 16, 0, 8);                                  // before any record
    putLittleEndian(copies[5], index + 16 * (n / 2), whole.size(), 8);             // at the end
    putLittleEndian(copies[6], index + 16 * (n / 2), (uint64_t(1) << 63) + 5, 8);  // far outside
    putLittleEndian(copies[7], index + 16 * 2, 300, 8);                            // inside a record
    std::swap_ranges(copies[8].begin() + long(index), copies[8].begin() + long(index + 16),
                     copies[8].begin() + long(index + 16 * (n - 1)));  // first and last
    putLittleEndian(copies[9], whole.size() - 4, n - 1, 4);  // trailers that lie
    putLittleEndian(copies[10], whole.size() - 4, n + 3, 4);
    for (size_t e = 0; e < n; ++e) putLittleEndian(copies[11], index + 16 * e, 16, 8);  // all at one place
    return copies;
}

}  // namespace

TEST(QrvReading, RegularFilesAndStreamsGiveTheSameTables) {
    for (const char* name : {"gop5_200x120", "gop3_208x120", "gop4_198x118", "single_200x120", "wpp_640x480"}) {
        const auto copies = damagedCopies(readFile(hevcStream(name).qrvPath));
        for (size_t c = 0; c < copies.size(); ++c)
            EXPECT_EQ(readBoth(openBytes(copies[c]).get()), readFromMemory(copies[c])) << name << " copy " << c;
    }
}

TEST(QrvReading, TablesAcrossLargeAndSparseRecords) {
    // Runs of small records longer than one read, and records of 600 KB: records close
    // together share a read, records far apart do not.
    QrvBuilder builder(Bytes(7, 0xEE));
    const uint32_t n = 4000;
    std::vector<QrvRecordHead> heads;
    std::vector<QrvSampleInfo> infos;  // the builder's, made independently of the writer
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t type = i % 3 == 0 ? kKeyFrameType : 1;
        builder.add(i + 1, 5000 + i * 1000, type, Bytes(i % 1500 ? 500 + i % 97 : 600000, 1));
        heads.push_back({i + 1, type, 5000 + i * 1000});
        infos.push_back(testSampleInfo(5000 + i * 1000, i));
    }
    Bytes expected;
    appendTable(expected, std::vector<int64_t>{true, 0, n, true, 0, n});
    appendTable(expected, builder.index);
    appendTable(expected, std::vector<QrvSampleInfo>(infos.begin(), infos.end() - 1));  // N - 1 here
    appendTable(expected, builder.index);
    appendTable(expected, heads);
    appendTable(expected, infos);
    EXPECT_EQ(readBoth(openBytes(builder.bytes()).get()), expected);
    EXPECT_EQ(readFromMemory(builder.bytes()), expected);
}

TEST(QrvReading, IndexPointingManyEntriesAtOneRecordIsRefused) {
    // Each 16-byte entry would cost a 264-byte sample info (and a head). Every record takes
    // at least 300 bytes of a file, so no table may hold more entries than that allows.
    for (uint32_t entries : {2u, 4096u}) {
        QrvBuilder builder(Bytes(300, 0xEE));
        builder.add(1, 1000, kKeyFrameType, {1, 2, 3});
        Bytes bytes = builder.records;  // the index is written here
        for (uint32_t e = 0; e < entries; ++e) putLittleEndian(bytes, builder.indexOffset(e), 300, 8);  // the record
        putLittleEndian(bytes, builder.indexOffset(entries), entries, 4);
        TestFile file = openBytes(bytes);
        QrvHardwareReader hardware;
        QrvSoftwareIndex software;  // (2 entries fit, 4096 do not)
        const bool fits = entries * 300 + 4 <= bytes.size();
        EXPECT_EQ(hardware.readIndex(file.get()), fits) << entries;
        EXPECT_EQ(qrvReadSoftwareIndex(file.get(), software), fits) << entries;
        EXPECT_LE(hardware.sampleInfos().capacity() * sizeof(QrvSampleInfo), bytes.size()) << entries;
        EXPECT_LE(software.sampleInfos.capacity() * sizeof(QrvSampleInfo), bytes.size()) << entries;
    }
}
