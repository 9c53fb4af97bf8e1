// QRV container costs: the record writer against one raw fwrite and fflush per record of the
// same bytes (target: at least 0.9 of its bytes per second); opening recordings of 100,000 and 1,000,000 records with each reader, and walking
// their records, against a plain sequential read of the same file.
//
// Targets: opening 1,000,000 records within 3x of the plain read (and under 250 ms); the
// walk at no less than half the plain read's records per second; scanning the records of a
// file without an index (an unclosed recording) of 1,000,000 records, and a file of zeros of the
// same size, within 2x of the plain read ("x plain read").
#include <benchmark/benchmark.h>

#include <chrono>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "container/file_ranges.h"
#include "container/qrv_file.h"
#include "container/qrv_scan.h"
#include "kernels/packing.h"

namespace {

constexpr size_t kRecords = 1000;
constexpr size_t kPayloadBytes = 50000;
constexpr size_t kRecordBytes = 20 + kPayloadBytes + 8 + kMetadataBytes;

// A temporary file in TMPDIR that each iteration rewrites from the start.
struct TemporaryFile {
    TemporaryFile() {
        const char* dir = getenv("TMPDIR");
        path = std::string(dir && *dir ? dir : "/tmp") + "/bench_writer_XXXXXX";
        stream = fdopen(mkstemp(path.data()), "w+b");
    }
    ~TemporaryFile() {
        fclose(stream);
        unlink(path.c_str());
    }
    std::string path;
    FILE* stream;
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

// The writer as ZOHW_Encode_And_Store uses it: each record checked, checksummed and flushed to
// the system (argument 1), and without the checksum (argument 0), which shows what it costs.
void BM_RecordWriter(benchmark::State& state) {
    const std::vector<uint8_t> payload = makePayload();
    const std::vector<uint32_t> metadata = makeMetadata();
    TemporaryFile file;
    uint32_t checksum = 0;
    for (auto _ : state) {
        rewind(file.stream);
        for (uint32_t i = 0; i < kRecords; ++i)
            if (qrvWriteRecord(file.stream, {i + 1, i * 33333ull, i % 30 == 0 ? kKeyFrameType : 0, payload.data(),
                                             payload.size(), metadata.data(), int32_t(metadata.size())},
                               state.range(0) ? &checksum : nullptr) != 0)
                state.SkipWithError("a record was not written");
        benchmark::DoNotOptimize(checksum);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kRecords * kRecordBytes));
}
BENCHMARK(BM_RecordWriter)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// The baseline: the same bytes per record, laid out in advance, written with one fwrite and
// flushed.
void BM_RawFwrite(benchmark::State& state) {
    const std::vector<uint8_t> payload = makePayload();
    const std::vector<uint32_t> metadata = makeMetadata();
    std::vector<uint8_t> record(kRecordBytes);
    memcpy(record.data() + 20, payload.data(), kPayloadBytes);
    memcpy(record.data() + 20 + kPayloadBytes + 8, metadata.data(), kMetadataBytes);
    TemporaryFile file;
    for (auto _ : state) {
        rewind(file.stream);
        for (uint32_t i = 0; i < kRecords; ++i)
            if (fwrite(record.data(), 1, record.size(), file.stream) != record.size() || fflush(file.stream) != 0)
                state.SkipWithError("a record was not written");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kRecords * kRecordBytes));
}
BENCHMARK(BM_RawFwrite)->Unit(benchmark::kMillisecond)->UseRealTime();

// Recordings of 100,000 and 1,000,000 records with 100-byte payloads (400 bytes a record, as
// 30 fps of small frames), written once into the temporary directory, so page-cache warm.
// Opening and walking them is measured against a plain sequential read of the same file.
class Recording {
public:
    explicit Recording(uint32_t records) : records_(records) {
        const char* dir = getenv("TMPDIR");
        path_ = std::string(dir && *dir ? dir : "/tmp") + "/bench_container_XXXXXX";
        stream_ = fdopen(mkstemp(path_.data()), "w+b");
        std::vector<uint8_t> payload(100, 0x5A);
        payload[2] = 1;  // an Annex-B start code, 00 00 01, as every encoder's payload has
        payload[0] = payload[1] = 0;
        const std::vector<uint32_t> metadata = makeMetadata();
        std::vector<QrvIndexEntry> index;
        for (uint32_t i = 0; i < records; ++i) {
            index.push_back({uint64_t(qrvTell(stream_)), i % 30 == 0 ? kKeyFrameType : 0, 0});
            qrvWriteRecord(stream_, {i + 1, i * 33333ull, index.back().frameType, payload.data(), payload.size(),
                                     metadata.data(), int32_t(metadata.size())});
        }
        qrvWriteIndex(stream_, index, records);
        fflush(stream_);
    }
    ~Recording() {
        fclose(stream_);
        unlink(path_.c_str());
    }

    FILE* stream() const { return stream_; }
    const std::string& path() const { return path_; }
    uint32_t records() const { return records_; }

private:
    uint32_t records_;
    std::string path_;
    FILE* stream_;
};

const Recording& recording(int64_t records) {
    static std::unique_ptr<Recording> files[2];
    std::unique_ptr<Recording>& file = files[records == 100000 ? 0 : 1];
    if (!file) file = std::make_unique<Recording>(uint32_t(records));
    return *file;
}

void setRecordRate(benchmark::State& state, const Recording& file) {
    state.counters["records/s"] =
        benchmark::Counter(double(file.records()) * double(state.iterations()), benchmark::Counter::kIsRate);
}

// The whole file, front to back, 1 MiB a read; returns the seconds it took.
double readWholeFile(const std::string& path) {
    static std::vector<uint8_t> buffer(1 << 20);
    const auto start = std::chrono::steady_clock::now();
    const int fd = open(path.c_str(), O_RDONLY);
    while (read(fd, buffer.data(), buffer.size()) > 0) benchmark::DoNotOptimize(buffer.data());
    close(fd);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The baseline: the whole file, front to back, 1 MiB a read.
void PlainRead(benchmark::State& state) {
    const Recording& file = recording(state.range(0));
    for (auto _ : state) readWholeFile(file.path());
    setRecordRate(state, file);
}
BENCHMARK(PlainRead)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The scan of an unclosed recording (argument 0: the recording of 1,000,000 records; 1: a file of
// zeros of its size, which holds no record), each run against a plain read of the same file just
// before it: "x plain read" is the ratio of their times.
void ScanRecords(benchmark::State& state) {
    const Recording& recording = ::recording(1000000);
    std::string path = recording.path();
    if (state.range(0) == 1) {
        path += "_zeros";
        FILE* zeros = fopen(path.c_str(), "wb");
        // Written, not sparse: a sparse file reads without touching the page cache's pages.
        const std::vector<uint8_t> block(1 << 20, 0);
        for (uint64_t done = 0; done < uint64_t(qrvTell(recording.stream())); done += block.size())
            fwrite(block.data(), 1, block.size(), zeros);
        fclose(zeros);
    }
    FILE* stream = fopen(path.c_str(), "rb");
    double scanSeconds = 0, readSeconds = 0;
    for (auto _ : state) {
        state.PauseTiming();
        readSeconds += readWholeFile(path);
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        QrvRecordScan scan;
        const bool found = qrvScanRecords(FileBytes(stream), scan);
        scanSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (found != (state.range(0) == 0) || (found && scan.index.size() != recording.records()))
            state.SkipWithError("the scan did not find the records");
    }
    fclose(stream);
    if (state.range(0) == 1) unlink(path.c_str());
    state.counters["x plain read"] = scanSeconds / readSeconds;
}
BENCHMARK(ScanRecords)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// What ZOHW_CreateQRVTracker does on each kind of pipe: a fresh reader reads the index, the
// record heads (software) and the sample infos. Freeing the tables is not counted.
template <typename Tables, bool (*readTables)(FILE*, Tables&)>
void OpenRecording(benchmark::State& state) {
    const Recording& file = recording(state.range(0));
    for (auto _ : state) {
        auto tables = std::make_unique<Tables>();
        if (!readTables(file.stream(), *tables)) state.SkipWithError("the index was not read");
        state.PauseTiming();
        tables.reset();
        state.ResumeTiming();
    }
    setRecordRate(state, file);
}
bool hardwareReadIndex(FILE* stream, QrvHardwareReader& reader) { return reader.readIndex(stream); }
BENCHMARK_TEMPLATE(OpenRecording, QrvHardwareReader, hardwareReadIndex)
    ->Name("OpenRecording/Hardware")->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_TEMPLATE(OpenRecording, QrvSoftwareIndex, qrvReadSoftwareIndex)
    ->Name("OpenRecording/Software")->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Sequential decoding's walk over every record (head, payload, sample info) with a decode
// step that does nothing, on a stream of its own with stdio's buffer (argument 0) or with a
// 1 MiB buffer that the caller gave it (argument 1): the walk reads through the caller's
// stream, so that buffer decides how many system calls it takes.
struct WalkStream {
    WalkStream(const Recording& file, bool largeBuffer) : stream(fopen(file.path().c_str(), "rb")) {
        if (largeBuffer) setvbuf(stream, buffer.data(), _IOFBF, buffer.size());
    }
    ~WalkStream() { fclose(stream); }
    std::vector<char> buffer = std::vector<char>(1 << 20);
    FILE* stream;
};

void WalkHardware(benchmark::State& state) {
    const Recording& file = recording(state.range(0));
    WalkStream walk(file, state.range(1) != 0);
    QrvHardwareReader reader;
    if (!reader.readIndex(walk.stream)) state.SkipWithError("the index was not read");
    const QrvDecodeStep decode = [](const uint8_t*, uint32_t, void*) { return 1; };
    uint32_t frameNumber = 0, frameType = 0;
    uint64_t captureTime = 0;
    QrvSampleInfo info;
    for (auto _ : state) {
        rewind(walk.stream);
        // Sequential reading refuses the last record, whose frame number is N.
        for (uint32_t i = 0; i + 1 < file.records(); ++i)
            if (reader.decodeNextRecord(walk.stream, nullptr, &frameNumber, &captureTime, &frameType,
                                        reinterpret_cast<uint8_t*>(&info), 64, 64, decode) != 1)
                state.SkipWithError("a record was not read");
    }
    setRecordRate(state, file);
}

void WalkSoftware(benchmark::State& state) {
    const Recording& file = recording(state.range(0));
    WalkStream walk(file, state.range(1) != 0);
    std::vector<uint8_t> payload;
    QrvSoftwareRecord record;
    for (auto _ : state) {
        rewind(walk.stream);
        for (uint32_t i = 0; i < file.records(); ++i)
            if (!qrvReadSoftwareRecord(walk.stream, int32_t(file.records()), payload, packing::maxAccessUnitBytes(64, 64), record))
                state.SkipWithError("a record was not read");
    }
    setRecordRate(state, file);
}
// The least that any walk costs which leaves the caller's stream at the end of each record:
// one fread of each record's bytes through the same kind of stream. glibc's fseeko asks the
// system for the position even within its buffer, so reading through the buffer is the only
// way to move a stream without a system call, and a buffer of stdio's size (4 KiB) still
// costs one read a few records.
void StreamRecordReads(benchmark::State& state) {
    const Recording& file = recording(state.range(0));
    WalkStream walk(file, state.range(1) != 0);
    std::vector<uint8_t> record(20 + 100 + sizeof(QrvSampleInfo));
    for (auto _ : state) {
        rewind(walk.stream);
        for (uint32_t i = 0; i < file.records(); ++i)
            if (fread(record.data(), 1, record.size(), walk.stream) != record.size())
                state.SkipWithError("a record was not read");
    }
    setRecordRate(state, file);
}
BENCHMARK(StreamRecordReads)->ArgsProduct({{100000, 1000000}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(WalkHardware)->ArgsProduct({{100000, 1000000}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(WalkSoftware)->ArgsProduct({{100000, 1000000}, {0, 1}})->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
