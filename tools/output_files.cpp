#include "output_files.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <opencv2/imgcodecs.hpp>

namespace qvrecon {

namespace fs = std::filesystem;

std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw ToolError(path + ": cannot open (" + std::strerror(errno) + ")");
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        throw ToolError(path + ": read failed");
    return data;
}

void EnsureFolder(const std::string& folder)
{
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec || !fs::is_directory(folder))
        throw ToolError(folder + ": cannot create the output folder (" +
                        (ec ? ec.message() : std::string("not a folder")) + ")");
    if (access(folder.c_str(), W_OK) != 0)
        throw ToolError(folder + ": the output folder is not writable");
}

void WriteAtomically(const std::string& path, const std::function<bool(const std::string&)>& write)
{
    const fs::path target(path);
    const fs::path temporary = target.parent_path() /
                               ("." + target.stem().string() + ".tmp-" + std::to_string(getpid()) +
                                target.extension().string());
    bool ok = false;
    try {
        ok = write(temporary.string());
    } catch (...) {
        std::remove(temporary.c_str());
        throw;
    }
    std::error_code ec;
    if (ok)
        fs::rename(temporary, target, ec);
    if (!ok || ec) {
        std::remove(temporary.c_str());
        throw ToolError(path + ": cannot write" + (ec ? " (" + ec.message() + ")" : std::string()));
    }
}

void WriteBytes(const std::string& path, const void* data, size_t size)
{
    WriteAtomically(path, [&](const std::string& temporary) {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
        out.close();
        return static_cast<bool>(out);
    });
}

void WritePng(const std::string& path, const cv::Mat& image)
{
    std::vector<uint8_t> png;
    if (!cv::imencode(".png", image, png))
        throw ToolError(path + ": cannot encode the image");
    WriteBytes(path, png.data(), png.size());
}

}  // namespace qvrecon
