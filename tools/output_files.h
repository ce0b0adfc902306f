// File handling of the tool: whole-file reads of regular files of bounded size, and
// writes that never leave a half-written file behind (an exclusive temporary file in
// the same folder, renamed when complete, removed on errors and on SIGINT, SIGTERM and
// SIGHUP). Worker processes are stopped with the tool.
#ifndef QVRECON_OUTPUT_FILES_H
#define QVRECON_OUTPUT_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace cv {
class Mat;
}

namespace qvrecon {

// An input or output problem; the message is meant for the user as it stands.
struct ToolError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Installs the handlers that, on SIGINT, SIGTERM and SIGHUP, pass the signal on to the
// worker processes and wait for them, remove the files being written, then end the
// process by the same signal; and ignores SIGXFSZ so that a file-size limit becomes a
// write error with a message. Call once, at the start of main.
void InstallCleanupHandlers();

// fork() for a worker process. In the child the parent's workers are forgotten and the
// child gets SIGTERM if the parent dies; in the parent the child is a worker the
// cleanup signals are passed on to until ReapWorker. Returns as fork() does.
pid_t ForkWorker();

// Waits for a worker to end and forgets it; returns its wait status, -1 if it cannot
// be waited for.
int ReapWorker(pid_t worker);

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
// was planted there, never through a link) renamed into place when complete, with the
// mode 0666 less the umask. A full disk, a file-size limit or any other failure is a
// ToolError and leaves nothing.
void WriteBytes(const std::string& path, const void* data, size_t size);

// Writes several files (path, content), all or none: each through its own temporary
// file, renamed into place only once every one is complete. A failure, or a cleanup
// signal, before the last rename leaves none of them (those already renamed are
// removed). At most 16 files.
void WriteFiles(const std::vector<std::pair<std::string, std::string>>& files);

// A file that another writer fills through a path of its own (the recording library
// opens the path it is given): a fresh name beside `path`, reserved for this process
// but with no file, for the writer to create exclusively; removed on errors (the
// destructor) and on signals; Commit() gives it the mode of every output and renames
// it into place.
class PendingFile {
public:
    explicit PendingFile(const std::string& path);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;
    const std::string& TemporaryPath() const;
    void Commit();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// PNG of an 8-bit (grey or BGR) or 16-bit image.
void WritePng(const std::string& path, const cv::Mat& image);

}  // namespace qvrecon

#endif
