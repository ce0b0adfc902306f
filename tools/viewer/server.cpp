#include "server.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bitset>
#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <random>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "api.h"
#include "output_files.h"

namespace qvrecon::viewer {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Json = nlohmann::json;

constexpr size_t kHeaderLimit = 8 * 1024;
constexpr size_t kBodyLimit = 64 * 1024;
constexpr size_t kMaxConnections = 64;
constexpr uint64_t kMaxAssetBytes = 64u << 20;
// The kernel's queue towards one WebSocket client: small, so that a slow link holds
// few old frames and the newest goes next.
constexpr int kStreamSendBuffer = 512 * 1024;
// Flow control: a client grants at most this many frames at once, and holds no more.
constexpr int kMaxCredit = 16;
// A frame that waited in a client's slot longer than this for credit is not sent when
// credit comes: the newest frame is encoded for it instead.
constexpr std::chrono::milliseconds kStaleAfter{250};

using Clock = std::chrono::steady_clock;

// Automatic decimation of one client: watches, at each new frame, whether the link is
// still writing the previous one, and moves to
// a coarser decimation when it falls behind, to a finer one when it has had headroom for
// a while. A move finer that soon fails doubles the wait before the next try, so that a
// link between two decimations settles on the coarser one instead of flapping.
class AutoDecimation {
public:
    // One frame from the pipeline. behind: the previous frame's write was still in
    // flight. Gives the decimation to use.
    int Observe(int decimate, bool behind, Clock::time_point now)
    {
        history_ = (history_ << 1) | (behind ? 1u : 0u);
        observed_ = std::min(observed_ + 1, 64);
        if (lastFrame_ != Clock::time_point{})
            Smooth(intervalS_, std::chrono::duration<double>(now - lastFrame_).count());
        lastFrame_ = now;
        const int at = Position(decimate);
        // Half of the last eight frames found the link behind: coarser.
        if (observed_ >= 8 && std::bitset<8>(history_).count() >= 4 && at + 1 < static_cast<int>(kDecimations.size())) {
            backoff_ = now - lastFiner_ < kProbe ? std::min(2 * backoff_, kMaxBackoff) : kMinBackoff;
            finerNotBefore_ = now + backoff_;
            return Moved(kDecimations[at + 1]);
        }
        // A second of frames (32) none of which found it behind, the wait since the last
        // fall passed, and a frame of the finer decimation (about four times the bytes)
        // carried in half the time between frames: finer.
        if (observed_ >= 32 && history_ == 0 && at > 0 && now >= finerNotBefore_ &&
            4 * writeS_ < 0.5 * intervalS_) {
            lastFiner_ = now;
            return Moved(kDecimations[at - 1]);
        }
        return decimate;
    }

    // A frame took this long to leave: from its write until the kernel had sent its last byte.
    void Wrote(double seconds) { Smooth(writeS_, seconds); }
    // A frame took longer than this to leave (the next was written before it had).
    void WroteAtLeast(double seconds)
    {
        if (seconds > writeS_)
            Smooth(writeS_, seconds);
    }

private:
    static constexpr Clock::duration kMinBackoff = std::chrono::seconds(4);
    static constexpr Clock::duration kMaxBackoff = std::chrono::seconds(64);
    static constexpr Clock::duration kProbe = std::chrono::seconds(10);  // a move finer failing within this doubles the wait

    static void Smooth(double& figure, double value) { figure = figure == 0 ? value : 0.875 * figure + 0.125 * value; }
    static int Position(int decimate)
    {
        int i = 0;
        while (i + 1 < static_cast<int>(kDecimations.size()) && kDecimations[i] != decimate)
            ++i;
        return i;
    }
    int Moved(int decimate)
    {
        history_ = 0;
        observed_ = 0;
        writeS_ = 0;
        return decimate;
    }

    uint32_t history_ = 0;  // bit i: the frame i frames ago found the link behind
    int observed_ = 0;      // frames observed at this decimation
    double intervalS_ = 0, writeS_ = 0;
    Clock::time_point lastFrame_{}, lastFiner_{}, finerNotBefore_{};
    Clock::duration backoff_ = kMinBackoff;
};

std::string NewToken()
{
    std::random_device rd;  // getrandom() on Linux
    std::string hex;
    for (int i = 0; i < 4; ++i) {
        char part[9];
        std::snprintf(part, sizeof part, "%08x", static_cast<unsigned>(rd()));
        hex += part;
    }
    return hex;
}

bool SameSecret(const std::string& a, const std::string& b)
{
    if (a.size() != b.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < a.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

// The value of `name` in a query (a=1&b=2), not decoded (tokens are hex).
std::optional<std::string> QueryValue(const std::string& query, const std::string& name)
{
    size_t start = 0;
    while (start <= query.size()) {
        const size_t end = std::min(query.find('&', start), query.size());
        const std::string pair = query.substr(start, end - start);
        if (pair.compare(0, name.size() + 1, name + "=") == 0)
            return pair.substr(name.size() + 1);
        start = end + 1;
    }
    return std::nullopt;
}

std::optional<std::string> CookieValue(const std::string& cookies, const std::string& name)
{
    size_t start = 0;
    while (start < cookies.size()) {
        size_t end = cookies.find(';', start);
        if (end == std::string::npos)
            end = cookies.size();
        std::string pair = cookies.substr(start, end - start);
        pair.erase(0, pair.find_first_not_of(' '));
        if (pair.compare(0, name.size() + 1, name + "=") == 0)
            return pair.substr(name.size() + 1);
        start = end + 1;
    }
    return std::nullopt;
}

// A request path to the file it names inside the asset folder, or nothing: encoded
// dots and slashes, "..", hidden names, backslashes and NULs are refused outright.
std::optional<std::string> AssetPath(const std::string& raw)
{
    std::string lower = raw;
    for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (raw.empty() || raw[0] != '/' || raw.find("..") != std::string::npos || lower.find("%2e") != std::string::npos ||
        lower.find("%2f") != std::string::npos || lower.find("%5c") != std::string::npos)
        return std::nullopt;
    std::string path;
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] != '%') {
            path += raw[i];
            continue;
        }
        if (i + 2 >= raw.size() || !std::isxdigit(static_cast<unsigned char>(raw[i + 1])) ||
            !std::isxdigit(static_cast<unsigned char>(raw[i + 2])))
            return std::nullopt;
        path += static_cast<char>(std::stoi(raw.substr(i + 1, 2), nullptr, 16));
        i += 2;
    }
    if (path.find('\0') != std::string::npos || path.find('\\') != std::string::npos ||
        path.find("/.") != std::string::npos)
        return std::nullopt;
    if (path.back() == '/')
        path += "index.html";
    return path;
}

// Reads a regular file below `root` without following any link on the way.
std::optional<std::string> ReadAsset(const std::string& root, const std::string& path)
{
    int dir = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return std::nullopt;
    std::vector<std::string> parts;
    for (size_t start = 1; start <= path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        if (end > start)
            parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    if (parts.empty()) {
        close(dir);
        return std::nullopt;
    }
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        const int next = openat(dir, parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        close(dir);
        if (next < 0)
            return std::nullopt;
        dir = next;
    }
    const int fd = openat(dir, parts.back().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    close(dir);
    if (fd < 0)
        return std::nullopt;
    struct stat st{};
    std::optional<std::string> out;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) <= kMaxAssetBytes) {
        std::string data(static_cast<size_t>(st.st_size), '\0');
        size_t got = 0;
        while (got < data.size()) {
            const ssize_t n = read(fd, data.data() + got, data.size() - got);
            if (n <= 0)
                break;
            got += static_cast<size_t>(n);
        }
        if (got == data.size())
            out = std::move(data);
    }
    close(fd);
    return out;
}

const char* ContentType(const std::string& path)
{
    static const std::map<std::string, const char*> types = {
        {".html", "text/html; charset=utf-8"}, {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"}, {".css", "text/css; charset=utf-8"},
        {".json", "application/json"}, {".png", "image/png"}, {".svg", "image/svg+xml"},
        {".ico", "image/x-icon"}, {".wasm", "application/wasm"}, {".map", "application/json"},
        {".txt", "text/plain; charset=utf-8"}, {".woff2", "font/woff2"}};
    const size_t dot = path.rfind('.');
    if (dot != std::string::npos)
        if (const auto it = types.find(path.substr(dot)); it != types.end())
            return it->second;
    return "application/octet-stream";
}

// "host:port" of an Origin header (scheme://host:port).
std::string OriginHost(const std::string& origin)
{
    const size_t scheme = origin.find("://");
    return scheme == std::string::npos ? origin : origin.substr(scheme + 3);
}

// Whether a Host header names this machine by an address or as localhost: without a
// token, a page of another site that a DNS trick points at us still cannot talk to us.
bool LiteralHost(const std::string& host)
{
    std::string name = host;
    if (!name.empty() && name[0] == '[')
        return name.find(']') != std::string::npos;
    name = name.substr(0, name.find(':'));
    if (name == "localhost")
        return true;
    boost::system::error_code ec;
    asio::ip::make_address_v4(name, ec);
    return !ec;
}

class WsSession;

}  // namespace

struct Server::Impl : std::enable_shared_from_this<Server::Impl> {
    Impl(asio::io_context& io, Pipeline& p, const ServerOptions& o)
        : io(io), pipeline(p), options(o), acceptor(io), timer(io)
    {
    }
    asio::io_context& io;
    Pipeline& pipeline;
    ServerOptions options;
    tcp::acceptor acceptor;
    asio::steady_timer timer;
    bool tokenNeeded = false;
    std::string token, url;
    size_t connections = 0;
    bool closed = false;
    // Network thread only.
    uint64_t nextClient = 1;
    std::map<uint64_t, std::weak_ptr<WsSession>> clients;
    uint64_t droppedByGone = 0;  // frames dropped for clients since gone

    void Accept();
    void Tick();
    void Deliver(const std::shared_ptr<const EncodedFrame>& frame);
    Json ClientsStatus(uint64_t& dropped) const;
    Json FullStatus() const;
    // Empty when the request may go on; else the response refusing it.
    std::optional<http::response<http::string_body>> Refuse(const http::request<http::string_body>& req,
                                                            bool& setCookie) const;
};

namespace {

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

Response Error(const Request& req, http::status status, const std::string& message)
{
    return ErrorReply(req, status, message);
}

// One client of the frame stream. It holds at most one frame waiting to be sent (the
// newest); a newer one replaces it, and the one replaced counts as dropped. A frame
// waits while the link writes the one before, or, once the client has sent a credit
// message, while it has no credit left.
class WsSession : public std::enable_shared_from_this<WsSession> {
public:
    WsSession(tcp::socket socket, std::shared_ptr<Server::Impl> server)
        : ws_(std::move(socket)), drain_(ws_.get_executor()), server_(std::move(server))
    {
    }
    ~WsSession()
    {
        if (id_ != 0) {
            server_->droppedByGone += Dropped();
            server_->clients.erase(id_);
            server_->pipeline.ForgetClient(id_);
        }
        --server_->connections;
    }

    void Run(Request req, std::optional<int> credit)
    {
        credit_ = credit;
        boost::system::error_code ec;
        beast::get_lowest_layer(ws_).socket().set_option(asio::socket_base::send_buffer_size(kStreamSendBuffer), ec);
        beast::get_lowest_layer(ws_).expires_never();
        websocket::stream_base::timeout timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
        timeouts.idle_timeout = std::chrono::seconds(30);
        timeouts.keep_alive_pings = true;  // a browser answers; a dead link is closed
        ws_.set_option(timeouts);
        ws_.read_message_max(kBodyLimit);
        ws_.async_accept(req, [self = shared_from_this()](beast::error_code e) { self->OnAccept(e); });
    }

    // A frame was processed (whether or not it is encoded for this client): in automatic
    // decimation, the client notes whether its link keeps up.
    void ObserveLink()
    {
        if (!open_ || !auto_)
            return;
        // Behind: the link still carries the previous frame (its write in flight, or bytes
        // of it in the kernel not yet sent). A client that withholds credit leaves the
        // link idle: then the page is slow, not the link.
        const bool behind = inFlight_ != nullptr || UnsentBytes() > 0;
        const int decimate = auto_->Observe(wants_.decimate, behind, Clock::now());
        if (decimate != wants_.decimate) {
            wants_.decimate = decimate;
            server_->pipeline.SetWants(id_, wants_);
        }
    }

    // A new frame from the pipeline: sent at once when the link is free and the client
    // has credit, else kept in the slot (replacing, and dropping, the one there).
    void Offer(const std::shared_ptr<const EncodedFrame>& frame)
    {
        if (!open_)
            return;
        offered_ = std::max(offered_, frame->handed);
        if (frame->blobs.find(wants_.Sizes()) == frame->blobs.end()) {
            Report();
            return;  // encoded before this client's options arrived
        }
        if (pending_)
            ++dropped_;
        pending_ = frame;
        Flush();
        Report();
    }

    void OfferStatus(std::string text)
    {
        if (!open_)
            return;
        if (writing_) {
            pendingStatus_ = std::move(text);
            return;
        }
        WriteText(std::move(text));
    }

    Json Figures() const
    {
        return {{"id", id_},
                {"sent", sent_},
                {"dropped", Dropped()},
                {"bytes", bytes_},
                {"pending", pending_ != nullptr},
                {"decimate", wants_.decimate},
                {"colour_scale", wants_.Sizes().colourScale},
                {"auto", auto_.has_value()},
                {"credit", credit_ ? Json(*credit_) : Json(nullptr)}};
    }
    // Frames replaced in the slot, and frames the pipeline did not encode for this client
    // while it had no credit and that a newer one replaced.
    uint64_t Dropped() const { return dropped_ + server_->pipeline.Skipped(id_); }

private:
    void OnAccept(beast::error_code ec)
    {
        if (ec)
            return;
        id_ = server_->nextClient++;
        server_->clients[id_] = weak_from_this();
        server_->pipeline.SetWants(id_, wants_);
        open_ = true;
        Report();
        OfferStatus(StatusText());
        Read();
    }

    // Tells the pipeline what this client takes now: frames are encoded only for clients
    // that take them (a frame it cannot take would wait in the slot, and be replaced).
    // It gets the newest frame it missed once it takes frames again.
    void Report()
    {
        if (id_ == 0)
            return;
        const uint64_t holding = pending_ ? pending_->handed : 0;
        if (credit_ == reported_.credit && offered_ == reported_.offered && holding == reported_.holding)
            return;
        reported_ = {credit_, offered_, holding};
        server_->pipeline.SetTaking(id_, credit_, offered_, holding);
    }

    // Bytes written to the socket that the kernel has not sent yet (the peer's window
    // or the congestion window is full); sent but unacknowledged bytes do not count.
    size_t UnsentBytes()
    {
        int n = 0;
        auto& socket = beast::get_lowest_layer(ws_).socket();
        return ioctl(socket.native_handle(), SIOCOUTQNSD, &n) == 0 && n > 0 ? static_cast<size_t>(n) : 0;
    }

    std::string StatusText() const
    {
        Json status = server_->FullStatus();
        status["type"] = "status";
        status["client"] = Figures();
        return status.dump(-1, ' ', false, Json::error_handler_t::replace);
    }

    void Read()
    {
        ws_.async_read(in_, [self = shared_from_this()](beast::error_code ec, size_t) { self->OnRead(ec); });
    }

    void OnRead(beast::error_code ec)
    {
        if (ec) {
            open_ = false;
            return;
        }
        const std::string text = beast::buffers_to_string(in_.data());
        in_.consume(in_.size());
        std::string error = Apply(text);
        if (!error.empty()) {
            Json e = {{"type", "error"}, {"error", error}};
            OfferStatus(e.dump(-1, ' ', false, Json::error_handler_t::replace));
        }
        Read();
    }

    // {"type": "options", ...} or {"type": "credit", "frames": N}; "" when applied.
    std::string Apply(const std::string& text)
    {
        const Json j = Json::parse(text, nullptr, false);
        if (j.is_discarded() || !j.is_object())
            return "a message is a JSON object";
        if (j.contains("type") && j["type"] == "options")
            return ApplyOptions(j);
        if (j.contains("type") && j["type"] == "credit")
            return ApplyCredit(j);
        return "unknown message type (options, credit)";
    }

    // {"type": "credit", "frames": 1..16}: the client takes that many more frames. The
    // first one turns flow control on: from then on a frame is sent only against credit.
    std::string ApplyCredit(const Json& j)
    {
        for (const auto& [key, value] : j.items())
            if (key != "type" && key != "frames")
                return "unknown key '" + key + "' in credit (frames)";
        if (!j.contains("frames") || !j["frames"].is_number_integer() || j["frames"] < 1 || j["frames"] > kMaxCredit)
            return "credit takes frames: 1 to " + std::to_string(kMaxCredit);
        credit_ = std::min(credit_.value_or(0) + j["frames"].get<int>(), kMaxCredit);
        // The frame in the slot goes out at once, unless it is stale: a newer one was
        // processed since it while paused (a step, a seek), or it waited long (the
        // client kept its credit a while). The newest frame is then encoded for it.
        if (pending_ && (Clock::now() - pending_->encodedAt > kStaleAfter ||
                         server_->pipeline.NewerWhilePaused(pending_->handed))) {
            pending_.reset();
            ++dropped_;
        }
        Report();
        Flush();
        return "";
    }

    // {"type": "options", "decimate": 1|2|4|"auto", "blobs": [names], "colour_width": pixels}
    std::string ApplyOptions(const Json& j)
    {
        ClientWants next = wants_;
        std::optional<bool> automatic;
        for (const auto& [key, value] : j.items()) {
            if (key == "type")
                continue;
            if (key == "decimate") {
                if (value == "auto") {
                    automatic = true;
                    continue;
                }
                if (!value.is_number_integer() || (value != 1 && value != 2 && value != 4))
                    return "decimate takes 1, 2, 4 or \"auto\"";
                next.decimate = value.get<int>();
                automatic = false;
            } else if (key == "blobs") {
                if (!value.is_array())
                    return "blobs takes a list of names";
                next.blobs = 0;
                for (const Json& name : value) {
                    size_t b = 0;
                    while (b < kBlobNames.size() && !(name.is_string() && name == kBlobNames[b]))
                        ++b;
                    if (b == kBlobNames.size())
                        return "unknown blob (depth, false_colour, ir, colour, registered, depth_b)";
                    next.blobs |= 1u << b;
                }
            } else if (key == "colour_width") {
                if (!value.is_number_integer() || value < 0 || value > 65535)
                    return "colour_width takes whole pixels, 0 to 65535";
                next.colourWidth = value.get<int>();
            } else {
                return "unknown option '" + key + "' (decimate, blobs, colour_width)";
            }
        }
        wants_ = next;
        if (automatic && !*automatic)
            auto_.reset();
        else if (automatic && !auto_)
            auto_.emplace();  // from the decimation in use
        server_->pipeline.SetWants(id_, wants_);
        return "";
    }

    // Writes what waits when the link is free: a status first, then the frame in the
    // slot if the client has credit for it.
    void Flush()
    {
        if (!open_ || writing_)
            return;
        if (pendingStatus_) {
            std::string text = std::move(*pendingStatus_);
            pendingStatus_.reset();
            WriteText(std::move(text));
            return;
        }
        if (!pending_ || (credit_ && *credit_ == 0))
            return;
        std::shared_ptr<const EncodedFrame> next = std::move(pending_);
        pending_.reset();
        if (next->blobs.find(wants_.Sizes()) == next->blobs.end()) {
            ++dropped_;  // encoded for the layout this client used before
            Report();
            return;
        }
        WriteFrame(next);
    }

    void WriteFrame(const std::shared_ptr<const EncodedFrame>& frame)
    {
        const std::vector<Blob>& all = frame->blobs.at(wants_.Sizes());
        Json blobs = Json::array();
        std::vector<asio::const_buffer> buffers(1);
        uint64_t offset = 0;
        for (size_t b = 0; b < kBlobNames.size(); ++b) {
            if (!(wants_.blobs & (1u << b)))
                continue;
            for (const Blob& blob : all)
                if (blob.name == kBlobNames[b]) {
                    blobs.push_back({{"name", blob.name}, {"encoding", blob.encoding}, {"width", blob.width},
                                     {"height", blob.height}, {"offset", offset}, {"length", blob.bytes.size()}});
                    buffers.emplace_back(blob.bytes.data(), blob.bytes.size());
                    offset += blob.bytes.size();
                }
        }
        const Json header = {{"index", frame->index},
                             {"time_ns", frame->timeNs},
                             {"stream", frame->stream},
                             {"width", frame->width},
                             {"height", frame->height},
                             {"temperature_c", frame->temperatureC},
                             {"calibration_id", frame->calibrationId},
                             {"settings_version", frame->settingsVersion},
                             {"range", {frame->rangeMin, frame->rangeMax}},
                             {"blobs", blobs}};
        const std::string json = header.dump();
        const uint32_t n = static_cast<uint32_t>(json.size());
        head_ = "QVF1";
        for (int i = 0; i < 4; ++i)
            head_ += static_cast<char>((n >> (8 * i)) & 0xff);
        head_ += json;
        buffers[0] = asio::buffer(head_);
        inFlight_ = frame;
        writing_ = true;
        if (draining_) {
            // The previous frame is still in the kernel's queue: how long it takes to
            // leave is not known, only that it is longer than it took so far.
            draining_ = false;
            drain_.cancel();
            if (auto_)
                auto_->WroteAtLeast(std::chrono::duration<double>(Clock::now() - writeStart_).count());
        }
        writeStart_ = Clock::now();
        if (credit_)
            --*credit_;
        Report();
        ws_.binary(true);
        ws_.async_write(buffers, [self = shared_from_this()](beast::error_code ec, size_t bytes) {
            self->OnWrite(ec, bytes, true);
        });
    }

    void WriteText(std::string text)
    {
        text_ = std::move(text);
        writing_ = true;
        ws_.text(true);
        ws_.async_write(asio::buffer(text_), [self = shared_from_this()](beast::error_code ec, size_t bytes) {
            self->OnWrite(ec, bytes, false);
        });
    }

    void OnWrite(beast::error_code ec, size_t bytes, bool frame)
    {
        writing_ = false;
        inFlight_.reset();
        if (ec) {
            open_ = false;
            pending_.reset();
            return;
        }
        bytes_ += bytes;
        if (frame) {
            ++sent_;
            if (auto_) {
                draining_ = true;
                WatchDrain();
            }
        }
        Flush();
    }

    // The write of a frame completes when the kernel has taken its bytes, which a large
    // send buffer does at once; the link has carried the frame only when none of them is
    // left unsent. Polled, each time after an eighth of the time so far (1 to 10 ms).
    void WatchDrain()
    {
        if (!draining_)
            return;
        const Clock::duration elapsed = Clock::now() - writeStart_;
        if (!open_ || !auto_ || UnsentBytes() == 0) {
            draining_ = false;
            if (auto_)
                auto_->Wrote(std::chrono::duration<double>(elapsed).count());
            return;
        }
        drain_.expires_after(std::clamp<Clock::duration>(elapsed / 8, std::chrono::milliseconds(1),
                                                         std::chrono::milliseconds(10)));
        drain_.async_wait([self = shared_from_this()](beast::error_code ec) {
            if (!ec)
                self->WatchDrain();
        });
    }

    friend struct Server::Impl;
    websocket::stream<beast::tcp_stream> ws_;
    asio::steady_timer drain_;  // watches the kernel send the last frame written
    bool draining_ = false;
    std::shared_ptr<Server::Impl> server_;
    beast::flat_buffer in_;
    uint64_t id_ = 0;
    bool open_ = false, writing_ = false;
    ClientWants wants_;
    std::optional<int> credit_;          // frames the client still takes; none: no flow control
    uint64_t offered_ = 0;               // the newest frame offered (its `handed` number)
    struct Reported {
        std::optional<int> credit;
        uint64_t offered = 0, holding = 0;
    } reported_;  // what the pipeline was told (it starts with every frame taken)
    std::optional<AutoDecimation> auto_;  // set while the client asks for "auto"
    Clock::time_point writeStart_{};
    std::shared_ptr<const EncodedFrame> pending_, inFlight_;
    std::optional<std::string> pendingStatus_;
    std::string head_, text_;
    uint64_t sent_ = 0, dropped_ = 0, bytes_ = 0;
};

// One HTTP connection: requests one after another; an upgrade hands the connection
// to a WsSession.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    HttpSession(tcp::socket socket, std::shared_ptr<Server::Impl> server)
        : stream_(std::move(socket)), server_(std::move(server))
    {
    }
    ~HttpSession()
    {
        if (!handedOver_)
            --server_->connections;
    }
    void Run() { Read(); }

private:
    void Read()
    {
        parser_.emplace();
        parser_->header_limit(kHeaderLimit);
        parser_->body_limit(kBodyLimit);
        stream_.expires_after(std::chrono::seconds(30));
        http::async_read(stream_, buffer_, *parser_,
                         [self = shared_from_this()](beast::error_code ec, size_t) { self->OnRead(ec); });
    }

    void OnRead(beast::error_code ec)
    {
        if (ec == http::error::body_limit || ec == http::error::header_limit) {
            Request req;
            req.version(11);
            Send(Error(req, http::status::payload_too_large,
                       ec == http::error::body_limit ? "the body is larger than 64 KiB" : "the header is larger than 8 KiB"),
                 true);
            return;
        }
        if (ec) {
            if (ec != http::error::end_of_stream && ec != beast::error::timeout && ec != asio::error::operation_aborted &&
                ec != asio::error::connection_reset) {
                Request req;
                req.version(11);
                Send(Error(req, http::status::bad_request, "malformed request: " + ec.message()), true);
                return;
            }
            beast::error_code ignored;
            stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
            return;
        }
        Request req = parser_->release();
        bool setCookie = false;
        if (auto refused = server_->Refuse(req, setCookie)) {
            Send(std::move(*refused), true);
            return;
        }
        const std::string target(req.target());
        const std::string path = target.substr(0, target.find('?'));
        if (websocket::is_upgrade(req)) {
            if (path != "/api/stream") {
                Send(Error(req, http::status::not_found, "the stream is at /api/stream"), true);
                return;
            }
            // ?credit=N: under flow control from the start, so that no frame is sent
            // before the client's first credit message arrives (one it would pay for).
            std::optional<int> credit;
            const size_t mark = target.find('?');
            if (mark != std::string::npos) {
                if (const auto value = QueryValue(target.substr(mark + 1), "credit")) {
                    const bool digits = !value->empty() && value->size() <= 2 &&
                                        value->find_first_not_of("0123456789") == std::string::npos;
                    const int n = digits ? std::stoi(*value) : 0;
                    if (n < 1 || n > kMaxCredit) {
                        Send(Error(req, http::status::bad_request, "credit takes frames: 1 to " + std::to_string(kMaxCredit)), true);
                        return;
                    }
                    credit = n;
                }
            }
            handedOver_ = true;
            std::make_shared<WsSession>(stream_.release_socket(), server_)->Run(std::move(req), credit);
            return;
        }
        const bool keepAlive = req.keep_alive();
        auto self = shared_from_this();
        Respond respond = [self, keepAlive, setCookie](std::function<Response()> make) {
            // Answers may be ready on the encoder thread: they are made and written on the network thread.
            asio::post(self->stream_.get_executor(), [self, keepAlive, setCookie, make = std::move(make)] {
                Response res = make();
                res.keep_alive(keepAlive);
                if (setCookie)
                    res.set(http::field::set_cookie,
                            "qv_token=" + self->server_->token + "; HttpOnly; SameSite=Strict; Path=/");
                self->Send(std::move(res), !keepAlive);
            });
        };
        if (path.rfind("/api/", 0) == 0) {
            ApiContext api;
            api.pipeline = &server_->pipeline;
            api.readOnly = server_->options.readOnly;
            api.status = [server = server_] { return server->FullStatus(); };
            HandleApi(api, req, path, std::move(respond));
            return;
        }
        Response res = Static(req, target, path);
        respond([res = std::move(res)] { return res; });
    }

    Response Static(const Request& req, const std::string& target, const std::string& path)
    {
        if (req.method() != http::verb::get && req.method() != http::verb::head) {
            Response res = Error(req, http::status::method_not_allowed, "the page's files take GET or HEAD");
            res.set(http::field::allow, "GET, HEAD");
            return res;
        }
        // The token leaves the address bar once the cookie holds it.
        if (server_->tokenNeeded && target.find('?') != std::string::npos &&
            QueryValue(target.substr(target.find('?') + 1), "token")) {
            Response res{http::status::see_other, req.version()};
            res.set(http::field::location, path);
            res.prepare_payload();
            return res;
        }
        const std::optional<std::string> file = AssetPath(path);
        std::optional<std::string> body;
        if (file)
            body = ReadAsset(server_->options.assets, *file);
        if (!body)
            return Error(req, http::status::not_found, "no such file");
        Response res{http::status::ok, req.version()};
        res.set(http::field::content_type, ContentType(*file));
        res.set(http::field::cache_control, "no-cache");
        res.body() = std::move(*body);
        res.prepare_payload();
        if (req.method() == http::verb::head)
            res.body().clear();
        return res;
    }

    void Send(Response res, bool close)
    {
        res.set(http::field::server, "qvrecon");
        res.set("X-Content-Type-Options", "nosniff");
        res.set("Referrer-Policy", "no-referrer");
        if (close)
            res.keep_alive(false);
        auto message = std::make_shared<Response>(std::move(res));
        stream_.expires_after(std::chrono::seconds(30));
        http::async_write(stream_, *message, [self = shared_from_this(), message, close](beast::error_code ec, size_t) {
            if (ec || close || !message->keep_alive()) {
                beast::error_code ignored;
                self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
                return;
            }
            self->Read();
        });
    }

    beast::tcp_stream stream_;
    std::shared_ptr<Server::Impl> server_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    bool handedOver_ = false;
};

}  // namespace

std::optional<Response> Server::Impl::Refuse(const Request& req, bool& setCookie) const
{
    const std::string host(req[http::field::host]);
    if (!tokenNeeded && !LiteralHost(host))
        return Error(req, http::status::forbidden, "the viewer answers to its address or localhost only");
    // A page of another site may not drive the viewer through a visitor's browser.
    if (const auto origin = req.find(http::field::origin); origin != req.end())
        if (OriginHost(std::string(origin->value())) != host)
            return Error(req, http::status::forbidden, "requests from another site are refused");
    if (!tokenNeeded)
        return std::nullopt;
    const std::string target(req.target());
    const size_t q = target.find('?');
    if (q != std::string::npos)
        if (const auto t = QueryValue(target.substr(q + 1), "token"); t && SameSecret(*t, token)) {
            setCookie = true;
            return std::nullopt;
        }
    if (const auto c = req.find(http::field::cookie); c != req.end())
        if (const auto t = CookieValue(std::string(c->value()), "qv_token"); t && SameSecret(*t, token))
            return std::nullopt;
    if (const auto a = req.find(http::field::authorization); a != req.end()) {
        const std::string value(a->value());
        if (value.rfind("Bearer ", 0) == 0 && SameSecret(value.substr(7), token))
            return std::nullopt;
    }
    Response res = Error(req, http::status::unauthorized, "a token is needed: open the address the viewer printed");
    res.set(http::field::www_authenticate, "Bearer");
    return res;
}

void Server::Impl::Accept()
{
    acceptor.async_accept([self = shared_from_this()](beast::error_code ec, tcp::socket socket) {
        if (self->closed)
            return;
        if (!ec) {
            if (self->connections >= kMaxConnections) {
                beast::error_code ignored;
                socket.close(ignored);
            } else {
                ++self->connections;
                std::make_shared<HttpSession>(std::move(socket), self)->Run();
            }
        }
        self->Accept();
    });
}

Json Server::Impl::ClientsStatus(uint64_t& dropped) const
{
    Json list = Json::array();
    dropped = droppedByGone;
    for (const auto& [id, weak] : clients)
        if (const auto s = weak.lock()) {
            list.push_back(s->Figures());
            dropped += s->Dropped();
        }
    return list;
}

Json Server::Impl::FullStatus() const
{
    Json status = pipeline.Status();
    uint64_t dropped = 0;
    const Json list = ClientsStatus(dropped);
    status["clients"] = list.size();
    status["client_list"] = list;
    status["dropped"] = dropped;
    status["recording"] = pipeline.RecordingStatus();
    status["read_only"] = options.readOnly;
    return status;
}

void Server::Impl::Tick()
{
    timer.expires_after(std::chrono::seconds(1));
    timer.async_wait([self = shared_from_this()](beast::error_code ec) {
        if (ec || self->closed)
            return;
        for (const auto& [id, weak] : self->clients)
            if (const auto s = weak.lock())
                s->OfferStatus(s->StatusText());
        self->Tick();
    });
}

void Server::Impl::Deliver(const std::shared_ptr<const EncodedFrame>& frame)
{
    std::vector<std::shared_ptr<WsSession>> live;
    for (const auto& [id, weak] : clients)
        if (frame->only.empty() || frame->only.count(id) != 0)
            if (auto s = weak.lock())
                live.push_back(std::move(s));
    for (const auto& s : live)
        s->Offer(frame);
}

Server::Server(asio::io_context& io, Pipeline& pipeline, const ServerOptions& options)
    : impl_(std::make_shared<Impl>(io, pipeline, options))
{
    boost::system::error_code ec;
    const asio::ip::address address = asio::ip::make_address(options.host == "localhost" ? "127.0.0.1" : options.host, ec);
    if (ec)
        throw ToolError("--listen: '" + options.host + "' is not an IP address");
    const tcp::endpoint endpoint(address, options.port);
    auto& acceptor = impl_->acceptor;
    acceptor.open(endpoint.protocol(), ec);
    if (!ec)
        acceptor.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec)
        acceptor.bind(endpoint, ec);
    if (!ec)
        acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec)
        throw ToolError("cannot listen on " + options.host + ":" + std::to_string(options.port) + " (" + ec.message() +
                        ")");
    impl_->tokenNeeded = options.alwaysToken || !address.is_loopback();
    if (impl_->tokenNeeded)
        impl_->token = NewToken();
    std::string host = options.host;
    if (address.is_unspecified()) {
        char name[256] = {};
        gethostname(name, sizeof name - 1);
        host = name;
    } else if (address.is_v6()) {
        host = "[" + address.to_string() + "]";
    }
    impl_->url = "http://" + host + ":" + std::to_string(acceptor.local_endpoint().port()) + "/" +
                 (impl_->tokenNeeded ? "?token=" + impl_->token : "");
    impl_->Accept();
    impl_->Tick();
}

Server::~Server() { Close(); }

std::string Server::Url() const { return impl_->url; }

void Server::Publish(std::shared_ptr<const EncodedFrame> frame)
{
    asio::post(impl_->io, [impl = impl_, frame = std::move(frame)] { impl->Deliver(frame); });
}

void Server::FrameProcessed()
{
    asio::post(impl_->io, [impl = impl_] {
        for (const auto& [id, weak] : impl->clients)
            if (const auto s = weak.lock())
                s->ObserveLink();
    });
}

void Server::Close()
{
    asio::post(impl_->io, [impl = impl_] {
        impl->closed = true;
        beast::error_code ignored;
        impl->acceptor.close(ignored);
        impl->timer.cancel();
    });
}

void ParseListen(const std::string& text, std::string& host, uint16_t& port)
{
    std::string portText = text;
    host = "127.0.0.1";
    if (!text.empty() && text[0] == '[') {
        const size_t close = text.find("]:");
        if (close == std::string::npos)
            throw ToolError("--listen takes HOST:PORT, [IPV6]:PORT or PORT");
        host = text.substr(1, close - 1);
        portText = text.substr(close + 2);
    } else if (const size_t colon = text.rfind(':'); colon != std::string::npos) {
        host = text.substr(0, colon);
        portText = text.substr(colon + 1);
        if (host.find(':') != std::string::npos)
            throw ToolError("--listen: write an IPv6 address in brackets, [::1]:8080");
    }
    if (portText.empty() || portText.size() > 5 || portText.find_first_not_of("0123456789") != std::string::npos ||
        std::stoul(portText) > 65535)
        throw ToolError("--listen: '" + portText + "' is not a port (0 to 65535)");
    port = static_cast<uint16_t>(std::stoul(portText));
}

}  // namespace qvrecon::viewer
