// Recordings: a session of raw captures, colour frames and their per-frame
// information, bound to the calibration it was taken with, in one MCAP file (the
// container of ROS 2 and Foxglove, with ROS 2's profile: CDR messages and "ros2msg"
// schemas embedded in the file). This is libqvreconstruction_recording (CMake:
// qvreconstruction::recording; pkg-config: qvreconstruction-recording).
//
//   qvapi::RecordingWriter w;
//   if (!w.Open("session.mcap", setup, {}).ok()) ...;
//   w.WriteCapture(capture);  w.WriteColour(time, nv12, 1920, 1080);  ...;  w.Close();
//
//   qvapi::RecordingReader r;
//   r.Open("session.mcap");
//   qvapi::RecordedFrame f;
//   while (r.Next(f).ok()) recon->CalculateDepth(f.words.data(), &depth, f.width, f.height);
//
// No call throws: every one returns a RecordingStatus whose message names the file,
// the record and, for a damaged chunk, the chunk and its offset.
#ifndef QVRECONSTRUCTION_RECORDING_H
#define QVRECONSTRUCTION_RECORDING_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <qvreconstruction/reconstruction.h>

#if defined(__GNUC__)
#define QV_RECORDING_API __attribute__((visibility("default")))
#else
#define QV_RECORDING_API
#endif

namespace qvapi {

enum RecordingCode : int32_t {
    RECORDING_OK = 0,
    RECORDING_END = 1,                // no frame further in that direction
    RECORDING_IO_ERROR = -1,          // open, read or write refused (a full disk, say)
    RECORDING_NOT_MCAP = -2,          // wrong magic
    RECORDING_TRUNCATED = -3,         // a record runs past its file or its record
    RECORDING_BAD_RECORD = -4,        // an impossible field, records out of order
    RECORDING_BAD_CRC = -5,           // damaged bytes
    RECORDING_UNSUPPORTED = -6,       // unknown compression
    RECORDING_INVALID_ARGUMENT = -7,  // a bad call (not open, sizes that do not match)
};

struct RecordingStatus {
    int32_t code = RECORDING_OK;
    std::string message;
    bool ok() const { return code == RECORDING_OK; }
};

enum class RecordingCompression : int32_t { None, Lz4, Zstd };

struct RecordingOptions {
    RecordingCompression compression = RecordingCompression::Lz4;
    int level = 0;                     // LZ4: 0 fast .. 12; Zstandard: 1 .. 19
    uint64_t chunkBytes = 4u << 20;    // a chunk is written once it holds this much
    bool overwrite = false;            // replace an existing file instead of refusing
};

// What a recording is bound to.
struct RecordingSetup {
    DeviceType device = DEVICE_GENERIC;
    StreamType stream = STREAM_DUAL_FREQ;
    std::string moduleLabel;
    std::string calibrationYaml;   // the calibration file's text (calibration_file.h)
    std::string algorithmVersion;  // GetAlgorithmVersion's text; empty: asked of the library
};

// One capture exactly as CalculateDepth takes it, and what is known about it.
struct CaptureFrame {
    StreamType stream = STREAM_DUAL_FREQ;
    int32_t width = 0, height = 0;
    const uint16_t* words = nullptr;
    uint64_t wordCount = 0;          // 4 * W * H (single frequency) or 16 * W * H (dual)
    uint64_t timeNs = 0;             // capture time, nanoseconds since the epoch
    uint64_t sequence = 0;
    uint16_t temperatureCode = 0;
    float temperatureC = 0.0f;
    uint32_t framesDropped = 0;      // captures lost just before this one
};

// Processed images a recording may carry besides the captures.
enum class ProcessedImage : int32_t {
    Depth,              // 16UC1, mm
    Ir,                 // mono16
    RegisteredDepth,    // 16UC1, on the colour camera's pixels
};

// The cameras whose lenses a recording describes.
enum class RecordedCamera : int32_t {
    Depth,   // the images of /qv/depth, /qv/ir and the points
    Colour,  // the colour frames, and the registered depth and undistorted colour
};

class QV_RECORDING_API RecordingWriter {
public:
    RecordingWriter();
    ~RecordingWriter();  // leaves a file cut short (readable by a scan) unless closed
    RecordingWriter(const RecordingWriter&) = delete;
    RecordingWriter& operator=(const RecordingWriter&) = delete;

    // Creates the file (refusing an existing one unless options.overwrite) and writes
    // the channels, the calibration attachment and the metadata.
    RecordingStatus Open(const std::string& path, const RecordingSetup& setup, const RecordingOptions& options);
    // A capture and its information, kept in one chunk.
    RecordingStatus WriteCapture(const CaptureFrame& capture);
    RecordingStatus WriteColour(uint64_t timeNs, const uint8_t* nv12, int32_t width, int32_t height);
    RecordingStatus WriteImage(ProcessedImage kind, uint64_t timeNs, const uint16_t* pixels, int32_t width,
                               int32_t height);
    RecordingStatus WritePoints(uint64_t timeNs, const float* xyz, int32_t width, int32_t height);
    RecordingStatus WriteUndistortedColour(uint64_t timeNs, const uint8_t* bgr, int32_t width, int32_t height);
    // A camera's lens as sensor_msgs/CameraInfo (plumb-bob distortion k1, k2, p1, p2,
    // k3; the projection is the camera matrix) on /qv/depth/camera_info or
    // /qv/colour/camera_info, for the images of that camera written at the same time.
    RecordingStatus WriteCameraInfo(RecordedCamera camera, uint64_t timeNs, const Intrinsics& lens);
    // Writes the last chunk and the summary.
    RecordingStatus Close();
    // Bytes written to the file, and the messages' bytes before compression.
    uint64_t FileBytes() const;
    uint64_t MessageBytes() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

struct RecordedFrame {
    uint64_t index = 0;  // from 0, in capture order
    StreamType stream = STREAM_DUAL_FREQ;
    int32_t width = 0, height = 0;
    std::vector<uint16_t> words;
    uint64_t timeNs = 0;
    // The information written with the capture.
    uint64_t sequence = 0;
    uint16_t temperatureCode = 0;
    float temperatureC = 0.0f;
    uint32_t framesDropped = 0;
    // The colour frame nearest in time (none when the recording has none nearby).
    bool hasColour = false;
    uint64_t colourTimeNs = 0;
    int32_t colourWidth = 0, colourHeight = 0;
    std::vector<uint8_t> nv12;
};

struct RecordingChannel {
    uint16_t id = 0;
    std::string topic;
    std::string schemaName;
    uint64_t messages = 0;
};

// How a recording's chunks are stored.
struct RecordingStorage {
    std::string compression;   // "none", "lz4" or "zstd"; several joined by '+'
    uint64_t chunks = 0;
    uint64_t storedBytes = 0;  // the chunks' records as stored in the file
    uint64_t recordBytes = 0;  // the same records uncompressed
    uint64_t fileBytes = 0;
};

class QV_RECORDING_API RecordingReader {
public:
    RecordingReader();
    ~RecordingReader();
    RecordingReader(const RecordingReader&) = delete;
    RecordingReader& operator=(const RecordingReader&) = delete;

    // Reads the summary, or, for a file cut short, scans it once (IndexRebuilt()).
    RecordingStatus Open(const std::string& path);
    bool IndexRebuilt() const;
    // What was wrong with the file but left the rest readable (damaged chunks, a
    // missing summary), one line each.
    std::vector<std::string> Problems() const;

    const std::string& CalibrationYaml() const;
    DeviceType Device() const;
    StreamType Stream() const;
    const std::string& ModuleLabel() const;
    const std::map<std::string, std::string>& Metadata() const;
    std::vector<RecordingChannel> Channels() const;
    uint64_t FrameCount() const;
    uint64_t FirstTimeNs() const;
    uint64_t LastTimeNs() const;
    // The chunks of the index (for a scanned file: the complete ones).
    RecordingStorage Storage() const;

    // A cursor between frames: Next() reads the frame after it and moves past it,
    // Previous() moves back over a frame and reads it (so Next then Previous read the
    // same frame). RECORDING_END at either end.
    RecordingStatus Next(RecordedFrame& frame);
    RecordingStatus Previous(RecordedFrame& frame);
    // Puts the cursor before frame `index`, or before the first frame captured at or
    // after `timeNs`; through the indexes, without reading other chunks.
    RecordingStatus SeekFrame(uint64_t index);
    RecordingStatus SeekTime(uint64_t timeNs);
    // Reads one frame without moving the cursor.
    RecordingStatus ReadFrame(uint64_t index, RecordedFrame& frame);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qvapi

#endif
