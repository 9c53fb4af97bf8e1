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

TEST(QrvReading, HardwareWalkReadsTheSampleInfoWithOrAfterThePayload) {
    // A 16 x 16 frame's buffer (1 KiB) takes a payload and its sample info in one read, a 4 x 4
    // one (64 bytes) cannot; both walks, whole and cut inside the last info, must match the builder.
    QrvBuilder builder(Bytes(40, 0xEE));
    for (uint32_t i = 0; i < 5; ++i) builder.add(i + 1, 7000 + i * 1000, kKeyFrameType, Bytes(20 + i * 9, uint8_t(i)));
    const Bytes whole = builder.bytes();
    for (const Bytes& bytes : {whole, Bytes(whole.begin(), whole.begin() + long(builder.recordOffset(4) - 100))}) {
        for (uint32_t side : {4u, 16u}) {
            TestFile file = openBytes(bytes);
            QrvHardwareReader reader;
            ASSERT_TRUE(reader.readIndex(openBytes(whole).get()));  // the cut file has no index
            ASSERT_EQ(fseeko(file.get(), off_t(builder.recordOffset(0)), SEEK_SET), 0);
            const QrvDecodeStep decode = [](const uint8_t* payload, uint32_t n, void*) { return n > 0 && payload[0] != 3 ? 1 : 0; };
            for (uint32_t r = 0; r < 4; ++r) {
                uint32_t frameNumber = 0, frameType = 0;
                uint64_t captureTime = 0;
                QrvSampleInfo info;
                const int got = reader.decodeNextRecord(file.get(), nullptr, &frameNumber, &captureTime, &frameType,
                                                        reinterpret_cast<uint8_t*>(&info), side, side, decode);
                const bool cut = bytes.size() < whole.size() && r == 3;
                EXPECT_EQ(std::make_tuple(got, frameNumber, captureTime, ftello(file.get())),
                          std::make_tuple(r == 3 ? 0 : 1, r + 1, 7000 + r * 1000ull,
                                          int64_t(cut ? bytes.size() : builder.recordOffset(r + 1)))) << side << " " << r;
                const QrvSampleInfo expected = cut ? QrvSampleInfo{} : testSampleInfo(7000 + r * 1000, r);
                EXPECT_EQ(memcmp(&info, &expected, sizeof info), 0) << side << " " << r;
            }
        }
    }
}
