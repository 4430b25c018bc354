// Why the worker leaves, and that it does: every thread waits on the event and looks at the flag, and whoever finds a
// reason sets both. The first reason counts.
#pragma once

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>

#include <handles.h>

namespace app {

class departure {
public:
    departure() : event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        if (!event_) throw std::runtime_error("no event can be made");
    }

    void leave(int exit_code, const std::string &why) {
        const std::lock_guard held(lock_);
        if (leaving_) return;
        exit_code_ = exit_code;
        why_ = why;
        leaving_ = true;
        SetEvent(event_.get());
    }

    bool leaving() const { return leaving_; }
    HANDLE event() const { return event_.get(); }

    // Once leaving.
    int exit_code() const { return exit_code_; }
    const std::string &why() const { return why_; }

private:
    std::mutex lock_;
    std::atomic<bool> leaving_ = false;
    int exit_code_ = 1;
    std::string why_;
    host_service::unique_handle event_;
};

} // namespace app
