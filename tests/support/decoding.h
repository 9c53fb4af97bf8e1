// Decoder tests: the fake CUVID driver on the host device table. Each test starts with a fresh
// driver and fails on any breach of the CUVID contract, any driver object or device allocation
// left behind, and any device fault.
#pragma once

#include <cstring>

#include "support/fake_cuvid.h"
#include "support/hevc_streams.h"
#include "support/host_device.h"

class Decoding : public OnHostDevice {
protected:
    Decoding() : fake((resetFakeCuvid(), fakeCuvid())), driver_(fake.driverApi()), scopedDriver_(driver_) {}
    void TearDown() override {
        for (const std::string& breach : fake.faults) ADD_FAILURE() << breach;
        EXPECT_EQ(fake.liveObjects(), 0u) << "CUVID object left alive";
        OnHostDevice::TearDown();
    }

    FakeCuvid& fake;

private:
    DriverApi driver_;
    ScopedDriverApi scopedDriver_;
};

// ffmpeg's decode of every frame of `stream` as NV12 with pitch = width.
inline std::vector<Bytes> referenceNv12Frames(const HevcStream& stream) {
    std::vector<Bytes> frames;
    const size_t w = stream.width, h = stream.height, cw = (w + 1) / 2, ch = (h + 1) / 2;
    for (const auto& yuv : referenceYuv420Frames(stream)) {
        Bytes nv12(yuv.begin(), yuv.begin() + long(w * h));
        nv12.resize(w * h + w * (h / 2));
        for (size_t r = 0; r < h / 2; ++r)
            for (size_t c = 0; c < w / 2; ++c) {
                nv12[w * h + r * w + 2 * c] = yuv[w * h + r * cw + c];
                nv12[w * h + r * w + 2 * c + 1] = yuv[w * h + cw * ch + r * cw + c];
            }
        frames.push_back(nv12);
    }
    return frames;
}

// Two access units as one sample.
inline Bytes joined(const Bytes& a, const Bytes& b) {
    Bytes sample(a);
    sample.insert(sample.end(), b.begin(), b.end());
    return sample;
}
