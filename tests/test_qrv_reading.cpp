// The readers on files that try to make them allocate far more than the file holds.
#include <gtest/gtest.h>

#include "container/qrv_file.h"
#include "support/qrv_builder.h"

TEST(QrvReading, IndexPointingManyEntriesAtOneRecordIsRefused) {
    // Each 16-byte entry would cost a 264-byte sample info (and a head): tables many times
    // the file's size. Every record takes at least 300 bytes of a file, so no table may hold
    // more entries than that allows.
    for (uint32_t entries : {2u, 4096u}) {
        QrvBuilder builder(std::vector<uint8_t>(300, 0xEE));
        builder.addRecord(1, 1000, kKeyFrameType, {1, 2, 3});
        builder.omitIndex();
        std::vector<uint8_t> bytes = builder.bytes();
        for (uint32_t e = 0; e < entries; ++e) {
            const uint8_t entry[16] = {44, 1};  // the record's offset, 300
            bytes.insert(bytes.end(), entry, entry + 16);
        }
        bytes.insert(bytes.end(), reinterpret_cast<uint8_t*>(&entries), reinterpret_cast<uint8_t*>(&entries) + 4);
        QrvTestFile file = qrvOpenBytes(bytes);
        QrvHardwareReader hardware;
        QrvSoftwareIndex software;
        const bool fits = entries * 300 + 4 <= bytes.size();
        EXPECT_EQ(hardware.readIndex(file.get()), fits) << entries;
        EXPECT_EQ(qrvReadSoftwareIndex(file.get(), software), fits) << entries;
        EXPECT_LE(hardware.sampleInfos().capacity() * sizeof(QrvSampleInfo), bytes.size()) << entries;
        EXPECT_LE(software.sampleInfos.capacity() * sizeof(QrvSampleInfo), bytes.size()) << entries;
    }
}
