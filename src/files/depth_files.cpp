#include "files/depth_files.h"

#include <cstdio>
#include <fstream>

#include "common/numeric.h"

namespace qvapi {

int WriteRawDepth(const uint16_t* depth, size_t n, const std::string& path)
{
    if (depth == nullptr && n > 0)
        return 0;
    FILE* f = std::fopen(path.c_str(), "wb+");
    if (f == nullptr)
        return 0;
    std::fwrite(depth, sizeof(uint16_t), n, f);
    std::fflush(f);
    return std::fclose(f);
}

void WritePly(const float* cloud, int width, int height, const std::string& path)
{
    const size_t n = static_cast<size_t>(width) * height;
    if (cloud == nullptr && n > 0)
        return;
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    const std::string header[9] = {"ply",
                                   "\t\t\tformat ascii 1.0",
                                   "\t\t\telement vertex " + std::to_string(n),
                                   "\t\t\tproperty float x",
                                   "\t\t\tproperty float y",
                                   "\t\t\tproperty float z",
                                   "\t\t\telement face 0",
                                   "\t\t\tproperty list uchar int vertex_index",
                                   "\t\t\tend_header"};
    for (const std::string& line : header)
        out << line << '\n' << std::flush;

    std::string body;
    body.reserve(n * 16);
    char line[48];
    const size_t zeroRows = 2 * static_cast<size_t>(width);
    for (size_t i = 0; i < n; ++i) {
        if (i < zeroRows) {
            body += "0 0 0\n";
            continue;
        }
        const int len = std::snprintf(line, sizeof line, "%d %d %d\n", TruncToInt(cloud[3 * i]),
                                      TruncToInt(cloud[3 * i + 1]), TruncToInt(cloud[3 * i + 2]));
        body.append(line, static_cast<size_t>(len));
    }
    out.write(body.data(), static_cast<std::streamsize>(body.size()));
}

}  // namespace qvapi
