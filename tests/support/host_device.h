// Tests on the host device table: host memory stands for device memory, and every fault a GPU
// would raise, and every device allocation left at the end of a test, fails the test.
#pragma once

#include <gtest/gtest.h>

#include "device/device_api.h"
#include "support/random_bytes.h"

class OnHostDevice : public testing::Test {
protected:
    OnHostDevice() { device::hostDevice().reset(); }
    void TearDown() override {
        expectNoFaults();
        EXPECT_EQ(device::hostDevice().liveAllocations(), 0u) << "device memory leaked";
        device::hostDevice().reset();
    }
    static void expectNoFaults() {
        for (const std::string& fault : device::hostDevice().faults) ADD_FAILURE() << fault;
        device::hostDevice().faults.clear();
    }

private:
    device::ScopedApi hostTable_{device::hostApi()};
};

// Device memory of the table in use, freed at scope end.
class DeviceBuffer {
public:
    explicit DeviceBuffer(size_t bytes) : bytes_(bytes) { device::api().allocate(&ptr_, bytes); }
    ~DeviceBuffer() { device::api().free(ptr_); }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;
    uint8_t* get() const { return static_cast<uint8_t*>(ptr_); }
    void upload(const Bytes& bytes) { device::api().copy(ptr_, bytes.data(), bytes.size(), device::CopyKind::HostToDevice); }
    Bytes download() const {
        Bytes bytes(bytes_);
        device::api().copy(bytes.data(), ptr_, bytes_, device::CopyKind::DeviceToHost);
        return bytes;
    }

private:
    void* ptr_ = nullptr;
    size_t bytes_;
};
