#include "support/fake_cuvid.h"

#include <cstring>
#include <memory>

#include "device/device_api.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}
namespace {

constexpr CUresult kInvalidValue = CUresult(1), kInvalidHandle = CUresult(400), kNotSupported = CUresult(801),
                   kUnknown = CUresult(999);
constexpr uint8_t kFiller = 0x5A;  // coded samples outside the picture the decoders hand out

FakeCuvid& fake() { return fakeCuvid(); }
CUresult breach(const std::string& what, CUresult status = kInvalidValue) {
    fake().faults.push_back(what);
    return status;
}
void* newHandle() {
    static uintptr_t next = 0;
    return reinterpret_cast<void*>((++next) << 4);
}
// A chosen failure answers before anything is done; calls that need a current context check it.
#define ENTRY(name) \
    if (fake().failing.count(name)) return fake().failing[name]
#define CONTEXT_ENTRY(name)                                                       \
    ENTRY(name);                                                                  \
    if (CUcontext context = nullptr; device::api().getCurrentContext(&context), !context) \
    breach(std::string(name) + " without a current CUDA context")

// Copies h rows of w bytes from a source of `stride` to a destination of `pitch`.
void place(const uint8_t* src, int stride, size_t w, size_t h, uint8_t* dst, size_t pitch) {
    for (size_t r = 0; r < h; ++r) std::memcpy(dst + r * pitch, src + r * size_t(stride), w);
}
// A decoded picture: NV12 of its coded size (pitch = coded width) and its sequence's format.
struct Picture {
    CUVIDEOFORMAT format = {};
    std::vector<uint8_t> nv12;
    uint32_t width() const { return format.coded_width; }
    uint32_t height() const { return format.coded_height; }
    void allocate() { nv12.assign(size_t(width()) * (height() + (height() + 1) / 2), kFiller); }
    uint8_t* chroma() { return nv12.data() + size_t(width()) * height(); }
};
// libavcodec decodes both codecs; a parser splits each packet into its pictures, and the decoder's
// uncropped frames carry the coded size (x265 codes whole 8 x 8 blocks, x264 16 x 16 macroblocks)
// and the crop. Content other than 8-bit 4:2:0 is announced as 4:4:4 and left as filler.
class RealDecoder {
public:
    explicit RealDecoder(cudaVideoCodec codec) : codec_(codec) {
        const AVCodecID id = codec == cudaVideoCodec_HEVC ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
        av_log_set_level(AV_LOG_QUIET);  // packets without a picture are expected in tests
        context_->thread_count = 1;
        context_->flags |= AV_CODEC_FLAG_LOW_DELAY;  // every picture comes out with its packet
        context_->apply_cropping = 0;
        if (avcodec_open2(context_, avcodec_find_decoder(id), nullptr) < 0) breach("libavcodec did not open");
    }
    ~RealDecoder() {
        av_frame_free(&frame_);
        av_packet_free(&packet_);
        av_parser_close(parser_);
        avcodec_free_context(&context_);
    }

    // Decodes one packet; the pictures it puts out.
    std::vector<Picture> decode(const uint8_t* data, size_t bytes) {
        std::vector<uint8_t> padded(data, data + bytes);
        padded.resize(bytes + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        std::vector<Picture> out;
        // Each packet gets a fresh parser: after a damaged packet, libavcodec's HEVC parser can
        // fail an assertion (and abort) on the next one.
        av_parser_close(parser_);
        parser_ = av_parser_init(context_->codec_id);
        // The packet ends its last picture: the parser is flushed with an empty call.
        for (size_t at = 0, flushed = 0; !flushed;) {
            flushed = at == bytes;
            at += size_t(av_parser_parse2(parser_, context_, &packet_->data, &packet_->size, padded.data() + at,
                                          int(bytes - at), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0));
            if (packet_->size) avcodec_send_packet(context_, packet_);
            for (; avcodec_receive_frame(context_, frame_) == 0; av_frame_unref(frame_)) out.push_back(picture());
        }
        return out;
    }

private:
    Picture picture() const {
        const bool nv12 = frame_->format == AV_PIX_FMT_YUV420P || frame_->format == AV_PIX_FMT_YUVJ420P;
        const uint32_t w = uint32_t(frame_->width), h = uint32_t(frame_->height);
        Picture p;
        p.format.codec = codec_, p.format.progressive_sequence = 1, p.format.coded_width = w;
        p.format.coded_height = h;
        p.format.display_area = {int(frame_->crop_left), int(frame_->crop_top), int(w - frame_->crop_right),
                                 int(h - frame_->crop_bottom)};
        p.format.chroma_format = nv12 ? cudaVideoChromaFormat_420 : cudaVideoChromaFormat_444;
        p.allocate();
        if (!nv12) return p;
        place(frame_->data[0], frame_->linesize[0], w, h, p.nv12.data(), w);
        for (uint32_t r = 0; r < (h + 1) / 2; ++r)
            for (uint32_t c = 0; c < (w + 1) / 2; ++c)
                for (int k = 0; k < 2; ++k)
                    p.chroma()[r * w + 2 * c + k] = frame_->data[1 + k][r * frame_->linesize[1 + k] + c];
        // NVDEC does not list High 4:4:4 Predictive (lossless): like a GPU that might, the fake
        // decodes such a stream wrongly and reports nothing, a bit of every luma sample flipped.
        if (context_->profile == FF_PROFILE_H264_HIGH_444_PREDICTIVE)
            for (size_t i = 0; i < size_t(w) * h; ++i) p.nv12[i] ^= 1;
        return p;
    }

    cudaVideoCodec codec_;
    AVCodecContext* context_ = avcodec_alloc_context3(nullptr);
    AVCodecParserContext* parser_ = nullptr;
    AVPacket* packet_ = av_packet_alloc();
    AVFrame* frame_ = av_frame_alloc();
};
// ---- Driver objects ---------------------------------------------------------------------

struct Parser {
    CUVIDPARSERPARAMS params = {};
    std::unique_ptr<RealDecoder> decoder;
    CUVIDEOFORMAT format = {};  // of the last sequence announced; codec 0 before the first
    unsigned surfaces = 1;
    int nextPicture = 0;
    bool parsing = false;
    std::vector<CUVIDPARSERDISPINFO> held;  // decoded, not yet displayed
};
struct Decoder {
    CUVIDDECODECREATEINFO info = {};
    std::vector<Picture> surfaces;  // an empty one is not decoded
    std::set<unsigned long long> mapped;
};
struct State {
    std::map<CUvideoctxlock, CUcontext> locks;
    std::map<CUvideoparser, Parser> parsers;
    std::map<CUvideodecoder, Decoder> decoders;
    const Picture* decoding = nullptr;  // the picture of the decode callback under way
};
State& state() {
    static State s;
    return s;
}
template <typename Object>
Object* find(std::map<void*, Object>& objects, void* handle) {
    auto it = objects.find(handle);
    return it == objects.end() ? nullptr : &it->second;
}
#define DECODER(handle)                  \
    Decoder* decoder = find(state().decoders, handle); \
    if (!decoder) return breach("unknown decoder", kInvalidHandle)

CUresult CUDAAPI ctxLockCreate(CUvideoctxlock* lock, CUcontext context) {
    ENTRY("cuvidCtxLockCreate");
    if (!context) return breach("context lock over no context");
    state().locks[*lock = static_cast<CUvideoctxlock>(newHandle())] = context;
    return CUDA_SUCCESS;
}
CUresult CUDAAPI ctxLockDestroy(CUvideoctxlock lock) {
    for (const auto& decoder : state().decoders)
        if (decoder.second.info.vidLock == lock) breach("context lock destroyed while a decoder uses it");
    return state().locks.erase(lock) ? CUDA_SUCCESS : breach("unknown context lock", kInvalidHandle);
}
// Outputs are all 0 for what the hardware cannot decode.
CUresult CUDAAPI getDecoderCaps(CUVIDDECODECAPS* caps) {
    CONTEXT_ENTRY("cuvidGetDecoderCaps");
    const unsigned yes = fake().supported.count(caps->eCodecType) &&
                         caps->eChromaFormat == cudaVideoChromaFormat_420 && caps->nBitDepthMinus8 == 0;
    caps->bIsSupported = caps->nNumNVDECs = caps->nOutputFormatMask = uint8_t(yes);
    caps->nMaxWidth = yes * fake().maxWidth, caps->nMaxHeight = yes * 4096, caps->nMaxMBCount = yes * fake().maxMBCount;
    caps->nMinWidth = uint16_t(yes * fake().minWidth), caps->nMinHeight = uint16_t(yes * fake().minHeight);
    return CUDA_SUCCESS;
}
CUresult CUDAAPI createDecoder(CUvideodecoder* handle, CUVIDDECODECREATEINFO* info) {
    CONTEXT_ENTRY("cuvidCreateDecoder");
    if (info->vidLock && !state().locks.count(info->vidLock)) return breach("decoder with an unknown context lock");
    if (!fake().supported.count(info->CodecType) || info->OutputFormat != cudaVideoSurfaceFormat_NV12)
        return breach("decoder for an unsupported codec or output format", kNotSupported);
    if (info->ulNumDecodeSurfaces < 1 || info->ulNumDecodeSurfaces > 32 || info->ulNumOutputSurfaces < 1 ||
        info->ulTargetWidth % 2 || info->ulTargetHeight % 2 || !info->ulTargetWidth || !info->ulTargetHeight)
        return breach("decoder creation parameters");
    if (info->ulWidth < fake().minWidth || info->ulHeight < fake().minHeight || info->ulWidth > fake().maxWidth ||
        (info->ulWidth >> 4) * (info->ulHeight >> 4) > fake().maxMBCount)
        return breach("decoder of a size the hardware does not decode", kNotSupported);
    Decoder& decoder = state().decoders[*handle = newHandle()];
    decoder.info = *info;
    decoder.surfaces.resize(info->ulNumDecodeSurfaces);
    return CUDA_SUCCESS;
}
CUresult CUDAAPI destroyDecoder(CUvideodecoder handle) {
    DECODER(handle);
    if (!decoder->mapped.empty()) breach("decoder destroyed with a frame still mapped");
    state().decoders.erase(handle);
    return CUDA_SUCCESS;
}
// The decoder's surface of the picture: the picture's samples where its coded size and the
// decoder's overlap (a sequence of another size gives a mangled surface, as on hardware).
CUresult CUDAAPI decodePicture(CUvideodecoder handle, CUVIDPICPARAMS* params) {
    DECODER(handle);
    if (!state().decoding) return breach("picture decoded outside the parser's decode callback");
    if (params->CurrPicIdx < 0 || size_t(params->CurrPicIdx) >= decoder->surfaces.size())
        return breach("picture index beyond the decode surfaces");
    const Picture& source = *state().decoding;
    Picture& surface = decoder->surfaces[size_t(params->CurrPicIdx)];
    surface.format.coded_width = uint32_t(decoder->info.ulWidth);
    surface.format.coded_height = uint32_t(decoder->info.ulHeight);
    surface.allocate();
    const uint32_t w = std::min(surface.width(), source.width()), h = std::min(surface.height(), source.height());
    place(source.nv12.data(), int(source.width()), w, h, surface.nv12.data(), surface.width());
    place(source.nv12.data() + size_t(source.width()) * source.height(), int(source.width()), w, (h + 1) / 2,
          surface.chroma(), surface.width());
    return CUDA_SUCCESS;
}
CUresult CUDAAPI mapVideoFrame(CUvideodecoder handle, int picture, unsigned long long* frame, unsigned int* pitch,
                               CUVIDPROCPARAMS* params) {
    CONTEXT_ENTRY("cuvidMapVideoFrame64");
    DECODER(handle);
    if (picture < 0 || size_t(picture) >= decoder->surfaces.size() || decoder->surfaces[size_t(picture)].nv12.empty())
        return breach("mapped a picture that was not decoded");
    if (decoder->mapped.size() >= decoder->info.ulNumOutputSurfaces)
        return breach("more frames mapped than output surfaces");
    if (!params->progressive_frame) return breach("the fake maps progressive frames only");
    const CUVIDDECODECREATEINFO& info = decoder->info;
    const auto& area = info.display_area;
    if (area.left || area.top || area.right || area.bottom || info.ulTargetWidth != info.ulWidth ||
        info.ulTargetHeight != info.ulHeight)
        return breach("the fake does not crop or scale", kNotSupported);
    const uint32_t w = uint32_t(info.ulWidth), h = uint32_t(info.ulHeight);

    // Wider than the picture, and the chroma plane starts below the whole target height.
    Picture& surface = decoder->surfaces[size_t(picture)];
    const uint32_t framePitch = (w / 256 + 1) * 256;
    void* mapped = nullptr;
    if (const int result = device::api().allocate(&mapped, size_t(framePitch) * (h + (h + 1) / 2)))
        return CUresult(result);
    auto* out = static_cast<uint8_t*>(mapped);
    place(surface.nv12.data(), int(surface.width()), w, h, out, framePitch);
    place(surface.chroma(), int(surface.width()), w, (h + 1) / 2, out + size_t(framePitch) * h, framePitch);
    decoder->mapped.insert(*frame = reinterpret_cast<unsigned long long>(mapped));
    *pitch = framePitch;
    return CUDA_SUCCESS;
}
CUresult CUDAAPI unmapVideoFrame(CUvideodecoder handle, unsigned long long frame) {
    DECODER(handle);
    if (!decoder->mapped.erase(frame)) return breach("unmapped a frame that is not mapped");
    // The driver frees the mapping in the context of the decoder's lock.
    const auto lock = state().locks.find(decoder->info.vidLock);
    const bool pushed = lock != state().locks.end() && device::api().pushContext(lock->second) == 0;
    device::api().free(reinterpret_cast<void*>(frame));
    if (pushed) device::api().popContext();
    return CUDA_SUCCESS;
}
CUresult CUDAAPI createParser(CUvideoparser* handle, CUVIDPARSERPARAMS* params) {
    ENTRY("cuvidCreateVideoParser");
    if (!params->pfnSequenceCallback || !params->pfnDecodePicture || !params->pfnDisplayPicture)
        return breach("parser without its callbacks");
    if (params->ulMaxDisplayDelay) return breach("the fake displays each picture once decoded", kNotSupported);
    if (params->CodecType != cudaVideoCodec_HEVC && params->CodecType != cudaVideoCodec_H264) return kNotSupported;
    Parser& parser = state().parsers[*handle = newHandle()];
    parser.params = *params;
    parser.surfaces = std::max(params->ulMaxNumDecodeSurfaces, 1u);
    parser.decoder = std::make_unique<RealDecoder>(params->CodecType);
    return CUDA_SUCCESS;
}
CUresult CUDAAPI destroyParser(CUvideoparser handle) {
    return state().parsers.erase(handle) ? CUDA_SUCCESS : breach("unknown parser", kInvalidHandle);
}
// Displays what is held beyond `keep` pictures, oldest first.
CUresult display(Parser& parser, size_t keep) {
    const CUVIDPARSERPARAMS& p = parser.params;
    for (; parser.held.size() > keep; parser.held.erase(parser.held.begin()))
        if (!p.pfnDisplayPicture(p.pUserData, &parser.held.front())) return kUnknown;
    return CUDA_SUCCESS;
}
CUresult parsePictures(Parser& parser, const std::vector<Picture>& pictures, int64_t timestamp) {
    const CUVIDPARSERPARAMS& p = parser.params;
    for (const Picture& picture : pictures) {
        const CUVIDEOFORMAT& f = picture.format;
        if (std::memcmp(&parser.format, &f, sizeof f) != 0) {
            CUVIDEOFORMAT format = f;
            const int result = p.pfnSequenceCallback(p.pUserData, &format);
            if (!result) return kUnknown;
            if (result > 1) parser.surfaces = unsigned(result);
            parser.format = f;
        }
        CUVIDPICPARAMS params = {};
        params.CurrPicIdx = parser.nextPicture;  // the only field the fake's decoder reads
        parser.nextPicture = int((unsigned(parser.nextPicture) + 1) % parser.surfaces);
        state().decoding = &picture;
        const int decoded = p.pfnDecodePicture(p.pUserData, &params);
        state().decoding = nullptr;
        if (!decoded) return kUnknown;
        parser.held.push_back({params.CurrPicIdx, 1, 0, 0, timestamp});
        if (const CUresult result = display(parser, fake().heldPictures)) return result;
    }
    return CUDA_SUCCESS;
}
CUresult CUDAAPI parseVideoData(CUvideoparser handle, CUVIDSOURCEDATAPACKET* packet) {
    ENTRY("cuvidParseVideoData");
    Parser* parser = find(state().parsers, handle);
    if (!parser) return breach("unknown parser", kInvalidHandle);
    if (parser->parsing) return breach("parser entered from its own callback");
    const bool endOfStream = packet->flags & CUVID_PKT_ENDOFSTREAM;
    if (!endOfStream && (!packet->payload || !packet->payload_size)) return breach("empty packet");
    if (!(packet->flags & CUVID_PKT_ENDOFPICTURE)) return breach("the fake takes whole pictures only", kNotSupported);
    fake().packetTimestamps.push_back(packet->timestamp);
    const auto pictures = parser->decoder->decode(packet->payload, packet->payload_size);
    parser->parsing = true;
    CUresult result = parsePictures(*parser, pictures, packet->timestamp);
    if (endOfStream && !result) result = display(*parser, 0);
    parser->parsing = false;
    return result;
}

}  // namespace

size_t FakeCuvid::liveObjects() const {
    size_t live = state().locks.size() + state().parsers.size() + state().decoders.size();
    for (const auto& decoder : state().decoders) live += decoder.second.mapped.size();
    return live;
}
DriverApi FakeCuvid::driverApi() {
    static CuvidFunctions functions = [] {
        CuvidFunctions f = {};
        f.cuvidGetDecoderCaps = getDecoderCaps, f.cuvidCreateDecoder = createDecoder;
        f.cuvidDestroyDecoder = destroyDecoder, f.cuvidDecodePicture = decodePicture;
        f.cuvidMapVideoFrame = mapVideoFrame, f.cuvidUnmapVideoFrame = unmapVideoFrame;
        f.cuvidCtxLockCreate = ctxLockCreate, f.cuvidCtxLockDestroy = ctxLockDestroy;
        f.cuvidCreateVideoParser = createParser, f.cuvidParseVideoData = parseVideoData;
        f.cuvidDestroyVideoParser = destroyParser;
        return f;
    }();
    DriverApi api;
    api.cuvid = &functions;
    return api;
}
FakeCuvid& fakeCuvid() {
    static FakeCuvid instance;
    return instance;
}
// Mapped frames are host-table memory, which the host table's own reset frees.
void resetFakeCuvid() {
    state() = State{};
    fakeCuvid() = FakeCuvid{};
}
