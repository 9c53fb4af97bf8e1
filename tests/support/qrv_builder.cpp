#include "support/qrv_builder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

void appendLittleEndian(std::vector<uint8_t>& out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(uint8_t(value >> (8 * i)));
}

void patchLittleEndian(std::vector<uint8_t>& out, size_t at, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.at(at + size_t(i)) = uint8_t(value >> (8 * i));
}

}  // namespace

std::vector<uint32_t> qrvTestMetadata(uint32_t seed) {
    std::vector<uint32_t> words(kMetadataWords);
    for (uint32_t i = 0; i < kMetadataWords; ++i) words[i] = seed * 64 + i;
    return words;
}

QrvSampleInfo qrvTestSampleInfo(uint64_t captureTime, const std::vector<uint32_t>& metadata) {
    std::vector<uint8_t> raw;
    appendLittleEndian(raw, captureTime / 1000, 8);
    for (uint32_t word : metadata) appendLittleEndian(raw, word, 4);
    QrvSampleInfo info{};
    memcpy(&info, raw.data(), std::min(raw.size(), sizeof info));
    return info;
}

QrvBuilder::QrvBuilder(std::vector<uint8_t> header) : data_(std::move(header)) {}

size_t QrvBuilder::addRecord(uint32_t frameNumber, uint64_t captureTime, uint32_t frameType,
                             const std::vector<uint8_t>& payload) {
    return addRecord(frameNumber, captureTime, frameType, payload, qrvTestMetadata(uint32_t(entries_.size())));
}

size_t QrvBuilder::addRecord(uint32_t frameNumber, uint64_t captureTime, uint32_t frameType,
                             const std::vector<uint8_t>& payload, const std::vector<uint32_t>& metadata) {
    entries_.push_back({data_.size(), frameType, 0});
    writtenEntries_.push_back(entries_.back());
    appendLittleEndian(data_, frameNumber, 4);
    appendLittleEndian(data_, captureTime, 8);
    appendLittleEndian(data_, frameType, 4);
    appendLittleEndian(data_, payload.size(), 4);
    data_.insert(data_.end(), payload.begin(), payload.end());
    appendLittleEndian(data_, captureTime / 1000, 8);
    for (uint32_t word : metadata) appendLittleEndian(data_, word, 4);
    return entries_.size() - 1;
}

void QrvBuilder::setIndexOffset(size_t record, uint64_t offset) {
    writtenEntries_.at(record).recordOffset = offset;
}

void QrvBuilder::setPayloadBytesField(size_t record, uint32_t value) {
    patchLittleEndian(data_, size_t(recordOffset(record)) + 16, value, 4);
}

std::vector<uint8_t> QrvBuilder::bytes() const {
    std::vector<uint8_t> out = data_;
    if (omitIndex_) return out;
    for (const QrvIndexEntry& entry : writtenEntries_) {
        appendLittleEndian(out, entry.recordOffset, 8);
        appendLittleEndian(out, entry.frameType, 4);
        appendLittleEndian(out, 0, 4);
    }
    appendLittleEndian(out, trailer_ ? *trailer_ : uint32_t(entries_.size()), 4);
    return out;
}

QrvTestFile qrvOpenEmpty() {
    QrvTestFile file(tmpfile());
    if (!file) throw std::runtime_error("cannot create a temporary file");
    return file;
}

QrvTestFile qrvOpenBytes(const std::vector<uint8_t>& bytes) {
    QrvTestFile file = qrvOpenEmpty();
    if (!bytes.empty() && fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
        throw std::runtime_error("cannot write a temporary file");
    rewind(file.get());
    return file;
}

std::vector<uint8_t> qrvReadAll(FILE* file) {
    std::vector<uint8_t> out;
    fflush(file);
    rewind(file);
    uint8_t chunk[4096];
    size_t got = 0;
    while ((got = fread(chunk, 1, sizeof chunk, file)) > 0) out.insert(out.end(), chunk, chunk + got);
    return out;
}
