// The filter toolkit: filters for 16-bit depth images, a small dense linear-algebra
// kit for matrices up to 6 x 6, fixed-pattern phase-noise surface fitting, Kalman
// filters and sampling helpers. Stateless; the reconstruction pipeline does not use it.
//
// Images are row-major arrays of unsigned 16-bit depth values (mm), width values
// per row, 0 meaning no depth.
#ifndef QVRECONSTRUCTION_FILTER_MODULE_H
#define QVRECONSTRUCTION_FILTER_MODULE_H

#include <vector>

#include "qvreconstruction/export.h"

namespace qvapi {

struct Point3D {
    double x;
    double y;
    double z;
};

// One-state Kalman filter of a noisy scalar.
struct kalman1_state {
    float x;     // estimate
    float A;     // state transition
    float H;     // measurement factor
    float q;     // process noise
    float r;     // measurement noise
    float p;     // estimate variance
    float gain;
};

// Two-state (value and rate) Kalman filter.
struct kalman2_state {
    float x[2];
    float A[2][2];
    float H[2];
    float q[2];
    float r;
    float p[2][2];
    float gain[2];
};

class QV_EXPORT filter_module {
public:
    // Neighbourhood smoothing, in place and running: later pixels see earlier results.
    void meanFilter(unsigned short* img, int width, int height);
    void medianFilter(unsigned short* img, int width, int height);
    void medianFilter2(unsigned short* img, int width, int height);
    // Hole filling from the most frequent depth of the 5 x 5 neighbourhood.
    void PixelFilter(unsigned short* img, int width, int height, int minInner, int minOuter);

    // Fixed 9 x 9 bilateral filter (spatial sigma 3 px, range sigma 40 mm).
    void BilateralFiter(unsigned short* img, int width, int height);
    void GetFinalKernal(unsigned short* img, int kw, int kh, double* spatial, double* out, int row,
                        int col, int plane, int stride, long planeSize);
    void GetWindowArray(int row, int col, int plane, unsigned short* img, unsigned short* window,
                        int winH, int winW, int stride, int planeSize);
    unsigned short GetGuassNum(unsigned short* window, double* kernel, int n);
    // Bilateral filter over a disc of radius r with clamped borders; r < 0 clears the
    // image, a radius above kMaxBilateralRadius leaves it unchanged (the work grows
    // with r squared per pixel). Depth differences of 7500 or more weigh as 7499.
    static constexpr int kMaxBilateralRadius = 64;
    void Bilateral_Filter(unsigned short* img, int r, double sigmaS, double sigmaR, int width,
                          int height);

    // Surface and plane fits, small matrix inverse and Gaussian elimination.
    void calcFPPN(float* samples, int count, double* coeffs, bool squareTermsFirst);
    void Least_squares(std::vector<Point3D>& points, double* out);
    bool GetMatrixInverse(double src[][6], int n, double dst[][6]);
    double getA(double a[][6], int n);
    void getAStart(double a[][6], int n, double adj[][6]);
    void column_principle_gauss(int n, double** rows);

    // Scalar estimators and sampling.
    void kalman1_init(kalman1_state* state, float initX, float initP);
    float kalman1_filter(kalman1_state* state, float z);
    void kalman2_init(kalman2_state* state, float* initX, float initP[][2]);
    float kalman2_filter(kalman2_state* state, float z);
    float calc_wiggling_error(float* table, float value, int step, int unused);
    float bilinearInterpolation(const unsigned short* img, float x, float y, unsigned short width);
};

}  // namespace qvapi

#endif  // QVRECONSTRUCTION_FILTER_MODULE_H
