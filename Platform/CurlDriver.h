// Runs libcurl transfers on the calling thread's run loop through the multi interface:
// curl's sockets become run-loop watches and its time-out a run-loop timer, so a
// transfer costs nothing while it waits. One driver per thread.
#pragma once

#include <functional>
#include <memory>
#include <unordered_map>

#include "Platform/CurlLibrary.h"
#include "Platform/RunLoop.h"

namespace platform {

class CurlDriver {
public:
    // The driver of the calling thread, made on first use; only once CurlLibrary::get()
    // has succeeded.
    static CurlDriver& current();
    ~CurlDriver();
    CurlDriver(const CurlDriver&) = delete;
    CurlDriver& operator=(const CurlDriver&) = delete;

    // Starts a transfer; `done` is called once from the run loop with its result, after
    // the handle has been taken off the driver. Not from inside a curl callback.
    void add(CURL* easy, std::function<void(CURLcode)> done);
    // Takes a transfer off without calling its `done`. Not from inside a curl callback.
    void remove(CURL* easy);

private:
    CurlDriver();
    static int _socketCallback(CURL* easy, curl_socket_t fd, int what, void* self, void* socketData);
    static int _timerCallback(CURLM* multi, long timeoutMS, void* self);
    void _action(curl_socket_t fd, int mask);
    void _collectFinished();

    const CurlLibrary& curl_;
    CURLM* multi_;
    std::shared_ptr<RunLoop> loop_;
    std::shared_ptr<RunLoopTimer> timer_;
    std::unordered_map<CURL*, std::function<void(CURLcode)>> running_;
};

}  // namespace platform
