// filter_module: Kalman filters, table look-up and bilinear sampling.
#include <cmath>
#include <cstdint>

#include "qvreconstruction/filter_module.h"

namespace qvapi {

void filter_module::kalman1_init(kalman1_state* s, float initX, float initP)
{
    s->x = initX;
    s->p = initP;
    s->A = 1;
    s->H = 1;
    s->q = 200;
    s->r = 500;
}

float filter_module::kalman1_filter(kalman1_state* s, float z)
{
    s->x = s->A * s->x;
    s->p = s->A * s->A * s->p + s->q;
    s->gain = s->p * s->H / (s->p * s->H * s->H + s->r);
    s->x = s->x + s->gain * (z - s->H * s->x);
    s->p = (1 - s->gain * s->H) * s->p;
    return s->x;
}

void filter_module::kalman2_init(kalman2_state* s, float* initX, float initP[][2])
{
    s->x[0] = initX[0];
    s->x[1] = initX[1];
    s->p[0][0] = initP[0][0];
    s->p[0][1] = initP[0][1];
    s->p[1][0] = initP[1][0];
    s->p[1][1] = initP[1][1];
    s->A[0][0] = 1;
    s->A[0][1] = 0.1f;
    s->A[1][0] = 0;
    s->A[1][1] = 1;
    s->H[0] = 1;
    s->H[1] = 0;
    s->q[0] = 1e-6f;
    s->q[1] = 1e-6f;
    s->r = 1e-6f;
}

float filter_module::kalman2_filter(kalman2_state* s, float z)
{
    // Evaluated in this order, each step seeing the values updated before it.
    s->x[0] = s->A[0][0] * s->x[0] + s->A[0][1] * s->x[1];
    s->x[1] = s->A[1][0] * s->x[0] + s->A[1][1] * s->x[1];
    s->p[0][0] = s->A[0][0] * s->p[0][0] + s->A[0][1] * s->p[1][0] + s->q[0];
    s->p[0][1] = s->A[0][0] * s->p[0][1] + s->A[1][1] * s->p[1][1];
    s->p[1][0] = s->A[1][0] * s->p[0][0] + s->A[0][1] * s->p[1][0];
    s->p[1][1] = s->A[1][0] * s->p[0][1] + s->A[1][1] * s->p[1][1] + s->q[1];
    const float t0 = s->p[0][0] * s->H[0] + s->p[0][1] * s->H[1];
    const float t1 = s->p[1][0] * s->H[0] + s->p[1][1] * s->H[1];
    const float t = s->r + s->H[0] * t0 + s->H[1] * t1;
    s->gain[0] = t0 / t;
    s->gain[1] = t1 / t;
    const float e = z - (s->H[0] * s->x[0] + s->H[1] * s->x[1]);
    s->x[0] += s->gain[0] * e;
    s->x[1] += s->gain[1] * e;
    s->p[0][0] *= 1 - s->gain[0] * s->H[0];
    s->p[0][1] *= 1 - s->gain[0] * s->H[1];
    s->p[1][0] *= 1 - s->gain[1] * s->H[0];
    s->p[1][1] *= 1 - s->gain[1] * s->H[1];
    return s->x[0];
}

float filter_module::calc_wiggling_error(float* table, float value, int step, int /*unused*/)
{
    // No bounds check: value must lie in [0, step * (table length - 1)).
    const int i = static_cast<int>(value / static_cast<float>(step));
    const double frac = (static_cast<double>(value) - static_cast<double>(i) * step) *
                        (static_cast<double>(table[i + 1]) - table[i]) / step;
    return static_cast<float>(table[i] + frac);
}

namespace {

// Truncation to 16 bits as the coordinates are held: values above 65535 wrap.
uint16_t Coord16(float v)
{
    const double t = std::trunc(static_cast<double>(v));
    if (!(t > -9.2e18 && t < 9.2e18))
        return 0;
    return static_cast<uint16_t>(static_cast<int64_t>(t));
}

}  // namespace

float filter_module::bilinearInterpolation(const unsigned short* img, float x, float y,
                                           unsigned short width)
{
    const uint16_t tx = Coord16(x), ty = Coord16(y);
    const double xt = std::trunc(static_cast<double>(x)), yt = std::trunc(static_cast<double>(y));
    const uint16_t x0 = static_cast<uint16_t>(xt > x ? tx - 1 : tx);
    const uint16_t x1 = static_cast<uint16_t>(x > xt ? tx + 1 : tx);
    const uint16_t y0 = static_cast<uint16_t>(yt > y ? ty - 1 : ty);
    const uint16_t y1 = static_cast<uint16_t>(y > yt ? ty + 1 : ty);
    const float fx = x - x0, fy = y - y0;
    const auto v = [&](uint16_t a, uint16_t b) {
        return static_cast<float>(img[static_cast<size_t>(b) * width + a]);
    };
    const float top = v(x0, y0) + (v(x1, y0) - v(x0, y0)) * fx;
    const float bottom = v(x0, y1) + (v(x1, y1) - v(x0, y1)) * fx;
    return top + (bottom - top) * fy;
}

}  // namespace qvapi
