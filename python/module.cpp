// The compiled part of the Python package qvreconstruction: the library's instance
// with numpy arrays in and out, calibration records and files, and the simulator.
// Frame inputs are read in place when they are C-contiguous arrays of the right type;
// other integer arrays are converted when every value fits, anything else is refused.
// Every image the library hands out becomes the numpy array's own memory, freed with
// the array. Frame operations and recordings' reads and writes release the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <qvreconstruction/calibration_file.h>
#include <qvreconstruction/reconstruction.h>
#include <qvreconstruction/recording.h>

#include "sample_calibration.h"
#include "simulator.h"

namespace py = pybind11;
using qvapi::CameraCalibrationParam;
using qvapi::Intrinsics;

namespace {

// The library's status codes as one exception type, created at import.
py::object* g_error = nullptr;

[[noreturn]] void Raise(int32_t status, const std::string& operation)
{
    const char* what = status == qvapi::STATUS_NOT_INITIALIZED    ? "not initialised (call init first)"
                       : status == qvapi::STATUS_INVALID_ARGUMENT ? "invalid argument"
                       : status == qvapi::STATUS_STREAM_MISMATCH  ? "the stream changed since init"
                                                                  : "failed";
    py::object e = (*g_error)(operation + ": " + what + " (status " + std::to_string(status) + ")", status);
    PyErr_SetObject(g_error->ptr(), e.ptr());
    throw py::error_already_set();
}

void Check(int32_t status, const char* operation)
{
    if (status != qvapi::STATUS_OK)
        Raise(status, operation);
}

// A frame argument as C-contiguous values of type T. Arrays of T are read in place
// (copied only when not contiguous); other integer arrays are converted when every
// value fits T. Floats, booleans, complex numbers and objects are refused: a cast
// would change them without a word.
template <typename T>
using Words = py::array_t<T, py::array::c_style | py::array::forcecast>;

template <typename T>
Words<T> ToWords(const py::handle& arg, const char* name)
{
    py::object array = py::reinterpret_borrow<py::object>(arg);
    if (!py::isinstance<py::array_t<T>>(arg)) {
        array = py::module_::import("numpy").attr("asarray")(arg);
        const py::dtype type = py::reinterpret_borrow<py::array>(array).dtype();
        if (type.kind() != 'u' && type.kind() != 'i')
            throw py::type_error(std::string(name) + " must be an array of " +
                                 py::str(py::object(py::dtype::of<T>())).cast<std::string>() +
                                 " (or integers that fit), not " + py::str(py::object(type)).cast<std::string>());
        if (py::reinterpret_borrow<py::array>(array).size() > 0) {
            const py::object lo = array.attr("min")(), hi = array.attr("max")();
            if (lo < py::int_(0) || hi > py::int_(std::numeric_limits<T>::max()))
                throw py::value_error(std::string(name) + " holds " + py::str(lo).cast<std::string>() + " .. " +
                                      py::str(hi).cast<std::string>() + ", outside 0 .. " +
                                      std::to_string(std::numeric_limits<T>::max()));
        }
    }
    Words<T> words = Words<T>::ensure(array);
    if (!words)
        throw py::error_already_set();
    return words;
}

// An array owning memory the library allocated with new[].
template <typename T>
py::array_t<T> Own(T* data, std::vector<py::ssize_t> shape)
{
    py::capsule free(data, [](void* p) { delete[] static_cast<T*>(p); });
    return py::array_t<T>(shape, data, free);
}

// A path handed to C++ ends at its first NUL: one that holds a NUL names another file.
const std::string& PathArg(const std::string& path, const char* name)
{
    if (path.find('\0') != std::string::npos)
        throw py::value_error(std::string(name) + " holds a NUL character");
    return path;
}

// A record's fields after its label: plain 4-byte numbers without padding, from the
// depth lens to the end of the last table (not to sizeof, which may add padding).
char* Numbers(CameraCalibrationParam& p) { return reinterpret_cast<char*>(&p.depthLens); }
const char* Numbers(const CameraCalibrationParam& p) { return reinterpret_cast<const char*>(&p.depthLens); }
const size_t kNumberBytes = [] {
    static const CameraCalibrationParam p{};
    return static_cast<size_t>(reinterpret_cast<const char*>(std::end(p.table3)) - Numbers(p));
}();

// The one library instance, as Python sees it, and the stream last set on it (the
// instance starts on the full stream).
struct Instance {
    qvapi::Reconstruction* r = qvapi::Reconstruction::CreateInstance();
    static qvapi::StreamType& Stream()
    {
        static qvapi::StreamType stream = qvapi::STREAM_DUAL_FREQ;
        return stream;
    }
};

// Frame operations check their arguments against the stream and call the library
// under one lock: shared, so frames run side by side (the library orders them), and
// exclusive for set_type, init and the settings. A frame's checks and its work thus
// see the same stream, whatever another thread sets meanwhile. A writer first takes
// the turnstile, which holds back frames that have not started yet, so that threads
// converting frame after frame cannot keep set_type waiting for ever (glibc's
// read-write lock lets readers overtake a waiting writer). The GIL is released before
// either lock is taken, so no thread waits for a lock while holding it.
struct StateLock {
    std::mutex turnstile;
    std::shared_mutex state;
};
StateLock& Locks()
{
    static StateLock locks;
    return locks;
}

template <typename Work>
auto Shared(Work&& work)
{
    py::gil_scoped_release unlocked;
    StateLock& l = Locks();
    { std::lock_guard<std::mutex> pass(l.turnstile); }
    std::shared_lock<std::shared_mutex> lock(l.state);
    return work();
}

template <typename Work>
auto Alone(Work&& work)
{
    py::gil_scoped_release unlocked;
    StateLock& l = Locks();
    std::lock_guard<std::mutex> pass(l.turnstile);
    std::unique_lock<std::shared_mutex> lock(l.state);
    return work();
}

// Calls that may change what later frames give: set_type, init, the flip mode, the
// filter switch and frames (binned frames halve the amplitude threshold). Batches
// count them to know that nobody else touched the instance since they set it up.
std::atomic<uint64_t> g_changes{0};

bool Single(qvapi::StreamType s) { return s == qvapi::STREAM_SINGLE_FREQ; }

// The raw frames each stream delivers: the full stream's 640 x 480 frames and its
// binned 320 x 240 read-out (16 words a pixel), the reduced stream's 320 x 240 (4).
bool IsStreamFrame(qvapi::StreamType s, int width, int height)
{
    return (width == 320 && height == 240) || (!Single(s) && width == 640 && height == 480);
}

std::string StreamFrames(qvapi::StreamType s)
{
    return Single(s) ? "the single-frequency stream's frames are 320 x 240"
                     : "the full stream's frames are 640 x 480 or 320 x 240 (binned)";
}

// Empty when `words` words are a whole raw frame of the stream at width x height.
std::string RawProblem(qvapi::StreamType s, size_t words, int width, int height)
{
    if (!IsStreamFrame(s, width, height))
        return std::to_string(width) + " x " + std::to_string(height) + " is no frame size: " + StreamFrames(s);
    const size_t needed = (Single(s) ? 4u : 16u) * static_cast<size_t>(width) * height;
    if (words != needed)
        return "raw holds " + std::to_string(words) + " words, a " + std::to_string(width) + " x " +
               std::to_string(height) + " frame of this stream " + std::to_string(needed);
    return "";
}

// Empty when a depth argument of this shape is an image the library makes: a depth
// image of the stream, (height, width), or depth registered to the colour camera.
std::string DepthProblem(qvapi::StreamType s, const std::vector<py::ssize_t>& shape)
{
    if (shape.size() == 2) {
        const py::ssize_t h = shape[0], w = shape[1];
        // (bounded before the narrowing, which would wrap larger sides)
        if ((w == 1920 && h == 1080) || (w <= 640 && h <= 480 && IsStreamFrame(s, int(w), int(h))))
            return "";
    }
    std::string text;
    for (size_t d = 0; d < shape.size(); ++d)
        text += (d ? ", " : "") + std::to_string(shape[d]);
    return "depth of shape (" + text + ") is no depth image: " + StreamFrames(s) +
           " (shape (height, width)); registered depth is (1080, 1920)";
}

// Empty when the records can serve the stream: a binned record (320 wide) is never
// the full stream's working record, and a full one (640 wide) never the binned one.
std::string RecordProblem(qvapi::StreamType s, const CameraCalibrationParam& binned,
                          const CameraCalibrationParam& full)
{
    if (binned.depthLens.width == 640)
        return "the first record is a full read-out's (640 wide): init takes (binned, full)";
    if (!Single(s) && full.depthLens.width == 320)
        return "the second record is a binned read-out's (320 wide): init takes (binned, full)";
    return "";
}

qvsim::SceneKind SceneOf(const std::string& name)
{
    if (name == "wall")
        return qvsim::SceneKind::Wall;
    if (name == "plane")
        return qvsim::SceneKind::TiltedPlane;
    if (name == "boxes")
        return qvsim::SceneKind::Boxes;
    if (name == "sphere")
        return qvsim::SceneKind::Sphere;
    throw py::value_error("unknown scene '" + name + "' (wall, plane, boxes, sphere)");
}

// Recordings: the recording library's reader and writer with numpy arrays. Each
// object takes its own lock (after releasing the GIL), so that threads sharing one
// take turns; different objects work side by side.
py::object* g_recording_error = nullptr;

// Text from a file (labels, metadata, messages naming records) need not be UTF-8.
py::str Text(const std::string& s)
{
    PyObject* text = PyUnicode_DecodeUTF8(s.data(), static_cast<py::ssize_t>(s.size()), "replace");
    if (text == nullptr)
        throw py::error_already_set();
    return py::reinterpret_steal<py::str>(text);
}

[[noreturn]] void RaiseRecording(const qvapi::RecordingStatus& status)
{
    py::object e = (*g_recording_error)(Text(status.message), status.code);
    PyErr_SetObject(g_recording_error->ptr(), e.ptr());
    throw py::error_already_set();
}

// A vector handed over to a 1-D numpy array, which frees it.
template <typename T>
py::array_t<T> FromVector(std::vector<T>&& values)
{
    auto* owned = new std::vector<T>(std::move(values));
    py::capsule free(owned, [](void* p) { delete static_cast<std::vector<T>*>(p); });
    return py::array_t<T>({static_cast<py::ssize_t>(owned->size())}, owned->data(), free);
}

// The raw frames' kind by the names simulate_capture and batch use.
const char* KindOf(qvapi::StreamType stream, int32_t width)
{
    return Single(stream) ? "single" : width == 320 ? "binned" : "dual";
}

// One recorded capture as Python sees it.
struct Frame {
    uint64_t index = 0;
    qvapi::StreamType stream = qvapi::STREAM_DUAL_FREQ;
    int32_t width = 0, height = 0;
    py::array_t<uint16_t> raw;
    uint64_t timeNs = 0, sequence = 0;
    uint16_t temperatureCode = 0;
    float temperatureC = 0.0f;
    uint32_t framesDropped = 0;
    py::object colour = py::none(), colourTimeNs = py::none();
    int32_t colourWidth = 0, colourHeight = 0;
};

Frame ToFrame(qvapi::RecordedFrame&& f)
{
    Frame out;
    out.index = f.index;
    out.stream = f.stream;
    out.width = f.width;
    out.height = f.height;
    out.raw = FromVector(std::move(f.words));
    out.timeNs = f.timeNs;
    out.sequence = f.sequence;
    out.temperatureCode = f.temperatureCode;
    out.temperatureC = f.temperatureC;
    out.framesDropped = f.framesDropped;
    if (f.hasColour) {
        out.colour = FromVector(std::move(f.nv12));
        out.colourTimeNs = py::int_(f.colourTimeNs);
        out.colourWidth = f.colourWidth;
        out.colourHeight = f.colourHeight;
    }
    return out;
}

// A row of a recording's per-frame information.
struct InfoRow {
    uint64_t index, time_ns, sequence;
    uint16_t temperature_code;
    float temperature_c;
    int32_t stream, width, height;
    uint32_t frames_dropped;
};

struct Reader {
    std::mutex lock;
    std::unique_ptr<qvapi::RecordingReader> r;

    // Runs `work` on the open reader without the GIL, under the reader's lock.
    template <typename Work>
    auto Use(Work&& work)
    {
        py::gil_scoped_release unlocked;
        std::lock_guard<std::mutex> hold(lock);
        if (!r)
            throw py::value_error("the recording is closed");  // (a C++ exception: no GIL needed)
        return work(*r);
    }
};

struct Writer {
    std::mutex lock;
    std::unique_ptr<qvapi::RecordingWriter> w;
    qvapi::StreamType stream = qvapi::STREAM_DUAL_FREQ;
    uint64_t captures = 0;
    bool anyCapture = false;
    uint64_t lastTimeNs = 0;

    template <typename Work>
    void Use(Work&& work)
    {
        qvapi::RecordingStatus st;
        {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> hold(lock);
            if (!w)
                throw py::value_error("the recording writer is closed");
            st = work(*w);
        }
        if (!st.ok())
            RaiseRecording(st);
    }
};

bool SameRecords(const CameraCalibrationParam& a, const CameraCalibrationParam& b)
{
    return a.label == b.label && std::memcmp(Numbers(a), Numbers(b), kNumberBytes) == 0;
}

// A (height, width) or (height, width, channels) image of exactly type T.
template <typename T>
py::array_t<T, py::array::c_style | py::array::forcecast> Image(const py::handle& arg, const char* name,
                                                                py::ssize_t channels)
{
    if (!py::isinstance<py::array_t<T>>(arg))
        throw py::type_error(std::string(name) + " must be a numpy array of " +
                             py::str(py::object(py::dtype::of<T>())).cast<std::string>());
    auto image = py::array_t<T, py::array::c_style | py::array::forcecast>::ensure(arg);
    const bool shaped = channels == 1 ? image.ndim() == 2 : image.ndim() == 3 && image.shape(2) == channels;
    if (!shaped || image.shape(0) < 1 || image.shape(1) < 1 || image.shape(0) > 1 << 15 || image.shape(1) > 1 << 15)
        throw py::value_error(std::string(name) + " must be an image of shape (height, width" +
                              (channels == 1 ? std::string(")") : ", " + std::to_string(channels) + ")"));
    return image;
}

}  // namespace

PYBIND11_MODULE(_core, m)
{
    m.doc() = "Time-of-flight depth reconstruction (compiled part of qvreconstruction)";
    static py::object error = py::module_::import("qvreconstruction._errors").attr("QvError");
    g_error = &error;

    py::enum_<qvapi::DeviceType>(m, "DeviceType")
        .value("GENERIC", qvapi::DEVICE_GENERIC)
        .value("TYPE_1", qvapi::DEVICE_TYPE_1)
        .value("TYPE_4", qvapi::DEVICE_TYPE_4);
    py::enum_<qvapi::StreamType>(m, "StreamType")
        .value("SINGLE_FREQ", qvapi::STREAM_SINGLE_FREQ)
        .value("DUAL_FREQ", qvapi::STREAM_DUAL_FREQ);
    py::enum_<qvapi::FlipMode>(m, "FlipMode")
        .value("NONE", qvapi::FLIP_NONE)
        .value("HORIZONTAL", qvapi::FLIP_HORIZONTAL)
        .value("VERTICAL", qvapi::FLIP_VERTICAL)
        .value("BOTH", qvapi::FLIP_BOTH);

    py::class_<Intrinsics>(m, "Intrinsics", "A camera's pinhole and distortion parameters")
        .def(py::init([]() { return Intrinsics{}; }))
        .def_readwrite("fx", &Intrinsics::fx)
        .def_readwrite("fy", &Intrinsics::fy)
        .def_readwrite("cx", &Intrinsics::cx)
        .def_readwrite("cy", &Intrinsics::cy)
        .def_readwrite("k1", &Intrinsics::k1)
        .def_readwrite("k2", &Intrinsics::k2)
        .def_readwrite("p1", &Intrinsics::p1)
        .def_readwrite("p2", &Intrinsics::p2)
        .def_readwrite("k3", &Intrinsics::k3)
        .def_readwrite("width", &Intrinsics::width)
        .def_readwrite("height", &Intrinsics::height)
        .def("__repr__", [](const Intrinsics& l) {
            return "Intrinsics(fx=" + std::to_string(l.fx) + ", fy=" + std::to_string(l.fy) + ", cx=" +
                   std::to_string(l.cx) + ", cy=" + std::to_string(l.cy) + ", " + std::to_string(l.width) + "x" +
                   std::to_string(l.height) + ")";
        });

    py::class_<CameraCalibrationParam>(m, "CalibrationRecord",
                                       "One read-out's calibration record (init takes two: binned, full)")
        .def(py::init([]() { return CameraCalibrationParam{}; }))
        .def_readwrite("label", &CameraCalibrationParam::label)
        .def_readwrite("depth_lens", &CameraCalibrationParam::depthLens)
        .def_readwrite("rgb_lens", &CameraCalibrationParam::rgbLens)
        .def_readwrite("depth_offset_f1", &CameraCalibrationParam::depthOffsetF1)
        .def_readwrite("depth_offset_f2", &CameraCalibrationParam::depthOffsetF2)
        .def_property_readonly("extrinsics", [](const CameraCalibrationParam& p) {
            return std::vector<float>(p.extrinsics, p.extrinsics + 12);
        }, "Depth-to-colour rotation (row-major 3 x 3) and translation (mm)")
        .def("__eq__", [](const CameraCalibrationParam& a, const CameraCalibrationParam& b) {
            return a.label == b.label && std::memcmp(Numbers(a), Numbers(b), kNumberBytes) == 0;
        })
        // Pickled whole, so that records travel to other processes (Dask workers) exactly.
        .def(py::pickle(
            [](const CameraCalibrationParam& p) {
                return py::make_tuple(p.reserved0, p.reserved1, py::bytes(p.label),
                                      py::bytes(Numbers(p), kNumberBytes));
            },
            [](const py::tuple& state) {
                if (state.size() != 4 || py::len(state[3]) != kNumberBytes)
                    throw py::value_error("not a pickled CalibrationRecord");
                CameraCalibrationParam p{};
                p.reserved0 = state[0].cast<int32_t>();
                p.reserved1 = state[1].cast<int32_t>();
                p.label = state[2].cast<std::string>();
                const std::string numbers = state[3].cast<std::string>();
                std::memcpy(Numbers(p), numbers.data(), kNumberBytes);
                return p;
            }));

    m.def("load_calibration", [](const std::string& path) {
        try {
            const qvapi::ModuleCalibration c = qvapi::ReadCalibration(PathArg(path, "path"));
            return std::make_tuple(c.binned, c.full);
        } catch (const qvapi::CalibrationError& e) {
            throw py::value_error(e.what());
        }
    }, py::arg("path"), "Reads a calibration file (YAML or JSON): returns the records (binned, full)");
    m.def("save_calibration", [](const std::string& path, const CameraCalibrationParam& binned,
                                 const CameraCalibrationParam& full) {
        try {
            qvapi::WriteCalibration(PathArg(path, "path"), {binned, full});
        } catch (const qvapi::CalibrationError& e) {
            throw py::value_error(e.what());
        }
    }, py::arg("path"), py::arg("binned"), py::arg("full"),
          "Writes both records, JSON when the path ends in .json, else YAML");
    py::class_<qvapi::RegistrationGeometry>(m, "RegistrationGeometry",
                                             "Where map_depth_to_rgb puts a depth-camera point P (mm): "
                                             "Pc = rotation @ P + translation lands on the colour pixel "
                                             "(trunc(Xc / Zc * fx + cx), trunc(Yc / Zc * fy + cy))")
        .def_property_readonly("rotation", [](const qvapi::RegistrationGeometry& g) {
            py::array_t<float> r({3, 3});
            std::memcpy(r.mutable_data(), g.rotation, sizeof g.rotation);
            return r;
        }, "Depth-to-colour rotation (3 x 3)")
        .def_property_readonly("translation", [](const qvapi::RegistrationGeometry& g) {
            py::array_t<float> t(3);
            std::memcpy(t.mutable_data(), g.translation, sizeof g.translation);
            return t;
        }, "Depth-to-colour translation (mm)")
        .def_readonly("fx", &qvapi::RegistrationGeometry::fx)
        .def_readonly("fy", &qvapi::RegistrationGeometry::fy)
        .def_readonly("cx", &qvapi::RegistrationGeometry::cx)
        .def_readonly("cy", &qvapi::RegistrationGeometry::cy);
    m.def("registration_geometry", &qvapi::DepthToColourGeometry, py::arg("record"),
          "The geometry map_depth_to_rgb applies with this record (the full one)");

    m.def("sample_calibration", []() {
        return std::make_tuple(qvsim::SampleBinnedCalibration(), qvsim::SampleCalibration());
    }, "The sample module's records (binned, full), as shipped in sample_calibration.yaml");

    py::class_<Instance>(m, "Reconstruction", "The library's one instance in this process")
        .def(py::init<>())
        .def_property_readonly("version", [](Instance& s) {
            std::string v;
            s.r->GetAlgorithmVersion(v);
            return v;
        })
        .def("set_type", [](Instance& s, qvapi::DeviceType d, qvapi::StreamType t) {
            Alone([&] {
                s.r->SetType(d, t);
                Instance::Stream() = t;
                ++g_changes;
            });
        },
             py::arg("device"), py::arg("stream"), "Module type and read-out; loads their default records")
        .def("init", [](Instance& s, const CameraCalibrationParam& binned, const CameraCalibrationParam& full) {
            const int32_t st = Alone([&] {
                // The single-frequency stream works from the binned record alone (its
                // tables are 320 x 240), as qvrecon sets it up: whatever the second record.
                const qvapi::StreamType stream = Instance::Stream();
                if (const std::string bad = RecordProblem(stream, binned, full); !bad.empty())
                    throw py::value_error("init: " + bad);
                ++g_changes;
                return s.r->Init(binned, Single(stream) ? binned : full);
            });
            Check(st, "init");
        }, py::arg("binned"), py::arg("full"),
             "Builds the tables from the two records (the single-frequency stream uses the binned one alone)")
        .def("set_flip_mode", [](Instance& s, qvapi::FlipMode f) {
            Alone([&] {
                s.r->SetFlipMode(f);
                ++g_changes;
            });
        }, py::arg("mode"))
        .def("open_filter", [](Instance& s, bool on) {
            Alone([&] {
                s.r->OpenFilter(on);
                ++g_changes;
            });
        }, py::arg("on"), "The median and edge filters after each depth frame")
        .def_property_readonly("filter_status", [](Instance& s) {
            bool on = false;
            s.r->GetFilterStatu(on);
            return on;
        })
        .def("set_custom_distance_range", [](Instance& s, int lo, int hi) {
            Alone([&] { s.r->SetCustomDistanceRange(lo, hi); });
        }, py::arg("min_mm"), py::arg("max_mm"))
        .def("get_custom_distance_range", [](Instance& s) {
            int lo = 0, hi = 0;
            s.r->GetCustomDistanceRange(lo, hi);
            return std::make_tuple(lo, hi);
        })
        .def("get_distance_range", [](Instance& s) {
            int lo = 0, hi = 0;
            s.r->GetDistanceRange(lo, hi);
            return std::make_tuple(lo, hi);
        })
        .def("intrinsics", [](Instance& s, const CameraCalibrationParam& record) {
            Intrinsics depth{}, rgb{};
            s.r->Pb2Structrue(depth, rgb, record);
            return std::make_tuple(depth, rgb);
        }, py::arg("record"),
             "The record's depth and colour intrinsics (depth, rgb), the depth camera's at the last depth size")
        .def("calculate_depth", [](Instance& s, const py::object& rawArg, int width, int height) {
            const Words<uint16_t> raw = ToWords<uint16_t>(rawArg, "raw");
            const uint16_t* words = raw.data();
            const size_t count = static_cast<size_t>(raw.size());
            uint16_t* depth = nullptr;
            const int32_t st = Shared([&] {
                if (const std::string bad = RawProblem(Instance::Stream(), count, width, height); !bad.empty())
                    throw py::value_error("calculate_depth: " + bad);
                ++g_changes;
                return s.r->CalculateDepth(words, &depth, width, height);
            });
            Check(st, "calculate_depth");
            return Own(depth, {height, width});
        }, py::arg("raw"), py::arg("width"), py::arg("height"),
             "Depth in mm (uint16, height x width) of a raw capture of the stream (the full stream: 640 x 480 "
             "or binned 320 x 240; the single-frequency stream: 320 x 240); 0 and 1 mark pixels without depth")
        .def("get_ir", [](Instance& s, const py::object& rawArg, int width, int height) {
            const Words<uint16_t> raw = ToWords<uint16_t>(rawArg, "raw");
            const uint16_t* words = raw.data();
            const size_t count = static_cast<size_t>(raw.size());
            std::unique_ptr<uint16_t[]> ir;
            const int32_t st = Shared([&] {
                if (const std::string bad = RawProblem(Instance::Stream(), count, width, height); !bad.empty())
                    throw py::value_error("get_ir: " + bad);
                ir.reset(new uint16_t[static_cast<size_t>(width) * height]);
                return s.r->GetIR(words, ir.get(), width, height);
            });
            Check(st, "get_ir");
            return Own(ir.release(), {height, width});
        }, py::arg("raw"), py::arg("width"), py::arg("height"),
             "Infrared image (uint16, height x width) of a raw capture of the stream")
        .def("get_cloud_point", [](Instance& s, const py::object& depthArg) {
            const Words<uint16_t> depth = ToWords<uint16_t>(depthArg, "depth");
            const std::vector<py::ssize_t> shape(depth.shape(), depth.shape() + depth.ndim());
            const uint16_t* values = depth.data();
            std::unique_ptr<float[]> points;
            const int32_t st = Shared([&] {
                if (const std::string bad = DepthProblem(Instance::Stream(), shape); !bad.empty())
                    throw py::value_error("get_cloud_point: " + bad);
                points.reset(new float[3 * static_cast<size_t>(shape[0]) * shape[1]]);
                return s.r->GetCloudPoint(values, points.get(), int(shape[1]), int(shape[0]));
            });
            Check(st, "get_cloud_point");
            return Own(points.release(), {shape[0], shape[1], 3});
        }, py::arg("depth"),
             "Points (float32, height x width x 3, mm) of a depth image of the stream or of registered depth "
             "(1080 x 1920); z 0 where there is no depth")
        .def("convert_to_rgb", [](Instance& s, const py::object& depthArg) {
            const Words<uint16_t> depth = ToWords<uint16_t>(depthArg, "depth");
            const std::vector<py::ssize_t> shape(depth.shape(), depth.shape() + depth.ndim());
            uint16_t* values = const_cast<uint16_t*>(depth.data());
            uint8_t* rgb = nullptr;
            Shared([&] {
                if (const std::string bad = DepthProblem(Instance::Stream(), shape); !bad.empty())
                    throw py::value_error("convert_to_rgb: " + bad);
                s.r->Convert2RGB(&rgb, values, int(shape[1]), int(shape[0]));
            });
            if (rgb == nullptr)
                Raise(qvapi::STATUS_INVALID_ARGUMENT, "convert_to_rgb");
            return Own(rgb, {shape[0], shape[1], 3});
        }, py::arg("depth"), "False-colour image (uint8, height x width x 3, RGB) of a depth image")
        .def("map_depth_to_rgb", [](Instance& s, const py::object& depthArg, const py::object& nv12Arg, int width,
                                    int height) {
            const Words<uint16_t> depth = ToWords<uint16_t>(depthArg, "depth");
            const Words<uint8_t> nv12 = ToWords<uint8_t>(nv12Arg, "nv12");
            // The registration reads a 640 x 480 depth image and a 1920 x 1080 colour frame.
            if (depth.ndim() != 2 || depth.shape(0) != 480 || depth.shape(1) != 640)
                throw py::value_error("map_depth_to_rgb: depth must be a (480, 640) image of the full stream");
            if (width != 1920 || height != 1080)
                throw py::value_error("map_depth_to_rgb: the colour frames are 1920 x 1080");
            if (nv12.size() != 1920 * 1080 * 3 / 2)
                throw py::value_error("map_depth_to_rgb: nv12 holds " + std::to_string(nv12.size()) +
                                      " bytes, an NV12 1920 x 1080 frame " + std::to_string(1920 * 1080 * 3 / 2));
            // The library replaces the depth buffer it is given: hand it a copy.
            uint16_t* copy = new uint16_t[640 * 480];
            std::memcpy(copy, depth.data(), 640 * 480 * sizeof(uint16_t));
            uint8_t* frame = const_cast<uint8_t*>(nv12.data());
            uint8_t* colour = nullptr;
            int w = 0, h = 0;
            const int32_t st =
                Shared([&] { return s.r->MapDepthToRGB(&colour, &copy, frame, width, height, w, h); });
            if (st != qvapi::STATUS_OK) {
                delete[] copy;
                Raise(st, "map_depth_to_rgb");
            }
            return std::make_tuple(Own(colour, {h, w, 3}), Own(copy, {h, w}));
        }, py::arg("depth"), py::arg("nv12"), py::arg("width") = 1920, py::arg("height") = 1080,
             "Registers a 640 x 480 depth image (shape (480, 640)) onto the 1920 x 1080 colour camera: "
             "(undistorted BGR uint8 image, registered depth uint16 holding the depth camera's Z in mm)");

    m.def("_instance_changes", []() { return g_changes.load(); },
          "How many calls so far may have changed what later frames give (set_type, init, the flip mode, the "
          "filter switch, frames): unchanged means nobody touched the instance since");

    m.def("simulate_capture", [](const CameraCalibrationParam& calibration, const std::string& scene,
                                 double distanceMm, const std::string& stream, double noise, uint32_t seed,
                                 double temperature) {
        qvsim::SceneSpec sc;
        sc.kind = SceneOf(scene);
        sc.distanceMm = distanceMm;
        qvsim::CaptureSpec setup;
        if (stream == "single")
            setup.stream = qvapi::STREAM_SINGLE_FREQ;
        else if (stream == "binned")
            setup.binned = true;
        else if (stream != "dual")
            throw py::value_error("unknown stream '" + stream + "' (single, dual, binned)");
        setup.noiseSigma = noise;
        setup.seed = seed;
        setup.temperatureC = temperature;
        // The ranges qvrecon simulate takes: outside them the model means nothing.
        if (const std::string bad = qvsim::CheckCaptureSetup(sc, setup); !bad.empty())
            throw py::value_error("simulate_capture: " + bad);
        qvsim::Capture cap;
        {
            py::gil_scoped_release unlocked;
            cap = qvsim::SimulateCapture(calibration, sc, setup);
        }
        py::array_t<uint16_t> raw(static_cast<py::ssize_t>(cap.raw.size()));
        std::memcpy(raw.mutable_data(), cap.raw.data(), cap.raw.size() * sizeof(uint16_t));
        py::array_t<float> truth({cap.height, cap.width});
        std::memcpy(truth.mutable_data(), cap.truthZ.data(), cap.truthZ.size() * sizeof(float));
        return std::make_tuple(raw, cap.width, cap.height, truth);
    }, py::arg("calibration"), py::arg("scene") = "boxes", py::arg("distance_mm") = 2000.0,
          py::arg("stream") = "dual", py::arg("noise") = 0.0, py::arg("seed") = 1u, py::arg("temperature") = 25.0,
          "Simulates a raw capture: (raw uint16 words, width, height, true Z in mm). Pass the full record "
          "(the binned one for the single-frequency stream)");
    m.def("render_colour", [](const CameraCalibrationParam& calibration, const std::string& scene, double distanceMm) {
        qvsim::SceneSpec sc;
        sc.kind = SceneOf(scene);
        sc.distanceMm = distanceMm;
        if (const std::string bad = qvsim::CheckScene(sc); !bad.empty())
            throw py::value_error("render_colour: " + bad);
        qvsim::ColourFrame f;
        {
            py::gil_scoped_release unlocked;
            f = qvsim::RenderColour(calibration, sc);
        }
        py::array_t<uint8_t> nv12(static_cast<py::ssize_t>(f.nv12.size()));
        std::memcpy(nv12.mutable_data(), f.nv12.data(), f.nv12.size());
        return nv12;
    }, py::arg("calibration"), py::arg("scene") = "boxes", py::arg("distance_mm") = 2000.0,
          "The colour camera's NV12 frame (1920 x 1080) of the same scene");

    // Recordings.
    static py::object recordingError = py::module_::import("qvreconstruction._errors").attr("RecordingError");
    g_recording_error = &recordingError;
    PYBIND11_NUMPY_DTYPE(InfoRow, index, time_ns, sequence, temperature_code, temperature_c, stream, width, height,
                         frames_dropped);

    m.def("parse_calibration", [](const std::string& text, const std::string& where) {
        try {
            const qvapi::ModuleCalibration c = qvapi::ParseCalibrationText(text, where);
            return std::make_tuple(c.binned, c.full);
        } catch (const qvapi::CalibrationError& e) {
            throw py::value_error(e.what());
        }
    }, py::arg("text"), py::arg("where") = "calibration text",
          "Reads a calibration file's text (YAML or JSON): returns the records (binned, full); `where` names "
          "the text in errors");

    py::class_<Frame>(m, "RecordedFrame", "One capture of a recording, as calculate_depth takes it")
        .def_readonly("index", &Frame::index, "Its place in the recording, from 0")
        .def_readonly("raw", &Frame::raw, "The capture's words (uint16, 1-D), exactly as recorded")
        .def_readonly("width", &Frame::width)
        .def_readonly("height", &Frame::height)
        .def_readonly("stream", &Frame::stream)
        .def_property_readonly("kind", [](const Frame& f) { return KindOf(f.stream, f.width); },
                               "'single', 'dual' or 'binned' (the full stream's 320 x 240 read-out)")
        .def_readonly("time_ns", &Frame::timeNs, "Capture time, nanoseconds since the epoch")
        .def_readonly("sequence", &Frame::sequence)
        .def_readonly("temperature_code", &Frame::temperatureCode, "The sensor's temperature word")
        .def_readonly("temperature_c", &Frame::temperatureC, "The sensor's temperature in degrees Celsius")
        .def_readonly("frames_dropped", &Frame::framesDropped, "Captures lost just before this one")
        .def_readonly("colour", &Frame::colour,
                      "The colour frame nearest in time (NV12, uint8, 1-D: the luma rows, then the "
                      "interleaved chroma), or None")
        .def_readonly("colour_time_ns", &Frame::colourTimeNs, "The colour frame's time, or None")
        .def_readonly("colour_width", &Frame::colourWidth)
        .def_readonly("colour_height", &Frame::colourHeight)
        .def("__repr__", [](const Frame& f) {
            return "RecordedFrame(index=" + std::to_string(f.index) + ", " + KindOf(f.stream, f.width) + " " +
                   std::to_string(f.width) + "x" + std::to_string(f.height) + ", time_ns=" +
                   std::to_string(f.timeNs) + ", sequence=" + std::to_string(f.sequence) + ")";
        });

    py::class_<Reader>(m, "RecordingReader",
                       "The recording library's reader (qvreconstruction.Recording wraps it with indexing and "
                       "iteration)")
        .def(py::init([](const std::string& path) {
            auto reader = std::make_unique<Reader>();
            reader->r = std::make_unique<qvapi::RecordingReader>();
            const qvapi::RecordingStatus st = [&] {
                py::gil_scoped_release unlocked;
                return reader->r->Open(PathArg(path, "path"));
            }();
            if (!st.ok())
                RaiseRecording(st);
            return reader;
        }), py::arg("path"), "Opens a recording: through its summary, or by one scan of a file cut short")
        .def("__len__", [](Reader& d) { return d.Use([](qvapi::RecordingReader& r) { return r.FrameCount(); }); })
        .def("read", [](Reader& d, uint64_t index) {
            qvapi::RecordedFrame f;
            const qvapi::RecordingStatus st = d.Use([&](qvapi::RecordingReader& r) {
                if (index >= r.FrameCount())
                    throw py::index_error("no frame " + std::to_string(index) + " in a recording of " +
                                          std::to_string(r.FrameCount()));
                return r.ReadFrame(index, f);
            });
            if (!st.ok())
                RaiseRecording(st);
            return ToFrame(std::move(f));
        }, py::arg("index"), "Frame `index` (from 0) with its information and nearest colour frame")
        .def("seek_time", [](Reader& d, uint64_t timeNs) {
            // The library puts its cursor before the frame; reading it tells which.
            uint64_t index = 0;
            const qvapi::RecordingStatus st = d.Use([&](qvapi::RecordingReader& r) {
                qvapi::RecordingStatus s = r.SeekTime(timeNs);
                if (!s.ok())
                    return s;
                qvapi::RecordedFrame f;
                s = r.Next(f);
                if (s.code == qvapi::RECORDING_END) {
                    index = r.FrameCount();
                    return qvapi::RecordingStatus{};
                }
                index = f.index;
                return s;
            });
            if (!st.ok())
                RaiseRecording(st);
            return index;
        }, py::arg("time_ns"),
             "The index of the first frame captured at or after `time_ns` (len() when none is); reads that frame")
        .def("info", [](Reader& d) {
            std::vector<InfoRow> rows;
            const qvapi::RecordingStatus st = d.Use([&](qvapi::RecordingReader& r) {
                qvapi::RecordedFrame f;
                rows.reserve(static_cast<size_t>(std::min<uint64_t>(r.FrameCount(), 1u << 20)));
                for (uint64_t i = 0; i < r.FrameCount(); ++i) {
                    const qvapi::RecordingStatus s = r.ReadFrame(i, f);
                    if (!s.ok())
                        return s;
                    rows.push_back({f.index, f.timeNs, f.sequence, f.temperatureCode, f.temperatureC,
                                    static_cast<int32_t>(f.stream), f.width, f.height, f.framesDropped});
                }
                return qvapi::RecordingStatus{};
            });
            if (!st.ok())
                RaiseRecording(st);
            py::array_t<InfoRow> out(static_cast<py::ssize_t>(rows.size()));
            if (!rows.empty())
                std::memcpy(out.mutable_data(), rows.data(), rows.size() * sizeof(InfoRow));
            return out;
        }, "Every frame's information as a structured array (reads every frame: one pass over the file)")
        .def_property_readonly("calibration_yaml", [](Reader& d) {
            return Text(d.Use([](qvapi::RecordingReader& r) { return r.CalibrationYaml(); }));
        }, "The calibration file's text attached to the recording ('' when none is)")
        .def_property_readonly("device", [](Reader& d) {
            return d.Use([](qvapi::RecordingReader& r) { return r.Device(); });
        })
        .def_property_readonly("stream", [](Reader& d) {
            return d.Use([](qvapi::RecordingReader& r) { return r.Stream(); });
        })
        .def_property_readonly("module_label", [](Reader& d) {
            return Text(d.Use([](qvapi::RecordingReader& r) { return r.ModuleLabel(); }));
        })
        .def_property_readonly("metadata", [](Reader& d) {
            const auto metadata = d.Use([](qvapi::RecordingReader& r) { return r.Metadata(); });
            py::dict out;
            for (const auto& kv : metadata)
                out[Text(kv.first)] = Text(kv.second);
            return out;
        }, "The recording's metadata: device and stream types, module label, library and algorithm versions")
        .def_property_readonly("channels", [](Reader& d) {
            const auto channels = d.Use([](qvapi::RecordingReader& r) { return r.Channels(); });
            py::list out;
            for (const qvapi::RecordingChannel& c : channels)
                out.append(py::make_tuple(c.id, Text(c.topic), Text(c.schemaName), c.messages));
            return out;
        }, "(id, topic, schema name, messages) of each channel")
        .def_property_readonly("index_rebuilt", [](Reader& d) {
            return d.Use([](qvapi::RecordingReader& r) { return r.IndexRebuilt(); });
        }, "True when the file had no summary (cut short) and was scanned once to index it")
        .def_property_readonly("problems", [](Reader& d) {
            const auto problems = d.Use([](qvapi::RecordingReader& r) { return r.Problems(); });
            py::list out;
            for (const std::string& p : problems)
                out.append(Text(p));
            return out;
        }, "What was wrong with the file but left the rest readable, one line each")
        .def_property_readonly("first_time_ns", [](Reader& d) {
            return d.Use([](qvapi::RecordingReader& r) { return r.FirstTimeNs(); });
        })
        .def_property_readonly("last_time_ns", [](Reader& d) {
            return d.Use([](qvapi::RecordingReader& r) { return r.LastTimeNs(); });
        })
        .def_property_readonly("closed", [](Reader& d) {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> hold(d.lock);
            return !d.r;
        })
        .def("close", [](Reader& d) {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> hold(d.lock);
            d.r.reset();
        }, "Closes the file; later calls raise ValueError");

    py::class_<Writer>(m, "RecordingWriter",
                       "Writes a recording: raw captures with their information, colour frames and processed "
                       "images, bound to the module's calibration. Use it in a with statement, or call close()")
        .def(py::init([](const std::string& path, const CameraCalibrationParam& binned,
                         const CameraCalibrationParam& full, qvapi::DeviceType device, qvapi::StreamType stream,
                         const std::string& compression, int level, uint64_t chunkBytes,
                         const py::object& calibrationYaml, const py::object& moduleLabel, bool overwrite) {
            qvapi::RecordingOptions options;
            if (compression == "none") {
                options.compression = qvapi::RecordingCompression::None;
                if (level != 0)
                    throw py::value_error("level: uncompressed chunks take no level (0)");
            } else if (compression == "lz4") {
                options.compression = qvapi::RecordingCompression::Lz4;
                if (level < 0 || level > 12)
                    throw py::value_error("level: LZ4 takes 0 (fast) .. 12");
            } else if (compression == "zstd") {
                options.compression = qvapi::RecordingCompression::Zstd;
                if (level < 0 || level > 19)
                    throw py::value_error("level: Zstandard takes 1 .. 19 (0: 1)");
            } else {
                throw py::value_error("unknown compression '" + compression + "' (none, lz4, zstd)");
            }
            options.level = level;
            if (chunkBytes < 1)
                throw py::value_error("chunk_bytes must be at least 1");
            options.chunkBytes = chunkBytes;
            options.overwrite = overwrite;
            if (const std::string bad = RecordProblem(stream, binned, full); !bad.empty())
                throw py::value_error("RecordingWriter: " + bad);
            qvapi::RecordingSetup setup;
            setup.device = device;
            setup.stream = stream;
            setup.moduleLabel = moduleLabel.is_none() ? full.label : moduleLabel.cast<std::string>();
            try {
                if (calibrationYaml.is_none()) {
                    setup.calibrationYaml = qvapi::CalibrationText({binned, full}, false);
                } else {
                    setup.calibrationYaml = calibrationYaml.cast<std::string>();
                    const qvapi::ModuleCalibration c =
                        qvapi::ParseCalibrationText(setup.calibrationYaml, "calibration_yaml");
                    if (!SameRecords(c.binned, binned) || !SameRecords(c.full, full))
                        throw py::value_error("calibration_yaml holds other records than binned and full");
                }
            } catch (const qvapi::CalibrationError& e) {
                throw py::value_error(e.what());
            }
            auto writer = std::make_unique<Writer>();
            writer->stream = stream;
            writer->w = std::make_unique<qvapi::RecordingWriter>();
            const std::string& file = PathArg(path, "path");
            writer->Use([&](qvapi::RecordingWriter& w) { return w.Open(file, setup, options); });
            return writer;
        }), py::arg("path"), py::arg("binned"), py::arg("full"), py::arg("device") = qvapi::DEVICE_GENERIC,
             py::arg("stream") = qvapi::STREAM_DUAL_FREQ, py::arg("compression") = "lz4", py::arg("level") = 0,
             py::arg("chunk_bytes") = uint64_t(4) << 20, py::arg("calibration_yaml") = py::none(),
             py::arg("module_label") = py::none(), py::arg("overwrite") = false,
             "Creates the recording (an existing file is refused unless overwrite). The calibration attached is "
             "calibration_yaml (which must hold exactly binned and full) or the records' YAML; module_label "
             "defaults to the full record's label. compression: 'none', 'lz4' (level 0 .. 12) or 'zstd' "
             "(1 .. 19); a chunk is written once it holds chunk_bytes")
        .def("write_capture", [](Writer& d, const py::object& rawArg, int32_t width, int32_t height, uint64_t timeNs,
                                 const py::object& sequence, uint16_t temperatureCode, float temperatureC,
                                 uint32_t framesDropped) {
            const Words<uint16_t> raw = ToWords<uint16_t>(rawArg, "raw");
            if (const std::string bad = RawProblem(d.stream, static_cast<size_t>(raw.size()), width, height);
                !bad.empty())
                throw py::value_error("write_capture: " + bad);
            qvapi::CaptureFrame c;
            c.stream = d.stream;
            c.width = width;
            c.height = height;
            c.words = raw.data();
            c.wordCount = static_cast<uint64_t>(raw.size());
            c.timeNs = timeNs;
            c.temperatureCode = temperatureCode;
            c.temperatureC = temperatureC;
            c.framesDropped = framesDropped;
            const bool counted = sequence.is_none();
            const uint64_t given = counted ? 0 : sequence.cast<uint64_t>();
            d.Use([&](qvapi::RecordingWriter& w) {
                // Seeking by time needs the captures in time order.
                if (d.anyCapture && timeNs < d.lastTimeNs)
                    throw py::value_error("write_capture: time_ns " + std::to_string(timeNs) +
                                          " is before the last capture's " + std::to_string(d.lastTimeNs));
                c.sequence = counted ? d.captures : given;
                const qvapi::RecordingStatus st = w.WriteCapture(c);
                if (st.ok()) {
                    ++d.captures;
                    d.anyCapture = true;
                    d.lastTimeNs = timeNs;
                }
                return st;
            });
        }, py::arg("raw"), py::arg("width"), py::arg("height"), py::arg("time_ns"), py::arg("sequence") = py::none(),
             py::arg("temperature_code") = 0, py::arg("temperature_c") = 0.0f, py::arg("frames_dropped") = 0,
             "Writes a raw capture of the writer's stream (uint16 words, exactly as calculate_depth takes them) and "
             "its information. Captures come in time order; sequence defaults to the captures written before")
        .def("write_colour", [](Writer& d, const py::object& nv12Arg, uint64_t timeNs, int32_t width,
                                int32_t height) {
            const Words<uint8_t> nv12 = ToWords<uint8_t>(nv12Arg, "nv12");
            if (width < 2 || height < 2 || width % 2 || height % 2 || width > 1 << 15 || height > 1 << 15)
                throw py::value_error("write_colour: an NV12 frame has an even width and height");
            const size_t needed = static_cast<size_t>(width) * height * 3 / 2;
            if (static_cast<size_t>(nv12.size()) != needed)
                throw py::value_error("write_colour: nv12 holds " + std::to_string(nv12.size()) + " bytes, an NV12 " +
                                      std::to_string(width) + " x " + std::to_string(height) + " frame " +
                                      std::to_string(needed));
            d.Use([&](qvapi::RecordingWriter& w) { return w.WriteColour(timeNs, nv12.data(), width, height); });
        }, py::arg("nv12"), py::arg("time_ns"), py::arg("width") = 1920, py::arg("height") = 1080,
             "Writes a colour frame (NV12 bytes, as render_colour gives them)")
        .def("write_depth", [](Writer& d, const py::handle& arg, uint64_t timeNs) {
            const auto image = Image<uint16_t>(arg, "depth", 1);
            d.Use([&](qvapi::RecordingWriter& w) {
                return w.WriteImage(qvapi::ProcessedImage::Depth, timeNs, image.data(), int32_t(image.shape(1)),
                                    int32_t(image.shape(0)));
            });
        }, py::arg("depth"), py::arg("time_ns"), "Writes a depth image (uint16 (height, width), mm) as 16UC1")
        .def("write_ir", [](Writer& d, const py::handle& arg, uint64_t timeNs) {
            const auto image = Image<uint16_t>(arg, "ir", 1);
            d.Use([&](qvapi::RecordingWriter& w) {
                return w.WriteImage(qvapi::ProcessedImage::Ir, timeNs, image.data(), int32_t(image.shape(1)),
                                    int32_t(image.shape(0)));
            });
        }, py::arg("ir"), py::arg("time_ns"), "Writes an infrared image (uint16 (height, width)) as mono16")
        .def("write_registered_depth", [](Writer& d, const py::handle& arg, uint64_t timeNs) {
            const auto image = Image<uint16_t>(arg, "depth", 1);
            d.Use([&](qvapi::RecordingWriter& w) {
                return w.WriteImage(qvapi::ProcessedImage::RegisteredDepth, timeNs, image.data(),
                                    int32_t(image.shape(1)), int32_t(image.shape(0)));
            });
        }, py::arg("depth"), py::arg("time_ns"), "Writes depth registered onto the colour camera (uint16, mm)")
        .def("write_points", [](Writer& d, const py::handle& arg, uint64_t timeNs) {
            const auto points = Image<float>(arg, "points", 3);
            d.Use([&](qvapi::RecordingWriter& w) {
                return w.WritePoints(timeNs, points.data(), int32_t(points.shape(1)), int32_t(points.shape(0)));
            });
        }, py::arg("points"), py::arg("time_ns"), "Writes points (float32 (height, width, 3), mm) as PointCloud2")
        .def("write_undistorted_colour", [](Writer& d, const py::handle& arg, uint64_t timeNs) {
            const auto bgr = Image<uint8_t>(arg, "bgr", 3);
            d.Use([&](qvapi::RecordingWriter& w) {
                return w.WriteUndistortedColour(timeNs, bgr.data(), int32_t(bgr.shape(1)), int32_t(bgr.shape(0)));
            });
        }, py::arg("bgr"), py::arg("time_ns"),
             "Writes the undistorted colour image map_depth_to_rgb gives (uint8 (height, width, 3), BGR)")
        .def_property_readonly("file_bytes", [](Writer& d) {
            py::gil_scoped_release unlocked;
            std::lock_guard<std::mutex> hold(d.lock);
            return d.w ? d.w->FileBytes() : uint64_t(0);
        }, "Bytes written to the file so far")
        .def("close", [](Writer& d) {
            qvapi::RecordingStatus st;
            {
                py::gil_scoped_release unlocked;
                std::lock_guard<std::mutex> hold(d.lock);
                if (!d.w)
                    return;
                st = d.w->Close();
                d.w.reset();
            }
            if (!st.ok())
                RaiseRecording(st);
        }, "Writes the last chunk and the summary; later writes raise ValueError, later closes do nothing")
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](Writer& d, const py::object&, const py::object&, const py::object&) {
            py::cast(&d, py::return_value_policy::reference).attr("close")();
        });
}
