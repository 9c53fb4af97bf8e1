// H.264 pictures on the CPU with libavcodec, which is loaded at run time: the library neither
// links it nor needs it where nothing decodes H.264 in software.
#include <dlfcn.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstring>
#include <vector>

#include "codec/PictureDecoder.h"

namespace {

#define ZOQRV_TEXT(x) #x
#define ZOQRV_EXPAND_TEXT(x) ZOQRV_TEXT(x)
// The sonames of the interfaces the headers describe: the structures' layouts hold for them only.
constexpr char kAvcodecName[] = "libavcodec.so." ZOQRV_EXPAND_TEXT(LIBAVCODEC_VERSION_MAJOR);
constexpr char kAvutilName[] = "libavutil.so." ZOQRV_EXPAND_TEXT(LIBAVUTIL_VERSION_MAJOR);
constexpr char kMissingText[] = "software H.264 decoding needs libavcodec.so." ZOQRV_EXPAND_TEXT(
    LIBAVCODEC_VERSION_MAJOR) " and libavutil.so." ZOQRV_EXPAND_TEXT(LIBAVUTIL_VERSION_MAJOR) ", which cannot be loaded";
#undef ZOQRV_EXPAND_TEXT
#undef ZOQRV_TEXT

// The entry points used, looked up once per process.
struct Libavcodec {
    decltype(&avcodec_find_decoder) findDecoder;
    decltype(&avcodec_alloc_context3) allocContext;
    decltype(&avcodec_open2) open;
    decltype(&avcodec_free_context) freeContext;
    decltype(&avcodec_send_packet) sendPacket;
    decltype(&avcodec_receive_frame) receiveFrame;
    decltype(&av_packet_alloc) packetAlloc;
    decltype(&av_packet_free) packetFree;
    decltype(&av_frame_alloc) frameAlloc;
    decltype(&av_frame_free) frameFree;
    decltype(&av_frame_unref) frameUnref;
};

template <class Function>
bool lookUp(void* handle, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(handle, name));
    return function != nullptr;
}

const Libavcodec* libavcodec() {
    static const Libavcodec* const loaded = []() -> const Libavcodec* {
        // Kept loaded for the life of the process: decoders may be made at any time.
        void* codec = dlopen(kAvcodecName, RTLD_NOW | RTLD_LOCAL);
        void* util = dlopen(kAvutilName, RTLD_NOW | RTLD_LOCAL);
        static Libavcodec table;
        if (!codec || !util || !lookUp(codec, "avcodec_find_decoder", table.findDecoder) ||
            !lookUp(codec, "avcodec_alloc_context3", table.allocContext) ||
            !lookUp(codec, "avcodec_open2", table.open) ||
            !lookUp(codec, "avcodec_free_context", table.freeContext) ||
            !lookUp(codec, "avcodec_send_packet", table.sendPacket) ||
            !lookUp(codec, "avcodec_receive_frame", table.receiveFrame) ||
            !lookUp(codec, "av_packet_alloc", table.packetAlloc) ||
            !lookUp(codec, "av_packet_free", table.packetFree) ||
            !lookUp(util, "av_frame_alloc", table.frameAlloc) || !lookUp(util, "av_frame_free", table.frameFree) ||
            !lookUp(util, "av_frame_unref", table.frameUnref))
            return nullptr;
        return &table;
    }();
    return loaded;
}

class LibavcodecH264Decoder : public PictureDecoder {
public:
    explicit LibavcodecH264Decoder(uint64_t maxPixels) : PictureDecoder(AnnexBCodec::H264), av(libavcodec()) {
        if (!av) return;
        const AVCodec* h264 = av->findDecoder(AV_CODEC_ID_H264);
        context = av->allocContext(h264);
        packet = av->packetAlloc();
        frame = av->frameAlloc();
        if (!h264 || !context || !packet || !frame) return;
        // One thread per pipe; the recordings have no reordering, so with low delay every picture
        // leaves with its own access unit.
        context->thread_count = 1;
        context->flags |= AV_CODEC_FLAG_LOW_DELAY;
        // A record of a few bytes may declare a huge picture; libavcodec refuses sizes above this
        // before it allocates them.
        context->max_pixels = int64_t(maxPixels);
        ready = av->open(context, h264, nullptr) == 0;
    }
    ~LibavcodecH264Decoder() override {
        if (!av) return;
        av->frameFree(&frame);
        av->packetFree(&packet);
        av->freeContext(&context);
    }

    bool decode(const uint8_t* accessUnit, uint32_t bytes, DecodedPicture& picture) override {
        // An empty packet would start draining, after which the decoder takes no more data.
        if (!ready || bytes == 0) return false;
        // libavcodec reads a little past the end of the data.
        padded.resize(size_t(bytes) + AV_INPUT_BUFFER_PADDING_SIZE);
        std::memcpy(padded.data(), accessUnit, bytes);
        std::memset(padded.data() + bytes, 0, AV_INPUT_BUFFER_PADDING_SIZE);
        packet->data = padded.data();
        packet->size = int(bytes);
        // A picture left from an earlier packet would make the decoder refuse this one.
        while (av->receiveFrame(context, frame) == 0) av->frameUnref(frame);
        if (av->sendPacket(context, packet) < 0 || av->receiveFrame(context, frame) < 0) return false;
        picture = DecodedPicture{};
        picture.width = uint32_t(frame->width);
        picture.height = uint32_t(frame->height);
        picture.planar420 = frame->format == AV_PIX_FMT_YUV420P || frame->format == AV_PIX_FMT_YUVJ420P;
        for (int channel = 0; channel < 3; ++channel) {
            picture.planes[channel] = frame->data[channel];
            picture.strides[channel] = frame->linesize[channel];
        }
        return true;
    }

private:
    const Libavcodec* av;
    AVCodecContext* context = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    std::vector<uint8_t> padded;
};

}  // namespace

std::unique_ptr<PictureDecoder> makePictureDecoder(uint32_t codec, uint32_t width, uint32_t height) {
    // libavcodec checks the area with the width aligned to its stride alignment (up to 64).
    const auto roundUp = [](uint32_t side) { return (uint64_t(side) + 63) / 64 * 64; };
    const uint64_t maxPixels = roundUp(width) * roundUp(height);
    if (codec == 0) return std::make_unique<LibavcodecH264Decoder>(maxPixels);
    return makeLibde265Decoder(maxPixels);
}

const char* pictureDecoderMissingText(uint32_t codec) {
    return codec == 0 && !libavcodec() ? kMissingText : nullptr;
}
