#include "Transport.h"

#include <curl/curl.h>
#include <pthread.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Threading/ThreadContext.h"

namespace Platform::Windows::Network::Http::Transport {

namespace {

using Clock = std::chrono::steady_clock;

thread_local uint32_t t_lastError = 0;
std::atomic<size_t> g_liveHandles{0};

// Body bytes buffered per request before the transfer is paused until somebody reads.
constexpr size_t kBufferHigh = 1024 * 1024;
constexpr size_t kBufferLow = kBufferHigh / 2;
constexpr int kMaxRedirects = 10;
// The most bytes of one response's header block, status line and blank line included, as
// WinHTTP's default: a server that never ends its headers is cut off here.
constexpr size_t kMaxHeaderBlock = 64 * 1024;
constexpr size_t kHeaderBlockRoom = 512;
constexpr long kMaxHostConnections = 64;
// Transfers in the multi handle at once; the others wait their turn in arrival order, which
// keeps each pass of curl over its transfers short with thousands of requests in flight.
constexpr size_t kMaxActive = 2 * kMaxHostConnections;

bool Fail(uint32_t error) {
    t_lastError = error;
    return false;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

std::string_view Trim(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

enum class Kind { Session, Connection, Request };

struct HandleBase : std::enable_shared_from_this<HandleBase> {
    explicit HandleBase(Kind k) : kind(k) { g_liveHandles.fetch_add(1); }
    virtual ~HandleBase() { g_liveHandles.fetch_sub(1); }
    HandleBase(const HandleBase&) = delete;
    HandleBase& operator=(const HandleBase&) = delete;

    const Kind kind;
    uint64_t id = 0;
};

struct Timeouts {
    int32_t resolve = 0;
    int32_t connect = 60000;
    int32_t send = 30000;
    int32_t receive = 30000;
};

struct SessionState final : HandleBase {
    SessionState() : HandleBase(Kind::Session) {}
    std::string userAgent;
    uint32_t accessType = AccessTypeDefaultProxy;
    std::string proxy;
    std::string proxyBypass;
    std::string caBundle; // certificates to trust instead of curl's built-in bundle; empty for those
    std::mutex mutex;     // guards what follows
    StatusCallback callback = nullptr;
    Timeouts timeouts;
    bool tls12Only = false;
    bool http2 = false;
    uint32_t decompression = 0;
    bool encodeExtra = false;
};

struct ConnectionState final : HandleBase {
    ConnectionState() : HandleBase(Kind::Connection) {}
    std::shared_ptr<SessionState> session;
    std::string server;
    uint16_t port = 0;
};

struct UploadBlock {
    std::vector<char> payload;
    size_t offset = 0;
    uint32_t reported = 0; // the length the writer handed over
};

// Takes the chunk framing off bytes that a writer framed itself, since curl frames again.
struct Dechunker {
    enum State { SizeLine, Data, DataEnd, Finished } state = SizeLine;
    uint64_t remaining = 0;
    std::string line;

    // Appends the payload of `data` to `out`; true once the last chunk was seen.
    bool Feed(const char* data, size_t size, std::vector<char>& out) {
        size_t i = 0;
        while (i < size && state != Finished) {
            switch (state) {
            case SizeLine: {
                const char c = data[i++];
                if (c == '\n') {
                    remaining = std::strtoull(line.c_str(), nullptr, 16);
                    line.clear();
                    state = remaining == 0 ? Finished : Data;
                } else if (c != '\r') {
                    line += c;
                }
                break;
            }
            case Data: {
                const size_t take = static_cast<size_t>(std::min<uint64_t>(remaining, size - i));
                out.insert(out.end(), data + i, data + i + take);
                i += take;
                remaining -= take;
                if (remaining == 0) state = DataEnd;
                break;
            }
            case DataEnd:
                if (data[i++] == '\n') state = SizeLine;
                break;
            case Finished: break;
            }
        }
        return state == Finished;
    }
};

// Undoes a gzip or deflate content coding. curl can do it as well, but takes a stream that stops
// short of its end for a whole one, so a body whose encoded form was cut would reach the caller
// (and a cache) as a complete, shorter body. This one knows whether the stream ended.
class Inflater {
public:
    Inflater() = default;
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater() {
        if (started_) inflateEnd(&stream_);
    }

    // `coding` is the response's Content-Encoding; one it does not know fails the first bytes.
    void Start(std::string_view coding) {
        if (EqualsNoCase(coding, "gzip") || EqualsNoCase(coding, "x-gzip"))
            windowBits_ = 15 + 16;
        else if (EqualsNoCase(coding, "deflate"))
            windowBits_ = 15;
    }

    // Appends the decoded form of `data` to `out`; false when the stream is damaged. Bytes after
    // the end of the stream are left out.
    bool Feed(const char* data, size_t size, std::vector<char>& out) {
        if (ended_ || size == 0) return true;
        if (!started_) {
            if (windowBits_ == 0) return false;
            // "deflate" is meant to carry the zlib wrapper; some servers send the bare stream.
            const auto* head = reinterpret_cast<const unsigned char*>(data);
            if (windowBits_ == 15 && size >= 2 && ((head[0] & 0x0f) != 8 || (head[0] * 256 + head[1]) % 31 != 0))
                windowBits_ = -15;
            if (inflateInit2(&stream_, windowBits_) != Z_OK) return false;
            started_ = true;
        }
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
        stream_.avail_in = static_cast<uInt>(size);
        unsigned char buffer[16384];
        for (;;) {
            stream_.next_out = buffer;
            stream_.avail_out = sizeof(buffer);
            const int status = inflate(&stream_, Z_NO_FLUSH);
            out.insert(out.end(), buffer, buffer + (sizeof(buffer) - stream_.avail_out));
            if (status == Z_STREAM_END) {
                ended_ = true;
                return true;
            }
            if (status == Z_BUF_ERROR) return true; // wants more input
            if (status != Z_OK) return false;
            if (stream_.avail_in == 0 && stream_.avail_out != 0) return true;
        }
    }

    // Whether the stream reached its end, or nothing came at all.
    bool Complete() const { return ended_ || !started_; }

private:
    z_stream stream_{};
    int windowBits_ = 0;
    bool started_ = false;
    bool ended_ = false;
};

struct RequestState final : HandleBase {
    RequestState() : HandleBase(Kind::Request) {}
    ~RequestState() override {
        if (slist) curl_slist_free_all(slist);
    }

    // Fixed at open.
    std::shared_ptr<ConnectionState> connection;
    std::shared_ptr<SessionState> session;
    std::string verb;
    std::string path;
    std::vector<std::string> accept;
    uint32_t flags = 0;
    StatusCallback callback = nullptr;

    // Filled by the caller before the send. Also orders a send against a close from another
    // thread: whichever takes it first decides whether the request was ever in flight.
    std::mutex setupMutex;
    std::vector<std::string> headerLines;
    Timeouts timeouts;

    std::atomic<bool> sendIssued{false};
    std::atomic<bool> closeIssued{false};
    void* context = nullptr;

    // Response headers, readable from any thread.
    std::mutex headersMutex;
    std::string finalHeaders;
    std::atomic<bool> headersReady{false};

    // Transport thread only from here on.
    CURL* easy = nullptr;
    curl_slist* slist = nullptr;
    std::string url;
    bool http2 = false;   // the session offers HTTP/2
    bool waiting = false; // sent, waiting for room in the multi handle
    bool transferDone = false;
    uint32_t transferError = 0;
    bool errorDelivered = false;
    bool endDelivered = false; // a read completed with 0 bytes
    bool closeProcessed = false;
    bool sendCompleteDelivered = false;
    bool receiveRequested = false;
    bool headersDelivered = false;
    bool timerArmed = false;
    Clock::time_point lastActivity{};

    // The header block being received.
    std::string block;
    size_t blockBytes = 0;       // as received, line ends included
    bool headerOverflow = false; // the block passed kMaxHeaderBlock and the transfer was ended
    long blockStatus = 0;
    std::string location;
    bool decoding = false;
    std::unique_ptr<Inflater> inflater; // the final block's content coding, when it has one
    bool decodeFailed = false;
    std::vector<char> decoded;
    bool redirecting = false;
    bool redirectTooMany = false;
    std::string redirectTarget;
    int redirects = 0;

    // Body bytes waiting for a read, and the read waiting for bytes.
    BodyBuffer body;
    size_t bodyOffset = 0;
    bool recvPaused = false;
    void* readBuffer = nullptr;
    uint32_t readSize = 0;
    bool readPending = false;
    BodyBuffer* readBody = nullptr; // the body whose room a pending read is, to commit the bytes

    // Request body.
    std::vector<char> postData;
    bool streamedUpload = false;
    bool chunkedUpload = false;
    int64_t uploadSize = -1;
    std::deque<UploadBlock> uploads;
    bool uploadEnd = false;
    bool uploadPaused = false;
    Dechunker dechunker;

    size_t Buffered() const { return body.Size() - bodyOffset; }
    bool UploadPhase() const { return streamedUpload && !(uploadEnd && uploads.empty()); }
};

struct Event {
    std::shared_ptr<HandleBase> handle;
    StatusCallback callback;
    void* context;
    uint32_t status;
    void* buffer = nullptr;
    uint32_t bytes = 0;
    AsyncResult result{};
};

uint32_t MapCurlError(CURLcode code) {
    switch (code) {
    case CURLE_OK: return 0;
    case CURLE_OPERATION_TIMEDOUT: return ErrorTimeout;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return ErrorNameNotResolved;
    case CURLE_COULDNT_CONNECT: return ErrorCannotConnect;
    // Our own addresses are always http or https: curl says this of an HTTP/0.9 answer.
    case CURLE_UNSUPPORTED_PROTOCOL: return ErrorInvalidServerResponse;
    case CURLE_URL_MALFORMAT: return ErrorInvalidUrl;
    case CURLE_TOO_MANY_REDIRECTS: return ErrorRedirectFailed;
    case CURLE_ABORTED_BY_CALLBACK: return ErrorOperationCancelled;
    case CURLE_OUT_OF_MEMORY: return ErrorNotEnoughMemory;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED: return ErrorSecureFailure;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM: return ErrorInvalidServerResponse;
    default: return ErrorConnectionError;
    }
}

// Percent-encodes what may not stand in a request target as it is.
std::string EncodeExtra(std::string_view path) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(path.size());
    for (char ch : path) {
        const auto c = static_cast<unsigned char>(ch);
        if (c <= 0x20 || c >= 0x7F || std::strchr("\"<>\\^`{|}", c)) {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += ch;
        }
    }
    return out;
}

class Engine {
public:
    static Engine& Get() {
        static Engine engine;
        return engine;
    }

    Handle Register(const std::shared_ptr<HandleBase>& handle) {
        std::lock_guard lock(tableMutex_);
        handle->id = nextId_++;
        table_.emplace(handle->id, handle);
        return reinterpret_cast<Handle>(static_cast<uintptr_t>(handle->id));
    }

    std::shared_ptr<HandleBase> Lookup(Handle handle) {
        if (!IsValidHandle(handle)) return nullptr;
        std::lock_guard lock(tableMutex_);
        auto it = table_.find(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle)));
        return it == table_.end() ? nullptr : it->second;
    }

    std::shared_ptr<HandleBase> Unregister(Handle handle) {
        if (!IsValidHandle(handle)) return nullptr;
        std::lock_guard lock(tableMutex_);
        auto it = table_.find(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(handle)));
        if (it == table_.end()) return nullptr;
        auto found = std::move(it->second);
        table_.erase(it);
        return found;
    }

    // Runs `work` on the transport thread: at once when called there, otherwise queued.
    template <class Work>
    void Run(Work&& work) {
        if (std::this_thread::get_id() == threadId_) {
            work();
            return;
        }
        std::function<void()> queued(std::forward<Work>(work));
        bool first;
        {
            std::lock_guard lock(queueMutex_);
            first = queue_.empty();
            queue_.push_back(std::move(queued));
        }
        // Whoever queued into an empty queue has woken the loop, or is about to, and the loop
        // takes the whole queue at once: one wake-up per batch is enough.
        if (first) curl_multi_wakeup(multi_);
    }

    void Start(RequestState& request);
    void Launch(RequestState& request);
    void StartWaiting();
    void Receive(RequestState& request);
    void Read(RequestState& request, void* buffer, uint32_t size);
    void ReadBody(RequestState& request, BodyBuffer& body, uint32_t room);
    void Write(RequestState& request, std::vector<char> data, uint32_t length);
    void Close(HandleBase& handle, StatusCallback callback);

private:
    Engine() {
        self_ = this;
        curl_global_init(CURL_GLOBAL_DEFAULT);
        multi_ = curl_multi_init();
        curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
        curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxHostConnections);
        thread_ = std::thread([this] { Loop(); });
        std::lock_guard lock(queueMutex_);
        threadId_ = thread_.get_id();
    }

    ~Engine() {
        {
            std::lock_guard lock(queueMutex_);
            stop_ = true;
        }
        curl_multi_wakeup(multi_);
        thread_.join();
        for (auto& [easy, request] : active_) {
            curl_multi_remove_handle(multi_, easy);
            curl_easy_cleanup(easy);
            request->easy = nullptr;
        }
        active_.clear();
        for (CURL* easy : idle_) curl_easy_cleanup(easy);
        idle_.clear();
        waiting_.clear();
        events_.clear();
        curl_multi_cleanup(multi_);
        curl_global_cleanup();
    }

    void Loop();
    void EndAllAtExit();
    void Deliver();
    void ProcessDone();
    // Ends the requests that had moved no byte for their timeout when the last pass of curl
    // began (`performed`).
    void CheckTimeouts(Clock::time_point performed);
    void Finish(RequestState& request, uint32_t error);
    void Detach(RequestState& request);
    void DeliverError(RequestState& request, uint32_t api);
    void Restart(RequestState& request);
    void SetPipeWait(RequestState& request);
    void Push(RequestState& request, uint32_t status, void* buffer = nullptr, uint32_t bytes = 0,
              AsyncResult result = {}) {
        events_.push_back(
            Event{request.shared_from_this(), request.callback, request.context, status, buffer, bytes, result});
    }
    void Pause(RequestState& request) {
        int mask = (request.recvPaused ? CURLPAUSE_RECV : 0) | (request.uploadPaused ? CURLPAUSE_SEND : 0);
        curl_easy_pause(request.easy, mask);
        needsPerform_ = true;
    }
    static uint32_t Api(const RequestState& request) {
        if (!request.sendCompleteDelivered) return ApiSendRequest;
        if (request.UploadPhase()) return ApiWriteData;
        if (!request.headersDelivered) return ApiReceiveResponse;
        return ApiReadData;
    }

    static size_t HeaderCallback(char* data, size_t size, size_t count, void* user);
    static size_t WriteCallback(char* data, size_t size, size_t count, void* user);
    static size_t ReadCallback(char* data, size_t size, size_t count, void* user);
    static int PrereqCallback(void* user, char*, char*, int, int);
    void EndOfHeaderBlock(RequestState& request);
    static Engine* self_;

    std::mutex tableMutex_;
    std::unordered_map<uint64_t, std::shared_ptr<HandleBase>> table_;
    uint64_t nextId_ = 1;

    CURLM* multi_ = nullptr;
    std::thread thread_;
    std::thread::id threadId_;
    std::mutex queueMutex_;
    std::vector<std::function<void()>> queue_;
    bool stop_ = false;

    std::deque<Event> events_;
    std::unordered_map<CURL*, std::shared_ptr<RequestState>> active_;
    std::vector<CURL*> idle_; // easy handles reset for reuse
    std::deque<std::shared_ptr<RequestState>> waiting_;
    bool needsPerform_ = false;
    Clock::time_point lastTimeoutCheck_{};
};

void Engine::Loop() {
    pthread_setname_np(pthread_self(), "Http Transport");
    {
        // Wait until the constructor has published the thread id.
        std::lock_guard lock(queueMutex_);
    }
    std::vector<std::function<void()>> work;
    for (;;) {
        // A pass hands the results of many requests to the threads that wait for them: each of
        // those is woken once, when the pass is done.
        std::optional<Platform::Threading::impl::WakeBatch> wakes(std::in_place);
        bool stopping = false;
        {
            std::lock_guard lock(queueMutex_);
            stopping = stop_;
            work.swap(queue_);
        }
        for (auto& item : work) item();
        work.clear();
        Deliver();
        if (stopping) {
            EndAllAtExit();
            return;
        }

        StartWaiting();
        int running = 0;
        const Clock::time_point performed = Clock::now();
        curl_multi_perform(multi_, &running);
        ProcessDone();
        Deliver();
        CheckTimeouts(performed);
        Deliver();
        StartWaiting();

        int timeout = active_.empty() ? 10000 : 100;
        if (needsPerform_) timeout = 0;
        needsPerform_ = false;
        wakes.reset();
        curl_multi_poll(multi_, nullptr, 0, timeout, nullptr);
    }
}

// The process is ending. Every request the transport still has ends as if its handle were closed
// now: one still in flight gets 12017, each gets its handle-closing event, so its owner gives back
// the transport's reference and frees it instead of leaving it for the system to drop. The work
// closes handles queued before the end is done first, by the loop.
void Engine::EndAllAtExit() {
    std::vector<std::shared_ptr<RequestState>> requests;
    {
        std::lock_guard lock(tableMutex_);
        for (const auto& [id, handle] : table_)
            if (handle->kind == Kind::Request) requests.push_back(std::static_pointer_cast<RequestState>(handle));
    }
    for (const auto& request : requests)
        if (request->sendIssued.load()) Close(*request, nullptr);
    Deliver();
}

void Engine::Deliver() {
    while (!events_.empty()) {
        Event event = std::move(events_.front());
        events_.pop_front();
        if (!event.callback) continue;
        Handle value = reinterpret_cast<Handle>(static_cast<uintptr_t>(event.handle->id));
        void* info = nullptr;
        uint32_t length = 0;
        switch (event.status) {
        case StatusReadComplete:
            info = event.buffer;
            length = event.bytes;
            break;
        case StatusWriteComplete:
            info = &event.bytes;
            length = sizeof(event.bytes);
            break;
        case StatusRequestError:
            info = &event.result;
            length = sizeof(event.result);
            break;
        case StatusHandleClosing:
            info = &value;
            length = sizeof(value);
            break;
        default: break;
        }
        event.callback(value, event.context, event.status, info, length);
    }
}

void Engine::Detach(RequestState& request) {
    if (!request.easy) return;
    curl_multi_remove_handle(multi_, request.easy);
    auto keep = active_.find(request.easy);
    std::shared_ptr<RequestState> hold;
    if (keep != active_.end()) {
        hold = std::move(keep->second);
        active_.erase(keep);
    }
    // Kept for a later request: a handle that has made one transfer has its memory in place.
    if (idle_.size() < kMaxActive) {
        curl_easy_reset(request.easy);
        idle_.push_back(request.easy);
    } else {
        curl_easy_cleanup(request.easy);
    }
    request.easy = nullptr;
}

void Engine::DeliverError(RequestState& request, uint32_t api) {
    if (request.errorDelivered) return;
    request.errorDelivered = true;
    request.readPending = false;
    Push(request, StatusRequestError, nullptr, 0, AsyncResult{api, request.transferError});
}

void Engine::Finish(RequestState& request, uint32_t error) {
    const uint32_t api = Api(request);
    Detach(request);
    request.transferDone = true;
    request.transferError = error;
    if (error == 0) {
        if (request.readPending && request.Buffered() == 0) {
            request.readPending = false;
            request.endDelivered = true;
            Push(request, StatusReadComplete, request.readBuffer, 0);
        }
        return;
    }
    // Headers and bytes that arrived before the failure are delivered first, even when the
    // caller has not asked for the response yet; the failure then ends the reads.
    if (!request.headersReady.load() || (request.headersDelivered && request.Buffered() == 0))
        DeliverError(request, api);
}

void Engine::ProcessDone() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        auto it = active_.find(message->easy_handle);
        if (it == active_.end()) continue;
        std::shared_ptr<RequestState> request = it->second;
        const CURLcode code = message->data.result;
        if (request->redirecting && code == CURLE_OK) {
            if (request->redirectTooMany)
                Finish(*request, ErrorRedirectFailed);
            else
                Restart(*request);
            continue;
        }
        uint32_t error = MapCurlError(code);
        // curl refuses a single header line of more than 100 KB itself, and says it ran out of
        // memory: that line alone is past the block's limit, which the callback never saw.
        if (request->headerOverflow || (code == CURLE_OUT_OF_MEMORY && !request->headersReady.load()))
            error = ErrorHeaderSizeOverflow;
        if (error == 0 && !request->headersReady.load()) error = ErrorInvalidServerResponse;
        // A coded body that is damaged, or whose stream stopped before its end, is no response.
        if (request->decodeFailed || (error == 0 && request->inflater && !request->inflater->Complete()))
            error = ErrorInvalidServerResponse;
        Finish(*request, error);
    }
}

void Engine::Restart(RequestState& request) {
    curl_multi_remove_handle(multi_, request.easy);
    ++request.redirects;
    request.url = request.redirectTarget;
    curl_easy_setopt(request.easy, CURLOPT_URL, request.url.c_str());
    SetPipeWait(request);
    const bool toGet = request.verb != "HEAD" &&
                       (request.blockStatus == 303 ||
                        ((request.blockStatus == 301 || request.blockStatus == 302) && request.verb == "POST"));
    if (toGet) {
        curl_easy_setopt(request.easy, CURLOPT_CUSTOMREQUEST, nullptr);
        curl_easy_setopt(request.easy, CURLOPT_HTTPGET, 1L);
    }
    request.redirecting = false;
    request.block.clear();
    request.location.clear();
    request.blockStatus = 0;
    curl_multi_add_handle(multi_, request.easy);
    needsPerform_ = true;
}

void Engine::SetPipeWait(RequestState& request) {
    // A burst of HTTP/2 requests to one host would otherwise open a connection each before the
    // first handshake shows that they can all share it. Plain http is never multiplexed here, so
    // those transfers do not wait.
    const bool multiplexed = request.http2 && request.url.rfind("https:", 0) == 0;
    curl_easy_setopt(request.easy, CURLOPT_PIPEWAIT, multiplexed ? 1L : 0L);
}

void Engine::CheckTimeouts(Clock::time_point performed) {
    const Clock::time_point now = Clock::now();
    if (now - lastTimeoutCheck_ < std::chrono::milliseconds(50)) return;
    lastTimeoutCheck_ = now;
    // The pass of curl read every byte that had arrived before it began, so a request idle at
    // its start has waited on the network. Time since then may have gone on this thread alone
    // (delivering events, or not scheduled at all under load) while an answer waits unread.
    std::vector<std::shared_ptr<RequestState>> expired;
    for (auto& [easy, request] : active_) {
        if (!request->timerArmed || request->recvPaused || request->uploadPaused) continue;
        const int32_t limit = request->UploadPhase() ? request->timeouts.send : request->timeouts.receive;
        if (limit <= 0) continue;
        if (performed - request->lastActivity > std::chrono::milliseconds(limit)) expired.push_back(request);
    }
    for (auto& request : expired) Finish(*request, ErrorTimeout);
}

size_t Engine::HeaderCallback(char* data, size_t size, size_t count, void* user) {
    auto& request = *static_cast<RequestState*>(user);
    const size_t length = size * count;
    request.lastActivity = Clock::now();
    if (request.headersReady.load(std::memory_order_relaxed)) return length; // trailers
    std::string_view line(data, length);
    if (line.rfind("HTTP/", 0) == 0) {
        request.block.clear();
        request.block.reserve(kHeaderBlockRoom); // most blocks fit without growing
        request.location.clear();
        request.redirecting = false;
        const size_t blank = line.find(' ');
        request.blockStatus = blank == std::string_view::npos ? 0 : std::strtol(line.data() + blank + 1, nullptr, 10);
        request.blockBytes = 0;
    }
    request.blockBytes += length;
    if (request.blockBytes > kMaxHeaderBlock) {
        // Taking less than the whole line makes curl end the transfer.
        request.headerOverflow = true;
        return 0;
    }
    const std::string_view content = Trim(line);
    if (content.empty()) {
        self_->EndOfHeaderBlock(request);
        return length;
    }
    request.block.append(content);
    request.block += "\r\n";
    const size_t colon = content.find(':');
    if (colon != std::string_view::npos && EqualsNoCase(content.substr(0, colon), "location"))
        request.location = Trim(content.substr(colon + 1));
    return length;
}

void Engine::EndOfHeaderBlock(RequestState& request) {
    const long status = request.blockStatus;
    if (status >= 100 && status < 200) {
        request.block.clear();
        return;
    }
    const bool redirect = (status == 301 || status == 302 || status == 303 || status == 307 || status == 308) &&
                          !request.location.empty();
    if (redirect && !(request.streamedUpload && (status == 307 || status == 308))) {
        std::string target;
        std::string scheme;
        CURLU* url = curl_url();
        if (curl_url_set(url, CURLUPART_URL, request.url.c_str(), 0) == CURLUE_OK &&
            curl_url_set(url, CURLUPART_URL, request.location.c_str(), 0) == CURLUE_OK) {
            char* text = nullptr;
            if (curl_url_get(url, CURLUPART_URL, &text, 0) == CURLUE_OK) target = text;
            curl_free(text);
            text = nullptr;
            if (curl_url_get(url, CURLUPART_SCHEME, &text, 0) == CURLUE_OK) scheme = text;
            curl_free(text);
        }
        curl_url_cleanup(url);
        const bool fromHttps = request.url.rfind("https:", 0) == 0;
        const bool allowed = scheme == "https" || (scheme == "http" && !fromHttps);
        if (!target.empty() && allowed) {
            request.redirecting = true;
            request.redirectTooMany = request.redirects >= kMaxRedirects;
            request.redirectTarget = std::move(target);
            request.block.clear();
            return;
        }
    }

    // The final block. A body that the transport decodes has neither its encoded length nor its
    // encoding any more, so neither line is passed on.
    bool encoded = false;
    std::string_view coding;
    std::string_view blockView(request.block);
    if (request.decoding) {
        for (std::string_view rest = blockView; !rest.empty();) {
            const size_t end = rest.find("\r\n");
            const std::string_view line = rest.substr(0, end);
            rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
            const size_t colon = line.find(':');
            if (colon != std::string_view::npos && EqualsNoCase(line.substr(0, colon), "content-encoding") &&
                !EqualsNoCase(Trim(line.substr(colon + 1)), "identity")) {
                encoded = true;
                coding = Trim(line.substr(colon + 1));
            }
        }
    }
    if (encoded) {
        request.inflater = std::make_unique<Inflater>();
        request.inflater->Start(coding);
    }
    std::string text;
    text.reserve(request.block.size() + 2);
    size_t declaredLength = 0;
    for (std::string_view rest = blockView; !rest.empty();) {
        const size_t end = rest.find("\r\n");
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
        const size_t colon = line.find(':');
        const std::string_view name = colon == std::string_view::npos ? line : line.substr(0, colon);
        const bool length = EqualsNoCase(name, "content-length");
        if (encoded && (length || EqualsNoCase(name, "content-encoding"))) continue;
        if (length && colon != std::string_view::npos) {
            // Only a hint for the holding buffer: anything but a plain number gives none.
            const std::string_view value = Trim(line.substr(colon + 1));
            size_t n = 0;
            const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), n);
            declaredLength = error == std::errc() && end == value.data() + value.size() ? n : 0;
        }
        text.append(line);
        text += "\r\n";
    }
    // What comes before the first read is held here: room for the whole body, up to the most
    // ever held, saves growing it piece by piece.
    // A byte more lets the read that finds the end of a body handed over whole need no room.
    if (declaredLength > 0 && request.body.Empty()) request.body.Reserve(std::min(declaredLength, kBufferHigh) + 1);
    text += "\r\n";
    {
        std::lock_guard lock(request.headersMutex);
        request.finalHeaders = std::move(text);
    }
    request.block.clear();
    request.headersReady.store(true);
    if (request.receiveRequested && !request.headersDelivered) {
        request.headersDelivered = true;
        self_->Push(request, StatusHeadersAvailable);
    }
}

size_t Engine::WriteCallback(char* data, size_t size, size_t count, void* user) {
    auto& request = *static_cast<RequestState*>(user);
    size_t length = size * count;
    const size_t total = length;
    request.lastActivity = Clock::now();
    if (request.redirecting || !request.headersReady.load(std::memory_order_relaxed)) return total;
    if (!request.readPending && request.Buffered() >= kBufferHigh) {
        request.recvPaused = true;
        return CURL_WRITEFUNC_PAUSE;
    }
    if (request.inflater) {
        request.decoded.clear();
        if (!request.inflater->Feed(data, length, request.decoded)) {
            request.decodeFailed = true;
            return 0; // ends the transfer
        }
        data = request.decoded.data();
        length = request.decoded.size();
    }
    if (request.readPending && request.Buffered() == 0) {
        const size_t take = std::min<size_t>(length, request.readSize);
        std::memcpy(request.readBuffer, data, take);
        if (request.readBody) request.readBody->Commit(take);
        request.readBody = nullptr;
        request.readPending = false;
        self_->Push(request, StatusReadComplete, request.readBuffer, static_cast<uint32_t>(take));
        data += take;
        length -= take;
    }
    if (length > 0) {
        if (request.bodyOffset > 0 && request.bodyOffset >= request.body.Size() / 2) {
            request.body.DropFront(request.bodyOffset);
            request.bodyOffset = 0;
        }
        request.body.Append(data, length);
    }
    return total;
}

size_t Engine::ReadCallback(char* data, size_t size, size_t count, void* user) {
    auto& request = *static_cast<RequestState*>(user);
    const size_t capacity = size * count;
    size_t copied = 0;
    while (!request.uploads.empty()) {
        UploadBlock& block = request.uploads.front();
        const size_t take = std::min(capacity - copied, block.payload.size() - block.offset);
        std::memcpy(data + copied, block.payload.data() + block.offset, take);
        copied += take;
        block.offset += take;
        if (block.offset < block.payload.size()) break;
        self_->Push(request, StatusWriteComplete, nullptr, block.reported);
        request.uploads.pop_front();
        if (copied == capacity) break;
    }
    if (copied > 0) {
        request.lastActivity = Clock::now();
        return copied;
    }
    if (request.uploadEnd) return 0;
    request.uploadPaused = true;
    return CURL_READFUNC_PAUSE;
}

int Engine::PrereqCallback(void* user, char*, char*, int, int) {
    auto& request = *static_cast<RequestState*>(user);
    request.timerArmed = true;
    request.lastActivity = Clock::now();
    if (!request.sendCompleteDelivered) {
        request.sendCompleteDelivered = true;
        self_->Push(request, StatusSendRequestComplete);
    }
    return CURL_PREREQFUNC_OK;
}

Engine* Engine::self_ = nullptr;

void Engine::Start(RequestState& request) {
    if (request.closeIssued.load()) return;
    if (active_.size() >= kMaxActive) {
        request.waiting = true;
        waiting_.push_back(std::static_pointer_cast<RequestState>(request.shared_from_this()));
        return;
    }
    Launch(request);
}

void Engine::StartWaiting() {
    while (!waiting_.empty() && active_.size() < kMaxActive) {
        std::shared_ptr<RequestState> next = std::move(waiting_.front());
        waiting_.pop_front();
        if (!next->waiting) continue; // closed meanwhile
        next->waiting = false;
        Launch(*next);
    }
}

void Engine::Launch(RequestState& request) {
    SessionState& session = *request.session;
    bool tls12Only, http2, encodeExtra;
    uint32_t decompression;
    {
        std::lock_guard lock(session.mutex);
        tls12Only = session.tls12Only;
        http2 = session.http2;
        decompression = session.decompression;
        encodeExtra = session.encodeExtra;
    }
    Timeouts timeouts;
    std::vector<std::string> lines;
    {
        std::lock_guard lock(request.setupMutex);
        timeouts = request.timeouts;
        lines = request.headerLines;
    }
    request.timeouts = timeouts;

    const ConnectionState& connection = *request.connection;
    const bool secure = (request.flags & FlagSecure) != 0;
    std::string host = connection.server;
    if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
    std::string path = request.path.empty() || request.path.front() != '/' ? "/" + request.path : request.path;
    if (encodeExtra) path = EncodeExtra(path);
    request.url = std::string(secure ? "https://" : "http://") + host + ":" + std::to_string(connection.port) + path;

    CURL* easy = nullptr;
    if (!idle_.empty()) {
        easy = idle_.back();
        idle_.pop_back();
    } else {
        easy = curl_easy_init();
    }
    if (!easy) {
        request.transferDone = true;
        request.transferError = ErrorNotEnoughMemory;
        DeliverError(request, ApiSendRequest);
        return;
    }
    request.easy = easy;
    static const bool verbose = std::getenv("TELLAR_CURL_VERBOSE") != nullptr; // traces for debugging
    if (verbose) curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &request);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::HeaderCallback);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &request);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::WriteCallback);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &request);
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &Engine::PrereqCallback);
    curl_easy_setopt(easy, CURLOPT_PREREQDATA, &request);
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, session.userAgent.c_str());
    if (session.accessType == AccessTypeNoProxy) {
        curl_easy_setopt(easy, CURLOPT_PROXY, "");
    } else if (session.accessType == AccessTypeNamedProxy && !session.proxy.empty()) {
        curl_easy_setopt(easy, CURLOPT_PROXY, session.proxy.c_str());
        if (!session.proxyBypass.empty()) curl_easy_setopt(easy, CURLOPT_NOPROXY, session.proxyBypass.c_str());
    }
    if (tls12Only)
        curl_easy_setopt(easy, CURLOPT_SSLVERSION,
                         static_cast<long>(CURL_SSLVERSION_TLSv1_2) | static_cast<long>(CURL_SSLVERSION_MAX_TLSv1_2));
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1);
    request.http2 = http2;
    SetPipeWait(request);
    if (!session.caBundle.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, session.caBundle.c_str());
    if (decompression) {
        const char* encodings = (decompression & DecompressionGzip) && (decompression & DecompressionDeflate)
                                    ? "gzip, deflate"
                                : (decompression & DecompressionGzip) ? "gzip"
                                                                      : "deflate";
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, encodings);
        // Asked for, but undone here (Inflater).
        curl_easy_setopt(easy, CURLOPT_HTTP_CONTENT_DECODING, 0L);
        request.decoding = true;
    }
    const int64_t connectLimit =
        timeouts.connect > 0 ? int64_t{timeouts.connect} + std::max<int32_t>(timeouts.resolve, 0) : 0;
    if (connectLimit > 0) curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectLimit));

    bool hasContentType = false;
    curl_slist* list = nullptr;
    for (const std::string& line : lines) {
        const size_t colon = line.find(':');
        const std::string_view name = Trim(std::string_view(line).substr(0, colon));
        const std::string_view value =
            colon == std::string::npos ? std::string_view() : Trim(std::string_view(line).substr(colon + 1));
        if (EqualsNoCase(name, "content-length")) {
            // The length is curl's to send; a length that is no number counts as none.
            const long long parsed = std::strtoll(std::string(value).c_str(), nullptr, 10);
            request.uploadSize = parsed > 0 ? parsed : 0;
            request.streamedUpload = request.streamedUpload || request.postData.empty();
            continue;
        }
        if (EqualsNoCase(name, "transfer-encoding") && EqualsNoCase(value, "chunked")) {
            request.chunkedUpload = true;
            request.streamedUpload = true;
        }
        if (EqualsNoCase(name, "content-type")) hasContentType = true;
        list = curl_slist_append(list, line.c_str());
    }
    if (request.accept.empty()) {
        list = curl_slist_append(list, "Accept:");
    } else {
        std::string accept = "Accept: ";
        for (size_t i = 0; i < request.accept.size(); ++i) accept += (i ? ", " : "") + request.accept[i];
        list = curl_slist_append(list, accept.c_str());
    }
    list = curl_slist_append(list, "Expect:");

    if (request.verb == "GET") {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (request.verb == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        if (request.verb != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.verb.c_str());
        if (!hasContentType) list = curl_slist_append(list, "Content-Type:");
        if (request.streamedUpload) {
            curl_easy_setopt(easy, CURLOPT_READFUNCTION, &Engine::ReadCallback);
            curl_easy_setopt(easy, CURLOPT_READDATA, &request);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(request.chunkedUpload ? -1 : request.uploadSize));
        } else {
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.postData.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.postData.empty() ? "" : request.postData.data());
        }
    }
    request.slist = list;
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list);

    active_.emplace(easy, std::static_pointer_cast<RequestState>(request.shared_from_this()));
    curl_multi_add_handle(multi_, easy);
    needsPerform_ = true;
}

void Engine::Receive(RequestState& request) {
    if (request.closeProcessed) return;
    request.receiveRequested = true;
    if (request.headersReady.load() && !request.headersDelivered) {
        request.headersDelivered = true;
        Push(request, StatusHeadersAvailable);
    }
}

void Engine::Read(RequestState& request, void* buffer, uint32_t size) {
    if (request.closeProcessed || request.errorDelivered) return;
    const size_t buffered = request.Buffered();
    if (buffered > 0) {
        const size_t take = std::min<size_t>(buffered, size);
        std::memcpy(buffer, request.body.Data() + request.bodyOffset, take);
        request.bodyOffset += take;
        if (request.bodyOffset == request.body.Size()) {
            request.body.Clear();
            request.bodyOffset = 0;
        }
        Push(request, StatusReadComplete, buffer, static_cast<uint32_t>(take));
        if (request.recvPaused && request.easy && request.Buffered() < kBufferLow) {
            request.recvPaused = false;
            request.lastActivity = Clock::now();
            Pause(request);
        }
        return;
    }
    if (request.transferDone) {
        if (request.transferError == 0) {
            request.endDelivered = true;
            Push(request, StatusReadComplete, buffer, 0);
        } else
            DeliverError(request, ApiReadData);
        return;
    }
    request.readPending = true;
    request.readBuffer = buffer;
    request.readSize = size;
    request.readBody = nullptr;
    if (request.recvPaused && request.easy) {
        request.recvPaused = false;
        request.lastActivity = Clock::now();
        Pause(request);
    }
}

void Engine::ReadBody(RequestState& request, BodyBuffer& target, uint32_t room) {
    if (request.closeProcessed || request.errorDelivered) return;
    const size_t buffered = request.Buffered();
    if (buffered > 0) {
        // Everything held goes: into an empty body by exchange, else after what it has.
        uint8_t* start = nullptr;
        if (target.Empty() && request.bodyOffset == 0) {
            target.Swap(request.body);
            start = target.Data();
        } else {
            start = target.Room(buffered);
            std::memcpy(start, request.body.Data() + request.bodyOffset, buffered);
            target.Commit(buffered);
        }
        request.body.Clear();
        request.bodyOffset = 0;
        Push(request, StatusReadComplete, start, static_cast<uint32_t>(buffered));
        if (request.recvPaused && request.easy) {
            request.recvPaused = false;
            request.lastActivity = Clock::now();
            Pause(request);
        }
        return;
    }
    if (target.Spare() == 0) target.Room(room);
    Read(request, target.Data() + target.Size(),
         static_cast<uint32_t>(std::min<size_t>(target.Spare(), std::numeric_limits<uint32_t>::max())));
    if (request.readPending) request.readBody = &target;
}

void Engine::Write(RequestState& request, std::vector<char> data, uint32_t length) {
    if (request.closeProcessed || request.transferDone) return;
    if (length == 0) {
        // The end of a body of known length: nothing to report.
        if (!request.chunkedUpload) request.uploadEnd = true;
    } else {
        UploadBlock block;
        block.reported = length;
        if (request.chunkedUpload) {
            if (request.dechunker.Feed(data.data(), data.size(), block.payload)) request.uploadEnd = true;
        } else {
            block.payload = std::move(data);
        }
        if (block.payload.empty())
            Push(request, StatusWriteComplete, nullptr, length);
        else
            request.uploads.push_back(std::move(block));
    }
    if (request.uploadPaused && request.easy) {
        request.uploadPaused = false;
        request.lastActivity = Clock::now();
        Pause(request);
    }
}

void Engine::Close(HandleBase& handle, StatusCallback callback) {
    if (handle.kind != Kind::Request) {
        if (callback)
            events_.push_back(Event{handle.shared_from_this(), callback, nullptr, StatusHandleClosing, nullptr, 0, {}});
        return;
    }
    auto& request = static_cast<RequestState&>(handle);
    if (request.closeProcessed) return;
    request.closeProcessed = true;
    // In flight from the accepted send until its user has seen the end of the body or a
    // failure, also when the transport has not started it yet: closing it before that cancels,
    // which also wakes whoever still waits for the end.
    const bool inFlight = request.sendIssued.load() && !request.endDelivered && !request.errorDelivered;
    request.waiting = false;
    const uint32_t api = Api(request);
    Detach(request);
    request.transferDone = true;
    request.readPending = false;
    request.uploads.clear();
    if (inFlight) {
        request.transferError = ErrorOperationCancelled;
        request.errorDelivered = true;
        Push(request, StatusRequestError, nullptr, 0, AsyncResult{api, ErrorOperationCancelled});
    }
    Push(request, StatusHandleClosing);
}

template <class T>
std::shared_ptr<T> LookupAs(Handle handle, Kind kind) {
    auto found = Engine::Get().Lookup(handle);
    if (!found || found->kind != kind) return nullptr;
    return std::static_pointer_cast<T>(found);
}

} // namespace

uint32_t GetLastError() noexcept { return t_lastError; }
void SetLastError(uint32_t error) noexcept { t_lastError = error; }

size_t OpenHandleCount() { return g_liveHandles.load(); }

Handle Open(const char* userAgent, uint32_t accessType, const char* proxyName, const char* proxyBypass, uint32_t) {
    auto session = std::make_shared<SessionState>();
    session->userAgent = userAgent ? userAgent : "";
    session->accessType = accessType;
    session->proxy = proxyName ? proxyName : "";
    session->proxyBypass = proxyBypass ? proxyBypass : "";
    // The curl tool's variable, then OpenSSL's: a bundle named there replaces the built-in one.
    // Peers are always verified against whichever applies.
    for (const char* name : {"CURL_CA_BUNDLE", "SSL_CERT_FILE"}) {
        const char* value = std::getenv(name);
        if (value && *value) {
            session->caBundle = value;
            break;
        }
    }
    return Engine::Get().Register(session);
}

bool SetTimeouts(Handle handle, int32_t resolveMs, int32_t connectMs, int32_t sendMs, int32_t receiveMs) {
    auto found = Engine::Get().Lookup(handle);
    if (!found) return Fail(ErrorInvalidHandle);
    const Timeouts timeouts{resolveMs, connectMs, sendMs, receiveMs};
    if (found->kind == Kind::Session) {
        auto& session = static_cast<SessionState&>(*found);
        std::lock_guard lock(session.mutex);
        session.timeouts = timeouts;
        return true;
    }
    if (found->kind == Kind::Request) {
        auto& request = static_cast<RequestState&>(*found);
        std::lock_guard lock(request.setupMutex);
        request.timeouts = timeouts;
        return true;
    }
    return Fail(ErrorIncorrectHandleType);
}

bool SetOption(Handle handle, uint32_t option, const void* value, uint32_t length) {
    auto found = Engine::Get().Lookup(handle);
    if (!found) return Fail(ErrorInvalidHandle);
    if (option == OptionClientCertContext) return found->kind == Kind::Request ? true : Fail(ErrorIncorrectHandleType);
    if (found->kind != Kind::Session) return Fail(ErrorIncorrectHandleType);
    if (!value || length < sizeof(uint32_t)) return Fail(ErrorInvalidParameter);
    uint32_t number = 0;
    std::memcpy(&number, value, sizeof(number));
    auto& session = static_cast<SessionState&>(*found);
    std::lock_guard lock(session.mutex);
    switch (option) {
    case OptionSecureProtocols: session.tls12Only = number == SecureProtocolTls12; return true;
    case OptionEnableHttpProtocol: session.http2 = (number & ProtocolFlagHttp2) != 0; return true;
    case OptionDecompression: session.decompression = number & (DecompressionGzip | DecompressionDeflate); return true;
    case OptionEncodeExtra: session.encodeExtra = number != 0; return true;
    default: return Fail(ErrorInvalidOption);
    }
}

StatusCallback SetStatusCallback(Handle session, StatusCallback callback, uint32_t) {
    auto state = LookupAs<SessionState>(session, Kind::Session);
    if (!state) {
        Fail(ErrorInvalidHandle);
        return nullptr;
    }
    std::lock_guard lock(state->mutex);
    return std::exchange(state->callback, callback);
}

Handle Connect(Handle session, const char* server, uint16_t port) {
    auto state = LookupAs<SessionState>(session, Kind::Session);
    if (!state) {
        Fail(ErrorInvalidHandle);
        return nullptr;
    }
    if (!server || !*server) {
        Fail(ErrorInvalidUrl);
        return nullptr;
    }
    auto connection = std::make_shared<ConnectionState>();
    connection->session = std::move(state);
    connection->server = server;
    connection->port = port;
    return Engine::Get().Register(connection);
}

Handle OpenRequest(Handle connection, const char* verb, const char* path, const char*, const char*,
                   const char* const* acceptTypes, uint32_t flags) {
    auto state = LookupAs<ConnectionState>(connection, Kind::Connection);
    if (!state) {
        Fail(ErrorInvalidHandle);
        return nullptr;
    }
    auto request = std::make_shared<RequestState>();
    request->connection = state;
    request->session = state->session;
    request->verb = verb && *verb ? verb : "GET";
    request->path = path ? path : "";
    size_t types = 0;
    while (acceptTypes && acceptTypes[types]) ++types;
    request->accept.reserve(types);
    for (size_t i = 0; i < types; ++i) request->accept.emplace_back(acceptTypes[i]);
    request->flags = flags;
    {
        std::lock_guard lock(state->session->mutex);
        request->callback = state->session->callback;
        request->timeouts = state->session->timeouts;
    }
    return Engine::Get().Register(request);
}

bool AddRequestHeaders(Handle request, const char* headers, int64_t length, uint32_t) {
    auto state = LookupAs<RequestState>(request, Kind::Request);
    if (!state) return Fail(ErrorInvalidHandle);
    if (!headers) return Fail(ErrorInvalidParameter);
    if (state->sendIssued.load()) return Fail(ErrorIncorrectHandleState);
    const std::string_view text = length < 0 ? std::string_view(headers) : std::string_view(headers, length);
    std::lock_guard lock(state->setupMutex);
    for (std::string_view rest = text; !rest.empty();) {
        const size_t end = rest.find('\n');
        std::string_view line = Trim(rest.substr(0, end));
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        if (line.empty()) continue;
        if (line.find(':') == std::string_view::npos) return Fail(ErrorInvalidParameter);
        state->headerLines.emplace_back(line);
    }
    return true;
}

bool SendRequest(Handle request, const char*, int64_t, const void* data, uint32_t length, uint32_t totalLength,
                 void* context) {
    auto state = LookupAs<RequestState>(request, Kind::Request);
    if (!state) return Fail(ErrorInvalidHandle);
    {
        // A close on another thread now either came first or sees the send.
        std::lock_guard lock(state->setupMutex);
        if (state->closeIssued.load()) return Fail(ErrorInvalidHandle);
        if (state->sendIssued.exchange(true)) return Fail(ErrorIncorrectHandleState);
        state->context = context;
        if (data && length > 0) {
            const auto* bytes = static_cast<const char*>(data);
            state->postData.assign(bytes, bytes + length);
        }
        if (totalLength > length) {
            state->streamedUpload = true;
            state->uploadSize = totalLength;
            if (length > 0) {
                UploadBlock block;
                block.payload = std::move(state->postData);
                state->postData.clear();
                state->uploads.push_back(std::move(block));
            }
        }
    }
    Engine& engine = Engine::Get();
    engine.Run([state, &engine] { engine.Start(*state); });
    return true;
}

bool WriteData(Handle request, const void* data, uint32_t length, uint32_t* written) {
    auto state = LookupAs<RequestState>(request, Kind::Request);
    if (!state) return Fail(ErrorInvalidHandle);
    if (!state->sendIssued.load()) return Fail(ErrorIncorrectHandleState);
    if (length > 0 && !data) return Fail(ErrorInvalidParameter);
    std::vector<char> copy;
    if (length > 0) copy.assign(static_cast<const char*>(data), static_cast<const char*>(data) + length);
    if (written) *written = 0;
    Engine& engine = Engine::Get();
    engine.Run(
        [state, &engine, copy = std::move(copy), length]() mutable { engine.Write(*state, std::move(copy), length); });
    return true;
}

bool ReceiveResponse(Handle request, void*) {
    auto state = LookupAs<RequestState>(request, Kind::Request);
    if (!state) return Fail(ErrorInvalidHandle);
    if (!state->sendIssued.load()) return Fail(ErrorIncorrectHandleState);
    Engine& engine = Engine::Get();
    engine.Run([state, &engine] { engine.Receive(*state); });
    return true;
}

bool QueryHeaders(Handle request, uint32_t infoLevel, const char*, void* buffer, uint32_t* bufferLength, uint32_t*) {
    auto state = LookupAs<RequestState>(request, Kind::Request);
    if (!state) return Fail(ErrorInvalidHandle);
    if (!bufferLength) return Fail(ErrorInvalidParameter);
    if ((infoLevel & 0xFFFF) != QueryRawHeadersCrlf) return Fail(ErrorInvalidParameter);
    if (!state->headersReady.load()) return Fail(ErrorIncorrectHandleState);
    std::lock_guard lock(state->headersMutex);
    const size_t needed = (state->finalHeaders.size() + 2) & ~size_t{1};
    if (!buffer || *bufferLength < state->finalHeaders.size() + 1) {
        *bufferLength = static_cast<uint32_t>(needed);
        return Fail(ErrorInsufficientBuffer);
    }
    std::memcpy(buffer, state->finalHeaders.c_str(), state->finalHeaders.size() + 1);
    *bufferLength = static_cast<uint32_t>(state->finalHeaders.size());
    return true;
}

bool ReadData(Handle request, void* buffer, uint32_t toRead, uint32_t* read) {
    auto state = LookupAs<RequestState>(request, Kind::Request);
    if (!state) return Fail(ErrorInvalidHandle);
    if (!buffer && toRead > 0) return Fail(ErrorInvalidParameter);
    if (!state->sendIssued.load()) return Fail(ErrorIncorrectHandleState);
    if (read) *read = 0;
    Engine& engine = Engine::Get();
    engine.Run([state, &engine, buffer, toRead] { engine.Read(*state, buffer, toRead); });
    return true;
}

bool ReadBody(Handle request, BodyBuffer& body, uint32_t room) {
    auto state = LookupAs<RequestState>(request, Kind::Request);
    if (!state) return Fail(ErrorInvalidHandle);
    if (!state->sendIssued.load()) return Fail(ErrorIncorrectHandleState);
    Engine& engine = Engine::Get();
    engine.Run([state, &engine, &body, room] { engine.ReadBody(*state, body, std::max<uint32_t>(room, 1)); });
    return true;
}

bool CloseHandle(Handle handle) {
    Engine& engine = Engine::Get();
    auto found = engine.Unregister(handle);
    if (!found) return Fail(ErrorInvalidHandle);
    StatusCallback callback = nullptr;
    if (found->kind == Kind::Request) {
        auto& request = static_cast<RequestState&>(*found);
        std::lock_guard lock(request.setupMutex);
        request.closeIssued.store(true);
    } else {
        SessionState& session = found->kind == Kind::Session ? static_cast<SessionState&>(*found)
                                                             : *static_cast<ConnectionState&>(*found).session;
        std::lock_guard lock(session.mutex);
        callback = session.callback;
    }
    engine.Run([found, callback, &engine] { engine.Close(*found, callback); });
    return true;
}

} // namespace Platform::Windows::Network::Http::Transport
