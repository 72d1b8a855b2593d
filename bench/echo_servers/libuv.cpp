// The echo server of libuv's users: streams, and a write request of its own for every message.

#include <uv.h>

#include <cstdlib>

#include "bench/echo_servers/listener.h"

namespace {

struct Connection {
    union {
        uv_stream_t stream;
        uv_pipe_t pipe;
        uv_tcp_t tcp;
    };
};

struct WriteRequest {
    uv_write_t request;
    char* bytes;
};

bool isUnix;

void initStream(uv_loop_t* loop, Connection* connection) {
    if (isUnix)
        uv_pipe_init(loop, &connection->pipe, 0);
    else
        uv_tcp_init(loop, &connection->tcp);
}

void closeConnection(uv_stream_t* stream) {
    if (uv_is_closing(reinterpret_cast<uv_handle_t*>(stream)) != 0) return;
    uv_close(reinterpret_cast<uv_handle_t*>(stream),
             [](uv_handle_t* handle) { delete reinterpret_cast<Connection*>(handle); });
}

// onRead, or the end of the write, frees it.
void provideBuffer(uv_handle_t* /*handle*/, size_t size, uv_buf_t* buffer) {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc)
    *buffer = uv_buf_init(static_cast<char*>(std::malloc(size)), static_cast<unsigned>(size));
}

void onWritten(uv_write_t* request, int status) {
    auto* write = reinterpret_cast<WriteRequest*>(request);
    if (status < 0) closeConnection(request->handle);
    std::free(write->bytes);
    delete write;
}

void onRead(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
    if (count <= 0) {
        std::free(buffer->base);
        if (count < 0) closeConnection(stream);
        return;
    }
    auto* write = new WriteRequest{.request = {}, .bytes = buffer->base};
    const uv_buf_t bytes = uv_buf_init(buffer->base, static_cast<unsigned>(count));
    uv_write(&write->request, stream, &bytes, 1, onWritten);
}

void onConnection(uv_stream_t* server, int status) {
    if (status < 0) return;
    auto* connection = new Connection;
    initStream(server->loop, connection);
    if (uv_accept(server, &connection->stream) == 0)
        uv_read_start(&connection->stream, provideBuffer, onRead);
    else
        closeConnection(&connection->stream);
}

}  // namespace

int main(int argc, char** argv) {
    const Endpoint endpoint = endpointFrom(argc, argv);
    isUnix = endpoint.isUnix;
    uv_loop_t* loop = uv_default_loop();
    Connection server;
    initStream(loop, &server);
    const int sock = listenOn(endpoint, false);
    if ((isUnix ? uv_pipe_open(&server.pipe, sock) : uv_tcp_open(&server.tcp, sock)) != 0 ||
        uv_listen(&server.stream, kBacklog, onConnection) != 0)
        return 1;
    sayReady();
    return uv_run(loop, UV_RUN_DEFAULT);
}
