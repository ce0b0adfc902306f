#include "depth_inputs.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "output_files.h"

namespace qvrecon {

namespace fs = std::filesystem;

namespace {

// Names made unique within the batch (x, x-2, x-3... in the order given): a new name
// never takes another input's own name.
std::vector<std::string> UniqueStems(const std::vector<std::string>& names)
{
    std::map<std::string, int> count;
    for (const std::string& n : names)
        ++count[n];
    std::set<std::string> taken;
    std::vector<std::string> stems;
    for (const std::string& stem : names) {
        std::string name = stem;
        for (int k = 2; taken.count(name) || (name != stem && count.count(name)); ++k)
            name = stem + "-" + std::to_string(k);
        taken.insert(name);
        stems.push_back(name);
    }
    return stems;
}

std::string FrameNumber(uint64_t k)
{
    char text[32];
    std::snprintf(text, sizeof text, "%06llu", static_cast<unsigned long long>(k));
    return text;
}

}  // namespace

bool IsRecording(const std::string& path)
{
    static const uint8_t kMagic[8] = {0x89, 'M', 'C', 'A', 'P', '0', '\r', '\n'};
    if (RegularFileSize(path) < sizeof kMagic)
        return false;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    uint8_t head[8] = {};
    const bool whole = std::fread(head, 1, sizeof head, f) == sizeof head;
    std::fclose(f);
    return whole && std::memcmp(head, kMagic, sizeof head) == 0;
}

DepthInputs ExpandInputs(const std::vector<std::string>& paths, const FrameSelection& sel,
                         const std::string& stream)
{
    DepthInputs in;
    std::vector<std::string> names;
    for (const std::string& path : paths) {
        if (!IsRecording(path)) {
            const uint64_t bytes = RegularFileSize(path);
            DepthInput c;
            c.path = c.name = path;
            if (stream == "auto") {
                const std::optional<StreamKind> found = StreamForBytes(bytes);
                if (!found)
                    throw ToolError(path + ": " + std::to_string(bytes) + " bytes fit no stream (" + StreamSizes() +
                                    ")");
                c.kind = *found;
            } else {
                c.kind = ParseStream(stream);
                if (bytes != 2 * Info(c.kind).words)
                    throw ToolError(path + ": " + std::to_string(bytes) + " bytes, a " + stream + " capture has " +
                                    std::to_string(2 * Info(c.kind).words));
            }
            in.captures.push_back(c);
            names.push_back(OutputStem(path));
            continue;
        }
        auto reader = std::make_unique<qvapi::RecordingReader>();
        const qvapi::RecordingStatus opened = reader->Open(path);
        if (!opened.ok())
            throw ToolError(opened.message);
        const uint64_t frames = reader->FrameCount();
        if (frames == 0 || sel.start >= frames)
            throw ToolError(path + ": " + std::to_string(frames) + " frames, none from --start " +
                            std::to_string(sel.start));
        const uint64_t end = sel.end ? std::min(*sel.end, frames - 1) : frames - 1;
        if (end < sel.start)
            throw ToolError("--end " + std::to_string(end) + " comes before --start " + std::to_string(sel.start));
        // Each frame read once now: its stream, and that it can be read at all.
        qvapi::RecordedFrame f;
        for (uint64_t k = sel.start; k <= end; k += sel.every) {
            const qvapi::RecordingStatus st = reader->ReadFrame(k, f);
            if (!st.ok())
                throw ToolError(st.message);
            DepthInput c;
            c.path = path;
            c.recording = in.recordings.size();
            c.frame = k;
            c.name = fs::path(path).filename().string() + " frame " + std::to_string(k);
            const std::optional<StreamKind> kind = StreamOf(f.stream, f.width, f.height);
            if (!kind || f.words.size() != Info(*kind).words)
                throw ToolError(path + ": frame " + std::to_string(k) + " is a " + std::to_string(f.width) + "x" +
                                std::to_string(f.height) + " capture of no stream the tool knows");
            c.kind = *kind;
            in.captures.push_back(c);
            names.push_back(OutputStem(path) + "_" + FrameNumber(k));
            if (end - k < sel.every)
                break;  // k + every would pass the end (or wrap)
        }
        in.recordings.push_back(std::move(reader));
        in.recordingPaths.push_back(path);
    }
    const std::vector<std::string> stems = UniqueStems(names);
    for (size_t n = 0; n < stems.size(); ++n)
        in.captures[n].stem = stems[n];
    return in;
}

qvapi::RecordedFrame ReadCapture(DepthInputs& inputs, size_t n)
{
    const DepthInput& c = inputs.captures[n];
    const StreamInfo& s = Info(c.kind);
    qvapi::RecordedFrame f;
    if (c.recording != kNoRecording) {
        const qvapi::RecordingStatus st = inputs.recordings[c.recording]->ReadFrame(c.frame, f);
        if (!st.ok())
            throw ToolError(st.message);
        if (StreamOf(f.stream, f.width, f.height) != c.kind || f.words.size() != s.words)
            throw ToolError(c.name + ": changed while reading");
        return f;
    }
    const std::vector<uint8_t> bytes = ReadFile(c.path, 2 * s.words);
    if (bytes.size() != 2 * s.words)
        throw ToolError(c.path + ": changed size while reading");
    f.stream = s.type;
    f.width = s.width;
    f.height = s.height;
    f.words.resize(s.words);
    std::memcpy(f.words.data(), bytes.data(), bytes.size());
    return f;
}

}  // namespace qvrecon
