// The viewer's JSON API: /api/status, settings, playback, record, rays, colormap and
// one frame's snapshots. Strict: a body that is not the JSON asked for gets 400 with
// a one-line error, and nothing changes.
#ifndef QVRECON_VIEWER_API_H
#define QVRECON_VIEWER_API_H

#include <functional>
#include <string>

#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>

#include "frame_pipeline.h"

namespace qvrecon::viewer {

using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;
using HttpResponse = boost::beast::http::response<boost::beast::http::string_body>;

struct ApiContext {
    Pipeline* pipeline = nullptr;
    bool readOnly = false;
    // The whole status; called on the network thread only.
    std::function<nlohmann::json()> status;
};

// Answers through `respond`, at once or once the pipeline has shown the request's
// effect; `respond` runs the given function on the network thread and sends its response.
using Respond = std::function<void(std::function<HttpResponse()>)>;
void HandleApi(const ApiContext& api, const HttpRequest& req, const std::string& path, Respond respond);

HttpResponse JsonReply(const HttpRequest& req, boost::beast::http::status status, const nlohmann::json& body);
HttpResponse ErrorReply(const HttpRequest& req, boost::beast::http::status status, const std::string& message);

}  // namespace qvrecon::viewer

#endif
