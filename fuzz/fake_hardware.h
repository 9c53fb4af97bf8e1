// Hardware pipes on this machine: the fake CUVID driver (decoding for real with libde265 and
// libavcodec) and the host device table stand in for NVDEC and the GPU while an object of
// this class lives, so ZOHW_CreateDecoder makes hardware pipes.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "device/device_api.h"
#include "support/fake_cuvid.h"

class FakeHardware {
public:
    FakeHardware() { resetFakeCuvid(), device::hostDevice().reset(); }
    FakeHardware(const FakeHardware&) = delete;
    FakeHardware& operator=(const FakeHardware&) = delete;

    // Called when every pipe is gone: aborts, so that the fuzzer keeps the input, on a breach of
    // the driver's contract, a device fault, or a driver object or device allocation left
    // behind; then starts the next input from a clean driver and device.
    void checkAndReset() {
        const FakeCuvid& fake = fakeCuvid();
        const device::HostDevice& host = device::hostDevice();
        for (const std::string& breach : fake.faults) fprintf(stderr, "CUVID breach: %s\n", breach.c_str());
        for (const std::string& fault : host.faults) fprintf(stderr, "device fault: %s\n", fault.c_str());
        if (!fake.faults.empty() || !host.faults.empty()) abort();
        if (fake.liveObjects() || host.liveAllocations()) {
            fprintf(stderr, "%zu CUVID objects and %zu device allocations left behind\n", fake.liveObjects(),
                    host.liveAllocations());
            abort();
        }
        resetFakeCuvid();
        device::hostDevice().reset();
    }

private:
    DriverApi driver_ = fakeCuvid().driverApi();
    ScopedDriverApi scopedDriver_{driver_};
    device::ScopedApi hostTable_{device::hostApi()};
};
