// The compiled part of the Python package qvreconstruction: the library's instance
// with numpy arrays in and out, calibration records and files, and the simulator.
// Frame inputs are read in place when they are C-contiguous arrays of the right type
// (others are converted first); every image the library hands out becomes the numpy
// array's own memory, freed with the array. Frame operations release the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <tuple>

#include <qvreconstruction/calibration_file.h>
#include <qvreconstruction/reconstruction.h>

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

template <typename T>
using In = py::array_t<T, py::array::c_style | py::array::forcecast>;

// An array owning memory the library allocated with new[].
template <typename T>
py::array_t<T> Own(T* data, std::vector<py::ssize_t> shape)
{
    py::capsule free(data, [](void* p) { delete[] static_cast<T*>(p); });
    return py::array_t<T>(shape, data, free);
}

void RequireSize(const py::array& a, size_t elements, const char* what)
{
    if (static_cast<size_t>(a.size()) < elements)
        throw py::value_error(std::string(what) + " holds " + std::to_string(a.size()) + " values, " +
                              std::to_string(elements) + " are needed");
}

// The one library instance, as Python sees it, and the stream last set on it (the
// instance starts on the full stream): a raw frame must hold the words that stream's
// converter reads, 4 a pixel for the single frequency, 16 for the full stream.
struct Instance {
    qvapi::Reconstruction* r = qvapi::Reconstruction::CreateInstance();
    static qvapi::StreamType& Stream()
    {
        static qvapi::StreamType stream = qvapi::STREAM_DUAL_FREQ;
        return stream;
    }
};

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
            const size_t after = offsetof(CameraCalibrationParam, depthLens);
            return a.label == b.label && std::memcmp(reinterpret_cast<const char*>(&a) + after,
                                                     reinterpret_cast<const char*>(&b) + after,
                                                     sizeof(CameraCalibrationParam) - after) == 0;
        });

    m.def("load_calibration", [](const std::string& path) {
        try {
            const qvapi::ModuleCalibration c = qvapi::ReadCalibration(path);
            return std::make_tuple(c.binned, c.full);
        } catch (const qvapi::CalibrationError& e) {
            throw py::value_error(e.what());
        }
    }, py::arg("path"), "Reads a calibration file (YAML or JSON): returns the records (binned, full)");
    m.def("save_calibration", [](const std::string& path, const CameraCalibrationParam& binned,
                                 const CameraCalibrationParam& full) {
        try {
            qvapi::WriteCalibration(path, {binned, full});
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
            s.r->SetType(d, t);
            Instance::Stream() = t;
        },
             py::arg("device"), py::arg("stream"), "Module type and read-out; loads their default records")
        .def("init", [](Instance& s, const CameraCalibrationParam& binned, const CameraCalibrationParam& full) {
            int32_t st;
            {
                py::gil_scoped_release unlocked;
                st = s.r->Init(binned, full);
            }
            Check(st, "init");
        }, py::arg("binned"), py::arg("full"), "Builds the tables from the two records")
        .def("set_flip_mode", [](Instance& s, qvapi::FlipMode f) { s.r->SetFlipMode(f); }, py::arg("mode"))
        .def("open_filter", [](Instance& s, bool on) { s.r->OpenFilter(on); }, py::arg("on"),
             "The median and edge filters after each depth frame")
        .def_property_readonly("filter_status", [](Instance& s) {
            bool on = false;
            s.r->GetFilterStatu(on);
            return on;
        })
        .def("set_custom_distance_range", [](Instance& s, int lo, int hi) { s.r->SetCustomDistanceRange(lo, hi); },
             py::arg("min_mm"), py::arg("max_mm"))
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
        .def("calculate_depth", [](Instance& s, In<uint16_t> raw, int width, int height) {
            const size_t perPixel = Instance::Stream() == qvapi::STREAM_SINGLE_FREQ ? 4 : 16;
            RequireSize(raw, perPixel * static_cast<size_t>(std::max(width, 0)) * std::max(height, 0), "raw");
            uint16_t* depth = nullptr;
            int32_t st;
            {
                py::gil_scoped_release unlocked;
                st = s.r->CalculateDepth(raw.data(), &depth, width, height);
            }
            Check(st, "calculate_depth");
            return Own(depth, {height, width});
        }, py::arg("raw"), py::arg("width"), py::arg("height"),
             "Depth in mm (uint16, height x width) of a raw capture; 0 and 1 mark pixels without depth")
        .def("get_ir", [](Instance& s, In<uint16_t> raw, int width, int height) {
            RequireSize(raw, 4 * static_cast<size_t>(std::max(width, 0)) * std::max(height, 0), "raw");
            py::array_t<uint16_t> ir({height, width});
            int32_t st;
            {
                py::gil_scoped_release unlocked;
                st = s.r->GetIR(raw.data(), ir.mutable_data(), width, height);
            }
            Check(st, "get_ir");
            return ir;
        }, py::arg("raw"), py::arg("width"), py::arg("height"), "Infrared image (uint16, height x width)")
        .def("get_cloud_point", [](Instance& s, In<uint16_t> depth) {
            if (depth.ndim() != 2)
                throw py::value_error("depth must be a 2-D image");
            const int h = static_cast<int>(depth.shape(0)), w = static_cast<int>(depth.shape(1));
            py::array_t<float> points({h, w, 3});
            int32_t st;
            {
                py::gil_scoped_release unlocked;
                st = s.r->GetCloudPoint(depth.data(), points.mutable_data(), w, h);
            }
            Check(st, "get_cloud_point");
            return points;
        }, py::arg("depth"), "Points (float32, height x width x 3, mm); z 0 where there is no depth")
        .def("convert_to_rgb", [](Instance& s, In<uint16_t> depth) {
            if (depth.ndim() != 2)
                throw py::value_error("depth must be a 2-D image");
            const int h = static_cast<int>(depth.shape(0)), w = static_cast<int>(depth.shape(1));
            uint8_t* rgb = nullptr;
            {
                py::gil_scoped_release unlocked;
                s.r->Convert2RGB(&rgb, const_cast<uint16_t*>(depth.data()), w, h);
            }
            if (rgb == nullptr)
                Raise(qvapi::STATUS_INVALID_ARGUMENT, "convert_to_rgb");
            return Own(rgb, {h, w, 3});
        }, py::arg("depth"), "False-colour image (uint8, height x width x 3, RGB) of a depth image")
        .def("map_depth_to_rgb", [](Instance& s, In<uint16_t> depth, In<uint8_t> nv12, int width, int height) {
            RequireSize(depth, 640 * 480, "depth");
            RequireSize(nv12, static_cast<size_t>(std::max(width, 0)) * std::max(height, 0) * 3 / 2, "nv12");
            // The library replaces the depth buffer it is given: hand it a copy.
            uint16_t* copy = new uint16_t[640 * 480];
            std::memcpy(copy, depth.data(), 640 * 480 * sizeof(uint16_t));
            uint8_t* colour = nullptr;
            int w = 0, h = 0;
            int32_t st;
            {
                py::gil_scoped_release unlocked;
                st = s.r->MapDepthToRGB(&colour, &copy, const_cast<uint8_t*>(nv12.data()), width, height, w, h);
            }
            if (st != qvapi::STATUS_OK) {
                delete[] copy;
                Raise(st, "map_depth_to_rgb");
            }
            return std::make_tuple(Own(colour, {h, w, 3}), Own(copy, {h, w}));
        }, py::arg("depth"), py::arg("nv12"), py::arg("width") = 1920, py::arg("height") = 1080,
             "Registers a 640 x 480 depth image onto the colour camera: (undistorted BGR uint8 image, "
             "registered depth uint16 holding the depth camera's Z in mm)");

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
}
