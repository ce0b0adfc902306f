#include "api.h"

#include <cstring>

#include "encoding.h"
#include "pipeline.h"

namespace qvrecon::viewer {
namespace {

namespace http = boost::beast::http;
using Json = nlohmann::json;

HttpResponse Binary(const HttpRequest& req, const char* type, std::string body)
{
    HttpResponse res{http::status::ok, req.version()};
    res.set(http::field::content_type, type);
    res.set(http::field::cache_control, "no-store");
    res.body() = std::move(body);
    res.prepare_payload();
    return res;
}

// One snapshot of the newest frame; 404 for a part it lacks.
HttpResponse Snapshot(const HttpRequest& req, const ProcessedFrame& f, const std::string& name)
{
    HttpResponse res;
    if (name == "depth.png") {
        res = Binary(req, "image/png", Png(f.depth));
    } else if (name == "depth_b.png") {
        if (f.depthB.empty())
            return ErrorReply(req, http::status::not_found, "frame " + std::to_string(f.index) + " has no B (A/B is off)");
        res = Binary(req, "image/png", Png(f.depthB));
    } else if (name == "ir.png") {
        res = Binary(req, "image/png", Png(f.ir));
    } else if (name == "colour.png" || name == "registered.png") {
        const cv::Mat& image = name == "colour.png" ? f.colour : f.registered;
        if (image.empty())
            return ErrorReply(req, http::status::not_found, "frame " + std::to_string(f.index) + " has no colour");
        res = Binary(req, "image/png", Png(image));
    } else if (name == "cloud.ply") {
        const std::vector<float> cloud = CloudFromRays(f.depth, *f.rays);
        res = Binary(req, "application/octet-stream", PointCloudPly(cloud, f.depth.cols, f.depth.rows));
    } else if (name == "meta.json") {
        Json meta = {{"index", f.index},
                     {"time_ns", f.timeNs},
                     {"temperature_c", f.temperatureC},
                     {"stream", Info(f.kind).name},
                     {"width", f.depth.cols},
                     {"height", f.depth.rows},
                     {"settings", ToJson(f.settings)},
                     {"calibration_id", f.calibrationId},
                     {"colour", f.colour.empty() ? Json(nullptr) : Json({{"width", f.colour.cols}, {"height", f.colour.rows}})}};
        res = JsonReply(req, http::status::ok, meta);
    } else {
        return ErrorReply(req, http::status::not_found,
                          "no such part (depth.png, depth_b.png, ir.png, colour.png, registered.png, cloud.ply, meta.json)");
    }
    res.set("X-Frame-Index", std::to_string(f.index));
    return res;
}

}  // namespace

HttpResponse JsonReply(const HttpRequest& req, http::status status, const Json& body)
{
    HttpResponse res{status, req.version()};
    res.set(http::field::content_type, "application/json");
    res.set(http::field::cache_control, "no-store");
    res.body() = body.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    res.prepare_payload();
    return res;
}

HttpResponse ErrorReply(const HttpRequest& req, http::status status, const std::string& message)
{
    return JsonReply(req, status, {{"error", SingleLine(message)}});
}

void HandleApi(const ApiContext& api, const HttpRequest& req, const std::string& path, Respond respond)
{
    const auto now = [&](HttpResponse res) { respond([res = std::move(res)] { return res; }); };
    const auto methodNot = [&](const char* allowed) {
        HttpResponse res = ErrorReply(req, http::status::method_not_allowed, std::string(path) + " takes " + allowed);
        res.set(http::field::allow, allowed);
        now(std::move(res));
    };
    const bool get = req.method() == http::verb::get, post = req.method() == http::verb::post;
    Pipeline& pipeline = *api.pipeline;

    // Changes: JSON bodies, refused when read-only.
    if (path == "/api/settings" || path == "/api/playback" || path == "/api/record") {
        if (get && path == "/api/settings")
            return now(JsonReply(req, http::status::ok, ToJson(pipeline.CurrentSettings())));
        if (get && path == "/api/record")
            return now(JsonReply(req, http::status::ok, pipeline.RecordingStatus()));
        if (!post)
            return methodNot(path == "/api/playback" ? "POST" : "GET, POST");
        if (api.readOnly)
            return now(ErrorReply(req, http::status::forbidden, "the viewer is read-only"));
        const Json body = Json::parse(req.body(), nullptr, false);
        if (body.is_discarded())
            return now(ErrorReply(req, http::status::bad_request, "the body is not JSON"));
        const HttpRequest head = [&] {
            HttpRequest h;
            h.version(req.version());
            return h;
        }();
        std::string error;
        if (path == "/api/settings") {
            error = pipeline.UpdateSettings(body, [respond, head, &pipeline] {
                respond([head, &pipeline] { return JsonReply(head, http::status::ok, ToJson(pipeline.CurrentSettings())); });
            });
        } else if (path == "/api/playback") {
            const auto status = api.status;
            error = pipeline.Playback(body, [respond, head, status] {
                respond([head, status] { return JsonReply(head, http::status::ok, status()); });
            });
        } else {
            error = pipeline.Record(body);
            if (error.empty())
                return now(JsonReply(req, http::status::ok, pipeline.RecordingStatus()));
        }
        if (!error.empty()) {
            // A refused recording is the server's trouble (a full disk); the rest is the request's.
            const bool server = path == "/api/record" && error.rfind("unknown", 0) != 0 && error.rfind("record takes", 0) != 0;
            now(ErrorReply(req, server ? http::status::internal_server_error : http::status::bad_request, error));
        }
        return;
    }
    if (path == "/api/stream")
        return now(ErrorReply(req, http::status::bad_request, "/api/stream is a WebSocket"));
    const bool known = path == "/api/status" || path == "/api/rays" || path == "/api/colormap" ||
                       path.rfind("/api/frame/", 0) == 0;
    if (!known)
        return now(ErrorReply(req, http::status::not_found, "no such endpoint"));
    if (!get)
        return methodNot("GET");
    if (path == "/api/status")
        return now(JsonReply(req, http::status::ok, api.status()));
    if (path == "/api/colormap") {
        Json colours = Json::array();
        for (const auto& c : pipeline.ColourBar())
            colours.push_back({c[0], c[1], c[2]});
        return now(JsonReply(req, http::status::ok, {{"colors", colours}}));
    }
    if (path == "/api/rays") {
        int width = 0, height = 0, id = 0;
        const auto rays = pipeline.Rays(width, height, id);
        if (!rays)
            return now(ErrorReply(req, http::status::not_found, "no frame shown yet"));
        // rayX then rayY as float32; 0 where the library gives no point.
        const size_t n = static_cast<size_t>(width) * height;
        std::vector<float> xy(2 * n);
        for (size_t i = 0; i < n; ++i) {
            const bool point = (*rays)[2 * n + i] == 1.0f;
            xy[i] = point ? (*rays)[i] : 0.0f;
            xy[n + i] = point ? (*rays)[n + i] : 0.0f;
        }
        std::string bytes(xy.size() * sizeof(float), '\0');
        std::memcpy(bytes.data(), xy.data(), bytes.size());
        HttpResponse res = Binary(req, "application/octet-stream", std::move(bytes));
        res.set("X-Width", std::to_string(width));
        res.set("X-Height", std::to_string(height));
        res.set("X-Calibration-Id", std::to_string(id));
        return now(std::move(res));
    }
    const auto frame = pipeline.Latest();
    if (!frame)
        return now(ErrorReply(req, http::status::not_found, "no frame shown yet"));
    now(Snapshot(req, *frame, path.substr(std::strlen("/api/frame/"))));
}

}  // namespace qvrecon::viewer
