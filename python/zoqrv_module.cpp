// The zoqrv Python module: QRV recordings as numpy arrays, over the library's recording API
// (zoqrv.h) and nothing else, so that it builds against an installed library as well as in the
// tree. Encoding and decoding run without the GIL; each object's own lock keeps two Python
// threads from driving one writer or reader at once, which the API does not allow.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>  // optional arguments and (width, height) pairs

#include <zoqrv.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace {

using Size = std::pair<uint32_t, uint32_t>;  // width, height
using Metadata = std::array<uint32_t, ZOQRV_METADATA_WORDS>;

constexpr const char* kKindNames[] = {"bgra", "uyvy", "u4", "u8", "u16", "u32"};
constexpr uint32_t kKinds = sizeof kKindNames / sizeof kKindNames[0];

PyObject* frameNotStoredWarning = nullptr;  // zoqrv.FrameNotStoredWarning, made at import

uint32_t kindCode(const std::string& name) {
    for (uint32_t kind = 0; kind < kKinds; ++kind)
        if (name == kKindNames[kind]) return kind;
    throw py::value_error("unknown kind '" + name + "': bgra, uyvy, u4, u8, u16, u32");
}

template <typename Code, size_t N>
Code choice(const std::string& what, const std::string& name, const std::pair<const char*, Code> (&names)[N]) {
    std::string known;
    for (const auto& [text, code] : names) {
        if (name == text) return code;
        known += (known.empty() ? "" : ", ") + std::string(text);
    }
    throw py::value_error("unknown " + what + " '" + name + "': " + known);
}

[[noreturn]] void raiseOsError(PyObject* type, int error, const std::string& text, const std::string& path) {
    PyErr_SetObject(type, py::make_tuple(error, text, path).ptr());
    throw py::error_already_set();
}

// A failed call as the Python exception of its kind, with the library's text.
[[noreturn]] void raise(zoqrv_status status, const std::string& text, const std::string& path = {}) {
    switch (status) {
    case ZOQRV_ERROR_NOT_FOUND: raiseOsError(PyExc_FileNotFoundError, ENOENT, text, path);
    case ZOQRV_ERROR_EXISTS: raiseOsError(PyExc_FileExistsError, EEXIST, text, path);
    case ZOQRV_ERROR_IO: raiseOsError(PyExc_OSError, EIO, text, path);
    case ZOQRV_ERROR_ARGUMENT:
    case ZOQRV_ERROR_FORMAT: throw py::value_error(text);
    case ZOQRV_ERROR_MEMORY: throw std::bad_alloc();
    default: throw std::runtime_error(text);
    }
}

// The numpy form of one frame: H × W × 4 bytes for bgra, H × W × 2 for uyvy, H rows of W / 2
// bytes of packed 4-bit pairs for u4 (as the library takes them), H × W samples of the data's
// width otherwise; `count` frames stack ahead.
py::array emptyFrames(uint32_t kind, uint32_t width, uint32_t height, std::optional<py::ssize_t> count = {}) {
    std::vector<py::ssize_t> shape{py::ssize_t(height), py::ssize_t(width)};
    if (kind == ZOQRV_KIND_BGRA || kind == ZOQRV_KIND_UYVY) shape.push_back(kind == ZOQRV_KIND_BGRA ? 4 : 2);
    if (kind == ZOQRV_KIND_U4) shape[1] = py::ssize_t(width) / 2;
    if (count) shape.insert(shape.begin(), *count);
    switch (kind) {
    case ZOQRV_KIND_U16: return py::array_t<uint16_t>(shape);
    case ZOQRV_KIND_U32: return py::array_t<uint32_t>(shape);
    default: return py::array_t<uint8_t>(shape);
    }
}

// Each word must be a uint32 as it is: -1, 2.5 or 2**32 would come back as another number.
Metadata metadataWords(const py::object& given, uint32_t& count) {
    Metadata words{};
    const py::array array = py::array::ensure(given);
    if (!array) throw py::value_error("metadata is an array of uint32 words");
    const py::list values = array.attr("ravel")().attr("tolist")();
    if (values.size() > ZOQRV_METADATA_WORDS) throw py::value_error("metadata is at most 64 uint32 words");
    count = uint32_t(values.size());
    for (uint32_t i = 0; i < count; ++i) {
        py::object value = values[i];
        if (py::isinstance<py::float_>(value) && value.attr("is_integer")().cast<bool>()) value = py::int_(value);
        if (!py::isinstance<py::int_>(value) || value < py::int_(0) || value > py::int_(UINT32_MAX))
            throw py::value_error("metadata word " + std::to_string(i) + " is " + std::string(py::repr(value)) +
                                  ", not a uint32");
        words[i] = value.cast<uint32_t>();
    }
    return words;
}

class Recording {
public:
    Recording(const std::string& path, std::optional<std::string> kindName, std::optional<Size> size,
              const std::string& decoderName) {
        zoqrv_reader_options options;
        zoqrv_reader_options_init(&options);
        options.decoder = choice<uint32_t>("decoder", decoderName, {{"auto", ZOQRV_DECODER_AUTO},
                                           {"software", ZOQRV_DECODER_SOFTWARE}, {"hardware", ZOQRV_DECODER_HARDWARE}});
        if (kindName) {
            options.kind = kindCode(*kindName);
            std::tie(options.width, options.height) = *size;
        }
        zoqrv_status status;
        {
            py::gil_scoped_release unlocked;
            status = zoqrv_reader_open(path.c_str(), &options, &reader);
        }
        if (status != ZOQRV_OK) raise(status, zoqrv_last_error(), path);
        zoqrv_reader_get_info(reader, &info);
        if (!info.closed &&
            PyErr_WarnEx(PyExc_RuntimeWarning,
                         (path + ": the recording was not closed; reading its " + std::to_string(info.frame_count) +
                          " complete records").c_str(), 1) != 0) {
            zoqrv_reader_close(reader);
            throw py::error_already_set();
        }
    }
    ~Recording() { zoqrv_reader_close(reader); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    void close() {
        call([&] {
            zoqrv_reader_close(std::exchange(reader, nullptr));
            return ZOQRV_OK;
        });
    }

    py::ssize_t size() const { return py::ssize_t(info.frame_count); }

    // One frame, or for a slice the frames stacked along a first axis.
    py::array frames(const py::object& key) {
        if (!py::isinstance<py::slice>(key)) {
            py::array out = emptyFrames(info.kind, info.width, info.height);
            read(checkedIndex(key.cast<py::ssize_t>()), out.mutable_data(), out.strides(0));
            return out;
        }
        size_t start, stop, step, count;
        if (!key.cast<py::slice>().compute(size_t(info.frame_count), &start, &stop, &step, &count))
            throw py::error_already_set();
        py::array out = emptyFrames(info.kind, info.width, info.height, py::ssize_t(count));
        for (size_t i = 0; i < count; ++i)
            read(start + i * step, out.mutable_data(py::ssize_t(i)), out.strides(1));
        return out;
    }

    // Timestamps exactly as the writer was given them, in ticks of time_unit_ns.
    py::array_t<uint64_t> timestamps() {
        if (!frameTable) loadFrameTable();
        return frameTable->first;
    }

    py::array_t<uint32_t> frameTypes() {
        if (!frameTable) loadFrameTable();
        return frameTable->second;
    }

    // The 64 words of one frame, or (n, 64) for a slice.
    py::array_t<uint32_t> metadata(const py::object& key) {
        std::vector<size_t> indices;
        if (py::isinstance<py::slice>(key)) {
            size_t start, stop, step, count;
            if (!key.cast<py::slice>().compute(size_t(info.frame_count), &start, &stop, &step, &count))
                throw py::error_already_set();
            for (size_t i = 0; i < count; ++i) indices.push_back(start + i * step);
        } else {
            indices.push_back(checkedIndex(key.cast<py::ssize_t>()));
        }
        py::array_t<uint32_t> out({py::ssize_t(indices.size()), py::ssize_t(ZOQRV_METADATA_WORDS)});
        for (size_t i = 0; i < indices.size(); ++i)
            std::memcpy(out.mutable_data(py::ssize_t(i)), frameInfo(indices[i]).metadata, sizeof(Metadata));
        if (!py::isinstance<py::slice>(key)) return out.attr("reshape")(ZOQRV_METADATA_WORDS);
        return out;
    }

    // The frames whose bytes, or those of the frame they are predicted from, fail their
    // checksums: the frames that do not read.
    std::vector<size_t> verify() {
        if (!info.closed)
            throw std::runtime_error("the recording was not closed: it has no index to check (zoqrv recover closes it)");
        py::array scratch = emptyFrames(info.kind, info.width, info.height);
        void* const frame = scratch.mutable_data();
        const uint64_t pitch = uint64_t(scratch.strides(0));
        std::vector<size_t> damaged;
        for (size_t i = 0; i < info.frame_count; ++i) {
            const zoqrv_status status = call([&] { return zoqrv_reader_read(reader, i, frame, pitch, nullptr); });
            if (status == ZOQRV_ERROR_DAMAGED) damaged.push_back(i);
            else if (status != ZOQRV_OK) raise(status, error());
        }
        return damaged;
    }

    bool closed() const { return info.closed; }
    bool hardware() const { return info.hardware; }
    std::string kindText() const { return kKindNames[info.kind]; }
    Size frameSize() const { return {info.width, info.height}; }
    uint32_t frameRate() const { return info.frame_rate; }
    uint32_t timeUnit() const { return info.time_unit_ns; }
    std::string codec() const { return info.codec == ZOQRV_CODEC_H264 ? "h264" : "hevc"; }

private:
    size_t checkedIndex(py::ssize_t index) const {
        if (index < 0) index += size();
        if (index < 0 || index >= size()) throw py::index_error("frame index out of range");
        return size_t(index);
    }

    // Runs one call on the reader without the GIL, the reader held by this thread alone.
    template <typename Call>
    zoqrv_status call(Call&& apiCall) {
        py::gil_scoped_release unlocked;
        std::lock_guard<std::mutex> lock(busy);
        return reader ? apiCall() : ZOQRV_ERROR_ARGUMENT;
    }
    std::string error() const { return reader ? zoqrv_reader_error(reader) : "the recording is closed"; }

    void read(size_t index, void* frame, py::ssize_t pitch) {
        const zoqrv_status status = call([&] { return zoqrv_reader_read(reader, index, frame, uint64_t(pitch), nullptr); });
        if (status != ZOQRV_OK) raise(status, error());
    }

    zoqrv_frame_info frameInfo(size_t index) {
        zoqrv_frame_info frame;
        const zoqrv_status status = call([&] { return zoqrv_reader_frame_info(reader, index, &frame); });
        if (status != ZOQRV_OK) raise(status, error());
        return frame;
    }

    void loadFrameTable() {
        py::array_t<uint64_t> times(py::ssize_t(info.frame_count));
        py::array_t<uint32_t> types(py::ssize_t(info.frame_count));
        for (size_t i = 0; i < info.frame_count; ++i) {
            const zoqrv_frame_info frame = frameInfo(i);
            times.mutable_at(i) = frame.timestamp;
            types.mutable_at(i) = frame.frame_type;
        }
        frameTable.emplace(times, types);
    }

    zoqrv_reader* reader = nullptr;
    zoqrv_recording_info info{};
    std::mutex busy;
    std::optional<std::pair<py::array_t<uint64_t>, py::array_t<uint32_t>>> frameTable;
};

class Recorder {
public:
    Recorder(const std::string& path, const std::string& kindName, Size size, uint32_t fps,
             std::optional<bool> lossless, uint64_t bitrate, const std::string& codecName, bool overwrite,
             uint32_t timeUnit, const std::string& encoderName)
        : kind(kindCode(kindName)), width(size.first), height(size.second) {
        // The library carries whole bytes of 4-bit pairs: the last sample of an odd row would be lost.
        if (kind == ZOQRV_KIND_U4 && width % 2 != 0) throw py::value_error("u4 frames are an even number of samples wide");
        zoqrv_writer_options options;
        zoqrv_writer_options_init(&options, kind, width, height, fps);
        options.codec = choice<int32_t>("codec", codecName, {{"default", ZOQRV_CODEC_DEFAULT},
                                        {"h264", ZOQRV_CODEC_H264}, {"hevc", ZOQRV_CODEC_HEVC}});
        if (lossless) options.lossless = *lossless;
        options.bitrate = options.lossless ? 0 : bitrate;
        options.overwrite = overwrite;
        options.time_unit_ns = timeUnit;
        options.encoder = choice<uint32_t>("encoder", encoderName, {{"environment", ZOQRV_ENCODER_FROM_ENVIRONMENT},
                                           {"auto", ZOQRV_ENCODER_AUTO}, {"nvenc", ZOQRV_ENCODER_NVENC},
                                           {"software", ZOQRV_ENCODER_SOFTWARE}});
        zoqrv_status status;
        {
            py::gil_scoped_release unlocked;
            status = zoqrv_writer_open(path.c_str(), &options, &writer);
        }
        if (status != ZOQRV_OK) raise(status, zoqrv_last_error(), path);
        zoqrv_writer_get_info(writer, &info);
    }

    // A recorder dropped without close() still leaves a readable file.
    ~Recorder() {
        if (writer) zoqrv_writer_close(writer);
    }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // True when the frame was stored; otherwise a FrameNotStoredWarning with the frame's number
    // (counting write calls from 0) and the library's text.
    bool write(const py::array& frame, uint64_t timestamp, std::optional<py::object> metadata) {
        const py::array expected = emptyFrames(kind, width, height);
        if (!frame.dtype().equal(expected.dtype()) || frame.ndim() != expected.ndim() ||
            !std::equal(frame.shape(), frame.shape() + frame.ndim(), expected.shape()))
            throw py::value_error("a frame of kind " + std::string(kKindNames[kind]) + " is a " +
                                  std::string(py::str(expected.dtype())) + " array of shape " +
                                  std::string(py::str(py::tuple(expected.attr("shape")))));
        const auto data = py::array::ensure(frame, py::array::c_style);
        const void* const pixels = data.data();
        const uint64_t pitch = uint64_t(data.strides(0));
        uint32_t count = 0;
        const Metadata words = metadata ? metadataWords(*metadata, count) : Metadata{};
        zoqrv_status status = ZOQRV_ERROR_ARGUMENT;
        bool open;
        std::string failure;
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> lock(busy);
            if ((open = writer != nullptr))
                status = zoqrv_writer_write(writer, pixels, pitch, timestamp,
                                            count ? words.data() : nullptr, count);
            if (open && status != ZOQRV_OK) failure = zoqrv_writer_error(writer);
        }
        if (!open) throw py::value_error("the recorder is closed");
        const uint64_t number = writeCalls++;
        if (status == ZOQRV_OK) return true;
        if (status != ZOQRV_ERROR_NOT_STORED && status != ZOQRV_ERROR_IO) raise(status, failure);
        // A frame lost is told, and the recording goes on: hours of frames behind it stay usable.
        ++notStored;
        const std::string text = "frame " + std::to_string(number) + " not stored: " + failure;
        if (PyErr_WarnEx(frameNotStoredWarning, text.c_str(), 1) != 0) throw py::error_already_set();
        return false;
    }

    uint64_t framesNotStored() const { return notStored; }
    std::string encoder() const { return info.encoder; }
    std::string codec() const { return info.codec == ZOQRV_CODEC_H264 ? "h264" : "hevc"; }
    bool lossless() const { return info.lossless; }

    void close() {
        zoqrv_status status;
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> lock(busy);
            if (!writer) return;
            status = zoqrv_writer_close(std::exchange(writer, nullptr));
        }
        if (status != ZOQRV_OK) raise(status, "the recording could not be closed: it reads as an unclosed one");
    }

private:
    uint32_t kind, width, height;
    zoqrv_writer* writer = nullptr;
    zoqrv_writer_info info{};
    std::mutex busy;
    uint64_t writeCalls = 0, notStored = 0;
};

}  // namespace

PYBIND11_MODULE(zoqrv, m) {
    m.doc() = "QRV recordings as numpy arrays";
    m.attr("__version__") = zoqrv_version();
    frameNotStoredWarning = PyErr_NewExceptionWithDoc(
        "zoqrv.FrameNotStoredWarning", "A frame that Recorder.write could not encode or store; the recording goes on.",
        PyExc_RuntimeWarning, nullptr);
    if (!frameNotStoredWarning) throw py::error_already_set();
    m.attr("FrameNotStoredWarning") = py::handle(frameNotStoredWarning);

    py::class_<Recording>(m, "Recording")
        .def("__len__", &Recording::size)
        .def("__getitem__", &Recording::frames, py::arg("index"))
        .def("metadata", &Recording::metadata, py::arg("index"))
        .def_property_readonly("timestamps", &Recording::timestamps)
        .def_property_readonly("frame_types", &Recording::frameTypes)
        .def("verify", &Recording::verify)
        .def("close", &Recording::close)
        .def("__enter__", [](Recording& r) -> Recording& { return r; }, py::return_value_policy::reference)
        .def("__exit__", [](Recording& r, py::args) { r.close(); })
        .def_property_readonly("closed", &Recording::closed)
        .def_property_readonly("hardware", &Recording::hardware)
        .def_property_readonly("kind", &Recording::kindText)
        .def_property_readonly("size", &Recording::frameSize)
        .def_property_readonly("fps", &Recording::frameRate)
        .def_property_readonly("codec", &Recording::codec)
        .def_property_readonly("time_unit_ns", &Recording::timeUnit);
    m.def(
        "open",
        [](const std::string& path, std::optional<std::string> kind, std::optional<Size> size,
           const std::string& decoder) {
            if (kind.has_value() != size.has_value()) throw py::value_error("give kind and size together");
            return std::make_unique<Recording>(path, kind, size, decoder);
        },
        py::arg("path"), py::arg("kind") = py::none(), py::arg("size") = py::none(), py::arg("decoder") = "auto");

    py::class_<Recorder>(m, "Recorder")
        .def(py::init<const std::string&, const std::string&, Size, uint32_t, std::optional<bool>, uint64_t,
                      const std::string&, bool, uint32_t, const std::string&>(),
             py::arg("path"), py::arg("kind"), py::arg("size"), py::arg("fps"), py::arg("lossless") = py::none(),
             py::arg("bitrate") = 8000000, py::arg("codec") = "default", py::arg("overwrite") = false,
             py::arg("time_unit_ns") = ZOQRV_MICROSECONDS, py::arg("encoder") = "environment")
        .def("write", &Recorder::write, py::arg("frame"), py::arg("timestamp"), py::arg("metadata") = py::none())
        .def("close", &Recorder::close)
        .def_property_readonly("frames_not_stored", &Recorder::framesNotStored)
        .def_property_readonly("encoder", &Recorder::encoder)
        .def_property_readonly("codec", &Recorder::codec)
        .def_property_readonly("lossless", &Recorder::lossless)
        .def("__enter__", [](Recorder& r) -> Recorder& { return r; }, py::return_value_policy::reference)
        .def("__exit__", [](Recorder& r, py::args) { r.close(); });
}
