#include "simulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

namespace qvsim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kSpeedFactor = 1.5e11;  // c / 2 in mm/s: distance per cycle is kSpeedFactor / f
constexpr double kDarkLevel = 16.0;      // sample level without light
constexpr double kMaxAmplitude = 500.0;  // larger modulation clips the 10-bit sensor
// Modulation amplitude per unit of reflectivity up to 2.5 m (falling as 1/R beyond);
// the samples' mean follows the amplitude, so that the infrared image shows the scene.
constexpr double kAmplitudePerReflectivity = 280.0;
constexpr uint16_t kSaturatedWord = 1023;
constexpr double kEdgeStepMm = 30.0;

// ---------------------------------------------------------------- scenes

struct Ray {
    double x, y;  // normalised coordinates: the ray is (x, y, 1)
};

double RadialOf(const Ray& ray, double z) { return z * std::sqrt(ray.x * ray.x + ray.y * ray.y + 1.0); }

}  // namespace

SurfaceHit TraceRay(const SceneSpec& s, const Vec3& o, const Vec3& dir)
{
    const double d = s.distanceMm;
    SurfaceHit best{};
    best.s = INFINITY;
    best.object = kNoObject;
    const auto consider = [&](double t, int object) {
        if (t > 0 && t < best.s) {
            best.s = t;
            best.object = object;
        }
    };
    const auto plane = [&](const Vec3& n, double offset, int object) {
        const double den = n.x * dir.x + n.y * dir.y + n.z * dir.z;
        if (den != 0)
            consider((offset - (n.x * o.x + n.y * o.y + n.z * o.z)) / den, object);
    };
    switch (s.kind) {
    case SceneKind::Wall:
        plane({0, 0, 1}, d, 0);
        break;
    case SceneKind::TiltedPlane: {
        const double a = s.tiltDeg * kPi / 180.0;
        plane({std::sin(a), 0, std::cos(a)}, d * std::cos(a), 0);
        break;
    }
    case SceneKind::Boxes: {
        plane({0, 0, 1}, d, 0);
        // Front faces of two boxes, as rectangles in world coordinates at their depth.
        struct Box {
            double x0, x1, y0, y1, z;
        };
        const Box boxes[2] = {{-0.36 * d, -0.06 * d, -0.22 * d, 0.26 * d, d - 700.0},
                              {0.08 * d, 0.40 * d, -0.30 * d, 0.10 * d, d - 400.0}};
        for (int k = 0; k < 2; ++k) {
            Box b = boxes[k];
            b.x0 += s.boxOffsetXMm[k];
            b.x1 += s.boxOffsetXMm[k];
            b.z += s.boxOffsetZMm[k];
            if (dir.z == 0 || b.z <= 0)
                continue;
            const double t = (b.z - o.z) / dir.z;
            const double X = o.x + t * dir.x, Y = o.y + t * dir.y;
            if (X >= b.x0 && X < b.x1 && Y >= b.y0 && Y < b.y1)
                consider(t, k + 1);
        }
        break;
    }
    case SceneKind::Sphere: {
        plane({0, 0, 1}, 1.5 * d, 0);
        // A ball of radius 0.2 d at (0, 0, d): nearest root of |o + t dir - c|^2 = rho^2.
        const double rho = 0.2 * d;
        const Vec3 oc{o.x, o.y, o.z - d};
        const double A = dir.x * dir.x + dir.y * dir.y + dir.z * dir.z;
        const double B = 2.0 * (oc.x * dir.x + oc.y * dir.y + oc.z * dir.z);
        const double C = oc.x * oc.x + oc.y * oc.y + oc.z * oc.z - rho * rho;
        const double disc = B * B - 4.0 * A * C;
        if (disc >= 0)
            consider((-B - std::sqrt(disc)) / (2.0 * A), 1);
        break;
    }
    }
    best.point = {o.x + best.s * dir.x, o.y + best.s * dir.y, o.z + best.s * dir.z};
    // Objects reflect a little differently from the wall, which the infrared image shows.
    const double objectShade[3] = {1.0, 0.8, 0.6};
    best.reflectivity = s.reflectivity * (best.object <= 2 ? objectShade[best.object] : 1.0);
    // Patches at fixed places of the depth camera's image.
    const double px = best.point.x / best.point.z, py = best.point.y / best.point.z;
    if (s.brightPatch && px > -0.30 && px < -0.20 && py > 0.28 && py < 0.38)
        best.reflectivity = 2.0;
    if (s.darkPatch && px > 0.20 && px < 0.30 && py > 0.28 && py < 0.38)
        best.reflectivity = 0.0;
    return best;
}

Hit TraceScene(const SceneSpec& s, double x, double y)
{
    const SurfaceHit h = TraceRay(s, {0, 0, 0}, {x, y, 1});
    return {h.point.z, h.reflectivity};
}

namespace {

// ---------------------------------------------------------------- sensor

// Ideal ray of a sensor position. Device 4 modules have their lens distortion
// corrected by the library, the others are taken as pinhole cameras.
struct RayModel {
    qvapi::Intrinsics lens;
    bool undistort;

    void Distort(double x, double y, double& xd, double& yd) const
    {
        const double r2 = x * x + y * y;
        const double radial = 1.0 + r2 * (lens.k1 + r2 * (lens.k2 + r2 * lens.k3));
        xd = x * radial + 2.0 * lens.p1 * x * y + lens.p2 * (r2 + 2.0 * x * x);
        yd = y * radial + lens.p1 * (r2 + 2.0 * y * y) + 2.0 * lens.p2 * x * y;
    }

    Ray At(double u, double v) const
    {
        const double x0 = (u - lens.cx) / lens.fx, y0 = (v - lens.cy) / lens.fy;
        if (!undistort)
            return {x0, y0};
        // Newton's method on distort(x, y) = (x0, y0).
        double x = x0, y = y0;
        for (int it = 0; it < 8; ++it) {
            double fx, fy, ax, ay, bx, by;
            const double h = 1e-7;
            Distort(x, y, fx, fy);
            Distort(x + h, y, ax, ay);
            Distort(x, y + h, bx, by);
            const double j00 = (ax - fx) / h, j10 = (ay - fy) / h;
            const double j01 = (bx - fx) / h, j11 = (by - fy) / h;
            const double ex = fx - x0, ey = fy - y0;
            const double det = j00 * j11 - j01 * j10;
            x -= (j11 * ex - j01 * ey) / det;
            y -= (-j10 * ex + j00 * ey) / det;
        }
        return {x, y};
    }
};

// How one modulation frequency turns a distance into the phase the sensor reports,
// given the corrections the calibration describes.
struct FrequencyModel {
    double range;          // unambiguous range as the calibration rounds it, mm
    double mmPerRadian;
    double offsetTerm;     // everything added to phase * mmPerRadian before the first wrap
    const float* table;    // wiggling table, entries past `count` read as 0
    int count;
    double step;
    bool fold;             // index folding of the single-frequency read-out
    bool truncateFppn;     // the dual-frequency read-out applies whole millimetres

    double Table(int k) const { return (k >= 0 && k < count && k < 256) ? table[k] : 0.0; }

    double Wiggling(double d) const
    {
        const double x = step * d;
        int k0 = static_cast<int>(std::floor(x));
        const double f = x - k0;
        int k1 = f > 0 ? k0 + 1 : k0;
        if (fold) {
            if (k0 > count)
                k0 -= count - 1;
            if (k1 > count)
                k1 -= count - 1;
        }
        return (1.0 - f) * Table(k0) + f * Table(k1);
    }

    double WrapMod(double d) const
    {
        d = std::fmod(d, range);
        return d < 0 ? d + range : d;
    }

    // Phase (radians, in (-pi, pi]) whose corrected distance is `target` modulo the range.
    double PhaseFor(double radial, double fppnSurface) const
    {
        const double target = WrapMod(radial);
        const double fppn = truncateFppn ? std::trunc(fppnSurface) : fppnSurface;
        double d = WrapMod(target - fppn);
        for (int it = 0; it < 6; ++it)
            d = WrapMod(target - fppn + std::trunc(Wiggling(d)));
        double phase = (d - offsetTerm) / mmPerRadian;
        phase = std::remainder(phase, 2.0 * kPi);
        return phase;
    }
};

double FppnSurface(const float* c, int row, int col)
{
    const double x = col * 0.01, y = row * 0.01;
    return (c[0] + c[1] * x + c[2] * y + c[3] * x * x + c[4] * x * y + c[5] * y * y) * 100.0;
}

// Sample roles A, B, C, D of a flip mode as word offsets S0..S3 within the row pair.
constexpr int kRoles[4][4] = {{0, 2, 3, 1}, {2, 0, 1, 3}, {1, 3, 2, 0}, {3, 1, 0, 2}};

struct Phasor {
    double re = 0, im = 0;
};

// Splits round(total) into `parts` integers differing by at most one, so that the
// sums the sensor's differences form are as close to the analogue value as whole
// sample steps allow.
void Split(double total, int parts, long* out)
{
    const long n = std::lround(total);
    long q = n / parts, rem = n % parts;
    if (rem < 0) {
        rem += parts;
        q -= 1;
    }
    for (int k = 0; k < parts; ++k)
        out[k] = q + (k < rem ? 1 : 0);
}

}  // namespace

namespace {

std::string OutOfRange(const char* what, double value, const char* unit, const ValueRange& range)
{
    char text[160];
    std::snprintf(text, sizeof text, "%s %g%s is outside [%g, %g]", what, value, unit, range.lo, range.hi);
    return text;
}

}  // namespace

std::string CheckScene(const SceneSpec& scene)
{
    if (!kDistanceRangeMm.Holds(scene.distanceMm))
        return OutOfRange("distance", scene.distanceMm, " mm", kDistanceRangeMm);
    if (!kTiltRangeDeg.Holds(scene.tiltDeg))
        return OutOfRange("tilt", scene.tiltDeg, " degrees", kTiltRangeDeg);
    for (int k = 0; k < 2; ++k)
        for (const double offset : {scene.boxOffsetXMm[k], scene.boxOffsetZMm[k]})
            if (!kBoxOffsetRangeMm.Holds(offset))
                return OutOfRange("box offset", offset, " mm", kBoxOffsetRangeMm);
    return "";
}

std::string CheckCaptureSetup(const SceneSpec& scene, const CaptureSpec& setup)
{
    if (std::string bad = CheckScene(scene); !bad.empty())
        return bad;
    if (!kTemperatureRangeC.Holds(setup.temperatureC))
        return OutOfRange("temperature", setup.temperatureC, " degrees C", kTemperatureRangeC);
    if (!kNoiseRange.Holds(setup.noiseSigma))
        return OutOfRange("noise", setup.noiseSigma, "", kNoiseRange);
    if (!kFlipRange.Holds(setup.flip))
        return OutOfRange("flip", setup.flip, "", kFlipRange);
    return "";
}

Capture SimulateCapture(const qvapi::CameraCalibrationParam& cal, const SceneSpec& scene,
                        const CaptureSpec& setup)
{
    if (const std::string bad = CheckCaptureSetup(scene, setup); !bad.empty())
        throw std::invalid_argument(bad);
    const bool single = setup.stream == qvapi::STREAM_SINGLE_FREQ;
    const bool dual = !single;
    const int tableW = single ? 320 : 640, tableH = single ? 240 : 480;
    const int b = (dual && setup.binned) ? 2 : 1;
    Capture cap;
    cap.width = tableW / b;
    cap.height = tableH / b;
    const int W = cap.width, H = cap.height;
    const size_t N = static_cast<size_t>(W) * H;
    cap.raw.assign((single ? 4 : 16) * N, 0);
    cap.truthZ.assign(N, 0.0f);
    cap.truthRadial.assign(N, 0.0f);
    cap.label.assign(N, kValid);

    const bool drift = setup.device != qvapi::DEVICE_TYPE_4;
    const double t = setup.temperatureC;
    const RayModel rays{cal.depthLens, setup.device == qvapi::DEVICE_TYPE_4};

    // Frequencies and their corrections, as the calibration record describes them.
    const double f1 = single ? 40e6 : 80e6, f2 = 100e6;
    const double offset1 = std::fabs(cal.depthOffsetF1) < 100.0f ? cal.depthOffsetF1 * 1000.0
                                                                  : cal.depthOffsetF1;
    const double step1 = cal.tableCountF1 > 20 ? 0.02 : 0.01;
    const double step2 = cal.tableCountF2 > 20 ? 0.02 : 0.01;
    const auto mmPerRad = [](double f) { return kSpeedFactor / f / (2.0 * kPi); };
    const auto range = [](double f) { return std::trunc(kSpeedFactor / f); };
    FrequencyModel m1{}, m2{};
    if (single) {
        const double drift1 = drift ? (t * ((3.58724e-8 * t + 1.46942e-5) * t + 0.00270372) - 0.0950557) * mmPerRad(f1) : 0.0;
        m1 = {range(f1), mmPerRad(f1), offset1 + range(f1) * 0.5 - drift1, cal.tableF1,
              cal.tableCountF1, step1, true, false};
    } else {
        const double drift1 = drift ? (0.00270372 * t - 0.0950557 + 3.58724e-8 * t * t * t + 1.46942e-5 * t * t) * mmPerRad(f1) : 0.0;
        const double drift2 = drift ? (0.00550856 * t - 0.178587 + 1.67766e-5 * t * t - 8.06871e-8 * t * t * t) * mmPerRad(f2) : 0.0;
        m1 = {range(f1), mmPerRad(f1), offset1 - drift1, cal.tableF1, cal.tableCountF1, step2, false, true};
        m2 = {range(f2), mmPerRad(f2), cal.depthOffsetF2 - drift2, cal.tableF2, cal.tableCountF2, step2, false, true};
    }
    const double maxRange = single ? range(f1) : 7500.0;

    std::mt19937 rng(setup.seed);
    std::normal_distribution<double> noise(0.0, setup.noiseSigma > 0 ? setup.noiseSigma : 1.0);
    const auto sample = [&](double v, uint16_t top) {
        if (setup.noiseSigma > 0)
            v += noise(rng);
        return static_cast<uint16_t>(std::clamp(std::lround(v), 0L, static_cast<long>(top)));
    };
    const int flip = std::clamp(static_cast<int>(setup.flip), 0, 3);
    const int* roles = kRoles[single ? 0 : flip];

    for (int r = 0; r < H; ++r) {
        for (int c = 0; c < W; ++c) {
            const size_t out = static_cast<size_t>(r) * W + c;
            // The sensor position this output pixel comes from.
            const int pr = (dual && (flip == 1 || flip == 3)) ? H - 1 - r : r;
            const int pc = (dual && (flip == 2 || flip == 3)) ? W - 1 - c : c;
            const int tr = b * pr, tc = b * pc;
            const Ray centre = rays.At(tc, tr);
            const Hit hit = TraceScene(scene, centre.x, centre.y);
            const double radial = RadialOf(centre, hit.z);
            cap.truthZ[out] = static_cast<float>(hit.z);
            cap.truthRadial[out] = static_cast<float>(radial);

            // Returns seen by the pixel: one, or four sub-pixel returns at a depth edge.
            Hit hits[4];
            Ray subRays[4];
            int count = 1;
            hits[0] = hit;
            subRays[0] = centre;
            if (setup.mixEdges) {
                double zMin = hit.z, zMax = hit.z;
                const double o = 0.25 * b;
                const double du[4] = {-o, o, -o, o}, dv[4] = {-o, -o, o, o};
                for (int k = 0; k < 4; ++k) {
                    subRays[k] = rays.At(tc + du[k], tr + dv[k]);
                    hits[k] = TraceScene(scene, subRays[k].x, subRays[k].y);
                    zMin = std::min(zMin, hits[k].z);
                    zMax = std::max(zMax, hits[k].z);
                }
                if (zMax - zMin > kEdgeStepMm) {
                    count = 4;
                    cap.label[out] = kEdge;
                } else {
                    hits[0] = hit;
                    subRays[0] = centre;
                }
            }

            Phasor ph1, ph2;
            bool saturated = false;
            double amplitudeSum = 0;
            for (int k = 0; k < count; ++k) {
                const double R = RadialOf(subRays[k], hits[k].z);
                const double a = hits[k].reflectivity * kAmplitudePerReflectivity * std::min(1.0, 2500.0 / R);
                saturated |= a > kMaxAmplitude;
                amplitudeSum += a;
                const double phase1 = m1.PhaseFor(R, FppnSurface(cal.fppnF1, tr, tc));
                ph1.re += a * std::cos(phase1) / count;
                ph1.im += a * std::sin(phase1) / count;
                if (dual) {
                    const double phase2 = m2.PhaseFor(R, FppnSurface(cal.fppnF2, tr, tc));
                    ph2.re += a * std::cos(phase2) / count;
                    ph2.im += a * std::sin(phase2) / count;
                }
            }
            if (saturated)
                cap.label[out] = kSaturated;
            else if (amplitudeSum == 0.0)
                cap.label[out] = kDark;
            else if (radial >= maxRange - 30.0 && cap.label[out] == kValid)
                cap.label[out] = kOutOfRange;

            const size_t rowBase = 4 * static_cast<size_t>(W) * r;
            const size_t words[4] = {rowBase + 2 * c, rowBase + 2 * c + 1,
                                     rowBase + 2 * static_cast<size_t>(W) + 2 * c,
                                     rowBase + 2 * static_cast<size_t>(W) + 2 * c + 1};
            // The samples' mean: the modulated light's own level over the dark level.
            const double level = kDarkLevel + std::max(std::hypot(ph1.re, ph1.im), std::hypot(ph2.re, ph2.im));
            if (single) {
                // I = S0 - S3, Q = S2 - S1.
                uint16_t* w = cap.raw.data();
                if (saturated) {
                    for (size_t k : words)
                        w[k] = kSaturatedWord;
                } else {
                    long i2[2], q2[2];
                    Split(2.0 * ph1.re, 2, i2);
                    Split(2.0 * ph1.im, 2, q2);
                    w[words[0]] = sample(level + i2[0], 65535);
                    w[words[3]] = sample(level - i2[1], 65535);
                    w[words[2]] = sample(level + q2[0], 65535);
                    w[words[1]] = sample(level - q2[1], 65535);
                }
                continue;
            }
            // Dual frequency: per frequency a capture p and a tag-inverted capture q.
            const auto writePair = [&](int planeP, const Phasor& ph) {
                uint16_t* p = cap.raw.data() + planeP * 4 * N;
                uint16_t* q = p + 4 * N;
                // Roles A and C carry the cosine, B and D the sine; p and q in
                // opposite senses: (A_p - A_q) - (C_p - C_q) = 4 re.
                long c4[4], s4[4];
                Split(4.0 * ph.re, 4, c4);
                Split(4.0 * ph.im, 4, s4);
                const double pv[4] = {+double(c4[0]), +double(s4[0]), -double(c4[1]), -double(s4[1])};
                const double qv[4] = {-double(c4[2]), -double(s4[2]), +double(c4[3]), +double(s4[3])};
                for (int role = 0; role < 4; ++role) {
                    const size_t word = words[roles[role]];
                    p[word] = saturated ? kSaturatedWord : sample(level + pv[role], 1022);
                    q[word] = sample(level + qv[role], 1022);
                }
            };
            writePair(2, ph1);
            writePair(0, ph2);
        }
    }

    // Edges: pixels whose 5 x 5 neighbourhood spans a depth step or touches pixels
    // without depth (the filters treat both alike).
    std::vector<uint8_t> nearEdge(N, 0);
    for (int r = 0; r < H; ++r)
        for (int c = 0; c < W; ++c) {
            float lo = cap.truthZ[static_cast<size_t>(r) * W + c], hi = lo;
            bool nearInvalid = false;
            for (int dr = -2; dr <= 2; ++dr)
                for (int dc = -2; dc <= 2; ++dc) {
                    const int rr = r + dr, cc = c + dc;
                    if (rr < 0 || rr >= H || cc < 0 || cc >= W)
                        continue;
                    const size_t j = static_cast<size_t>(rr) * W + cc;
                    nearInvalid |= cap.label[j] == kSaturated || cap.label[j] == kDark;
                    const float z = cap.truthZ[j];
                    lo = std::min(lo, z);
                    hi = std::max(hi, z);
                }
            nearEdge[static_cast<size_t>(r) * W + c] = hi - lo > 50.0f || nearInvalid;
        }
    for (size_t i = 0; i < N; ++i)
        if (nearEdge[i] && cap.label[i] == kValid)
            cap.label[i] = kEdge;

    // The temperature code rides in words 188 (high part) and 190 (low part).
    const long code = std::lround((t - 25.0) * 5.4 + 296.0);
    cap.raw[188] = static_cast<uint16_t>((code >> 8) << 2);
    cap.raw[190] = static_cast<uint16_t>((code & 0xFF) << 2);
    return cap;
}

// ---------------------------------------------------------------- colour camera

namespace {

// Surface colour (B, G, R) of a scene point: a checkered wall, coloured objects.
cv::Vec3b Texture(const SurfaceHit& h)
{
    switch (h.object) {
    case 0: {
        const bool odd = (static_cast<long>(std::floor(h.point.x / 100.0)) +
                          static_cast<long>(std::floor(h.point.y / 100.0))) & 1;
        return odd ? cv::Vec3b(200, 200, 190) : cv::Vec3b(90, 95, 100);
    }
    case 1:
        return cv::Vec3b(40, 120, 230);  // orange
    case 2:
        return cv::Vec3b(60, 190, 70);   // green
    default:
        return cv::Vec3b(0, 0, 0);
    }
}

}  // namespace

ColourFrame RenderColour(const qvapi::CameraCalibrationParam& cal, const SceneSpec& scene)
{
    if (const std::string bad = CheckScene(scene); !bad.empty())
        throw std::invalid_argument(bad);
    if (cal.rgbLens.fx == 0.0f)
        throw std::invalid_argument("the calibration has no colour lens");
    ColourFrame frame;
    const int W = frame.width, H = frame.height;
    const RayModel lens{cal.rgbLens, true};

    // Colour-camera pose: Pc = R' Pd + t, R' the rotation corrected by the record's
    // rotation vector.
    cv::Mat R = cv::Mat(3, 3, CV_32F, const_cast<float*>(cal.extrinsics)).clone();
    if (cal.vectorCount >= 3) {
        cv::Mat r;
        cv::Rodrigues(R, r);
        for (int k = 0; k < 3; ++k)
            r.at<float>(k) += cal.vector[k];
        cv::Rodrigues(r, R);
    }
    cv::Matx33d Rt;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            Rt(i, j) = R.at<float>(j, i);
    const cv::Vec3d t(cal.extrinsics[9], cal.extrinsics[10], cal.extrinsics[11]);
    const cv::Vec3d origin = -(Rt * t);
    const auto trace = [&](const Ray& ray) {
        const cv::Vec3d dir = Rt * cv::Vec3d(ray.x, ray.y, 1.0);
        return TraceRay(scene, {origin[0], origin[1], origin[2]}, {dir[0], dir[1], dir[2]});
    };

    // The raw frame is what the distorted lens sees; truth lives on the ideal grid.
    cv::Mat bgr(H, W, CV_8UC3);
    frame.truthDepth.assign(static_cast<size_t>(W) * H, 0.0f);
    frame.object.assign(static_cast<size_t>(W) * H, kNoObject);
    for (int v = 0; v < H; ++v)
        for (int u = 0; u < W; ++u) {
            const SurfaceHit raw = trace(lens.At(u, v));
            bgr.at<cv::Vec3b>(v, u) = raw.object == kNoObject ? cv::Vec3b(0, 0, 0) : Texture(raw);
            const Ray ideal{(u - lens.lens.cx) / lens.lens.fx, (v - lens.lens.cy) / lens.lens.fy};
            const SurfaceHit h = trace(ideal);
            const size_t i = static_cast<size_t>(v) * W + u;
            frame.object[i] = static_cast<uint8_t>(h.object);
            frame.truthDepth[i] = h.object == kNoObject ? 0.0f : static_cast<float>(h.point.z);
        }

    // NV12: the Y plane, then interleaved U and V at half resolution.
    cv::Mat i420;
    cv::cvtColor(bgr, i420, cv::COLOR_BGR2YUV_I420);
    frame.nv12.resize(static_cast<size_t>(W) * H * 3 / 2);
    const size_t ySize = static_cast<size_t>(W) * H, cSize = ySize / 4;
    std::copy(i420.data, i420.data + ySize, frame.nv12.begin());
    for (size_t k = 0; k < cSize; ++k) {
        frame.nv12[ySize + 2 * k] = i420.data[ySize + k];
        frame.nv12[ySize + 2 * k + 1] = i420.data[ySize + cSize + k];
    }
    return frame;
}

}  // namespace qvsim
