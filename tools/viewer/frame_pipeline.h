// The viewer's pipeline thread: picks the frame to show (playback), runs the library
// on it with the browser's settings, keeps the newest result for snapshots and writes
// recordings. Beside it an encoder thread encodes what the connected clients want, once
// per frame, from the newest frame processed, for the clients that take a frame then
// (under flow control: one per credit and one to wait for the next): a slow encoding
// makes clients get fewer frames, never the pipeline slower.
#ifndef QVRECON_VIEWER_FRAME_PIPELINE_H
#define QVRECON_VIEWER_FRAME_PIPELINE_H

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <qvreconstruction/recording.h>

#include "encoding.h"
#include "settings.h"
#include "sources.h"

namespace qvrecon::viewer {

// What one client wants on the stream.
struct ClientWants {
    int decimate = 1;
    uint32_t blobs = (1u << kBlobNames.size()) - 1;  // bit i: kBlobNames[i]
    int colourWidth = 0;  // how wide it draws the colour grid's pictures; 0: not said
    Layout Sizes() const { return {decimate, ColourScale(decimate, colourWidth)}; }
};

// One frame through the library: everything a snapshot needs.
struct ProcessedFrame {
    uint64_t index = 0, timeNs = 0;
    float temperatureC = 0.0f;
    StreamKind kind = StreamKind::Dual;
    Settings settings;
    uint64_t settingsVersion = 0;
    int calibrationId = 0;
    cv::Mat depth;        // CV_16UC1, mm
    cv::Mat ir;           // CV_8UC1
    cv::Mat falseColour;  // BGR, Convert2RGB's picture
    cv::Mat colour;       // BGR 1920 x 1080 undistorted, empty without a colour frame
    cv::Mat registered;   // CV_16UC1 on the colour grid, empty without a colour frame
    cv::Mat depthB;       // CV_16UC1, mm, with B's settings; empty with A/B off
    std::shared_ptr<const std::vector<float>> rays;  // rayX, rayY, rayZ per pixel
};

// A frame's blobs, encoded once for every client: per layout, the blobs wanted.
struct EncodedFrame {
    uint64_t handed = 0;         // the pipeline's count of frames handed to the encoder, at this one
    std::chrono::steady_clock::time_point encodedAt{};
    std::set<uint64_t> only;     // the clients it is for (one that missed it); empty: all
    uint64_t index = 0, timeNs = 0;
    float temperatureC = 0.0f;
    std::string stream;
    int width = 0, height = 0, calibrationId = 0;
    uint64_t settingsVersion = 0;
    int rangeMin = 0, rangeMax = 0;  // the false colour's range, mm
    std::map<Layout, std::vector<Blob>> blobs;
};

struct PipelineOptions {
    double fps = 30.0;
    std::string recordDir = ".";
    std::optional<ModuleCalibration> calibrationB;  // --calib-b, for A/B
};

class Pipeline {
public:
    Pipeline(std::unique_ptr<Source> source, const PipelineOptions& options);
    ~Pipeline();  // stops the thread and finishes a recording
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    // Every encoded frame is handed to `sink` on the encoder thread, and `processed` is
    // called on the pipeline thread for every frame processed, encoded or not (the links'
    // pace is judged at each); neither may block.
    void Start(std::function<void(std::shared_ptr<const EncodedFrame>)> sink, std::function<void()> processed = {});
    void Stop();

    // Called when a request's effect is visible: the frame it asked for processed and,
    // when clients want frames, that frame or a newer one handed to the sink. On the
    // encoder thread, or at once when there is nothing to process.
    using Done = std::function<void()>;

    // Settings: the current ones, or "" after applying an update (else the reason).
    Settings CurrentSettings() const;
    std::string UpdateSettings(const nlohmann::json& update, Done done);
    // Playback: "" when accepted, else the reason.
    std::string Playback(const nlohmann::json& request, Done done);
    // Recording: start or stop; "" when done, else the reason.
    std::string Record(const nlohmann::json& request);
    nlohmann::json RecordingStatus() const;

    // What clients want from now on (the union is encoded).
    void SetWants(uint64_t client, const ClientWants& wants);
    // What a client takes now, as its connection knows it: its credit (none: no flow
    // control), and the `handed` numbers of the newest frame offered to it and of the one
    // in its slot (0: none). Frames are encoded only for clients that take them: one a
    // credit, and one more to wait in the slot for the next credit (sent the moment it
    // comes), counting a frame being encoded for it. One that takes frames again gets the
    // newest frame it missed, encoded for it alone (a paused source sends no other),
    // unless it holds that frame.
    void SetTaking(uint64_t client, std::optional<int> credit, uint64_t offered, uint64_t holding);
    // Whether a newer frame than `handed` was processed since that one, with the source paused.
    bool NewerWhilePaused(uint64_t handed) const;
    // Frames a client missed for want of credit and then never got (a newer one came).
    uint64_t Skipped(uint64_t client) const;
    void ForgetClient(uint64_t client);

    std::shared_ptr<const ProcessedFrame> Latest() const;
    // The rays of the current depth size (rayX, rayY, rayZ per pixel), and its id.
    std::shared_ptr<const std::vector<float>> Rays(int& width, int& height, int& calibrationId) const;
    const std::vector<std::array<uint8_t, 3>>& ColourBar() const { return colourBar_; }
    // Status fields of the source, the frame, rates and stage times.
    nlohmann::json Status() const;

private:
    void Run();
    std::shared_ptr<const ProcessedFrame> Process(uint64_t index, bool advance);
    // Gives the encoder the frame just processed (null: none) and answers the requests up
    // to `ticket` after it. Called with m_ held; never waits.
    void Hand(std::shared_ptr<const ProcessedFrame> frame, uint64_t ticket);
    void RunEncoder();
    std::shared_ptr<const EncodedFrame> Encode(const ProcessedFrame& frame, const std::map<Layout, uint32_t>& wanted,
                                               const std::set<uint64_t>& only, uint64_t handed);
    void Finish(uint64_t upToTicket);
    uint64_t WrapIndex(int64_t index) const;
    // Frame f's depth with the library as prepared, the filter on or off.
    cv::Mat Convert(const SourceFrame& f, bool filter, qvapi::FlipMode flip);

    std::unique_ptr<Source> source_;
    PipelineOptions options_;
    std::function<void(std::shared_ptr<const EncodedFrame>)> sink_;
    std::function<void()> processedSink_;
    std::thread thread_, encoder_;

    mutable std::mutex m_;
    std::condition_variable cv_;
    bool stop_ = false;
    // Playback.
    bool playing_ = true;
    double speed_ = 1.0;
    std::optional<uint64_t> seek_;
    int step_ = 0;
    bool refresh_ = false;
    // Requests waiting for their frame: ticket -> done.
    uint64_t tickets_ = 0;
    std::multimap<uint64_t, Done> waiting_;
    Settings settings_;
    uint64_t settingsVersion_ = 1;
    struct Client {
        ClientWants wants;
        std::optional<int> credit;  // frames it takes; none: all
        uint64_t encodedFor = 0;    // the last frame encoded for it (`handed` number)
        uint64_t offered = 0;       // the last frame offered to it
        uint64_t holding = 0;       // the frame in its slot; 0: none
        bool missed = false;        // the last frame handed to the encoder was not encoded for it
        uint64_t skipped = 0;       // frames it missed that a newer one replaced
        // Frames coming (in the slot, being encoded) below its credit and one more.
        bool Takes() const { return !credit || (holding != 0) + (encodedFor > offered) < *credit + 1; }
    };
    std::map<uint64_t, Client> clients_;
    std::shared_ptr<const ProcessedFrame> handed_;  // the last frame handed to the encoder
    uint64_t handedCount_ = 0;                      // frames handed to the encoder so far
    // Results.
    std::shared_ptr<const ProcessedFrame> latest_;
    std::shared_ptr<const std::vector<float>> rays_;
    int raysWidth_ = 0, raysHeight_ = 0, calibrationId_ = 0;
    double sensorFps_ = 0, processedFps_ = 0, encodedFps_ = 0;
    std::map<std::string, double> stagesMs_;
    std::string error_;
    // The encoder's mailbox: one frame at most waits, the newest processed; a newer one
    // replaces it (counted in notEncoded_). Requests up to `ticket` are answered once
    // the frame waiting, or the one being encoded, has gone to the sink.
    struct Mail {
        std::shared_ptr<const ProcessedFrame> frame;
        std::set<uint64_t> only;            // the clients it is for; empty: every client
        uint64_t handed = 0;                // handedCount_ at this frame
        uint64_t ticket = 0;
        bool full = false;
    } mail_;
    std::condition_variable mailCv_;
    uint64_t handedTicket_ = 0;  // the last ticket given to the encoder
    uint64_t encoded_ = 0, notEncoded_ = 0;
    std::string encodeError_;
    // Recording (its own lock: opened and closed from the network thread).
    mutable std::mutex recordMutex_;
    std::unique_ptr<qvapi::RecordingWriter> writer_;
    std::string recordTemp_, recordPath_;
    uint64_t recordFrames_ = 0;
    uint64_t recordLastTime_ = 0;

    // Pipeline thread only. The library has one instance per process: A and B share it,
    // and it is initialised again whenever the calibration that converts next is not
    // the one it holds (with A/B on and two calibrations, twice a frame).
    qvapi::Reconstruction* lib_ = nullptr;
    std::optional<StreamKind> configured_;
    const ModuleCalibration* loaded_ = nullptr;  // the calibration lib_ was initialised with
    std::optional<qvapi::StreamType> loadedType_;
    // The library halves its amplitude threshold on every binned frame until the next
    // Init. Each frame is converted as `qvrecon depth` converts it in the serial run of
    // the source's frames, whatever was shown before (a seek, a step back, a frame shown
    // again with new settings): halved_ counts the binned frames converted since Init
    // (up to 3), and the scan below finds how many the serial run had met.
    int halved_ = 0;
    struct KindScan {
        uint64_t scanned = 0;                 // kinds known for frames below this
        std::vector<uint64_t> binned;         // binned frames among them
        std::vector<uint64_t> streamChanges;  // frames whose stream differs from the one before
        std::optional<qvapi::StreamType> last;
        std::map<uint64_t, StreamKind> seen;  // kinds of frames read, beyond `scanned`
    } scan_;
    int HalvingsBefore(uint64_t index);
    // Makes the library hold `calibration` for the stream of `kind`, with the threshold
    // the serial run has before frame `index`.
    void Prepare(const ModuleCalibration& calibration, uint64_t index, StreamKind kind);
    void CatchUp(uint64_t index, StreamKind kind);
    std::vector<std::array<uint8_t, 3>> colourBar_;
};

}  // namespace qvrecon::viewer

#endif
