// File handling of the tool: whole-file reads of regular files of bounded size, and
// writes that never leave a half-written file behind (an exclusive temporary file in
// the same folder, renamed when complete, removed on errors and on SIGINT, SIGTERM and
// SIGHUP).
#ifndef QVRECON_OUTPUT_FILES_H
#define QVRECON_OUTPUT_FILES_H

#include <cstdint>
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

// Installs the handlers that remove a temporary file on SIGINT, SIGTERM and SIGHUP
// before the signal ends the process, and ignores SIGXFSZ so that a file-size limit
// becomes a write error with a message. Call once, at the start of main.
void InstallCleanupHandlers();

// The name a capture's outputs start with: its file name without the last extension,
// where leading dots never start one (x.raw -> x, a.b.raw -> a.b, .raw -> .raw,
// ..raw -> ..raw), as Python's os.path.splitext does on the file name.
std::string OutputStem(const std::string& capturePath);

// The size of a regular file; a missing file, a folder, a FIFO or a device is a ToolError.
uint64_t RegularFileSize(const std::string& path);

// Reads a whole regular file of at most maxBytes bytes. Missing, unreadable,
// non-regular and larger files are a ToolError, found before anything is read.
std::vector<uint8_t> ReadFile(const std::string& path, uint64_t maxBytes);

// Creates the folder (and its parents) if missing; a ToolError if it cannot be
// made or written into.
void EnsureFolder(const std::string& folder);

// Writes `size` bytes to `path` through an exclusive temporary file (never one that
// was planted there, never through a link) renamed into place when complete. A full
// disk, a file-size limit or any other failure is a ToolError and leaves nothing.
void WriteBytes(const std::string& path, const void* data, size_t size);

// PNG of an 8-bit (grey or BGR) or 16-bit image.
void WritePng(const std::string& path, const cv::Mat& image);

}  // namespace qvrecon

#endif
