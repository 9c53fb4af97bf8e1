// The zoqrv Python module: opens QRV recordings as sequences of numpy arrays in the recorded
// data kind, and records numpy arrays. Reading uses the library's software decoder and the
// packing kernels' CPU twins directly, since the C interface's software path returns YUYV
// pictures, not the data; recording goes through the exported calls, as a host does.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>  // optional arguments and (width, height) pairs

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "codec/Exception.h"
#include "codec/SwDecoder.h"
#include "container/qrv_file.h"
#include "container/qrv_recovery.h"
#include "kernels/packing.h"
#include "recording/recording_header.h"
#include "zo_qrv64.h"

namespace py = pybind11;

namespace {

constexpr uint32_t kHevc = 1;
// HEVC pictures of the encoders are at most 8192 a side; larger sizes are refused before any
// buffer for them is made.
constexpr uint32_t kMaxPictureSide = 8192;

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;
using Size = std::pair<uint32_t, uint32_t>;  // width, height

uint32_t kindCode(const std::string& name) {
    uint32_t kind = 0;
    if (!kindFromName(name, kind)) throw py::value_error("unknown kind '" + name + "': bgra, uyvy, u4, u8, u16, u32");
    return kind;
}

// The numpy form of one frame of data: H × W × 4 bytes for bgra, H × W × 2 for uyvy, H rows of
// packed 4-bit pairs for u4, H × W samples of the data's width otherwise.
py::array emptyFrame(uint32_t kind, uint32_t width, uint32_t height) {
    const py::ssize_t h = height, w = width;
    switch (kind) {
    case packing::kColour32: return py::array_t<uint8_t>({h, w, py::ssize_t(4)});
    case packing::kUyvy: return py::array_t<uint8_t>({h, w, py::ssize_t(2)});
    case packing::kUint4: return py::array_t<uint8_t>({h, py::ssize_t(packing::tightPitch(kind, width))});
    case packing::kUint8: return py::array_t<uint8_t>({h, w});
    case packing::kUint16: return py::array_t<uint16_t>({h, w});
    default: return py::array_t<uint32_t>({h, w});
    }
}

void checkGeometry(uint32_t kind, uint32_t width, uint32_t height) {
    if (packing::packedSize(kind, width, height) == 0 || packing::pictureWidth(kind, width) > kMaxPictureSide ||
        height > kMaxPictureSide)
        throw py::value_error("size " + std::to_string(width) + "x" + std::to_string(height) +
                              " holds no frame of kind " + kindName(kind));
}

class Recording {
public:
    Recording(const std::string& path, std::optional<std::string> kindName, std::optional<Size> size)
        : file(std::fopen(path.c_str(), "rb")) {
        if (!file) throw py::value_error("cannot open " + path);
        if (!qrvReadSoftwareIndex(file.get(), tables) || tables.sampleCount < 1 ||
            tables.recordHeads.size() != size_t(tables.sampleCount) ||
            tables.sampleInfos.size() != size_t(tables.sampleCount))
            throw py::value_error(path + ": cannot read the sample index");
        if (!tables.found.closed &&
            PyErr_WarnEx(PyExc_RuntimeWarning,
                         (path + ": the recording was not closed; reading its " + std::to_string(tables.frameList.size()) +
                          " complete records").c_str(), 1) != 0)
            throw py::error_already_set();
        RecordingHeader header;
        const bool described = readRecordingHeader(file.get(), tables, header);
        if (!kindName && !described) throw py::value_error(path + ": no recording header; give kind and size");
        if (described && header.codec != kHevc) throw py::value_error(path + ": only HEVC recordings are read");
        kind = kindName ? kindCode(*kindName) : header.kind;
        std::tie(width, height) = size ? *size : Size{header.width, header.height};
        checkGeometry(kind, width, height);
        pictureWidth = packing::pictureWidth(kind, width);
        decoder = std::make_unique<SwDecoder>(pictureWidth, height, 0, 1);
        if (!decoder->isReady() || !decoder->readIndex(file.get()))
            throw std::runtime_error("libde265 could not start a decoder");
        picture.resize(size_t(pictureWidth) * height * 2);
    }

    py::ssize_t size() const { return tables.sampleCount; }

    // Sequential reads continue the decoder's chain; any other record is reached from its key frame.
    py::array frame(py::ssize_t index) {
        const int32_t sample = checkedIndex(index);
        if (sample != nextSample && !decoder->seekToSample(file.get(), sample)) fail(sample);
        nextSample = -1;
        uint32_t frameNumber = 0, frameType = 0;
        uint64_t captureTime = 0;
        QrvSampleInfo info;
        if (!decoder->decodeNextRecord(file.get(), picture.data(), &frameNumber, &captureTime, &frameType,
                                       reinterpret_cast<uint8_t*>(&info), pictureWidth, height, true))
            fail(sample);
        nextSample = sample + 1;
        py::array out = emptyFrame(kind, width, height);
        packing::unpackYuyvOnHost(kind, picture.data(), pictureWidth, out.mutable_data(), width, height);
        return out;
    }

    py::array_t<uint64_t> timestamps() const {
        py::array_t<uint64_t> out(tables.sampleCount);
        for (py::ssize_t i = 0; i < out.size(); ++i) out.mutable_at(i) = tables.recordHeads[size_t(i)].captureTime;
        return out;
    }

    py::array_t<uint32_t> frameTypes() const {
        py::array_t<uint32_t> out(tables.sampleCount);
        for (py::ssize_t i = 0; i < out.size(); ++i) out.mutable_at(i) = tables.recordHeads[size_t(i)].frameType;
        return out;
    }

    py::array_t<uint32_t> metadata(py::ssize_t index) const {
        py::array_t<uint32_t> out{py::ssize_t(kMetadataWords)};
        std::memcpy(out.mutable_data(), tables.sampleInfos[size_t(checkedIndex(index))].metadata, kMetadataBytes);
        return out;
    }

    bool closed() const { return tables.found.closed; }

    // The numbers of the records that fail their checksums.
    std::vector<size_t> verify() const {
        QrvVerification result;
        if (!qrvVerify(file.get(), result) || !result.closed)
            throw std::runtime_error("the recording was not closed: it has no checksums to check (zoqrv recover closes it)");
        return result.damaged;
    }

    std::string kindText() const { return kindName(kind); }
    Size frameSize() const { return {width, height}; }

private:
    int32_t checkedIndex(py::ssize_t index) const {
        if (index < 0) index += tables.sampleCount;
        if (index < 0 || index >= tables.sampleCount) throw py::index_error("record index out of range");
        return int32_t(index);
    }
    [[noreturn]] void fail(int32_t sample) {
        nextSample = -1;
        throw std::runtime_error("record " + std::to_string(sample) + " did not decode");
    }

    File file;
    QrvSoftwareIndex tables;
    uint32_t kind = 0, width = 0, height = 0, pictureWidth = 0;
    std::unique_ptr<SwDecoder> decoder;
    std::vector<uint8_t> picture;  // the decoder's YUYV
    int32_t nextSample = -1;       // the record after the last one decoded
};

PyObject* frameNotStoredWarning = nullptr;  // zoqrv.FrameNotStoredWarning, made at import

// Records through the C interface. ZOQRV_ENCODER is set to "auto" unless the caller chose.
class Recorder {
public:
    Recorder(const std::string& path, const std::string& kindName, Size size, uint32_t fps, bool lossless,
             uint64_t bitrate)
        : kind(kindCode(kindName)), width(size.first), height(size.second), pipe(nullptr, &ZOHW_Destroy) {
        checkGeometry(kind, width, height);
        if (fps == 0) throw py::value_error("fps must be positive");
        setenv("ZOQRV_ENCODER", "auto", 0);
        pipe.reset(ZOHW_CreateEncoder(kind, kHevc, lossless, width, height, lossless ? 0 : bitrate, fps));
        if (!pipe) throw std::runtime_error(ZOHW_GetError(nullptr));
        file.reset(std::fopen(path.c_str(), "wb"));
        if (!file) throw py::value_error("cannot create " + path);
        const std::vector<uint8_t> header = encodeRecordingHeader({kind, width, height, fps, kHevc});
        if (ZOHW_CreateQRVContainer(pipe.get(), file.get(), header.data(), int32_t(header.size())) != 0)
            throw std::runtime_error(ZOHW_GetError(pipe.get()));
    }

    // A recorder dropped without close() still leaves a readable file.
    ~Recorder() {
        if (file) ZOHW_CloseQRVContainer(pipe.get(), file.get());
    }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // True when the frame was stored; otherwise a FrameNotStoredWarning with the frame's number
    // (counting write calls from 0) and the library's text.
    bool write(const py::array& frame, uint64_t timestamp, std::optional<py::array_t<uint32_t>> metadata) {
        if (!file) throw std::runtime_error("the recorder is closed");
        const py::array expected = emptyFrame(kind, width, height);
        if (!frame.dtype().equal(expected.dtype()) || frame.ndim() != expected.ndim() ||
            !std::equal(frame.shape(), frame.shape() + frame.ndim(), expected.shape()))
            throw py::value_error("a frame of kind " + std::string(kindName(kind)) + " is a " +
                                  std::string(py::str(expected.dtype())) + " array of shape " +
                                  std::string(py::str(py::tuple(expected.attr("shape")))));
        const auto data = py::array::ensure(frame, py::array::c_style);
        uint32_t words[kMetadataWords] = {};
        if (metadata) {
            if (metadata->ndim() != 1 || size_t(metadata->size()) > kMetadataWords)
                throw py::value_error("metadata is at most 64 uint32 words");
            for (py::ssize_t i = 0; i < metadata->size(); ++i) words[i] = metadata->at(i);
        }
        const uint64_t number = writeCalls++;
        uint64_t bytes = 0;
        if (ZOHW_Encode_And_Store(pipe.get(), file.get(), &bytes, data.data(), packing::tightPitch(kind, width),
                                  timestamp, words, int32_t(kMetadataWords)) == 0)
            return true;
        const std::string failure = ZOHW_GetError(pipe.get());
        // A frame lost is told, and the recording goes on: hours of frames behind it stay usable.
        ++notStored;
        const std::string text = "frame " + std::to_string(number) + " not stored: " +
                                 (failure.empty() ? "the encoder gave no bytes" : failure);
        if (PyErr_WarnEx(frameNotStoredWarning, text.c_str(), 1) != 0) throw py::error_already_set();
        return false;
    }

    uint64_t framesNotStored() const { return notStored; }

    void close() {
        if (!file) return;
        // The library checks its writes; the stream's error flag stays set after a frame it rolled back.
        const bool indexed = ZOHW_CloseQRVContainer(pipe.get(), file.get()) == 0;
        if (std::fclose(file.release()) != 0 || !indexed) throw std::runtime_error("the recording could not be written");
    }

private:
    uint32_t kind, width, height;
    std::unique_ptr<ZoHwPipe, void (*)(ZoHwPipe*)> pipe;
    File file;
    uint64_t writeCalls = 0, notStored = 0;
};

}  // namespace

PYBIND11_MODULE(zoqrv, m) {
    m.doc() = "QRV recordings as numpy arrays";
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const Exception& e) {
            PyErr_SetString(PyExc_RuntimeError, e.message().c_str());
        }
    });

    frameNotStoredWarning = PyErr_NewExceptionWithDoc(
        "zoqrv.FrameNotStoredWarning", "A frame that Recorder.write could not encode or store; the recording goes on.",
        PyExc_RuntimeWarning, nullptr);
    if (!frameNotStoredWarning) throw py::error_already_set();
    m.attr("FrameNotStoredWarning") = py::handle(frameNotStoredWarning);

    py::class_<Recording>(m, "Recording")
        .def("__len__", &Recording::size)
        .def("__getitem__", &Recording::frame, py::arg("index"))
        .def("metadata", &Recording::metadata, py::arg("index"))
        .def_property_readonly("timestamps", &Recording::timestamps)
        .def_property_readonly("frame_types", &Recording::frameTypes)
        .def("verify", &Recording::verify)
        .def_property_readonly("closed", &Recording::closed)
        .def_property_readonly("kind", &Recording::kindText)
        .def_property_readonly("size", &Recording::frameSize);
    m.def(
        "open",
        [](const std::string& path, std::optional<std::string> kind, std::optional<Size> size) {
            if (kind.has_value() != size.has_value()) throw py::value_error("give kind and size together");
            return std::make_unique<Recording>(path, kind, size);
        },
        py::arg("path"), py::arg("kind") = py::none(), py::arg("size") = py::none());

    py::class_<Recorder>(m, "Recorder")
        .def(py::init<const std::string&, const std::string&, Size, uint32_t, bool, uint64_t>(), py::arg("path"),
             py::arg("kind"), py::arg("size"), py::arg("fps"), py::arg("lossless") = true,
             py::arg("bitrate") = 8000000)
        .def("write", &Recorder::write, py::arg("frame"), py::arg("timestamp"), py::arg("metadata") = py::none())
        .def("close", &Recorder::close)
        .def_property_readonly("frames_not_stored", &Recorder::framesNotStored)
        .def("__enter__", [](Recorder& r) -> Recorder& { return r; }, py::return_value_policy::reference)
        .def("__exit__", [](Recorder& r, py::args) { r.close(); });
}
