#include "Platform/HttpClient.h"

#include "Platform/LinkState.h"
#include "Platform/ProcessLibraries.h"

#include <curl/curl.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <strings.h>
#include <unistd.h>
#include <vector>

namespace zub {
namespace {

void ensureGlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] {
        // OpenSSL first, without its exit handler, even for a host that reaches the
        // transport from its own static constructors.
        ProcessLibraries::initialize();
        curl_global_init(CURL_GLOBAL_DEFAULT);
    });
}

// The sockets of one handle's open connections, so the handle can reach the
// connection a reply is arriving on (see acknowledgeHeaderAtOnce).
struct OpenSockets {
    std::vector<curl_socket_t> sockets;
};

curl_socket_t openSocket(void* user, curlsocktype purpose, curl_sockaddr* address) {
    const curl_socket_t s = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (s != CURL_SOCKET_BAD && purpose == CURLSOCKTYPE_IPCXN) static_cast<OpenSockets*>(user)->sockets.push_back(s);
    return s;
}

int closeSocket(void* user, curl_socket_t socket) {
    std::erase(static_cast<OpenSockets*>(user)->sockets, socket);
    return ::close(socket);
}

// One easy handle per thread: curl keeps the connection alive between posts made
// through the same handle. Freed when the thread ends.
class ThreadHandle {
public:
    ThreadHandle() {
        ensureGlobalInit();
        handle_ = curl_easy_init();
    }
    ~ThreadHandle() {
        if (handle_) curl_easy_cleanup(handle_);  // closes the connections through closeSocket
    }
    ThreadHandle(const ThreadHandle&) = delete;
    ThreadHandle& operator=(const ThreadHandle&) = delete;
    CURL* get() const { return handle_; }
    OpenSockets& sockets() { return sockets_; }

private:
    OpenSockets sockets_;  // declared first: outlives the handle's connections
    CURL* handle_ = nullptr;
};

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* body = static_cast<Data*>(user);
    const std::size_t n = size * count;
    body->insert(body->end(), reinterpret_cast<std::uint8_t*>(data), reinterpret_cast<std::uint8_t*>(data) + n);
    return n;
}

// Called by curl for each line of a reply's header. A server that leaves Nagle's
// algorithm on and writes the header and the body in two segments holds the body
// back until the header segment is acknowledged, and on a kept-alive connection
// the kernel delays that acknowledgement (about 40 ms) because we have nothing to
// send. Asking for an immediate acknowledgement once the header is here releases
// the body at once; it costs one system call per header line and changes no byte.
// The handle's connections are few (one per host it talks to), so all of them
// are asked; curl does not name the transfer's socket before the transfer ends.
std::size_t acknowledgeHeaderAtOnce(char*, std::size_t size, std::size_t count, void* user) {
    const int on = 1;
    for (const curl_socket_t socket : static_cast<OpenSockets*>(user)->sockets) {
        (void)setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    }
    return size * count;
}

// Whether the kernel's tables show a usable default route; true when they cannot
// be read, so that only a known offline machine counts as offline.
bool internetReachable() {
    const auto flags = LinkState::forInternet()->flags();
    return !flags || (*flags & ReachabilityFlag::kReachable) != 0;
}

}  // namespace

HttpError HttpClient::errorFor(int curlCode, long osErrno, bool internetReachable, const char* detail) {
    HttpError e;
    switch (static_cast<CURLcode>(curlCode)) {
        case CURLE_OPERATION_TIMEDOUT:
            e.code = -1001;
            e.description = "The request timed out.";
            break;
        case CURLE_COULDNT_RESOLVE_HOST:
            // Without a default route no name server can be asked: the machine is
            // offline, which the report pipeline treats as a network failure (kept
            // without counting an attempt), not as an unknown host.
            if (!internetReachable) {
                e.code = -1009;
                e.description = "The Internet connection appears to be offline.";
                break;
            }
            [[fallthrough]];
        case CURLE_COULDNT_RESOLVE_PROXY:
            e.code = -1003;
            e.description = "A server with the specified hostname could not be found.";
            break;
        case CURLE_COULDNT_CONNECT:
            if (osErrno == ENETUNREACH || osErrno == ENETDOWN) {
                e.code = -1009;
                e.description = "The Internet connection appears to be offline.";
            } else {
                e.code = -1004;
                e.description = "Could not connect to the server.";
            }
            break;
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            e.code = -1005;
            e.description = "The network connection was lost.";
            break;
        case CURLE_TOO_MANY_REDIRECTS:
            e.code = -1007;
            e.description = "too many HTTP redirects";
            break;
        case CURLE_URL_MALFORMAT:
            e.code = -1000;
            e.description = "unsupported URL";
            break;
        case CURLE_UNSUPPORTED_PROTOCOL:
            e.code = -1002;
            e.description = "unsupported URL";
            break;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
            e.code = -1200;
            e.description = "An SSL error has occurred and a secure connection to the server cannot be made.";
            break;
        default:
            e.code = -1;
            e.description = curl_easy_strerror(static_cast<CURLcode>(curlCode));
            break;
    }
    if (detail && *detail) e.description += std::string(" (") + detail + ")";
    return e;
}

void HttpRequest::setHeader(const std::string& name, const std::string& value) {
    for (auto& [n, v] : headers) {
        if (strcasecmp(n.c_str(), name.c_str()) == 0) {
            v = value;
            return;
        }
    }
    headers.emplace_back(name, value);
}

void HttpRequest::removeHeader(const std::string& name) {
    std::erase_if(headers, [&](const auto& h) { return strcasecmp(h.first.c_str(), name.c_str()) == 0; });
}

std::optional<std::string> HttpRequest::header(const std::string& name) const {
    for (const auto& [n, v] : headers) {
        if (strcasecmp(n.c_str(), name.c_str()) == 0) return v;
    }
    return std::nullopt;
}

Value HttpError::toValue() const {
    Value v = Value::object();
    v["domain"] = kDomain;
    v["code"] = code;
    v["description"] = description;
    return v;
}

std::string HttpError::fullDescription() const {
    return std::string("Error Domain=") + kDomain + " Code=" + std::to_string(code) + " \"" + description + "\"";
}

std::optional<HttpError> HttpClient::send(const HttpRequest& request, HttpResponse& response) {
    thread_local ThreadHandle threadHandle;
    CURL* curl = threadHandle.get();
    if (!curl) return HttpError{-1, "could not create an HTTP handle"};

    curl_easy_reset(curl);  // keeps the connection cache, clears the previous options
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    const long timeoutMs = request.timeoutSeconds > 0 ? static_cast<long>(request.timeoutSeconds * 1000) : 0;
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    // Redirects are followed as the platform's URL loading follows them: at most
    // kMaxRedirects, http and https only; 307 and 308 repeat the POST with its
    // body, 301, 302 and 303 continue as a GET without a body (POSTREDIR 0).
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, static_cast<long>(kMaxRedirects));
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_POSTREDIR, 0L);

    if (request.method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    } else {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }

    curl_slist* headerList = nullptr;
    for (const auto& [name, value] : request.headers) {
        headerList = curl_slist_append(headerList, (name + ": " + value).c_str());
    }
    // Without this curl would wait for "100 Continue" before sending larger bodies,
    // and would add its own form content type.
    headerList = curl_slist_append(headerList, "Expect:");
    if (!request.header("Content-Type")) headerList = curl_slist_append(headerList, "Content-Type:");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList);

    Data body;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, acknowledgeHeaderAtOnce);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &threadHandle.sockets());
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, openSocket);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, &threadHandle.sockets());
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETFUNCTION, closeSocket);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETDATA, &threadHandle.sockets());

    const CURLcode code = curl_easy_perform(curl);
    long osErrno = 0;
    curl_easy_getinfo(curl, CURLINFO_OS_ERRNO, &osErrno);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headerList);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);

    if (code != CURLE_OK) {
        // The route table is read only for a failed name lookup.
        const bool online = code != CURLE_COULDNT_RESOLVE_HOST || internetReachable();
        return errorFor(code, osErrno, online, errorBuffer);
    }
    response.status = status;
    response.body = std::move(body);
    return std::nullopt;
}

}  // namespace zub
