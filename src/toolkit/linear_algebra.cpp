// filter_module: phase-noise surface and plane fits, determinant, adjugate, inverse
// and Gaussian elimination for matrices up to 6 x 6.
#include <cstdio>
#include <cstring>
#include <vector>

#include "qvreconstruction/filter_module.h"

namespace qvapi {

void filter_module::calcFPPN(float* samples, int count, double* coeffs, bool squareTermsFirst)
{
    // Point i is (samples[i], samples[i+1], samples[i+2]): the window slides by one
    // float, so the run must hold count + 2 floats.
    std::vector<Point3D> points;
    for (int i = 0; i < count; ++i)
        points.push_back({samples[i], samples[i + 1], samples[i + 2]});
    double A[6][6] = {}, B[6] = {}, yy = 0;
    for (const Point3D& p : points) {
        const double x = p.x, y = p.y;
        double t[6];
        if (squareTermsFirst) {
            const double s[6] = {x * x, x * y, y * y, x, y, 1.0};
            std::memcpy(t, s, sizeof t);
        } else {
            const double s[6] = {1.0, x, y, x * x, x * y, y * y};
            std::memcpy(t, s, sizeof t);
        }
        for (int r = 0; r < 6; ++r) {
            for (int c = 0; c < 6; ++c)
                A[r][c] += t[r] * t[c];
            B[r] += t[r] * p.z;
        }
        // In this mode the last row starts with y^2 where the product gives x^2:
        // the matrix is not symmetric. Accumulated on its own, then put in place.
        if (squareTermsFirst)
            yy += y * y;
    }
    if (squareTermsFirst)
        A[5][0] = yy;
    double Ainv[6][6];
    if (!GetMatrixInverse(A, 6, Ainv))
        return;
    for (int k = 0; k < 6; ++k) {
        double s = 0;
        for (int j = 0; j < 6; ++j)
            s += Ainv[k][j] * B[j];
        coeffs[k] += s;
    }
}

void filter_module::Least_squares(std::vector<Point3D>& points, double* out)
{
    double m[3][4] = {};
    const double n = static_cast<double>(points.size());
    m[0][0] = n;
    for (size_t i = 0; i < points.size(); ++i) {
        const Point3D& p = points.at(i);
        m[0][1] += p.x;
        m[0][2] += p.y;
        m[0][3] += p.z;
        m[1][1] += p.x * p.x;
        m[1][2] += p.x * p.y;
        m[1][3] += p.x * p.z;
        m[2][2] += p.y * p.y;
        m[2][3] += p.y * p.z;
    }
    m[1][0] = m[0][1];
    m[2][0] = m[0][2];
    m[2][1] = m[1][2];
    for (auto& row : m) {
        for (double v : row)
            std::printf("%f   ", v);
        std::printf("\n");
    }
    double* rows[3] = {m[0], m[1], m[2]};
    column_principle_gauss(3, rows);
    out[0] = m[0][3];
    out[1] = m[1][3];
    out[2] = m[2][3];
}

double filter_module::getA(double a[][6], int n)
{
    if (n == 1)
        return a[0][0];
    if (n < 1 || n > 6)
        return 0;
    double det = 0;
    for (int i = 0; i < n; ++i) {
        double minor[6][6] = {};
        for (int r = 1; r < n; ++r)
            for (int c = 0, k = 0; c < n; ++c)
                if (c != i)
                    minor[r - 1][k++] = a[r][c];
        const double term = a[0][i] * getA(minor, n - 1);
        det += (i % 2 == 0) ? term : -term;
    }
    return det;
}

void filter_module::getAStart(double a[][6], int n, double adj[][6])
{
    if (n == 1) {
        adj[0][0] = 1;
        return;
    }
    if (n < 1 || n > 6)
        return;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double minor[6][6] = {};
            for (int r = 0, mr = 0; r < n; ++r) {
                if (r == i)
                    continue;
                for (int c = 0, mc = 0; c < n; ++c)
                    if (c != j)
                        minor[mr][mc++] = a[r][c];
                ++mr;
            }
            const double cofactor = getA(minor, n - 1);
            adj[j][i] = ((i + j) % 2 == 0) ? cofactor : -cofactor;
        }
}

bool filter_module::GetMatrixInverse(double src[][6], int n, double dst[][6])
{
    const double det = getA(src, n);
    if (det == 0)
        return false;
    double adjugate[6][6] = {};
    getAStart(src, n, adjugate);
    const double inv = 1.0 / det;
    for (int i = 0; i < n && i < 6; ++i)
        for (int j = 0; j < n && j < 6; ++j)
            dst[i][j] = adjugate[i][j] * inv;
    return true;
}

void filter_module::column_principle_gauss(int n, double** rows)
{
    // The pivot row is always the last one; magnitudes are not compared.
    for (int k = 0; k + 1 < n; ++k) {
        if (rows[n - 1][k] == 0)
            break;
        for (int j = k; j <= n; ++j) {
            const double t = rows[k][j];
            rows[k][j] = rows[n - 1][j];
            rows[n - 1][j] = t;
        }
        for (int i = k + 1; i < n; ++i)
            for (int j = k + 1; j <= n; ++j)
                rows[i][j] -= rows[i][k] / rows[k][k] * rows[k][j];
    }
    for (int i = n - 1; i >= 0; --i) {
        double s = 0;
        for (int j = i + 1; j < n; ++j)
            s += rows[i][j] * rows[j][n];
        rows[i][n] = (rows[i][n] - s) / rows[i][i];
    }
}

}  // namespace qvapi
