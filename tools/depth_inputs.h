// What `qvrecon depth` converts: capture files and the frames of recordings, in the
// order given, each with the name its outputs start with.
#ifndef QVRECON_DEPTH_INPUTS_H
#define QVRECON_DEPTH_INPUTS_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <qvreconstruction/recording.h>

#include "pipeline.h"

namespace qvrecon {

// The frames taken from each recording: start, start + every, ... up to end, frame
// numbers from 0 with both ends included (end: the last frame when not given).
struct FrameSelection {
    uint64_t start = 0;
    std::optional<uint64_t> end;
    uint64_t every = 1;
};

constexpr size_t kNoRecording = ~size_t{0};

struct DepthInput {
    std::string path;                  // the capture file or the recording
    size_t recording = kNoRecording;   // index into DepthInputs::recordings
    uint64_t frame = 0;                // the frame's number in its recording
    StreamKind kind = StreamKind::Dual;
    std::string name;                  // for messages: "x.raw", "rec.mcap frame 12"
    std::string stem;                  // the outputs' names start with it, unique in the batch
};

struct DepthInputs {
    std::vector<std::unique_ptr<qvapi::RecordingReader>> recordings;
    std::vector<std::string> recordingPaths;
    std::vector<DepthInput> captures;
};

// True for a regular file that starts with MCAP's magic.
bool IsRecording(const std::string& path);

// Every input checked (sizes, streams, recordings readable frame by frame) before
// anything is written. A capture file's outputs start with its name without the
// extension; a recording's frame's with the recording's name and the frame number in
// six digits or more (rec.mcap frame 12: rec_000012). A name given twice gets -2,
// -3... in the order given, never another input's own name. `stream` is that of the
// capture files: auto (by size), single, dual or binned.
DepthInputs ExpandInputs(const std::vector<std::string>& paths, const FrameSelection& selection,
                         const std::string& stream);

// Capture n: its words, and for a recording's frame what was recorded with it (time,
// information, the nearest colour frame).
qvapi::RecordedFrame ReadCapture(DepthInputs& inputs, size_t n);

}  // namespace qvrecon

#endif
