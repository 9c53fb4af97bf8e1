// How the readers fetch the bytes of a file: a regular file is read by offset in large pieces,
// an in-memory stream through the stream. Both give the same tables, on real recordings and on
// damaged files, which must fail cleanly with bounded work.
#include <gtest/gtest.h>

#include "support.h"

namespace {

template <typename T>
void appendTable(Bytes& out, const std::vector<T>& table) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(table.data());
    out.insert(out.end(), bytes, bytes + table.size() * sizeof(T));
}

// Both readers' results, every table byte and where each left the stream. No table holds more
// entries than the file has 16-byte index entries, nor more sample infos than fit in it.
Bytes readBoth(FILE* stream) {
    QrvHardwareReader hardware;
    QrvSoftwareIndex software;
    Bytes out;
    // A braced list is evaluated left to right.
    appendTable(out, std::vector<int64_t>{hardware.readIndex(stream), ftello(stream), hardware.frameCount(),
                                          qrvReadSoftwareIndex(stream, software), ftello(stream), software.sampleCount});
    fseeko(stream, 0, SEEK_END);
    const size_t fileBytes = std::max<int64_t>(ftello(stream), 4);
    EXPECT_LE(std::max(hardware.index().capacity(), software.frameList.capacity()) * 16 + 4, fileBytes);
    EXPECT_LE(std::max(hardware.sampleInfos().capacity(), software.sampleInfos.capacity()) * 264, fileBytes);
    appendTable(out, hardware.index());
    appendTable(out, hardware.sampleInfos());
    appendTable(out, software.frameList);
    appendTable(out, software.recordHeads);
    appendTable(out, software.sampleInfos);
    return out;
}

// The tables from a regular file, after checking that a memory stream gives the same.
Bytes readBothWays(Bytes bytes) {
    const Bytes tables = readBoth(openBytes(bytes).get());
    if (!bytes.empty()) {
        EXPECT_EQ(readBoth(TestFile(fmemopen(bytes.data(), bytes.size(), "rb")).get()), tables);
    }
    return tables;
}

}  // namespace

TEST(QrvReading, RealRecordingsWholeAndCut) {
    for (const char* name : {"gop5_200x120", "gop3_208x120", "gop4_198x118", "single_200x120", "wpp_640x480"}) {
        SCOPED_TRACE(name);
        const Bytes whole = readFile(hevcStream(name).qrvPath);
        EXPECT_EQ(readBothWays(whole).at(0), 1);
        readBothWays(Bytes(whole.begin(), whole.begin() + long(whole.size() / 2)));
    }
}

// Short files, counts that lie, index entries outside the file or off the record heads, and a payload
// size past the end. Where the index does not fit the file, both readers scan the records and read the
// file as if closed after its complete records. (Fuzzers walk damaged files and scan hostile ones.)
TEST(QrvReading, DamagedFiles) {
    QrvBuilder builder(Bytes(40, 0xEE));  // longer than any frame number: an index entry read as a record is refused
    for (uint32_t r = 0; r < 5; ++r) builder.add(r + 1, 5000 + r * 1333, r % 2 ? 2 : kKeyFrameType, {0, 0, 1, uint8_t(r), 7});
    const Bytes whole = builder.bytes();
    const size_t count = whole.size() - 4, entry2 = builder.indexOffset(2), size1 = builder.recordOffset(1) + 16;
    const struct {
        const char* what;
        size_t length, at;  // bytes kept; where `value` is written in `width` bytes
        uint64_t value;
        int width;
        int records;  // read as a closed file of this many records; 0: by its own index; -1: refused
    } cases[] = {
        {"empty", 0, 0, 0, 0, -1}, {"3 bytes", 3, 0, 0, 0, -1}, {"header only", 40, 0, 0, 0, -1},
        {"no index", builder.records.size(), 0, 0, 0, 5}, {"cut in record 3", builder.recordOffset(3) + 30, 0, 0, 0, 3},
        {"intact", whole.size(), 0, 0, 0, 0}, {"count 0", whole.size(), count, 0, 4, 5},
        {"count 2^32-1", whole.size(), count, 0xFFFFFFFF, 4, 5},
        {"count 7: metadata read as entries", whole.size(), count, 7, 4, 5},
        {"offset 2^63", whole.size(), entry2, 1ull << 63, 8, 5}, {"offset 100", whole.size(), entry2, 100, 8, 5},
        {"offset 0", whole.size(), entry2, 0, 8, 5}, {"offset of entry 4", whole.size(), entry2, builder.recordOffset(4), 8, 0},
        {"payload size 2^32-1", whole.size(), size1, 0xFFFFFFFF, 4, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bytes(whole.begin(), whole.begin() + long(c.length));
        if (c.width) putLittleEndian(bytes, c.at, c.value, c.width);
        const Bytes tables = readBothWays(bytes);
        EXPECT_EQ(std::make_pair(tables.at(0), tables.at(24)), std::make_pair(uint8_t(c.records >= 0), uint8_t(c.records >= 0)));
        if (c.records > 0) { EXPECT_EQ(tables, readBothWays(builder.closedAfter(size_t(c.records)))); }
    }
}

// Each entry costs a 264-byte sample info and every record takes at least 300 bytes of a file: an
// index pointing 4096 entries at one record is refused, one pointing 2 entries at it is read.
TEST(QrvReading, IndexPointingManyEntriesAtOneRecord) {
    for (uint32_t entries : {2u, 4096u}) {
        QrvBuilder builder(Bytes(300, 0xEE));
        builder.add(1, 1000, kKeyFrameType, {1, 2, 3});
        Bytes bytes = builder.records;  // the index is written here
        for (uint32_t e = 0; e < entries; ++e) {
            putLittleEndian(bytes, builder.indexOffset(e), 300, 8);
            putLittleEndian(bytes, builder.indexOffset(e) + 8, kKeyFrameType, 4);
        }
        putLittleEndian(bytes, builder.indexOffset(entries), entries, 4);
        const Bytes tables = readBothWays(bytes);
        EXPECT_EQ(std::make_pair(tables.at(0), tables.at(24)), std::make_pair(uint8_t(entries == 2), uint8_t(entries == 2)));
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
    EXPECT_EQ(readBothWays(builder.bytes()), expected);
}

// x265's stream cut after every byte reads in both readers as the file closed after its complete records:
// the same tables, each reader's own rules kept (test_hw_decoder compares the pipes' frames and seeks).
TEST(QrvReading, EveryCutReadsAsTheFileClosedAfterItsCompleteRecords) {
    const Bytes whole = readFile(hevcStream("gop5_200x120").qrvPath);
    QrvSoftwareIndex tables;
    ASSERT_TRUE(qrvReadSoftwareIndex(openBytes(whole).get(), tables));
    QrvBuilder recording(Bytes(whole.begin(), whole.begin() + long(tables.found.recordsEnd)));
    recording.index = tables.frameList;
    const size_t n = recording.index.size();
    std::vector<Bytes> closed(n + 1);  // the tables of each closed file, of k records
    for (size_t k = 1; k <= n; ++k) closed[k] = readBothWays(recording.closedAfter(k));
    EXPECT_EQ(closed[n], readBothWays(whole));
    for (size_t cut = 0, k = 0; cut < whole.size(); ++cut) {
        while (k < n && (k + 1 < n ? recording.recordOffset(k + 1) : recording.records.size()) <= cut) ++k;
        const Bytes read = readBothWays(Bytes(whole.begin(), whole.begin() + long(cut)));
        ASSERT_EQ(k ? read : Bytes({read.at(0), read.at(24)}), k ? closed[k] : Bytes(2, 0)) << "cut after " << cut << " bytes";
    }
}

// A file still being written, through the writer's own stream: each new read finds the records complete by then.
TEST(QrvReading, AFileBeingWrittenReadsTheRecordsCompleteSoFar) {
    const Bytes whole = readFile(hevcStream("gop5_200x120").qrvPath);
    QrvSoftwareIndex closed, early, later;
    ASSERT_TRUE(qrvReadSoftwareIndex(openBytes(whole).get(), closed));
    TestFile file = openBytes(Bytes(whole.begin(), whole.begin() + long(closed.frameList[5].recordOffset + 100)));
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), early));
    fseeko(file.get(), 0, SEEK_END);
    fwrite(whole.data() + ftello(file.get()), 1, closed.found.recordsEnd - uint64_t(ftello(file.get())), file.get());
    ASSERT_TRUE(qrvReadSoftwareIndex(file.get(), later));
    EXPECT_EQ(std::make_pair(early.recordHeads.size(), later.recordHeads.size()), std::make_pair(size_t(5), closed.recordHeads.size()));
}
