// QRV container costs: the record writer against one raw fwrite per record of the same
// bytes, and reading the index and sample infos of a 100,000-record file with each reader.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "container/qrv_file.h"

namespace {

constexpr size_t kRecords = 1000;
constexpr size_t kPayloadBytes = 50000;
constexpr size_t kRecordBytes = 20 + kPayloadBytes + 8 + kMetadataBytes;

struct MemoryStream {
    std::vector<char> buffer = std::vector<char>(kRecords * kRecordBytes + 4096);
    FILE* stream = fmemopen(buffer.data(), buffer.size(), "w");
    ~MemoryStream() { fclose(stream); }
};

std::vector<uint8_t> makePayload() {
    std::vector<uint8_t> payload(kPayloadBytes);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 131 + 7);
    return payload;
}

std::vector<uint32_t> makeMetadata() {
    std::vector<uint32_t> words(kMetadataWords);
    for (size_t i = 0; i < words.size(); ++i) words[i] = uint32_t(i * 2654435761u);
    return words;
}

void BM_RecordWriter(benchmark::State& state) {
    const std::vector<uint8_t> payload = makePayload();
    const std::vector<uint32_t> metadata = makeMetadata();
    MemoryStream memory;
    for (auto _ : state) {
        rewind(memory.stream);
        for (uint32_t i = 0; i < kRecords; ++i)
            qrvWriteRecord(memory.stream, {i + 1, i * 33333ull, i % 30 == 0 ? kKeyFrameType : 0, payload.data(),
                                           payload.size(), metadata.data(), int32_t(metadata.size())});
        fflush(memory.stream);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kRecords * kRecordBytes));
}
BENCHMARK(BM_RecordWriter)->Unit(benchmark::kMillisecond);

// The same bytes per record, laid out in advance and written with one fwrite.
void BM_RawFwrite(benchmark::State& state) {
    const std::vector<uint8_t> payload = makePayload();
    const std::vector<uint32_t> metadata = makeMetadata();
    std::vector<uint8_t> record(kRecordBytes);
    memcpy(record.data() + 20, payload.data(), kPayloadBytes);
    memcpy(record.data() + 20 + kPayloadBytes + 8, metadata.data(), kMetadataBytes);
    MemoryStream memory;
    for (auto _ : state) {
        rewind(memory.stream);
        for (uint32_t i = 0; i < kRecords; ++i) fwrite(record.data(), 1, record.size(), memory.stream);
        fflush(memory.stream);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kRecords * kRecordBytes));
}
BENCHMARK(BM_RawFwrite)->Unit(benchmark::kMillisecond);

// A 100,000-record file with 100-byte payloads on the temporary directory, page-cache warm.
class IndexedFile : public benchmark::Fixture {
public:
    void SetUp(const benchmark::State&) override {
        if (stream) return;
        const char* dir = getenv("TMPDIR");
        path = std::string(dir && *dir ? dir : "/tmp") + "/bench_container_XXXXXX";
        const int fd = mkstemp(path.data());
        stream = fdopen(fd, "w+b");
        const std::vector<uint8_t> payload(100, 0x5A);
        const std::vector<uint32_t> metadata = makeMetadata();
        std::vector<QrvIndexEntry> index;
        for (uint32_t i = 0; i < 100000; ++i) {
            index.push_back({uint64_t(ftello(stream)), i % 30 == 0 ? kKeyFrameType : 0, 0});
            qrvWriteRecord(stream, {i + 1, i * 33333ull, index.back().frameType, payload.data(), payload.size(),
                                    metadata.data(), int32_t(metadata.size())});
        }
        qrvWriteIndex(stream, index, uint32_t(index.size()));
        fflush(stream);
    }
    ~IndexedFile() override {
        if (!stream) return;
        fclose(stream);
        unlink(path.c_str());
    }

    FILE* stream = nullptr;
    std::string path;
};

BENCHMARK_DEFINE_F(IndexedFile, HardwareReadIndex)(benchmark::State& state) {
    QrvHardwareReader reader;
    for (auto _ : state) {
        if (!reader.readIndex(stream)) state.SkipWithError("readIndex failed");
        benchmark::DoNotOptimize(reader.sampleInfos().data());
    }
    state.counters["infos"] = double(reader.sampleInfos().size());
}
BENCHMARK_REGISTER_F(IndexedFile, HardwareReadIndex)->Unit(benchmark::kMillisecond);

BENCHMARK_DEFINE_F(IndexedFile, SoftwareReadIndex)(benchmark::State& state) {
    QrvSoftwareIndex tables;
    for (auto _ : state) {
        if (!qrvReadSoftwareIndex(stream, tables)) state.SkipWithError("qrvReadSoftwareIndex failed");
        benchmark::DoNotOptimize(tables.sampleInfos.data());
    }
    state.counters["infos"] = double(tables.sampleInfos.size());
}
BENCHMARK_REGISTER_F(IndexedFile, SoftwareReadIndex)->Unit(benchmark::kMillisecond);

}  // namespace
