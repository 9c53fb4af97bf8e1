// Tests on the host device table: host memory stands for device memory, and every fault a GPU
// would raise, and every device allocation left at the end of a test, fails the test.
#pragma once

#include <gtest/gtest.h>

#include "device/device_api.h"
#include "support.h"

class OnHostDevice : public testing::Test {
protected:
    OnHostDevice() { device::hostDevice().reset(); }
    void TearDown() override {
        for (const std::string& fault : device::hostDevice().faults) ADD_FAILURE() << fault;
        EXPECT_EQ(device::hostDevice().liveAllocations(), 0u) << "device memory leaked";
        device::hostDevice().reset();
    }

private:
    device::ScopedApi hostTable_{device::hostApi()};
};

// Device memory of the table in use holding `bytes`, freed at scope end.
class DeviceBuffer {
public:
    explicit DeviceBuffer(const Bytes& bytes) : size_(bytes.size()) {
        device::api().allocate(&ptr_, size_);
        device::api().copy(ptr_, bytes.data(), size_, device::CopyKind::HostToDevice);
    }
    ~DeviceBuffer() { device::api().free(ptr_); }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;
    uint8_t* get() const { return static_cast<uint8_t*>(ptr_); }
    Bytes download() const {
        Bytes bytes(size_);
        device::api().copy(bytes.data(), ptr_, size_, device::CopyKind::DeviceToHost);
        return bytes;
    }

private:
    void* ptr_ = nullptr;
    size_t size_;
};
