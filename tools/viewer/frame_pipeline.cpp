#include "frame_pipeline.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <random>
#include <utility>

#include <opencv2/imgproc.hpp>

#include "encoding.h"
#include "output_files.h"

namespace qvrecon::viewer {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

double Ms(Clock::time_point since) { return std::chrono::duration<double, std::milli>(Clock::now() - since).count(); }

// A smoothed figure: the first value as it is, later ones weighed in by a tenth.
void Smooth(double& figure, double value) { figure = figure == 0 ? value : 0.9 * figure + 0.1 * value; }

// An event's rate from the time since its last one, smoothed.
void Rate(double& fps, Clock::time_point& last, Clock::time_point now)
{
    if (last != Clock::time_point{}) {
        const double seconds = std::chrono::duration<double>(now - last).count();
        if (seconds > 0)
            Smooth(fps, 1.0 / seconds);
    }
    last = now;
}

uint64_t NowNs()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}

std::string RandomHex(size_t bytes)
{
    std::random_device rd;
    std::string out;
    for (size_t i = 0; i < bytes; ++i) {
        char two[3];
        std::snprintf(two, sizeof two, "%02x", static_cast<unsigned>(rd() & 0xff));
        out += two;
    }
    return out;
}

}  // namespace

Pipeline::Pipeline(std::unique_ptr<Source> source, const PipelineOptions& options)
    : source_(std::move(source)), options_(options), settings_(InitialSettings(options.calibrationB.has_value()))
{
    lib_ = qvapi::Reconstruction::CreateInstance();
    uint8_t* bar = nullptr;
    int entries = 0;
    lib_->GetColorBar(&bar, entries);
    const std::unique_ptr<uint8_t[]> owned(bar);
    for (int i = 0; bar != nullptr && i < entries; ++i)
        colourBar_.push_back({bar[3 * i], bar[3 * i + 1], bar[3 * i + 2]});
}

Pipeline::~Pipeline()
{
    Stop();
    Record({{"action", "stop"}});
}

void Pipeline::Start(std::function<void(std::shared_ptr<const EncodedFrame>)> sink, std::function<void()> processed)
{
    sink_ = std::move(sink);
    processedSink_ = std::move(processed);
    encoder_ = std::thread([this] { RunEncoder(); });
    thread_ = std::thread([this] { Run(); });
}

void Pipeline::Stop()
{
    {
        std::lock_guard<std::mutex> lock(m_);
        stop_ = true;
    }
    cv_.notify_all();
    mailCv_.notify_all();
    if (thread_.joinable())
        thread_.join();
    if (encoder_.joinable())
        encoder_.join();
}

Settings Pipeline::CurrentSettings() const
{
    std::lock_guard<std::mutex> lock(m_);
    return settings_;
}

std::string Pipeline::UpdateSettings(const Json& update, Done done)
{
    std::unique_lock<std::mutex> lock(m_);
    if (std::string error = ApplySettings(update, settings_, options_.calibrationB.has_value()); !error.empty())
        return error;
    ++settingsVersion_;
    if (latest_ == nullptr) {
        lock.unlock();
        done();
        return "";
    }
    refresh_ = true;
    waiting_.emplace(++tickets_, std::move(done));
    lock.unlock();
    cv_.notify_all();
    return "";
}

uint64_t Pipeline::WrapIndex(int64_t index) const
{
    const int64_t n = static_cast<int64_t>(std::max<uint64_t>(source_->Available(), 1));
    return static_cast<uint64_t>(((index % n) + n) % n);
}

std::string Pipeline::Playback(const Json& request, Done done)
{
    if (!request.is_object())
        return "playback takes a JSON object";
    for (const auto& [key, value] : request.items())
        if (key != "action" && key != "frame" && key != "delta" && key != "speed")
            return "unknown key '" + key + "' (action, frame, delta, speed)";
    std::string action;
    if (request.contains("action")) {
        if (!request["action"].is_string())
            return "action takes \"play\", \"pause\", \"step\" or \"seek\"";
        action = request["action"].get<std::string>();
        if (action != "play" && action != "pause" && action != "step" && action != "seek")
            return "unknown action '" + action + "' (play, pause, step, seek)";
    } else if (!request.contains("speed")) {
        return "playback needs an action (play, pause, step, seek) or a speed";
    }
    std::optional<double> speed;
    if (request.contains("speed")) {
        const Json& s = request["speed"];
        if (!s.is_number() || !(s.get<double>() >= 0.25 && s.get<double>() <= 4.0))
            return "speed takes a number from 0.25 to 4";
        speed = s.get<double>();
    }
    if (request.contains("frame") && action != "seek")
        return "frame goes with the seek action";
    if (request.contains("delta") && action != "step")
        return "delta goes with the step action";
    int delta = 1;
    if (action == "step" && request.contains("delta")) {
        const Json& d = request["delta"];
        if (!d.is_number_integer() || (d.get<int64_t>() != 1 && d.get<int64_t>() != -1))
            return "delta takes 1 or -1";
        delta = static_cast<int>(d.get<int64_t>());
    }
    uint64_t frame = 0;
    if (action == "seek") {
        if (source_->Live())
            return "a live source cannot be sought";
        const std::optional<uint64_t> frames = source_->Frames();
        if (!request.contains("frame") || !request["frame"].is_number_integer())
            return "seek takes a frame number";
        const Json& f = request["frame"];
        if (f.is_number_unsigned() ? false : f.get<int64_t>() < 0)
            return "frame numbers start at 0";
        frame = f.get<uint64_t>();
        if (!frames || frame >= *frames)
            return "frame " + std::to_string(frame) + " is past the last (" +
                   std::to_string(frames.value_or(1) - 1) + ")";
    }

    std::unique_lock<std::mutex> lock(m_);
    if (speed)
        speed_ = *speed;
    if (action == "play") {
        playing_ = true;
    } else if (action == "pause") {
        // Answered once a frame being processed is done: nothing moves after the answer.
        playing_ = false;
        waiting_.emplace(++tickets_, std::move(done));
        lock.unlock();
        cv_.notify_all();
        return "";
    } else if (action == "step" || action == "seek") {
        playing_ = false;
        if (action == "seek") {
            seek_ = frame;
            step_ = 0;
        } else {
            step_ += delta;
        }
        waiting_.emplace(++tickets_, std::move(done));
        lock.unlock();
        cv_.notify_all();
        return "";
    }
    lock.unlock();
    cv_.notify_all();
    done();
    return "";
}

std::string Pipeline::Record(const Json& request)
{
    if (!request.is_object() || request.size() != 1 || !request.contains("action") || !request["action"].is_string())
        return "record takes {\"action\": \"start\"} or {\"action\": \"stop\"}";
    const std::string action = request["action"].get<std::string>();
    std::lock_guard<std::mutex> lock(recordMutex_);
    if (action == "start") {
        if (writer_)
            return "";  // already recording
        // viewer-YYYYMMDD-HHMMSS.mcap, written as a hidden exclusive temporary beside it.
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "viewer-%Y%m%d-%H%M%S", &local);
        EnsureFolder(options_.recordDir);
        auto writer = std::make_unique<qvapi::RecordingWriter>();
        qvapi::RecordingSetup setup;
        setup.device = source_->Device();
        {
            std::lock_guard<std::mutex> state(m_);
            setup.stream = Info(configured_.value_or(StreamKind::Dual)).type;
        }
        try {
            setup.calibrationYaml = qvapi::CalibrationText(source_->Calibration(), false);
        } catch (const std::exception& e) {
            return std::string("cannot record the calibration: ") + e.what();
        }
        const std::string temp = (std::filesystem::path(options_.recordDir) / ("." + std::string(stamp) + ".mcap.tmp-" + RandomHex(8))).string();
        const qvapi::RecordingStatus st = writer->Open(temp, setup, {});
        if (!st.ok()) {
            unlink(temp.c_str());
            return "cannot record: " + st.message;
        }
        writer_ = std::move(writer);
        recordTemp_ = temp;
        recordPath_ = (std::filesystem::path(options_.recordDir) / (std::string(stamp) + ".mcap")).string();
        recordFrames_ = 0;
        recordLastTime_ = 0;
        return "";
    }
    if (action == "stop") {
        if (!writer_)
            return "";
        const qvapi::RecordingStatus st = writer_->Close();
        writer_.reset();
        if (!st.ok()) {
            unlink(recordTemp_.c_str());
            return "the recording failed: " + st.message;
        }
        // The finished file takes the first free name: never replacing another.
        const std::string base = recordPath_.substr(0, recordPath_.size() - 5);
        for (int k = 1; k < 1000; ++k) {
            const std::string name = k == 1 ? recordPath_ : base + "-" + std::to_string(k) + ".mcap";
            if (renameat2(AT_FDCWD, recordTemp_.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) {
                recordPath_ = name;
                return "";
            }
            if (errno != EEXIST)
                break;
        }
        const std::string reason = std::strerror(errno);
        unlink(recordTemp_.c_str());
        return "cannot name the recording: " + reason;
    }
    return "unknown action '" + action + "' (start, stop)";
}

Json Pipeline::RecordingStatus() const
{
    std::lock_guard<std::mutex> lock(recordMutex_);
    return {{"active", writer_ != nullptr},
            {"path", recordPath_.empty() ? Json(nullptr) : Json(recordPath_)},
            {"frames", recordFrames_}};
}

void Pipeline::SetWants(uint64_t client, const ClientWants& wants)
{
    {
        std::lock_guard<std::mutex> lock(m_);
        clients_[client].wants = wants;
        refresh_ = refresh_ || (!playing_ && latest_ != nullptr);  // a paused picture is sent again
    }
    cv_.notify_all();
}

void Pipeline::SetTaking(uint64_t client, std::optional<int> credit, uint64_t offered, uint64_t holding)
{
    std::lock_guard<std::mutex> lock(m_);
    const auto it = clients_.find(client);
    if (it == clients_.end())
        return;
    Client& c = it->second;
    c.credit = credit;
    c.offered = std::max(c.offered, offered);
    c.holding = holding;
    if (holding != 0 && holding == handedCount_)
        c.missed = false;  // it holds the newest frame (encoded for another client)
    if (!c.Takes() || !c.missed || !handed_)
        return;
    c.missed = false;
    // The frame it missed is the one in the mailbox (it joins the clients it is for), or
    // one the encoder has taken or finished: encoded again, for this client alone.
    if (mail_.frame != handed_) {
        if (mail_.frame)
            ++notEncoded_;  // an older frame, for clients that take none now
        mail_.frame = handed_;
        mail_.handed = handedCount_;
        mail_.only = {client};
    } else if (!mail_.only.empty()) {
        mail_.only.insert(client);
    }
    mail_.full = true;
    mailCv_.notify_one();
}

bool Pipeline::NewerWhilePaused(uint64_t handed) const
{
    std::lock_guard<std::mutex> lock(m_);
    return !playing_ && handed < handedCount_;
}

uint64_t Pipeline::Skipped(uint64_t client) const
{
    std::lock_guard<std::mutex> lock(m_);
    const auto it = clients_.find(client);
    return it == clients_.end() ? 0 : it->second.skipped;
}

void Pipeline::ForgetClient(uint64_t client)
{
    std::lock_guard<std::mutex> lock(m_);
    clients_.erase(client);
}

std::shared_ptr<const ProcessedFrame> Pipeline::Latest() const
{
    std::lock_guard<std::mutex> lock(m_);
    return latest_;
}

std::shared_ptr<const std::vector<float>> Pipeline::Rays(int& width, int& height, int& calibrationId) const
{
    std::lock_guard<std::mutex> lock(m_);
    width = raysWidth_;
    height = raysHeight_;
    calibrationId = calibrationId_;
    return rays_;
}

Json Pipeline::Status() const
{
    const std::optional<uint64_t> frames = source_->Frames();
    std::lock_guard<std::mutex> lock(m_);
    Json frame = nullptr;
    if (latest_)
        frame = {{"index", latest_->index}, {"time_ns", latest_->timeNs}, {"temperature_c", latest_->temperatureC}};
    const StreamKind kind = latest_ ? latest_->kind : configured_.value_or(StreamKind::Dual);
    Json stages = Json::object();
    for (const char* s : {"depth", "ir", "register", "colour", "encode", "depth_b"}) {
        const auto it = stagesMs_.find(s);
        stages[s] = it == stagesMs_.end() ? 0.0 : it->second;
    }
    return {{"source",
             {{"kind", source_->Kind()},
              {"name", source_->Name()},
              {"frames", frames ? Json(*frames) : Json(nullptr)},
              {"available", source_->Available()},
              {"playing", playing_},
              {"speed", speed_}}},
            {"stream", Info(kind).name},
            {"width", Info(kind).width},
            {"height", Info(kind).height},
            {"frame", frame},
            {"rates", {{"sensor_fps", sensorFps_}, {"processed_fps", processedFps_}, {"encoded_fps", encodedFps_}}},
            {"stages_ms", stages},
            {"encoder", {{"encoded", encoded_}, {"not_encoded", notEncoded_}}},
            {"settings", ToJson(settings_)},
            {"settings_version", settingsVersion_},
            {"calibration_id", calibrationId_},
            {"calibration_b", options_.calibrationB.has_value()},
            {"error", !error_.empty() ? Json(error_) : !encodeError_.empty() ? Json(encodeError_) : Json(nullptr)}};
}

void Pipeline::Finish(uint64_t upToTicket)
{
    std::vector<Done> done;
    {
        std::lock_guard<std::mutex> lock(m_);
        while (!waiting_.empty() && waiting_.begin()->first <= upToTicket) {
            done.push_back(std::move(waiting_.begin()->second));
            waiting_.erase(waiting_.begin());
        }
    }
    for (Done& d : done)
        d();
}

void Pipeline::Run()
{
    pthread_setname_np(pthread_self(), "qv-pipeline");  // for top -H, perf and the benchmarks
    std::optional<uint64_t> current;
    Clock::time_point due = Clock::now(), lastShown{}, lastProcessed{};
    uint64_t lastTimeNs = 0;
    std::unique_lock<std::mutex> lock(m_);
    while (!stop_) {
        uint64_t target = 0;
        bool advance = true;
        if (seek_) {
            target = *seek_;
            seek_.reset();
        } else if (step_ != 0) {
            if (source_->Available() == 0) {
                step_ = 0;
                continue;
            }
            target = WrapIndex(static_cast<int64_t>(current.value_or(0)) + (current ? step_ : 0));
            step_ = 0;
        } else if (refresh_ && current) {
            target = *current;
            advance = false;
        } else if (playing_) {
            if (source_->Available() == 0 || Clock::now() < due) {
                cv_.wait_until(lock, source_->Available() == 0 ? Clock::now() + std::chrono::milliseconds(20) : due);
                continue;
            }
            target = current ? WrapIndex(static_cast<int64_t>(*current) + 1) : 0;
        } else {
            // Paused: what still waits (a pause, or a change with no frame to show it on)
            // is answered once the frames before it have gone to the clients.
            if (tickets_ > handedTicket_) {
                Hand(nullptr, tickets_);
                continue;
            }
            cv_.wait(lock);
            continue;
        }
        refresh_ = false;
        const uint64_t ticket = tickets_;
        const double speed = speed_;
        lock.unlock();

        const Clock::time_point started = Clock::now();
        uint64_t timeNs = 0;
        std::shared_ptr<const ProcessedFrame> processed;
        try {
            processed = Process(target, advance);
            timeNs = processed->timeNs;
        } catch (const std::exception& e) {
            std::lock_guard<std::mutex> state(m_);
            error_ = "frame " + std::to_string(target) + ": " + SingleLine(e.what());
        }

        lock.lock();
        Hand(std::move(processed), ticket);
        Rate(processedFps_, lastProcessed, Clock::now());
        if (advance) {
            const Clock::time_point now = Clock::now();
            Rate(sensorFps_, lastShown, now);
            // Recordings play at their own pace, others at --fps.
            double period = 1.0 / options_.fps;
            if (timeNs > lastTimeNs && lastTimeNs != 0 && current && target == *current + 1 &&
                timeNs - lastTimeNs <= 1000000000ull)
                period = static_cast<double>(timeNs - lastTimeNs) * 1e-9;
            lastTimeNs = timeNs;
            due = std::max(due + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(period / speed)),
                           started);
            current = target;
        }
    }
}

int Pipeline::HalvingsBefore(uint64_t index)
{
    constexpr size_t kHalvingsToZero = 3;  // a fresh threshold (5) is 0 after three
    const bool mixes = source_->MixesStreams();
    // Kinds of the frames before `index`, read once. A source of one stream needs them
    // only until its third binned frame.
    while (scan_.scanned < index && (mixes || scan_.binned.size() < kHalvingsToZero)) {
        const uint64_t i = scan_.scanned;
        const auto known = scan_.seen.find(i);
        const StreamKind kind = known != scan_.seen.end() ? known->second : source_->KindAt(i);
        if (known != scan_.seen.end())
            scan_.seen.erase(known);
        if (scan_.last && *scan_.last != Info(kind).type)
            scan_.streamChanges.push_back(i);
        scan_.last = Info(kind).type;
        if (kind == StreamKind::Binned)
            scan_.binned.push_back(i);
        ++scan_.scanned;
    }
    // Binned frames before `index` since the stream last changed, at most three.
    uint64_t start = 0;
    for (uint64_t c : scan_.streamChanges)
        if (c <= index)
            start = c;
    size_t count = 0;
    for (uint64_t b : scan_.binned)
        count += b >= start && b < index;
    return static_cast<int>(std::min(count, kHalvingsToZero));
}

void Pipeline::Prepare(const ModuleCalibration& calibration, uint64_t index, StreamKind kind)
{
    if (loaded_ != &calibration || loadedType_ != Info(kind).type) {
        loaded_ = nullptr;  // until Init has taken it
        lib_ = &Configure(calibration, source_->Device(), kind);
        loaded_ = &calibration;
        loadedType_ = Info(kind).type;
        halved_ = 0;
    }
    CatchUp(index, kind);
}

void Pipeline::CatchUp(uint64_t index, StreamKind kind)
{
    const int target = Info(kind).type == qvapi::STREAM_SINGLE_FREQ ? 0 : HalvingsBefore(index);
    if (halved_ > target) {
        const ModuleCalibration* calibration = loaded_;
        loaded_ = nullptr;
        lib_ = &Configure(*calibration, source_->Device(), kind);
        loaded_ = calibration;
        halved_ = 0;
    }
    if (halved_ < target) {
        // Binned frames of zeros: only their number counts.
        const StreamInfo& b = Info(StreamKind::Binned);
        const std::vector<uint16_t> zeros(b.words, 0);
        for (; halved_ < target; ++halved_) {
            uint16_t* skipped = nullptr;
            const int32_t st = lib_->CalculateDepth(zeros.data(), &skipped, b.width, b.height);
            delete[] skipped;
            if (st != qvapi::STATUS_OK)
                throw ToolError(StatusText(st));
        }
    }
}

std::shared_ptr<const ProcessedFrame> Pipeline::Process(uint64_t index, bool advance)
{
    SourceFrame f = source_->Get(index);
    if (f.index >= scan_.scanned && (source_->MixesStreams() || scan_.binned.size() < 3))
        scan_.seen[f.index] = f.kind;
    const StreamInfo& s = Info(f.kind);
    Settings settings;
    uint64_t version = 0;
    {
        std::lock_guard<std::mutex> lock(m_);
        settings = settings_;
        version = settingsVersion_;
    }
    // B: the same capture with B's filter and calibration, converted as the serial run
    // with B's settings converts it. A's results are kept when B fails. With two
    // calibrations, the side whose calibration the library holds goes first: one Init a
    // frame rather than two.
    cv::Mat depthB;
    std::string errorB;
    double msB = 0;
    const ModuleCalibration& calibrationB = settings.b.calibrationB ? *options_.calibrationB : source_->Calibration();
    const auto convertB = [&] {
        const Clock::time_point started = Clock::now();
        try {
            Prepare(calibrationB, f.index, f.kind);
            depthB = Convert(f, settings.b.filter, settings.flip);
        } catch (const std::exception& e) {
            errorB = "frame " + std::to_string(f.index) + ", B: " + SingleLine(e.what());
        }
        msB = Ms(started);
    };
    const bool bFirst = settings.ab && &calibrationB != &source_->Calibration() && loaded_ == &calibrationB;
    if (bFirst)
        convertB();

    // Binned and full frames share the full stream's Init, as in a live session.
    Clock::time_point t = Clock::now();
    Prepare(source_->Calibration(), f.index, f.kind);
    if (!configured_ || Info(*configured_).type != s.type || Info(*configured_).width != s.width) {
        // The rays of this size: the library's point of a depth of 1 mm at each pixel.
        const size_t n = static_cast<size_t>(s.width) * s.height;
        std::vector<uint16_t> ones(n, 1);
        std::vector<float> cloud(3 * n);
        const int32_t st = lib_->GetCloudPoint(ones.data(), cloud.data(), s.width, s.height);
        if (st != qvapi::STATUS_OK)
            throw ToolError("no rays: " + StatusText(st));
        auto rays = std::make_shared<std::vector<float>>(3 * n);
        for (size_t i = 0; i < n; ++i) {
            (*rays)[i] = cloud[3 * i];
            (*rays)[n + i] = cloud[3 * i + 1];
            (*rays)[2 * n + i] = cloud[3 * i + 2];
        }
        std::lock_guard<std::mutex> lock(m_);
        configured_ = f.kind;
        rays_ = std::move(rays);
        raysWidth_ = s.width;
        raysHeight_ = s.height;
        ++calibrationId_;
    }
    auto out = std::make_shared<ProcessedFrame>();
    out->index = f.index;
    out->timeNs = f.timeNs != 0 ? f.timeNs : NowNs();
    out->temperatureC = f.temperatureC;
    out->kind = f.kind;
    out->settings = settings;
    out->settingsVersion = version;
    {
        std::lock_guard<std::mutex> lock(m_);
        out->rays = rays_;
        out->calibrationId = calibrationId_;
    }
    std::map<std::string, double> stages;

    out->depth = Convert(f, settings.filter, settings.flip);
    stages["depth"] = Ms(t);

    t = Clock::now();
    std::vector<uint16_t> ir(static_cast<size_t>(s.width) * s.height);
    lib_->GetIR(f.words->data(), ir.data(), s.width, s.height);
    out->ir = IrPicture(ir, s.width, s.height);
    stages["ir"] = Ms(t);

    t = Clock::now();
    if (f.nv12 && s.width == 640 && s.height == 480) {
        std::vector<uint8_t> nv12 = *f.nv12;  // the library may write into the frame it is given
        const Registration r = Register(*lib_, out->depth, nv12);
        out->registered = r.depth;
        out->colour = r.colourBgr;
    }
    stages["register"] = Ms(t);

    t = Clock::now();
    lib_->SetCustomDistanceRange(settings.rangeMin, settings.rangeMax);
    uint8_t* rgb = nullptr;
    lib_->Convert2RGB(&rgb, reinterpret_cast<uint16_t*>(out->depth.data), s.width, s.height);
    const std::unique_ptr<uint8_t[]> ownedRgb(rgb);
    if (rgb == nullptr)
        throw ToolError("the library gave no false colour");
    cv::cvtColor(cv::Mat(s.height, s.width, CV_8UC3, rgb), out->falseColour, cv::COLOR_RGB2BGR);
    stages["colour"] = Ms(t);

    if (settings.ab) {
        if (!bFirst)
            convertB();
        out->depthB = depthB;
        stages["depth_b"] = msB;
    }

    {
        std::lock_guard<std::mutex> lock(recordMutex_);
        if (writer_ && advance) {  // a frame shown again (new settings) is not recorded twice
            qvapi::CaptureFrame c;
            c.stream = s.type;
            c.width = s.width;
            c.height = s.height;
            c.words = f.words->data();
            c.wordCount = f.words->size();
            c.timeNs = std::max(NowNs(), recordLastTime_ + 1);
            c.sequence = recordFrames_;
            c.temperatureC = f.temperatureC;
            c.temperatureCode = f.temperatureCode;
            recordLastTime_ = c.timeNs;
            qvapi::RecordingStatus rs = writer_->WriteCapture(c);
            if (rs.ok() && f.nv12)
                rs = writer_->WriteColour(c.timeNs, f.nv12->data(), 1920, 1080);
            if (rs.ok()) {
                ++recordFrames_;
            } else {
                std::lock_guard<std::mutex> state(m_);
                error_ = "recording stopped: " + rs.message;
                writer_.reset();
                unlink(recordTemp_.c_str());
            }
        }
    }

    std::lock_guard<std::mutex> lock(m_);
    for (const auto& [name, ms] : stages)
        Smooth(stagesMs_[name], ms);
    if (!settings.ab)
        stagesMs_.erase("depth_b");
    latest_ = out;
    error_ = errorB;
    return out;
}

cv::Mat Pipeline::Convert(const SourceFrame& f, bool filter, qvapi::FlipMode flip)
{
    const StreamInfo& s = Info(f.kind);
    lib_->OpenFilter(filter);
    lib_->SetFlipMode(flip);
    uint16_t* depth = nullptr;
    const int32_t st = lib_->CalculateDepth(f.words->data(), &depth, s.width, s.height);
    if (f.kind == StreamKind::Binned)
        halved_ = std::min(halved_ + 1, 3);
    const std::unique_ptr<uint16_t[]> owned(depth);
    if (st != qvapi::STATUS_OK)
        throw ToolError(StatusText(st));
    return cv::Mat(s.height, s.width, CV_16UC1, depth).clone();
}

void Pipeline::Hand(std::shared_ptr<const ProcessedFrame> frame, uint64_t ticket)
{
    // For the clients that take frames now; the others miss it (a client without
    // credit would only hold it until a newer one came).
    bool wanted = false;
    if (frame) {
        for (auto& [client, c] : clients_) {
            if (c.Takes()) {
                wanted = true;
                c.missed = false;
            } else {
                c.skipped += c.missed;
                c.missed = true;
            }
        }
        handed_ = frame;
        ++handedCount_;
        if (processedSink_)
            processedSink_();
    }
    if (frame && !wanted) {
        frame.reset();
        if (clients_.empty()) {
            // Nobody watches: nothing to encode, and the encoder's figures fall to 0.
            Smooth(stagesMs_["encode"], 0.0);
            Smooth(encodedFps_, 0.0);
        }
    }
    if (frame) {
        if (mail_.frame)
            ++notEncoded_;  // replaced before the encoder took it
        mail_.frame = std::move(frame);
        mail_.handed = handedCount_;
        mail_.only.clear();
    }
    mail_.ticket = std::max(mail_.ticket, ticket);
    mail_.full = true;
    handedTicket_ = std::max(handedTicket_, ticket);
    mailCv_.notify_one();
}

void Pipeline::RunEncoder()
{
    pthread_setname_np(pthread_self(), "qv-encoder");
    Clock::time_point lastEncoded{};
    std::unique_lock<std::mutex> lock(m_);
    for (;;) {
        mailCv_.wait(lock, [this] { return stop_ || mail_.full; });
        if (stop_)
            return;
        Mail mail = std::exchange(mail_, Mail{});
        // Encoded for the clients it is for that still take frames, as they want them now.
        // One whose credit ran out since it was handed misses it (and gets it when it
        // takes frames again, unless a newer one came).
        std::map<Layout, uint32_t> wanted;
        if (mail.frame) {
            for (auto& [client, c] : clients_) {
                if (c.missed || (!mail.only.empty() && mail.only.count(client) == 0))
                    continue;
                if (c.Takes()) {
                    wanted[c.wants.Sizes()] |= c.wants.blobs;
                    c.encodedFor = mail.handed;
                } else {
                    c.missed = true;
                }
            }
            if (wanted.empty()) {
                mail.frame.reset();
                ++notEncoded_;
            }
        }
        lock.unlock();
        if (mail.frame) {
            const Clock::time_point started = Clock::now();
            std::shared_ptr<const EncodedFrame> encoded;
            std::string error;
            try {
                encoded = Encode(*mail.frame, wanted, mail.only, mail.handed);
            } catch (const std::exception& e) {
                error = "encoding frame " + std::to_string(mail.frame->index) + ": " + SingleLine(e.what());
            }
            {
                // Counted before the clients can see it: no client's figures run ahead.
                std::lock_guard<std::mutex> state(m_);
                Smooth(stagesMs_["encode"], Ms(started));
                Rate(encodedFps_, lastEncoded, Clock::now());
                encoded_ += encoded != nullptr;
                encodeError_ = error;
                if (!encoded)
                    for (auto& [client, c] : clients_)  // nothing comes: they take frames again
                        c.offered = std::max(c.offered, mail.handed);
            }
            if (encoded && sink_)
                sink_(std::move(encoded));
        }
        // Requests are answered once their frame is on its way to the clients.
        Finish(mail.ticket);
        lock.lock();
    }
}

std::shared_ptr<const EncodedFrame> Pipeline::Encode(const ProcessedFrame& frame, const std::map<Layout, uint32_t>& wanted,
                                                     const std::set<uint64_t>& only, uint64_t handed)
{
    auto e = std::make_shared<EncodedFrame>();
    e->handed = handed;
    e->encodedAt = Clock::now();
    e->only = only;
    e->index = frame.index;
    e->timeNs = frame.timeNs;
    e->temperatureC = frame.temperatureC;
    e->stream = Info(frame.kind).name;
    e->width = frame.depth.cols;
    e->height = frame.depth.rows;
    e->calibrationId = frame.calibrationId;
    e->settingsVersion = frame.settingsVersion;
    e->rangeMin = frame.settings.rangeMin;
    e->rangeMax = frame.settings.rangeMax;
    const FrameImages images{frame.depth, frame.falseColour, frame.ir, frame.colour, frame.registered, frame.depthB};
    for (const auto& [layout, mask] : wanted)
        e->blobs[layout] = EncodeBlobs(images, layout, mask);
    return e;
}

}  // namespace qvrecon::viewer
