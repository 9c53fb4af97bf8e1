// HEVC pictures on the CPU with libde265.
#include <libde265/de265.h>

#include <chrono>
#include <thread>
#include <vector>

#include "codec/PictureDecoder.h"
#include "container/annexb.h"

namespace {

constexpr int kWorkerThreads = 4;
// Bound on the wait for one access unit's picture. libde265 answers every record long before
// this; it only guards against a decoder that keeps reporting work without finishing.
constexpr std::chrono::seconds kPictureDeadline{2};

class Libde265Decoder : public PictureDecoder {
public:
    explicit Libde265Decoder(uint64_t maxPixels) : PictureDecoder(AnnexBCodec::Hevc), maxPixels(maxPixels) {
        decoder = de265_new_decoder();
        if (!decoder) return;
        // Pictures with decoding faults are still delivered.
        de265_set_parameter_bool(decoder, DE265_DECODER_PARAM_SUPPRESS_FAULTY_PICTURES, false);
        lastError = de265_start_worker_threads(decoder, kWorkerThreads);
        ready = lastError == DE265_OK;
    }
    ~Libde265Decoder() override {
        if (decoder) de265_free_decoder(decoder);
    }

    bool decode(const uint8_t* accessUnit, uint32_t bytes, DecodedPicture& picture) override {
        // Deliberate departure: an access unit whose parameter sets declare a picture larger than
        // the pipe's is refused before libde265 sees it. libde265 allocates the declared picture and
        // conceals what the payload lacks, so a record of a hundred bytes claiming 16384 x 16384
        // would cost a gigabyte and seconds inside one de265_decode call, where no deadline reaches.
        if (!declaresPictureWithinLimit(accessUnit, bytes)) return false;

        lastError = de265_push_data(decoder, accessUnit, int(bytes), ptsCounter, nullptr);
        ptsCounter += bytes;
        // Each access unit is decoded as a complete piece of stream, so its picture comes out now.
        // The decoder keeps its reference pictures across the flush.
        de265_flush_data(decoder);

        // Each de265_decode call decodes one NAL unit. Once the data is used up (more = 0)
        // without a picture, none will come: the access unit is bad.
        const auto deadline = std::chrono::steady_clock::now() + kPictureDeadline;
        for (;;) {
            int more = 0;
            const de265_error status = de265_decode(decoder, &more);
            if (const de265_image* image = de265_get_next_picture(decoder)) {
                describe(image, picture);
                return true;
            }
            if (!more || std::chrono::steady_clock::now() > deadline) return false;
            // A stalled decoder (waiting for input or for its worker threads) gets a moment;
            // a decoder that made progress is asked again at once.
            if (status != DE265_OK) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

private:
    static void describe(const de265_image* image, DecodedPicture& picture) {
        picture = DecodedPicture{};
        picture.width = uint32_t(de265_get_image_width(image, 0));
        picture.height = uint32_t(de265_get_image_height(image, 0));
        picture.planar420 = de265_get_chroma_format(image) == de265_chroma_420;
        for (int channel = 0; channel < 3; ++channel) {
            picture.planes[channel] = de265_get_image_plane(image, channel, &picture.strides[channel]);
            picture.planar420 &= de265_get_bits_per_pixel(image, channel) == 8 && picture.planes[channel];
        }
    }

    bool declaresPictureWithinLimit(const uint8_t* payload, uint32_t bytes) const {
        std::vector<HevcPictureSize> sizes;
        if (!hevcDeclaredPictureSizes(payload, bytes, sizes)) return false;
        for (const HevcPictureSize& size : sizes)
            if (uint64_t(size.width) * size.height > maxPixels) return false;
        return true;
    }

    uint64_t maxPixels;
    de265_error lastError = DE265_OK;
    de265_decoder_context* decoder = nullptr;
    int64_t ptsCounter = 0;  // running sum of the pushed bytes
};

}  // namespace

std::unique_ptr<PictureDecoder> makeLibde265Decoder(uint64_t maxPixels) {
    return std::make_unique<Libde265Decoder>(maxPixels);
}
