// Servers for the download tests, each on a free loopback port and stopped by its
// destructor: nginx started in the foreground from a configuration of the test's own,
// and a small fault server for what nginx cannot do on demand.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Platform/File.h"

namespace downloadtests {

// A loopback port that was free a moment ago.
int freePort();

// nginx serving `root` on http, and on https with a certificate for "localhost" and
// 127.0.0.1 from a CA the fixture makes. Locations: /redirect (302 to /files/small.bin),
// /redirect2 (302 to /redirect), /to-http (on https: 302 to /files/small.bin on http), /auth/ (basic authentication, user "crate", password
// "works"), /forbidden (403), /missing (404), /broken (500). Files go under root()/files.
class NginxServer {
public:
    explicit NginxServer(const std::string& workDir);
    ~NginxServer();
    std::string url(const std::string& path) const;
    std::string httpsURL(const std::string& path) const;
    std::string root() const { return dir_ + "/html"; }
    // The CA that signed the server's certificate, and an unrelated one.
    std::string caFile() const { return dir_ + "/ca.pem"; }
    std::string otherCAFile() const { return dir_ + "/other-ca.pem"; }

private:
    void _makeCertificates();
    bool _start();
    std::string dir_;
    int port_ = 0, tlsPort_ = 0;
    pid_t pid_ = -1;
};

// Serves GET paths of its own over HTTP/1.1, one connection per request:
//   /drop/N      the body (with ETag "v1") cut off after N bytes; Range with a matching If-Range honoured
//   /short       Content-Length of the whole body, but only half of it sent
//   /stall       headers and 1000 bytes, then nothing until the server stops
//   /stall-once/KEY  as /stall for the first request of each KEY (whatever its range),
//                the whole body afterwards
// Faults hit only requests from byte 0, so that a resumed request completes.
//   /changing    ETag "vK" for the K-th request, a body that differs by K; If-Range never matches
//   /flaky/KEY   500 with an empty body for the first request of each KEY, the body afterwards
//   /reverse/N/KEY  held until N requests for the path have come (5 s at most), then
//                answered last come first, 150 ms apart
//   /auth/...    401 with a Basic challenge unless the request carries Authorization
//   a path given to redirect(): 302 to its location (after /auth/'s check)
// The body of every path is body(version) of kBodySize bytes.
class FaultServer {
public:
    static constexpr size_t kBodySize = 300'000;
    static std::string body(int version);

    FaultServer();
    ~FaultServer();
    std::string url(const std::string& path) const;
    // The request heads received so far.
    std::vector<std::string> requests();
    // Answers `path` with a 302 to `location`, taken as it stands.
    void redirect(const std::string& path, const std::string& location);

private:
    void _accept();
    void _serve(int fd);
    platform::fs::File listenSocket_;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> changingCount_{0};
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::map<std::string, int> flakyCounts_;
    std::map<std::string, int> arrivals_;
    std::map<std::string, std::string> redirects_;
    std::condition_variable arrived_;
    std::vector<int> clients_;
    std::vector<std::thread> threads_;
    std::thread acceptThread_;
};

}  // namespace downloadtests
