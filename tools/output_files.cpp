#include "output_files.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include <opencv2/imgcodecs.hpp>

namespace qvrecon {
namespace {

namespace fs = std::filesystem;

// What a cleanup signal must undo, for its handler: the files to remove (temporaries
// being written and, while a set of files is put in place, those of the set already
// renamed), and the worker processes to stop first. Both change only with the cleanup
// signals blocked, so the handler never sees half an entry.
constexpr int kSlots = 16;
constexpr size_t kMaxPath = 4096;
char g_removeOnSignal[kSlots][kMaxPath];
volatile sig_atomic_t g_slotUsed[kSlots];
constexpr int kMaxWorkers = 256;
pid_t g_workers[kMaxWorkers];  // 0: a free entry
volatile sig_atomic_t g_workerCount = 0;

const int kCleanupSignals[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void StopAndDie(int sig)
{
    // The workers remove their own files when the signal reaches them; waiting for them
    // means nothing of theirs is written after this process has gone.
    for (int i = 0; i < g_workerCount; ++i)
        if (g_workers[i] > 0)
            kill(g_workers[i], sig);
    for (int i = 0; i < g_workerCount; ++i)
        if (g_workers[i] > 0)
            while (waitpid(g_workers[i], nullptr, 0) < 0 && errno == EINTR) {
            }
    for (int i = 0; i < kSlots; ++i)
        if (g_slotUsed[i])
            unlink(g_removeOnSignal[i]);
    // Blocked while this handler runs; delivered, with its default action, on return.
    signal(sig, SIG_DFL);
    raise(sig);
}

// Blocks the cleanup signals while alive.
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

// 0666 less the umask, as open() would create a file (mkostemp makes 0600).
mode_t FileMode()
{
    static const mode_t mode = [] {
        const mode_t mask = umask(0);
        umask(mask);
        return static_cast<mode_t>(0666 & ~mask);
    }();
    return mode;
}

// The temporary file of one output: created exclusively, and removed, or once renamed
// the output itself, unless Keep() is called.
class Temporary {
public:
    explicit Temporary(const std::string& path) : path_(path)
    {
        const fs::path target(path);
        const std::string name =
            (target.parent_path() / ("." + target.filename().string() + ".tmp-XXXXXX")).string();
        if (name.size() >= kMaxPath)
            throw ToolError(path + ": the path is too long");
        SignalsBlocked blocked;
        while (slot_ < kSlots && g_slotUsed[slot_])
            ++slot_;
        if (slot_ == kSlots)
            throw ToolError(path + ": too many files written at once");
        char* buffer = g_removeOnSignal[slot_];
        std::memcpy(buffer, name.c_str(), name.size() + 1);
        // O_EXCL with a random name: never an existing file, never through a link.
        fd_ = mkostemp(buffer, O_CLOEXEC);
        if (fd_ < 0)
            throw ToolError(path + ": cannot write (" + Reason(errno) + ")");
        g_slotUsed[slot_] = 1;
        fchmod(fd_, FileMode());
    }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;
    ~Temporary()
    {
        if (fd_ >= 0)
            close(fd_);
        if (slot_ < kSlots && g_slotUsed[slot_]) {
            SignalsBlocked blocked;
            unlink(g_removeOnSignal[slot_]);
            g_slotUsed[slot_] = 0;
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
    void Close()
    {
        const int fd = fd_;
        fd_ = -1;
        if (close(fd) != 0)
            throw ToolError(path_ + ": cannot write (" + Reason(errno) + ")");
    }
    // Puts the file in place. Until Keep(), an error or a signal removes it there.
    void Rename()
    {
        SignalsBlocked blocked;
        if (rename(g_removeOnSignal[slot_], path_.c_str()) != 0)
            throw ToolError(path_ + ": cannot write (" + Reason(errno) + ")");
        // Shorter than the temporary's name, so it fits.
        std::memcpy(g_removeOnSignal[slot_], path_.c_str(), path_.size() + 1);
    }
    // Closes and removes the file but keeps its name reserved (removed on errors and
    // signals), for a writer that creates the file itself, exclusively.
    void Release()
    {
        close(fd_);
        fd_ = -1;
        SignalsBlocked blocked;
        unlink(g_removeOnSignal[slot_]);
        name_ = g_removeOnSignal[slot_];
    }
    const std::string& Name() const { return name_; }
    void Keep()
    {
        SignalsBlocked blocked;
        g_slotUsed[slot_] = 0;
    }

private:
    std::string path_, name_;
    int slot_ = 0;
    int fd_ = -1;
};

}  // namespace

void InstallCleanupHandlers()
{
    FileMode();
    struct sigaction action {};
    action.sa_handler = StopAndDie;
    // One handler at a time: a second signal waits until the first has done its work.
    sigemptyset(&action.sa_mask);
    for (int sig : kCleanupSignals)
        sigaddset(&action.sa_mask, sig);
    for (int sig : kCleanupSignals)
        sigaction(sig, &action, nullptr);
    signal(SIGXFSZ, SIG_IGN);
}

pid_t ForkWorker()
{
    const pid_t parent = getpid();
    SignalsBlocked blocked;
    const pid_t pid = fork();
    if (pid == 0) {
        // The parent's workers and files are not this process's to stop or remove.
        g_workerCount = 0;
        for (int i = 0; i < kSlots; ++i)
            g_slotUsed[i] = 0;
        // A parent ended by SIGKILL cannot pass a signal on: the kernel sends one.
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            raise(SIGTERM);  // the parent died before the line above; delivered on unblocking
    } else if (pid > 0) {
        int i = 0;
        while (i < g_workerCount && g_workers[i] != 0)
            ++i;
        if (i == kMaxWorkers) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            errno = EAGAIN;
            return -1;
        }
        g_workers[i] = pid;
        if (i == g_workerCount)
            g_workerCount = i + 1;
    }
    return pid;
}

int ReapWorker(pid_t worker)
{
    // Wait without reaping, so that the pid cannot be reused while the handler may
    // still signal it; then reap and forget it together.
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(worker), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
    SignalsBlocked blocked;
    int status = 0;
    if (waitpid(worker, &status, 0) != worker)
        status = -1;
    for (int i = 0; i < g_workerCount; ++i)
        if (g_workers[i] == worker)
            g_workers[i] = 0;
    return status;
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
    temporary.Close();
    temporary.Rename();
    temporary.Keep();
}

struct PendingFile::Impl {
    explicit Impl(const std::string& path) : temporary(path) { temporary.Release(); }
    Temporary temporary;
};

PendingFile::PendingFile(const std::string& path) : impl_(new Impl(path)) {}
PendingFile::~PendingFile() = default;
const std::string& PendingFile::TemporaryPath() const { return impl_->temporary.Name(); }

void PendingFile::Commit()
{
    // Whatever the writer left is the file's: umask-honouring mode as every output.
    if (chmod(impl_->temporary.Name().c_str(), FileMode()) != 0)
        throw ToolError(impl_->temporary.Name() + ": cannot write (" + Reason(errno) + ")");
    impl_->temporary.Rename();
    impl_->temporary.Keep();
}

void WriteFiles(const std::vector<std::pair<std::string, std::string>>& files)
{
    std::vector<std::unique_ptr<Temporary>> temporaries;
    for (const auto& [path, content] : files) {
        temporaries.push_back(std::make_unique<Temporary>(path));
        temporaries.back()->Write(content.data(), content.size());
        temporaries.back()->Close();
    }
    for (auto& t : temporaries)
        t->Rename();
    for (auto& t : temporaries)
        t->Keep();
}

void WritePng(const std::string& path, const cv::Mat& image)
{
    std::vector<uint8_t> png;
    if (!cv::imencode(".png", image, png))
        throw ToolError(path + ": cannot encode the image");
    WriteBytes(path, png.data(), png.size());
}

}  // namespace qvrecon
