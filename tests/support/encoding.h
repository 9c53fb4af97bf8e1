// Encoder tests: the fake NVENC driver on the host device table. Each test starts with a fresh
// driver and interface choice, and fails on any breach of the NVENC contract, any session,
// library or device allocation left behind, and any device fault.
#pragma once

#include "codec/HwEncoder.h"
#include "support/fake_nvenc.h"
#include "support/host_device.h"

class Encoding : public OnHostDevice {
protected:
    Encoding() : fake(fakeNvenc() = FakeNvenc{}), driver_(fake.driverApi()), scopedDriver_(driver_) {
        HwEncoder::forgetInterfaceChoice();
    }
    void TearDown() override {
        for (const std::string& breach : fake.faults) ADD_FAILURE() << breach;
        EXPECT_TRUE(fake.sessions.empty()) << "NVENC session left open";
        EXPECT_EQ(fake.librariesLoaded, 0) << "NVENC library left loaded";
        OnHostDevice::TearDown();
    }
    size_t callCount(const std::string& name) const {
        size_t n = 0;
        for (const std::string& call : fake.calls) n += call == name;
        return n;
    }

    FakeNvenc& fake;

private:
    DriverApi driver_;
    ScopedDriverApi scopedDriver_;
};
