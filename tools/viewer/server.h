// The viewer's HTTP and WebSocket server (Boost.Beast), run by one network thread:
// the page's files from the asset folder, the JSON API, and the frame stream, where
// every client gets the newest frame only.
#ifndef QVRECON_VIEWER_SERVER_H
#define QVRECON_VIEWER_SERVER_H

#include <cstdint>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "frame_pipeline.h"

namespace qvrecon::viewer {

struct ServerOptions {
    std::string host = "127.0.0.1";
    uint16_t port = 8080;
    std::string assets;        // the page's folder
    bool readOnly = false;
    bool alwaysToken = false;  // a token even on loopback
};

class Server {
public:
    // Listens at once (a port of 0 takes a free one); a ToolError when it cannot.
    Server(boost::asio::io_context& io, Pipeline& pipeline, const ServerOptions& options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // The address to open, with the token when one is needed.
    std::string Url() const;
    // Hands a frame to every client; any thread.
    void Publish(std::shared_ptr<const EncodedFrame> frame);
    // A frame was processed: each client in automatic decimation notes whether its link
    // still carries the frame before; any thread.
    void FrameProcessed();
    void Close();

    struct Impl;

private:
    std::shared_ptr<Impl> impl_;
};

// HOST:PORT, [IPV6]:PORT or PORT alone (loopback).
void ParseListen(const std::string& text, std::string& host, uint16_t& port);

}  // namespace qvrecon::viewer

#endif
