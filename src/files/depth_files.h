// Diagnostic files: raw depth dumps and ASCII PLY point clouds.
#ifndef QVRECONSTRUCTION_SRC_FILES_DEPTH_FILES_H
#define QVRECONSTRUCTION_SRC_FILES_DEPTH_FILES_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvapi {

// Writes n depth words as they lie in memory, nothing else. Returns 0 when the file
// cannot be opened (nothing written), else the result of closing it.
int WriteRawDepth(const uint16_t* depth, size_t n, const std::string& path);

// Writes an ASCII PLY of width x height vertices with integer-truncated coordinates;
// the vertices of rows 0 and 1 are written as 0 0 0. The body is one write.
void WritePly(const float* cloud, int width, int height, const std::string& path);

}  // namespace qvapi

#endif
