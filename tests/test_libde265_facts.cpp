// What the software decoder relies on in libde265 (Debian's 1.0.11), measured on real x265
// streams against ffmpeg's decode of the same streams.
#include <dirent.h>
#include <gtest/gtest.h>
#include <libde265/de265.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "support/hevc_streams.h"

namespace {

struct DecoderDeleter {
    void operator()(de265_decoder_context* d) const { de265_free_decoder(d); }
};
using Decoder = std::unique_ptr<de265_decoder_context, DecoderDeleter>;

Decoder newDecoder(int threads = 4) {
    Decoder decoder(de265_new_decoder());
    de265_set_parameter_bool(decoder.get(), DE265_DECODER_PARAM_SUPPRESS_FAULTY_PICTURES, false);
    EXPECT_EQ(de265_start_worker_threads(decoder.get(), threads), DE265_OK);
    return decoder;
}

struct SampleResult {
    const de265_image* picture = nullptr;
    int decodeCalls = 0;
    bool anyError = false;  // a status other than DE265_OK from de265_decode
};

// Pushes one access unit, flushes, and decodes until its picture comes out or the
// decoder says there is nothing more.
SampleResult decodeSample(de265_decoder_context* decoder, const std::vector<uint8_t>& au,
                          de265_PTS pts) {
    EXPECT_EQ(de265_push_data(decoder, au.data(), int(au.size()), pts, nullptr), DE265_OK);
    EXPECT_EQ(de265_flush_data(decoder), DE265_OK);
    SampleResult result;
    int more = 1;
    while (more && !result.picture && result.decodeCalls < 1000) {
        result.anyError |= de265_decode(decoder, &more) != DE265_OK;
        ++result.decodeCalls;
        result.picture = de265_get_next_picture(decoder);
    }
    return result;
}

// The picture's visible area equals the tightly packed 4:2:0 reference frame.
bool equalsReference(const de265_image* picture, const std::vector<uint8_t>& yuv, uint32_t w,
                     uint32_t h) {
    const uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
    const uint32_t widths[3] = {w, cw, cw}, heights[3] = {h, ch, ch};
    size_t offset = 0;
    for (int c = 0; c < 3; ++c) {
        if (de265_get_image_width(picture, c) != int(widths[c]) ||
            de265_get_image_height(picture, c) != int(heights[c]))
            return false;
        int stride = 0;
        const uint8_t* plane = de265_get_image_plane(picture, c, &stride);
        for (uint32_t r = 0; r < heights[c]; ++r)
            if (std::memcmp(plane + size_t(r) * stride, yuv.data() + offset + size_t(r) * widths[c], widths[c]))
                return false;
        offset += size_t(widths[c]) * heights[c];
    }
    return true;
}

size_t countNalUnits(const std::vector<uint8_t>& au) {
    size_t n = 0;
    for (size_t i = 0; i + 2 < au.size(); ++i)
        if (au[i] == 0 && au[i + 1] == 0 && au[i + 2] == 1) ++n, i += 2;
    return n;
}

class Libde265Facts : public ::testing::Test {
protected:
    void SetUp() override {
        std::string whyMissing;
        streams = hevcStreams("tests", whyMissing);
        if (streams.empty()) GTEST_SKIP() << whyMissing;
    }
    std::vector<HevcStream> streams;
};

// Decoding sample by sample with a flush after each, on one decoder, gives exactly ffmpeg's
// pictures; a de265_reset between samples drops the reference pictures, so every P-frame
// comes out wrong although no call reports an error.
TEST_F(Libde265Facts, FlushKeepsReferencePicturesAndResetSilentlyLosesThem) {
    for (const char* name : {"gop5_200x120", "gop3_208x120", "gop4_198x118"}) {
        SCOPED_TRACE(name);
        const HevcStream& s = hevcStream(streams, name);
        const auto aus = qrvPayloads(s.qrvPath);
        const auto reference = referenceYuv420Frames(s);
        ASSERT_EQ(aus.size(), s.frames);
        ASSERT_EQ(reference.size(), s.frames);

        Decoder flushed = newDecoder();
        Decoder reset = newDecoder();
        for (size_t i = 0; i < aus.size(); ++i) {
            SCOPED_TRACE("sample " + std::to_string(i));
            const SampleResult a = decodeSample(flushed.get(), aus[i], de265_PTS(i));
            ASSERT_NE(a.picture, nullptr);
            EXPECT_FALSE(a.anyError);
            EXPECT_TRUE(equalsReference(a.picture, reference[i], s.width, s.height));

            const SampleResult b = decodeSample(reset.get(), aus[i], de265_PTS(i));
            ASSERT_NE(b.picture, nullptr);
            EXPECT_FALSE(b.anyError);
            const bool keyFrame = i % s.keyint == 0;
            EXPECT_EQ(equalsReference(b.picture, reference[i], s.width, s.height), keyFrame);
            de265_reset(reset.get());
        }
    }
}

// Each de265_decode call takes one NAL unit off the input; the picture is out after the
// call that decoded the slice, and the next call reports DE265_OK with more = 0.
TEST_F(Libde265Facts, OneNalUnitPerDecodeCallThenOkWithNoMore) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");
    const auto aus = qrvPayloads(s.qrvPath);
    Decoder decoder = newDecoder();
    for (size_t i = 0; i < aus.size(); ++i) {
        SCOPED_TRACE("sample " + std::to_string(i));
        ASSERT_EQ(de265_push_data(decoder.get(), aus[i].data(), int(aus[i].size()), 0, nullptr), DE265_OK);
        de265_flush_data(decoder.get());
        const int nalUnits = int(countNalUnits(aus[i]));
        // An IDR frame carries VPS, SPS and PPS besides its slice.
        EXPECT_GE(nalUnits, i % s.keyint == 0 ? 4 : 1);
        ASSERT_EQ(de265_get_number_of_NAL_units_pending(decoder.get()), nalUnits);
        const de265_image* picture = nullptr;
        for (int pending = nalUnits; pending > 0; --pending) {
            ASSERT_EQ(picture, nullptr) << "picture before the last NAL unit";
            int more = 0;
            EXPECT_EQ(de265_decode(decoder.get(), &more), DE265_OK);
            EXPECT_EQ(more, 1);
            EXPECT_EQ(de265_get_number_of_NAL_units_pending(decoder.get()), pending - 1);
            picture = de265_get_next_picture(decoder.get());
        }
        EXPECT_NE(picture, nullptr);
        int more = 1;
        EXPECT_EQ(de265_decode(decoder.get(), &more), DE265_OK);
        EXPECT_EQ(more, 0);
        EXPECT_EQ(de265_get_next_picture(decoder.get()), nullptr);
    }
}

// Without its reference picture a P-frame still decodes to a picture: libde265 makes up
// the missing reference, with no error and no warning.
TEST_F(Libde265Facts, MissingReferenceIsConcealedWithoutAnyReport) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");
    const auto aus = qrvPayloads(s.qrvPath);
    const auto reference = referenceYuv420Frames(s);
    Decoder decoder = newDecoder();
    const size_t key = s.keyint;  // the second IDR frame
    ASSERT_NE(decodeSample(decoder.get(), aus[key], 0).picture, nullptr);
    const SampleResult skipped = decodeSample(decoder.get(), aus[key + 2], 1);  // key + 1 left out
    ASSERT_NE(skipped.picture, nullptr);
    EXPECT_FALSE(skipped.anyError);
    EXPECT_EQ(de265_get_warning(decoder.get()), DE265_OK);
    EXPECT_FALSE(equalsReference(skipped.picture, reference[key + 2], s.width, s.height));
}

// The image that de265_get_next_picture hands out belongs to the decoder: a later
// de265_decode gives its planes back to the allocator and reuses the image for another
// picture. It has to be copied out before libde265 is called again.
struct AllocationLog {
    const de265_image_allocation* defaults = de265_get_default_image_allocation_functions();
    std::vector<const de265_image*> released;
};

int getBuffer(de265_decoder_context* ctx, de265_image_spec* spec, de265_image* img, void* user) {
    return static_cast<AllocationLog*>(user)->defaults->get_buffer(ctx, spec, img, user);
}

void releaseBuffer(de265_decoder_context* ctx, de265_image* img, void* user) {
    auto* log = static_cast<AllocationLog*>(user);
    log->released.push_back(img);
    log->defaults->release_buffer(ctx, img, user);
}

TEST_F(Libde265Facts, PictureIsReleasedAndReusedByLaterDecoding) {
    const HevcStream& s = hevcStream(streams, "gop5_200x120");
    const auto aus = qrvPayloads(s.qrvPath);
    AllocationLog log;
    de265_image_allocation allocation{getBuffer, releaseBuffer};
    Decoder decoder(de265_new_decoder());
    de265_set_image_allocation_functions(decoder.get(), &allocation, &log);
    ASSERT_EQ(de265_start_worker_threads(decoder.get(), 4), DE265_OK);

    const de265_PTS firstPts = 1000;
    const de265_image* first = decodeSample(decoder.get(), aus[0], firstPts).picture;
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(de265_get_image_PTS(first), firstPts);
    bool reused = false;
    for (size_t i = 1; i < aus.size() && !reused; ++i) {
        const de265_image* picture = decodeSample(decoder.get(), aus[i], firstPts + de265_PTS(i)).picture;
        ASSERT_NE(picture, nullptr);
        reused = picture == first;
        if (reused) {
            EXPECT_EQ(de265_get_image_PTS(first), firstPts + de265_PTS(i));
            EXPECT_NE(std::find(log.released.begin(), log.released.end(), first), log.released.end())
                << "the image's planes were given back before its reuse";
        }
    }
    EXPECT_TRUE(reused) << "the first image was never reused";
}

// ---- Worker threads ----

std::vector<int> threadIds() {
    std::vector<int> ids;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.') ids.push_back(std::stoi(entry->d_name));
    closedir(dir);
    return ids;
}

// Run time in nanoseconds of every thread of this process except the calling one.
int64_t otherThreadsRunTime() {
    int64_t total = 0;
    for (int id : threadIds()) {
        if (id == gettid()) continue;
        FILE* f = fopen(("/proc/self/task/" + std::to_string(id) + "/schedstat").c_str(), "r");
        long long ns = 0;
        if (f) {
            if (fscanf(f, "%lld", &ns) != 1) ns = 0;
            fclose(f);
        }
        total += ns;
    }
    return total;
}

int64_t callingThreadRunTime() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

struct ThreadUse {
    int64_t workersNs;
    int64_t callerNs;
    std::vector<de265_error> warnings;
};

// Decodes a whole stream in one piece and measures where the work ran.
ThreadUse decodeWholeStream(const std::vector<std::vector<uint8_t>>& aus, bool inLoopFilters) {
    Decoder decoder = newDecoder();
    de265_set_parameter_bool(decoder.get(), DE265_DECODER_PARAM_DISABLE_DEBLOCKING, !inLoopFilters);
    de265_set_parameter_bool(decoder.get(), DE265_DECODER_PARAM_DISABLE_SAO, !inLoopFilters);
    usleep(20000);  // let the new threads settle into their wait
    ThreadUse use{-otherThreadsRunTime(), -callingThreadRunTime(), {}};
    for (const auto& au : aus) de265_push_data(decoder.get(), au.data(), int(au.size()), 0, nullptr);
    de265_flush_data(decoder.get());
    int more = 1, pictures = 0;
    while (more) {
        de265_decode(decoder.get(), &more);
        while (de265_get_next_picture(decoder.get())) ++pictures;
        for (de265_error w; (w = de265_get_warning(decoder.get())) != DE265_OK;) use.warnings.push_back(w);
    }
    use.workersNs += otherThreadsRunTime();
    use.callerNs += callingThreadRunTime();
    EXPECT_EQ(size_t(pictures), aus.size());
    return use;
}

bool contains(const std::vector<de265_error>& v, de265_error e) {
    return std::find(v.begin(), v.end(), e) != v.end();
}

TEST_F(Libde265Facts, WorkerThreadsDecodeSlicesOnlyWithWavefronts) {
    const size_t before = threadIds().size();
    {
        Decoder decoder = newDecoder(4);
        EXPECT_EQ(threadIds().size(), before + 4);
    }
    EXPECT_EQ(threadIds().size(), before);

    const auto wpp = qrvPayloads(hevcStream(streams, "wpp_640x480").qrvPath);
    const auto noWpp = qrvPayloads(hevcStream(streams, "nowpp_640x480").qrvPath);

    // With WPP the worker threads do most of the work.
    const ThreadUse wavefronts = decodeWholeStream(wpp, true);
    EXPECT_GT(wavefronts.workersNs, wavefronts.callerNs);
    EXPECT_FALSE(contains(wavefronts.warnings, DE265_WARNING_NO_WPP_CANNOT_USE_MULTITHREADING));

    // Without WPP or tiles the slices are decoded on the calling thread, and libde265 says
    // so; the worker threads then only run the in-loop filters (deblocking, SAO).
    const ThreadUse plain = decodeWholeStream(noWpp, false);
    EXPECT_TRUE(contains(plain.warnings, DE265_WARNING_NO_WPP_CANNOT_USE_MULTITHREADING));
    EXPECT_LT(plain.workersNs * 20, plain.callerNs);
    const ThreadUse filtered = decodeWholeStream(noWpp, true);
    EXPECT_GT(filtered.workersNs * 20, filtered.callerNs);
}

}  // namespace
