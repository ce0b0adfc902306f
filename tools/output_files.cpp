#include "output_files.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <opencv2/imgcodecs.hpp>

namespace qvrecon {
namespace {

namespace fs = std::filesystem;

// The temporary file being written, for the signal handler. The tool writes one file
// at a time; the name is set and cleared with the cleanup signals blocked.
char g_temporary[4096];
volatile sig_atomic_t g_hasTemporary = 0;
mode_t g_fileMode = 0644;

const int kCleanupSignals[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void RemoveTemporaryAndDie(int sig)
{
    if (g_hasTemporary)
        unlink(g_temporary);
    signal(sig, SIG_DFL);
    raise(sig);
}

// Blocks the cleanup signals while alive, so that the temporary name and its flag
// change together.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t set;
        sigemptyset(&set);
        for (int sig : kCleanupSignals)
            sigaddset(&set, sig);
        sigprocmask(SIG_BLOCK, &set, &old_);
    }
    ~SignalsBlocked() { sigprocmask(SIG_SETMASK, &old_, nullptr); }

private:
    sigset_t old_;
};

std::string Reason(int error) { return std::strerror(error); }

// The temporary file of one write: created exclusively, removed unless committed.
class Temporary {
public:
    explicit Temporary(const std::string& path) : path_(path)
    {
        const fs::path target(path);
        const std::string name =
            (target.parent_path() / ("." + target.filename().string() + ".tmp-XXXXXX")).string();
        if (name.size() >= sizeof g_temporary)
            throw ToolError(path + ": the path is too long");
        SignalsBlocked blocked;
        std::memcpy(g_temporary, name.c_str(), name.size() + 1);
        // O_EXCL with a random name: never an existing file, never through a link.
        fd_ = mkostemp(g_temporary, O_CLOEXEC);
        if (fd_ < 0)
            throw ToolError(path + ": cannot write (" + Reason(errno) + ")");
        g_hasTemporary = 1;
        fchmod(fd_, g_fileMode);
    }
    ~Temporary()
    {
        if (fd_ >= 0)
            close(fd_);
        if (g_hasTemporary) {
            SignalsBlocked blocked;
            unlink(g_temporary);
            g_hasTemporary = 0;
        }
    }
    void Write(const void* data, size_t size)
    {
        const char* p = static_cast<const char*>(data);
        while (size > 0) {
            const ssize_t n = write(fd_, p, size);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw ToolError(path_ + ": cannot write (" + Reason(n < 0 ? errno : ENOSPC) + ")");
            p += n;
            size -= static_cast<size_t>(n);
        }
    }
    void Commit()
    {
        const int fd = fd_;
        fd_ = -1;
        if (close(fd) != 0)
            throw ToolError(path_ + ": cannot write (" + Reason(errno) + ")");
        SignalsBlocked blocked;
        if (rename(g_temporary, path_.c_str()) != 0)
            throw ToolError(path_ + ": cannot write (" + Reason(errno) + ")");
        g_hasTemporary = 0;
    }

private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace

void InstallCleanupHandlers()
{
    const mode_t mask = umask(0);
    umask(mask);
    g_fileMode = 0666 & ~mask;
    struct sigaction action {};
    action.sa_handler = RemoveTemporaryAndDie;
    sigemptyset(&action.sa_mask);
    for (int sig : kCleanupSignals)
        sigaction(sig, &action, nullptr);
    signal(SIGXFSZ, SIG_IGN);
}

std::string OutputStem(const std::string& capturePath)
{
    const std::string name = fs::path(capturePath).filename().string();
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || name.find_first_not_of('.') >= dot)
        return name;
    return name.substr(0, dot);
}

uint64_t RegularFileSize(const std::string& path)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        throw ToolError(path + ": cannot read (" + Reason(errno) + ")");
    if (!S_ISREG(st.st_mode))
        throw ToolError(path + ": not a regular file");
    return static_cast<uint64_t>(st.st_size);
}

std::vector<uint8_t> ReadFile(const std::string& path, uint64_t maxBytes)
{
    // Non-blocking, so that opening a FIFO without a writer does not wait.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        throw ToolError(path + ": cannot open (" + Reason(errno) + ")");
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    struct stat st {};
    if (fstat(fd, &st) != 0)
        throw ToolError(path + ": cannot read (" + Reason(errno) + ")");
    if (!S_ISREG(st.st_mode))
        throw ToolError(path + ": not a regular file");
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size > maxBytes)
        throw ToolError(path + ": " + std::to_string(size) + " bytes, more than the " +
                        std::to_string(maxBytes) + " this input can have");
    std::vector<uint8_t> data(static_cast<size_t>(size));
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = read(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw ToolError(path + ": read failed (" + Reason(errno) + ")");
        if (n == 0)
            throw ToolError(path + ": changed size while reading");
        done += static_cast<size_t>(n);
    }
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

void WriteBytes(const std::string& path, const void* data, size_t size)
{
    Temporary temporary(path);
    temporary.Write(data, size);
    temporary.Commit();
}

void WritePng(const std::string& path, const cv::Mat& image)
{
    std::vector<uint8_t> png;
    if (!cv::imencode(".png", image, png))
        throw ToolError(path + ": cannot encode the image");
    WriteBytes(path, png.data(), png.size());
}

}  // namespace qvrecon
