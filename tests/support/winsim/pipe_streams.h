// The bytes on their way through a pipe: overlapped transfers, the two streams of a connection, and what moves them.
#ifndef WINSIM_PIPE_STREAMS_H
#define WINSIM_PIPE_STREAMS_H

#include <algorithm>
#include <deque>
#include <list>

#include "winsim/sim.h"

namespace winsim {

enum class operation { connect, read, write };

struct transfer : flight {
    operation what = operation::read;
    OVERLAPPED *overlapped = nullptr;
    std::shared_ptr<event> done;
    const object *end = nullptr; // whose handle began it
    DWORD thread = 0;
    uint8_t *to = nullptr;
    const uint8_t *from = nullptr;
    size_t size = 0;
    size_t moved = 0;
    DWORD error = ERROR_SUCCESS;

    void finish(DWORD result) {
        if (!finished) {
            finished = true;
            error = result;
            done->set = true;
            done = nullptr; // it knows this transfer, too
            if (!abandoned) {
                overlapped->Internal = result;
                overlapped->InternalHigh = moved;
            }
        }
    }
};

struct byte_stream {
    size_t capacity = 0;
    std::deque<uint8_t> bytes;
    std::list<std::shared_ptr<transfer>> reads, writes; // waiting ones, in their order

    void drop_ended() {
        const auto ended = [](const auto &one) { return one->finished || one->abandoned; };
        reads.remove_if(ended);
        writes.remove_if(ended);
    }
    void end_all(DWORD error) {
        for (auto *queue : {&reads, &writes}) {
            for (const auto &one : *queue) {
                one->finish(error);
            }
            queue->clear();
        }
    }
};

struct connection {
    DWORD server_id = 0, client_id = 0; // processes
    bool server_here = true, client_here = true;
    bool cut = false; // by DisconnectNamedPipe
    byte_stream to_client, to_server;
};

inline void pump(byte_stream &stream, bool writer_here, bool reader_here) {
    stream.drop_ended();
    for (bool moving = true; moving;) {
        moving = false;
        while (!stream.writes.empty()) {
            transfer &write = *stream.writes.front();
            // A waiting reader takes more than the buffer holds, so that a pipe without one works.
            const size_t wanted = stream.reads.empty() ? 0 : stream.reads.front()->size;
            const size_t limit = std::max(stream.capacity, wanted);
            const size_t room = limit > stream.bytes.size() ? limit - stream.bytes.size() : 0;
            const size_t part = std::min(room, write.size - write.moved);
            stream.bytes.insert(stream.bytes.end(), write.from + write.moved,
                                write.from + write.moved + part);
            write.moved += part;
            moving = moving || part > 0;
            if (write.moved < write.size) {
                break;
            }
            write.finish(ERROR_SUCCESS);
            stream.writes.pop_front();
        }
        while (!stream.reads.empty() && !stream.bytes.empty()) {
            transfer &read = *stream.reads.front();
            read.moved = std::min(read.size, stream.bytes.size());
            const auto last = stream.bytes.begin() + static_cast<std::ptrdiff_t>(read.moved);
            std::copy(stream.bytes.begin(), last, read.to);
            stream.bytes.erase(stream.bytes.begin(), last);
            read.finish(ERROR_SUCCESS);
            stream.reads.pop_front();
            moving = true;
        }
    }
    if (!writer_here || !reader_here) {
        stream.end_all(ERROR_BROKEN_PIPE);
    }
}

inline void pump(connection &both) {
    pump(both.to_client, both.server_here, both.client_here);
    pump(both.to_server, both.client_here, both.server_here);
}

} // namespace winsim

#endif
