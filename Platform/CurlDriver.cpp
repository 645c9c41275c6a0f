#include "Platform/CurlDriver.h"

#include <poll.h>
#include <vector>

namespace platform {

namespace {
thread_local std::unique_ptr<CurlDriver> threadDriver;
}

CurlDriver& CurlDriver::current() {
    if (!threadDriver) {
        threadDriver.reset(new CurlDriver());
    }
    return *threadDriver;
}

CurlDriver::CurlDriver() : curl_(CurlLibrary::loaded()), multi_(curl_.multi_init()), loop_(RunLoop::current()) {
    curl_.multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlDriver::_socketCallback);
    curl_.multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_.multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlDriver::_timerCallback);
    curl_.multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
}

CurlDriver::~CurlDriver() {
    for (auto& [easy, done] : running_) curl_.multi_remove_handle(multi_, easy);
    curl_.multi_cleanup(multi_);
}

void CurlDriver::add(CURL* easy, std::function<void(CURLcode)> done) {
    running_[easy] = std::move(done);
    curl_.multi_add_handle(multi_, easy);
}

void CurlDriver::remove(CURL* easy) {
    if (running_.erase(easy)) curl_.multi_remove_handle(multi_, easy);
}

int CurlDriver::_socketCallback(CURL*, curl_socket_t fd, int what, void* self, void*) {
    auto* driver = static_cast<CurlDriver*>(self);
    if (what == CURL_POLL_REMOVE) {
        driver->loop_->unwatch(fd);
        return 0;
    }
    short events = 0;
    if (what & CURL_POLL_IN) events |= POLLIN;
    if (what & CURL_POLL_OUT) events |= POLLOUT;
    driver->loop_->watch(fd, events, [driver, fd](short revents) {
        int mask = 0;
        if (revents & (POLLIN | POLLHUP)) mask |= CURL_CSELECT_IN;
        if (revents & POLLOUT) mask |= CURL_CSELECT_OUT;
        if (revents & (POLLERR | POLLNVAL)) mask |= CURL_CSELECT_ERR;
        driver->_action(fd, mask);
    });
    return 0;
}

int CurlDriver::_timerCallback(CURLM*, long timeoutMS, void* self) {
    auto* driver = static_cast<CurlDriver*>(self);
    if (driver->timer_) driver->timer_->invalidate();
    driver->timer_.reset();
    if (timeoutMS >= 0)
        driver->timer_ = driver->loop_->addTimer(double(timeoutMS) / 1000.0, false,
                                                 [driver] { driver->_action(CURL_SOCKET_TIMEOUT, 0); });
    return 0;
}

void CurlDriver::_action(curl_socket_t fd, int mask) {
    int stillRunning = 0;
    curl_.multi_socket_action(multi_, fd, mask, &stillRunning);
    _collectFinished();
}

void CurlDriver::_collectFinished() {
    std::vector<std::pair<std::function<void(CURLcode)>, CURLcode>> finished;
    int left = 0;
    while (CURLMsg* msg = curl_.multi_info_read(multi_, &left)) {
        if (msg->msg != CURLMSG_DONE) continue;
        auto it = running_.find(msg->easy_handle);
        CURLcode result = msg->data.result;
        CURL* easy = msg->easy_handle;
        if (it == running_.end()) continue;
        finished.emplace_back(std::move(it->second), result);
        running_.erase(it);
        curl_.multi_remove_handle(multi_, easy);
    }
    // Called only now: a finished transfer may start its next request on the same handle.
    for (auto& [done, result] : finished) done(result);
}

}  // namespace platform
