#include "TestServers.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TempDir.h"

namespace downloadtests {

using platform::fs::File;
using testsupport::runCommand;
using testsupport::writeFile;

int freePort() {
    auto probe = File::adopt(socket(AF_INET, SOCK_STREAM, 0), "port probe");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(probe.descriptor(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(probe.descriptor(), reinterpret_cast<sockaddr*>(&addr), &len);
    probe.close();
    return ntohs(addr.sin_port);
}

namespace {

bool canConnect(int port) {
    auto probe = File::adopt(socket(AF_INET, SOCK_STREAM, 0), "connection probe");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(uint16_t(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(probe.descriptor(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    probe.close();
    return ok;
}

void sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) return;
        bytes.remove_prefix(size_t(n));
    }
}

std::string headerValue(const std::string& head, const std::string& name) {
    auto at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) return {};
    auto start = at + name.size() + 4;
    return head.substr(start, head.find("\r\n", start) - start);
}

}  // namespace

NginxServer::NginxServer(const std::string& workDir) : dir_(workDir + "/nginx") {
    writeFile(root() + "/files/small.bin", "small file body\n");
    writeFile(root() + "/auth/secret.txt", "secret body\n");
    writeFile(dir_ + "/htpasswd", "crate:" + runCommand("openssl passwd -apr1 works | tr -d '\\n'") + "\n");
    _makeCertificates();
    for (int attempt = 0; attempt < 5; ++attempt)
        if (_start()) return;
    throw std::runtime_error("nginx did not start: " + testsupport::readFile(dir_ + "/error.log"));
}

void NginxServer::_makeCertificates() {
    std::string d = dir_;
    std::string script = fmt::format(
        "cd '{0}' && "
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout ca.key -out ca.pem -days 2 -subj /CN=Test-CA && "
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout other.key -out other-ca.pem -days 2 -subj /CN=Other-CA && "
        "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout server.key -out server.csr -subj /CN=localhost && "
        "printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\\n' > ext.cnf && "
        "openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out server.pem -days 2 "
        "-extfile ext.cnf",
        d);
    int status = 0;
    runCommand("(" + script + ") >/dev/null 2>&1", &status);
    if (status != 0) throw std::runtime_error("openssl could not make the test certificates");
}

bool NginxServer::_start() {
    port_ = freePort();
    tlsPort_ = freePort();
    std::string conf = fmt::format(R"(daemon off;
master_process off;
pid {0}/nginx.pid;
error_log {0}/error.log warn;
events {{ worker_connections 64; }}
http {{
    access_log off;
    client_body_temp_path {0}/tmp-body;
    proxy_temp_path {0}/tmp-proxy;
    fastcgi_temp_path {0}/tmp-fastcgi;
    uwsgi_temp_path {0}/tmp-uwsgi;
    scgi_temp_path {0}/tmp-scgi;
    default_type application/octet-stream;
    sendfile on;
    server {{
        listen 127.0.0.1:{1};
        listen 127.0.0.1:{2} ssl;
        ssl_certificate {0}/server.pem;
        ssl_certificate_key {0}/server.key;
        root {0}/html;
        location = /redirect {{ return 302 /files/small.bin; }}
        location = /redirect2 {{ return 302 /redirect; }}
        location = /to-http {{ return 302 http://127.0.0.1:{1}/files/small.bin; }}
        location = /forbidden {{ return 403; }}
        location = /missing {{ return 404; }}
        location = /broken {{ return 500; }}
        location /auth/ {{ auth_basic "crate area"; auth_basic_user_file {0}/htpasswd; }}
    }}
}}
)",
                                   dir_, port_, tlsPort_);
    writeFile(dir_ + "/nginx.conf", conf);
    pid_ = fork();
    if (pid_ == 0) {
        execl("/usr/sbin/nginx", "nginx", "-p", dir_.c_str(), "-c", (dir_ + "/nginx.conf").c_str(), (char*)nullptr);
        _exit(127);
    }
    for (int i = 0; i < 200; ++i) {
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;  // most likely a port taken meanwhile: try others
        }
        if (canConnect(port_) && canConnect(tlsPort_)) return true;
        usleep(25'000);
    }
    return false;
}

NginxServer::~NginxServer() {
    if (pid_ <= 0) return;
    kill(pid_, SIGTERM);
    int status;
    for (int i = 0; i < 100 && waitpid(pid_, &status, WNOHANG) == 0; ++i) usleep(20'000);
    if (waitpid(pid_, &status, WNOHANG) == 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
}

std::string NginxServer::url(const std::string& path) const { return fmt::format("http://127.0.0.1:{}{}", port_, path); }
std::string NginxServer::httpsURL(const std::string& path) const {
    return fmt::format("https://localhost:{}{}", tlsPort_, path);
}

std::string FaultServer::body(int version) {
    std::string out(kBodySize, '\0');
    for (size_t i = 0; i < out.size(); ++i) out[i] = char((i * 31 + size_t(version) * 7 + i / 997) & 0xff);
    return out;
}

FaultServer::FaultServer() {
    listenSocket_ = File::adopt(socket(AF_INET, SOCK_STREAM, 0), "fault server");
    int listenFD = listenSocket_.descriptor();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listenFD, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listenFD, 16) != 0)
        throw std::runtime_error("fault server cannot listen");
    socklen_t len = sizeof addr;
    getsockname(listenFD, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    acceptThread_ = std::thread([this] { _accept(); });
}

FaultServer::~FaultServer() {
    stopping_ = true;
    shutdown(listenSocket_.descriptor(), SHUT_RDWR);
    acceptThread_.join();
    {
        std::lock_guard lock(mutex_);
        for (int fd : clients_) shutdown(fd, SHUT_RDWR);
        arrived_.notify_all();
    }
    for (auto& t : threads_) t.join();
    listenSocket_.close();
}

std::string FaultServer::url(const std::string& path) const {
    return fmt::format("http://127.0.0.1:{}{}", port_, path);
}

void FaultServer::redirect(const std::string& path, const std::string& location) {
    std::lock_guard lock(mutex_);
    redirects_[path] = location;
}

std::vector<std::string> FaultServer::requests() {
    std::lock_guard lock(mutex_);
    return requests_;
}

void FaultServer::_accept() {
    while (!stopping_) {
        int fd = accept(listenSocket_.descriptor(), nullptr, nullptr);
        if (fd < 0) return;
        std::lock_guard lock(mutex_);
        clients_.push_back(fd);
        threads_.emplace_back([this, fd] { _serve(fd); });
    }
}

void FaultServer::_serve(int fd) {
    auto client = File::adopt(fd, "fault server client");
    // Off the list before the descriptor goes, so that stopping never shuts down a number
    // that has been reused.
    auto finish = [&] {
        shutdown(fd, SHUT_RDWR);
        std::lock_guard lock(mutex_);
        std::erase(clients_, fd);
        client.close();
    };
    std::string head;
    char buf[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            finish();
            return;
        }
        head.append(buf, size_t(n));
    }
    std::string path = head.substr(4, head.find(' ', 4) - 4);
    bool failNow = false, stallNow = false;
    {
        std::unique_lock lock(mutex_);
        requests_.push_back(head);
        if (path.starts_with("/flaky/")) failNow = flakyCounts_[path]++ == 0;
        if (path.starts_with("/stall-once/")) stallNow = flakyCounts_[path]++ == 0;
        if (path.starts_with("/reverse/")) {
            int expected = std::stoi(path.substr(9));
            int arrival = arrivals_[path]++;
            arrived_.notify_all();
            arrived_.wait_for(lock, std::chrono::seconds(5),
                              [&] { return stopping_ || arrivals_[path] >= expected; });
            lock.unlock();
            std::this_thread::sleep_for(std::chrono::milliseconds(150 * std::max(0, expected - 1 - arrival)));
        }
    }
    std::string location;
    {
        std::lock_guard lock(mutex_);
        if (auto found = redirects_.find(path); found != redirects_.end()) location = found->second;
    }
    if (path.starts_with("/auth/") && headerValue(head, "Authorization").empty()) {
        sendAll(fd, "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"faults\"\r\n"
                    "Content-Length: 0\r\nConnection: close\r\n\r\n");
        finish();
        return;
    }
    if (!location.empty()) {
        sendAll(fd, fmt::format("HTTP/1.1 302 Found\r\nLocation: {}\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
                                location));
        finish();
        return;
    }
    if (failNow) {
        sendAll(fd, "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        finish();
        return;
    }
    std::string etag = "\"v1\"";
    int version = 1;
    if (path == "/changing") {
        version = ++changingCount_;
        etag = fmt::format("\"v{}\"", version);
    }
    std::string content = body(version);
    size_t from = 0;
    std::string range = headerValue(head, "Range");
    if (!range.empty() && headerValue(head, "If-Range") == etag) from = std::stoul(range.substr(6));
    std::string status = from ? "206 Partial Content" : "200 OK";
    std::string extra = from ? fmt::format("Content-Range: bytes {}-{}/{}\r\n", from, kBodySize - 1, kBodySize) : "";
    sendAll(fd, fmt::format("HTTP/1.1 {}\r\nContent-Length: {}\r\nETag: {}\r\n{}Connection: close\r\n\r\n", status,
                            kBodySize - from, etag, extra));
    std::string_view rest = std::string_view(content).substr(from);
    if (path.starts_with("/drop/") && from == 0) {
        size_t cut = std::stoul(path.substr(6));
        sendAll(fd, rest.substr(0, std::min(cut, rest.size())));
    } else if (path == "/short" && from == 0) {
        sendAll(fd, rest.substr(0, rest.size() / 2));
    } else if ((path == "/stall" && from == 0) || stallNow) {
        sendAll(fd, rest.substr(0, 1000));
        while (!stopping_) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 50) > 0 && recv(fd, buf, sizeof buf, 0) <= 0) break;
        }
    } else {
        sendAll(fd, rest);
    }
    finish();
}

}  // namespace downloadtests
