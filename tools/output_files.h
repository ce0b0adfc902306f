// File handling of the tool: whole-file reads with clear errors, and writes that
// never leave a half-written file behind (temporary name, then rename).
#ifndef QVRECON_OUTPUT_FILES_H
#define QVRECON_OUTPUT_FILES_H

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace cv {
class Mat;
}

namespace qvrecon {

// An input or output problem; the message is meant for the user as it stands.
struct ToolError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads a whole file; a missing or unreadable file is a ToolError.
std::vector<uint8_t> ReadFile(const std::string& path);

// Creates the folder (and its parents) if missing; a ToolError if it cannot be
// made or written into.
void EnsureFolder(const std::string& folder);

// Calls write(temporary) with a temporary path in the same folder and with the same
// extension, then renames it to `path`. A write that returns false or throws leaves
// nothing behind.
void WriteAtomically(const std::string& path, const std::function<bool(const std::string&)>& write);

void WriteBytes(const std::string& path, const void* data, size_t size);

// PNG of an 8-bit (grey or BGR) or 16-bit image.
void WritePng(const std::string& path, const cv::Mat& image);

}  // namespace qvrecon

#endif
