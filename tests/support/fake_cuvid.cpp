#include "support/fake_cuvid.h"

#include <libde265/de265.h>

#include <cstring>
#include <deque>
#include <memory>

#include "device/device_api.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

namespace {

constexpr CUresult kInvalidValue = static_cast<CUresult>(1);
constexpr CUresult kInvalidHandle = static_cast<CUresult>(400);
constexpr CUresult kNotSupported = static_cast<CUresult>(801);
constexpr CUresult kUnknown = static_cast<CUresult>(999);
constexpr uint8_t kFiller = 0x5A;  // coded samples outside the picture libde265 hands out

FakeCuvid& fake() { return fakeCuvid(); }

CUresult breach(const std::string& what, CUresult status = kInvalidValue) {
    fake().faults.push_back(what);
    return status;
}

// Logs the call; a chosen failure answers before anything is done.
bool failing(const char* name, CUresult& status) {
    fake().calls.push_back(name);
    auto it = fake().failing.find(name);
    if (it == fake().failing.end()) return false;
    status = it->second;
    return true;
}
#define ENTRY(name)                  \
    CUresult injected = CUDA_SUCCESS; \
    if (failing(name, injected)) return injected

void* newHandle() {
    static uintptr_t next = 0;
    return reinterpret_cast<void*>((++next) << 4);
}

bool contextCurrent(const char* call) {
    CUcontext context = nullptr;
    device::api().getCurrentContext(&context);
    if (!context) breach(std::string(call) + " without a current CUDA context");
    return context != nullptr;
}

// One decoded picture: coded-size 8-bit 4:2:0 planes and the format of its sequence.
struct Picture {
    CUVIDEOFORMAT format = {};
    std::vector<uint8_t> y, u, v;
    int64_t pts = 0;

    uint32_t width() const { return format.coded_width; }
    uint32_t height() const { return format.coded_height; }
    uint32_t chromaWidth() const { return (width() + 1) / 2; }
    void allocate() {
        y.assign(size_t(width()) * height(), kFiller);
        u.assign(size_t(chromaWidth()) * ((height() + 1) / 2), kFiller);
        v = u;
    }
};

bool sameFormat(const CUVIDEOFORMAT& a, const CUVIDEOFORMAT& b) {
    return a.codec == b.codec && a.coded_width == b.coded_width && a.coded_height == b.coded_height &&
           std::memcmp(&a.display_area, &b.display_area, sizeof a.display_area) == 0 &&
           a.chroma_format == b.chroma_format && a.bit_depth_luma_minus8 == b.bit_depth_luma_minus8;
}

// Copies a w x h plane with a source stride into a destination of pitch `pitch` at (x, y).
void place(const uint8_t* src, int stride, uint32_t w, uint32_t h, uint8_t* dst, uint32_t pitch, uint32_t x,
           uint32_t y) {
    for (uint32_t r = 0; r < h; ++r) std::memcpy(dst + size_t(y + r) * pitch + x, src + size_t(r) * stride, w);
}

class RealDecoder {
public:
    virtual ~RealDecoder() = default;
    // Decodes one packet (none at the end of the stream); the pictures it puts out.
    virtual std::vector<Picture> decode(const uint8_t* data, size_t bytes, int64_t pts, bool endOfStream) = 0;
};

// ---- HEVC: libde265, with the coded size and conformance window read from the SPS ----------

class BitReader {
public:
    explicit BitReader(std::vector<uint8_t> rbsp) : data_(std::move(rbsp)) {}
    uint32_t bits(int n) {
        uint32_t value = 0;
        for (int i = 0; i < n; ++i, ++pos_)
            value = value << 1 | (pos_ / 8 < data_.size() ? (data_[pos_ / 8] >> (7 - pos_ % 8)) & 1 : 0);
        return value;
    }
    uint32_t ue() {
        int zeros = 0;
        while (bits(1) == 0 && zeros < 32) ++zeros;
        return (uint32_t(1) << zeros) - 1 + bits(zeros);
    }

private:
    std::vector<uint8_t> data_;
    size_t pos_ = 0;
};

// The NAL units of an Annex-B packet (start codes removed).
std::vector<std::pair<const uint8_t*, size_t>> nalUnits(const uint8_t* data, size_t bytes) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= bytes; ++i)
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) starts.push_back(i += 3);
    std::vector<std::pair<const uint8_t*, size_t>> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : bytes;
        while (end > starts[k] && data[end - 1] == 0) --end;  // a four-byte start code's zero
        units.emplace_back(data + starts[k], end - starts[k]);
    }
    return units;
}

// Reads the fields of an HEVC SPS up to the bit depths into `format`.
void readHevcSps(const uint8_t* nal, size_t bytes, CUVIDEOFORMAT& format) {
    std::vector<uint8_t> rbsp;
    for (size_t i = 2; i < bytes; ++i) {  // after the two-byte NAL header, without emulation prevention
        if (i >= 4 && nal[i] == 3 && nal[i - 1] == 0 && nal[i - 2] == 0) continue;
        rbsp.push_back(nal[i]);
    }
    BitReader r(std::move(rbsp));
    r.bits(4);
    const uint32_t subLayers = r.bits(3);
    r.bits(1);
    r.bits(32), r.bits(32), r.bits(32);  // general profile, tier and level: 96 bits
    std::vector<std::pair<bool, bool>> present(subLayers);
    for (auto& p : present) p = {r.bits(1) != 0, r.bits(1) != 0};
    if (subLayers > 0)
        for (uint32_t i = subLayers; i < 8; ++i) r.bits(2);
    for (const auto& p : present) {
        if (p.first) r.bits(32), r.bits(32), r.bits(24);  // 88 bits
        if (p.second) r.bits(8);
    }
    r.ue();
    const uint32_t chroma = r.ue();
    if (chroma == 3) r.bits(1);
    format.coded_width = r.ue();
    format.coded_height = r.ue();
    const uint32_t unitX = chroma == 1 || chroma == 2 ? 2 : 1, unitY = chroma == 1 ? 2 : 1;
    uint32_t left = 0, right = 0, top = 0, bottom = 0;
    if (r.bits(1)) left = r.ue() * unitX, right = r.ue() * unitX, top = r.ue() * unitY, bottom = r.ue() * unitY;
    format.display_area = {int(left), int(top), int(format.coded_width - right), int(format.coded_height - bottom)};
    format.chroma_format = static_cast<cudaVideoChromaFormat>(chroma);
    format.bit_depth_luma_minus8 = static_cast<unsigned char>(r.ue());
    format.bit_depth_chroma_minus8 = static_cast<unsigned char>(r.ue());
}

class HevcDecoder : public RealDecoder {
public:
    HevcDecoder() : context_(de265_new_decoder()) {
        format_.codec = cudaVideoCodec_HEVC;
        format_.progressive_sequence = 1;
    }
    ~HevcDecoder() override { de265_free_decoder(context_); }

    std::vector<Picture> decode(const uint8_t* data, size_t bytes, int64_t pts, bool) override {
        if (bytes) {
            for (const auto& [nal, size] : nalUnits(data, bytes))
                if (size > 2 && ((nal[0] >> 1) & 0x3F) == 33) readHevcSps(nal, size, format_);
            de265_push_data(context_, data, int(bytes), pts, nullptr);
        }
        // Each packet is a complete piece of stream; reference pictures survive the flush.
        de265_flush_data(context_);
        std::vector<Picture> out;
        for (int step = 0; step < 100000; ++step) {
            int more = 0;
            const de265_error status = de265_decode(context_, &more);
            while (const de265_image* image = de265_get_next_picture(context_)) out.push_back(picture(image));
            if (!more || status == DE265_ERROR_WAITING_FOR_INPUT_DATA) break;
        }
        return out;
    }

private:
    Picture picture(const de265_image* image) {
        Picture p;
        p.format = format_;
        p.pts = de265_get_image_PTS(image);
        p.allocate();
        if (de265_get_chroma_format(image) != de265_chroma_420 || de265_get_bits_per_pixel(image, 0) != 8) {
            breach("the fake decodes 8-bit 4:2:0 pictures only");
            return p;
        }
        const uint32_t left = uint32_t(format_.display_area.left), top = uint32_t(format_.display_area.top);
        std::vector<uint8_t>* planes[] = {&p.y, &p.u, &p.v};
        for (int c = 0; c < 3; ++c) {
            int stride = 0;
            const uint8_t* plane = de265_get_image_plane(image, c, &stride);
            const uint32_t pitch = c ? p.chromaWidth() : p.width(), shift = c ? 1 : 0;
            const uint32_t w = std::min<uint32_t>(uint32_t(de265_get_image_width(image, c)), pitch - (left >> shift));
            const uint32_t h = std::min<uint32_t>(uint32_t(de265_get_image_height(image, c)),
                                                  uint32_t(planes[c]->size() / pitch) - (top >> shift));
            place(plane, stride, w, h, planes[c]->data(), pitch, left >> shift, top >> shift);
        }
        return p;
    }

    de265_decoder_context* context_;
    CUVIDEOFORMAT format_ = {};
};

// ---- H.264: libavcodec, uncropped frames carry the coded size and the crop -----------------

class H264Decoder : public RealDecoder {
public:
    H264Decoder()
        : context_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_H264))), packet_(av_packet_alloc()),
          frame_(av_frame_alloc()) {
        av_log_set_level(AV_LOG_QUIET);  // packets without a picture are expected in tests
        context_->thread_count = 1;
        context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
        context_->apply_cropping = 0;
        if (avcodec_open2(context_, avcodec_find_decoder(AV_CODEC_ID_H264), nullptr) < 0)
            breach("libavcodec's H.264 decoder did not open");
    }
    ~H264Decoder() override {
        av_frame_free(&frame_);
        av_packet_free(&packet_);
        avcodec_free_context(&context_);
    }

    std::vector<Picture> decode(const uint8_t* data, size_t bytes, int64_t pts, bool endOfStream) override {
        if (bytes) {
            std::vector<uint8_t> padded(data, data + bytes);
            padded.resize(bytes + AV_INPUT_BUFFER_PADDING_SIZE, 0);
            packet_->data = padded.data();
            packet_->size = int(bytes);
            packet_->pts = pts;
            avcodec_send_packet(context_, packet_);
        }
        if (endOfStream) avcodec_send_packet(context_, nullptr);
        std::vector<Picture> out;
        while (avcodec_receive_frame(context_, frame_) == 0) {
            out.push_back(picture());
            av_frame_unref(frame_);
        }
        if (endOfStream) avcodec_flush_buffers(context_);
        return out;
    }

private:
    Picture picture() {
        Picture p;
        p.format.codec = cudaVideoCodec_H264;
        p.format.progressive_sequence = 1;
        p.format.chroma_format = cudaVideoChromaFormat_420;
        p.format.coded_width = uint32_t(frame_->width);
        p.format.coded_height = uint32_t(frame_->height);
        p.format.display_area = {int(frame_->crop_left), int(frame_->crop_top),
                                 frame_->width - int(frame_->crop_right), frame_->height - int(frame_->crop_bottom)};
        p.pts = frame_->pts;
        p.allocate();
        if (frame_->format != AV_PIX_FMT_YUV420P && frame_->format != AV_PIX_FMT_YUVJ420P) {
            breach("the fake decodes 8-bit 4:2:0 pictures only");
            return p;
        }
        place(frame_->data[0], frame_->linesize[0], p.width(), p.height(), p.y.data(), p.width(), 0, 0);
        const uint32_t ch = (p.height() + 1) / 2;
        place(frame_->data[1], frame_->linesize[1], p.chromaWidth(), ch, p.u.data(), p.chromaWidth(), 0, 0);
        place(frame_->data[2], frame_->linesize[2], p.chromaWidth(), ch, p.v.data(), p.chromaWidth(), 0, 0);
        return p;
    }

    AVCodecContext* context_;
    AVPacket* packet_;
    AVFrame* frame_;
};

// ---- Driver objects ---------------------------------------------------------------------

struct Parser {
    CUVIDPARSERPARAMS params = {};
    std::unique_ptr<RealDecoder> decoder;
    bool haveFormat = false;
    CUVIDEOFORMAT format = {};
    unsigned surfaces = 1;
    int nextPicture = 0;
    std::deque<CUVIDPARSERDISPINFO> displayQueue;
    std::vector<Picture> held;  // of a packet without the end-of-picture flag
    bool parsing = false;
};

struct Decoder {
    CUVIDDECODECREATEINFO info = {};
    std::vector<Picture> surfaces;
    std::vector<bool> decoded;
    std::map<unsigned long long, int> mapped;  // frame → picture index
};

struct State {
    std::set<CUvideoctxlock> locks;
    std::map<CUvideoparser, std::unique_ptr<Parser>> parsers;
    std::map<CUvideodecoder, Decoder> decoders;
    const Picture* decoding = nullptr;  // the picture of the decode callback under way
};

State& state() {
    static State s;
    return s;
}

CUresult CUDAAPI ctxLockCreate(CUvideoctxlock* lock, CUcontext context) {
    ENTRY("cuvidCtxLockCreate");
    if (!context) return breach("context lock over no context");
    *lock = static_cast<CUvideoctxlock>(newHandle());
    state().locks.insert(*lock);
    return CUDA_SUCCESS;
}

CUresult CUDAAPI ctxLockDestroy(CUvideoctxlock lock) {
    ENTRY("cuvidCtxLockDestroy");
    for (const auto& decoder : state().decoders)
        if (decoder.second.info.vidLock == lock) breach("context lock destroyed while a decoder uses it");
    if (!state().locks.erase(lock)) return breach("unknown context lock", kInvalidHandle);
    return CUDA_SUCCESS;
}

CUresult CUDAAPI getDecoderCaps(CUVIDDECODECAPS* caps) {
    ENTRY("cuvidGetDecoderCaps");
    contextCurrent("cuvidGetDecoderCaps");
    const bool supported = fake().supported.count(caps->eCodecType) &&
                           caps->eChromaFormat == cudaVideoChromaFormat_420 && caps->nBitDepthMinus8 == 0;
    // Outputs are all 0 for what the hardware cannot decode.
    caps->bIsSupported = supported;
    caps->nNumNVDECs = supported;
    caps->nOutputFormatMask = supported ? 1 : 0;
    caps->nMaxWidth = supported ? fake().maxWidth : 0;
    caps->nMaxHeight = supported ? fake().maxHeight : 0;
    caps->nMaxMBCount = supported ? fake().maxMBCount : 0;
    caps->nMinWidth = supported ? 48 : 0;
    caps->nMinHeight = supported ? 16 : 0;
    return CUDA_SUCCESS;
}

CUresult CUDAAPI createDecoder(CUvideodecoder* handle, CUVIDDECODECREATEINFO* info) {
    ENTRY("cuvidCreateDecoder");
    contextCurrent("cuvidCreateDecoder");
    if (info->vidLock && !state().locks.count(info->vidLock)) return breach("decoder with an unknown context lock");
    if (!fake().supported.count(info->CodecType) || info->OutputFormat != cudaVideoSurfaceFormat_NV12)
        return breach("decoder for an unsupported codec or output format", kNotSupported);
    if (info->ulNumDecodeSurfaces < 1 || info->ulNumDecodeSurfaces > 32 || info->ulNumOutputSurfaces < 1 ||
        info->ulTargetWidth % 2 || info->ulTargetHeight % 2 || !info->ulTargetWidth || !info->ulTargetHeight)
        return breach("decoder creation parameters");
    Decoder decoder;
    decoder.info = *info;
    decoder.surfaces.resize(info->ulNumDecodeSurfaces);
    decoder.decoded.assign(info->ulNumDecodeSurfaces, false);
    *handle = static_cast<CUvideodecoder>(newHandle());
    state().decoders[*handle] = std::move(decoder);
    fake().decodersCreated.push_back(*info);
    return CUDA_SUCCESS;
}

Decoder* decoderOf(CUvideodecoder handle) {
    auto it = state().decoders.find(handle);
    return it == state().decoders.end() ? nullptr : &it->second;
}

CUresult CUDAAPI destroyDecoder(CUvideodecoder handle) {
    ENTRY("cuvidDestroyDecoder");
    Decoder* decoder = decoderOf(handle);
    if (!decoder) return breach("unknown decoder", kInvalidHandle);
    for (const auto& frame : decoder->mapped) {
        breach("decoder destroyed with a frame still mapped");
        device::api().free(reinterpret_cast<void*>(frame.first));
    }
    state().decoders.erase(handle);
    return CUDA_SUCCESS;
}

// The decoder's surface of the picture: the picture's samples where its coded size and the
// decoder's overlap (a sequence of another size gives a mangled surface, as on hardware).
CUresult CUDAAPI decodePicture(CUvideodecoder handle, CUVIDPICPARAMS* params) {
    ENTRY("cuvidDecodePicture");
    Decoder* decoder = decoderOf(handle);
    if (!decoder) return breach("unknown decoder", kInvalidHandle);
    if (!state().decoding) return breach("picture decoded outside the parser's decode callback");
    if (params->CurrPicIdx < 0 || size_t(params->CurrPicIdx) >= decoder->surfaces.size())
        return breach("picture index beyond the decode surfaces");
    const Picture& source = *state().decoding;
    Picture surface;
    surface.format.coded_width = uint32_t(decoder->info.ulWidth);
    surface.format.coded_height = uint32_t(decoder->info.ulHeight);
    surface.allocate();
    const uint32_t w = std::min(surface.width(), source.width()), h = std::min(surface.height(), source.height());
    place(source.y.data(), int(source.width()), w, h, surface.y.data(), surface.width(), 0, 0);
    place(source.u.data(), int(source.chromaWidth()), (w + 1) / 2, (h + 1) / 2, surface.u.data(),
          surface.chromaWidth(), 0, 0);
    place(source.v.data(), int(source.chromaWidth()), (w + 1) / 2, (h + 1) / 2, surface.v.data(),
          surface.chromaWidth(), 0, 0);
    decoder->surfaces[size_t(params->CurrPicIdx)] = std::move(surface);
    decoder->decoded[size_t(params->CurrPicIdx)] = true;
    return CUDA_SUCCESS;
}

CUresult CUDAAPI mapVideoFrame(CUvideodecoder handle, int picture, unsigned long long* frame, unsigned int* pitch,
                               CUVIDPROCPARAMS* params) {
    ENTRY("cuvidMapVideoFrame64");
    contextCurrent("cuvidMapVideoFrame64");
    Decoder* decoder = decoderOf(handle);
    if (!decoder) return breach("unknown decoder", kInvalidHandle);
    if (picture < 0 || size_t(picture) >= decoder->surfaces.size() || !decoder->decoded[size_t(picture)])
        return breach("mapped a picture that was not decoded");
    if (decoder->mapped.size() >= decoder->info.ulNumOutputSurfaces)
        return breach("more frames mapped than output surfaces");
    if (!params->progressive_frame) return breach("the fake maps progressive frames only");
    const CUVIDDECODECREATEINFO& info = decoder->info;
    const auto& area = info.display_area;
    const bool whole = !area.left && !area.top && !area.right && !area.bottom;
    const uint32_t left = whole ? 0 : uint32_t(area.left), top = whole ? 0 : uint32_t(area.top);
    const uint32_t w = whole ? uint32_t(info.ulWidth) : uint32_t(area.right - area.left);
    const uint32_t h = whole ? uint32_t(info.ulHeight) : uint32_t(area.bottom - area.top);
    if (w != info.ulTargetWidth || h != info.ulTargetHeight) return breach("the fake does not scale", kNotSupported);

    const Picture& surface = decoder->surfaces[size_t(picture)];
    // Wider than the picture, and the chroma plane starts below the whole target height.
    const uint32_t framePitch = (w / 256 + 1) * 256;
    const uint32_t chromaRows = (h + 1) / 2;
    void* mapped = nullptr;
    if (const int result = device::api().allocate(&mapped, size_t(framePitch) * (h + chromaRows)))
        return static_cast<CUresult>(result);
    auto* out = static_cast<uint8_t*>(mapped);
    place(surface.y.data() + size_t(top) * surface.width() + left, int(surface.width()), w, h, out, framePitch, 0, 0);
    uint8_t* chroma = out + size_t(framePitch) * h;
    for (uint32_t r = 0; r < chromaRows; ++r)
        for (uint32_t c = 0; c < (w + 1) / 2; ++c) {
            const size_t at = size_t(top / 2 + r) * surface.chromaWidth() + left / 2 + c;
            chroma[size_t(r) * framePitch + 2 * c] = surface.u[at];
            chroma[size_t(r) * framePitch + 2 * c + 1] = surface.v[at];
        }
    *frame = reinterpret_cast<unsigned long long>(mapped);
    *pitch = framePitch;
    decoder->mapped[*frame] = picture;
    return CUDA_SUCCESS;
}

CUresult CUDAAPI unmapVideoFrame(CUvideodecoder handle, unsigned long long frame) {
    ENTRY("cuvidUnmapVideoFrame64");
    Decoder* decoder = decoderOf(handle);
    if (!decoder) return breach("unknown decoder", kInvalidHandle);
    if (!decoder->mapped.erase(frame)) return breach("unmapped a frame that is not mapped");
    device::api().free(reinterpret_cast<void*>(frame));
    return CUDA_SUCCESS;
}

CUresult CUDAAPI createParser(CUvideoparser* handle, CUVIDPARSERPARAMS* params) {
    ENTRY("cuvidCreateVideoParser");
    if (fake().nullParser) {
        *handle = nullptr;
        return CUDA_SUCCESS;
    }
    if (!params->pfnSequenceCallback || !params->pfnDecodePicture || !params->pfnDisplayPicture)
        return breach("parser without its callbacks");
    auto parser = std::make_unique<Parser>();
    parser->params = *params;
    parser->surfaces = params->ulMaxNumDecodeSurfaces ? params->ulMaxNumDecodeSurfaces : 1;
    if (params->CodecType == cudaVideoCodec_HEVC) parser->decoder = std::make_unique<HevcDecoder>();
    else if (params->CodecType == cudaVideoCodec_H264) parser->decoder = std::make_unique<H264Decoder>();
    else return kNotSupported;
    *handle = newHandle();
    state().parsers[*handle] = std::move(parser);
    return CUDA_SUCCESS;
}

CUresult CUDAAPI destroyParser(CUvideoparser handle) {
    ENTRY("cuvidDestroyVideoParser");
    if (!state().parsers.erase(handle)) return breach("unknown parser", kInvalidHandle);
    return CUDA_SUCCESS;
}

// Displays what waits beyond the display delay (everything at the end of the stream).
CUresult display(Parser& parser, bool all) {
    while (!parser.displayQueue.empty() && (all || parser.displayQueue.size() > parser.params.ulMaxDisplayDelay)) {
        CUVIDPARSERDISPINFO info = parser.displayQueue.front();
        parser.displayQueue.pop_front();
        if (!parser.params.pfnDisplayPicture(parser.params.pUserData, &info)) return kUnknown;
    }
    return CUDA_SUCCESS;
}

CUresult parsePictures(Parser& parser, const std::vector<Picture>& pictures, const CUVIDSOURCEDATAPACKET& packet) {
    const CUVIDPARSERPARAMS& p = parser.params;
    for (const Picture& picture : pictures) {
        if (!parser.haveFormat || !sameFormat(parser.format, picture.format)) {
            CUVIDEOFORMAT format = picture.format;
            const int result = p.pfnSequenceCallback(p.pUserData, &format);
            fake().sequenceResults.push_back(result);
            if (!result) return kUnknown;
            if (result > 1) parser.surfaces = unsigned(result);
            parser.haveFormat = true;
            parser.format = picture.format;
        }
        CUVIDPICPARAMS params = {};
        params.PicWidthInMbs = int(picture.width() + 15) / 16;
        params.FrameHeightInMbs = int(picture.height() + 15) / 16;
        params.CurrPicIdx = parser.nextPicture;
        parser.nextPicture = int((unsigned(parser.nextPicture) + 1) % parser.surfaces);
        params.pBitstreamData = packet.payload;
        params.nBitstreamDataLen = unsigned(packet.payload_size);
        params.nNumSlices = 1;
        state().decoding = &picture;
        const int decoded = p.pfnDecodePicture(p.pUserData, &params);
        state().decoding = nullptr;
        // A picture that the client did not decode is not displayed either.
        if (!decoded) continue;
        parser.displayQueue.push_back({params.CurrPicIdx, 1, 0, 0, picture.pts});
        if (const CUresult result = display(parser, false)) return result;
    }
    return CUDA_SUCCESS;
}

CUresult CUDAAPI parseVideoData(CUvideoparser handle, CUVIDSOURCEDATAPACKET* packet) {
    ENTRY("cuvidParseVideoData");
    auto it = state().parsers.find(handle);
    if (it == state().parsers.end()) return breach("unknown parser", kInvalidHandle);
    Parser& parser = *it->second;
    if (parser.parsing) return breach("parser entered from its own callback");
    const bool endOfStream = packet->flags & CUVID_PKT_ENDOFSTREAM;
    if (!endOfStream && (!packet->payload || !packet->payload_size)) return breach("empty packet");
    fake().packetTimestamps.push_back(packet->timestamp);
    const int64_t pts = packet->flags & CUVID_PKT_TIMESTAMP ? packet->timestamp : 0;
    std::vector<Picture> pictures = std::move(parser.held);
    parser.held.clear();
    for (Picture& picture : parser.decoder->decode(packet->payload, packet->payload_size, pts, endOfStream))
        pictures.push_back(std::move(picture));
    // Without the end-of-picture flag the parser learns that a picture is complete only from
    // the data that follows it.
    if (!endOfStream && !(packet->flags & CUVID_PKT_ENDOFPICTURE)) {
        parser.held = std::move(pictures);
        return CUDA_SUCCESS;
    }
    parser.parsing = true;
    CUresult result = parsePictures(parser, pictures, *packet);
    if (result == CUDA_SUCCESS && endOfStream) result = display(parser, true);
    parser.parsing = false;
    return result;
}

}  // namespace

size_t FakeCuvid::liveObjects() const {
    size_t mapped = 0;
    for (const auto& decoder : state().decoders) mapped += decoder.second.mapped.size();
    return state().locks.size() + state().parsers.size() + state().decoders.size() + mapped;
}

DriverApi FakeCuvid::driverApi() {
    static CuvidFunctions functions = [] {
        CuvidFunctions f = {};
        f.cuvidGetDecoderCaps = getDecoderCaps;
        f.cuvidCreateDecoder = createDecoder;
        f.cuvidDestroyDecoder = destroyDecoder;
        f.cuvidDecodePicture = decodePicture;
        f.cuvidMapVideoFrame = mapVideoFrame;
        f.cuvidUnmapVideoFrame = unmapVideoFrame;
        f.cuvidCtxLockCreate = ctxLockCreate;
        f.cuvidCtxLockDestroy = ctxLockDestroy;
        f.cuvidCreateVideoParser = createParser;
        f.cuvidParseVideoData = parseVideoData;
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
    state().parsers.clear();
    state().decoders.clear();
    state().locks.clear();
    fakeCuvid() = FakeCuvid{};
}
