// The libcurl HTTP client and the session over it, against a node `http` server on 127.0.0.1.
#include "PeerProcess.hpp"
#include "TestTools.hpp"

#include "support/CurlHTTP.hpp"
#include "support/HTTPSession.hpp"

#include <kelvane/Json.hpp>

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>

namespace kelvane {
namespace {

using testing::PeerProcess;
using namespace std::chrono_literals;

const Error cancelled{"NSURLErrorDomain", -999, "cancelled"};

struct Reply {
    std::optional<std::string> data;
    std::optional<platform::HTTPResponse> response;
    std::optional<Error> error;
    std::string thread;
    bool onQueue = false;
};

// Keeps every completion under its key, and lets a test wait for them.
class Replies : public std::enable_shared_from_this<Replies> {
public:
    // A completion that records under `key`; with a queue, whether it ran there.
    HTTPSession::Completion completion(std::string key, std::shared_ptr<Queue> queue = nullptr) {
        return [self = shared_from_this(), key = std::move(key), queue](auto data, auto response, auto error) {
            char thread[16] = {};
            pthread_getname_np(pthread_self(), thread, sizeof thread);
            std::lock_guard lock(self->mutex_);
            self->order_.push_back(key);
            self->replies_.emplace(key, Reply{data, response, error, thread, queue && queue->isCurrent()});
            self->changed_.notify_all();
        };
    }
    bool waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 15s, [&] { return order_.size() >= count; });
    }
    Reply at(const std::string& key) {
        std::lock_guard lock(mutex_);
        auto found = replies_.find(key);
        if (found != replies_.end()) return found->second;
        return {std::nullopt, std::nullopt, Error{"test", 0, "no reply " + key}, "", false};
    }
    std::vector<std::string> order() {
        std::lock_guard lock(mutex_);
        return order_;
    }
    std::size_t count(const std::string& key) {
        auto keys = order();
        return std::count(keys.begin(), keys.end(), key);
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Reply> replies_;
    std::vector<std::string> order_;
};

platform::HTTPRequest request(const std::string& url, std::string method = "GET",
                              std::vector<std::pair<std::string, std::string>> headers = {},
                              std::optional<std::string> body = std::nullopt, double timeout = 60) {
    return {*URL::make(url), std::move(method), std::move(headers), std::move(body), timeout};
}

std::string base(const PeerProcess& peer) { return "http://127.0.0.1:" + std::to_string(peer.port()); }
// Nobody listens on port 1 of the loopback.
const std::string refusingURL = "http://127.0.0.1:1/echo";

std::string downloadBytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7) % 256);
    return bytes;
}

TEST(CurlHTTPPeer, RoundTripsRequestsOverOneKeptConnection) {
    PeerProcess peer("http-server.js", {});
    ASSERT_NE(peer.port(), 0);
    auto http = defaultHTTP();
    auto replies = std::make_shared<Replies>();
    http->dataTask(request(base(peer) + "/echo?a=1", "GET",
                           {{"X-First", "1"}, {"Authorization", "Bearer t"}, {"X-Empty", ""}, {"x-last", "Z z"}}),
                   replies->completion("get"));
    ASSERT_TRUE(replies->waitFor(1));
    // Larger than the size at which libcurl would wait for "100 Continue".
    std::string body = R"({"status":"201","text":")" + std::string(100000, 'x') + "\xC3\xA9\"}";
    http->dataTask(request(base(peer) + "/echo", "POST", {{"Content-Type", "application/json"}}, body),
                   replies->completion("post"));
    http->dataTask(request(base(peer) + "/redirect"), replies->completion("redirect"));
    http->dataTask(request(base(peer) + "/status/500"), replies->completion("500"));
    ASSERT_TRUE(replies->waitFor(4));

    auto get = replies->at("get");
    ASSERT_TRUE(get.response && get.data) << get.error->text();
    EXPECT_EQ(get.thread, "kelvane-http");
    EXPECT_EQ(get.response->statusCode, 200);
    const auto& headers = get.response->headers;
    EXPECT_NE(std::find(headers.begin(), headers.end(), std::pair<std::string, std::string>("X-Echo", "yes")),
              headers.end());
    auto echo = json::parse(*get.data).value_or(Json());
    EXPECT_EQ(echo["method"], "GET");
    EXPECT_EQ(echo["url"], "/echo?a=1");
    EXPECT_EQ(echo["body"], "");
    // The caller's headers, in the caller's order and spelling, the empty one kept.
    auto sent = echo["headers"].dump();
    EXPECT_NE(sent.find(R"("X-First","1","Authorization","Bearer t","X-Empty","","x-last","Z z")"), std::string::npos)
        << sent;

    auto posted = json::parse(replies->at("post").data.value_or("")).value_or(Json());
    EXPECT_EQ(posted["method"], "POST");
    EXPECT_EQ(posted["body"], body);
    sent = posted["headers"].dump();
    EXPECT_NE(sent.find(R"("Content-Type","application/json")"), std::string::npos) << sent;
    EXPECT_EQ(sent.find("Expect"), std::string::npos) << sent;
    EXPECT_EQ(posted["connection"], echo["connection"]);

    EXPECT_EQ(json::parse(replies->at("redirect").data.value_or("")).value_or(Json())["url"], "/echo");
    // A failing status is an answer like any other.
    auto failed = replies->at("500");
    EXPECT_FALSE(failed.error);
    EXPECT_EQ(failed.response.value_or(platform::HTTPResponse{}).statusCode, 500);
    EXPECT_EQ(failed.data, "status 500");
}

TEST(CurlHTTPPeer, FailuresBecomeURLLoadingErrors) {
    PeerProcess peer("http-server.js", {});
    ASSERT_NE(peer.port(), 0);
    auto http = defaultHTTP();
    auto replies = std::make_shared<Replies>();
    http->dataTask(request(refusingURL), replies->completion("refused"));
    auto started = std::chrono::steady_clock::now();
    http->dataTask(request(base(peer) + "/delay?ms=8000", "GET", {}, std::nullopt, 1), replies->completion("idle"));
    ASSERT_TRUE(replies->waitFor(2));
    auto waited = std::chrono::steady_clock::now() - started;
    auto refused = replies->at("refused");
    EXPECT_FALSE(refused.data || refused.response);
    EXPECT_EQ(refused.error, (Error{"NSURLErrorDomain", -1004, "Could not connect to the server."}));
    EXPECT_EQ(replies->at("idle").error, (Error{"NSURLErrorDomain", -1001, "The request timed out."}));
    EXPECT_GT(waited, 900ms);
    EXPECT_LT(waited, 5s);

    // The timeout bounds silence, not the whole transfer: a trickle outlasting it goes through.
    http->dataTask(request(base(peer) + "/trickle?count=6&ms=400", "GET", {}, std::nullopt, 1),
                   replies->completion("trickle"));
    http->dataTask(request(base(peer) + "/delay?ms=1500"), replies->completion("poll"));
    ASSERT_TRUE(replies->waitFor(4));
    EXPECT_EQ(replies->at("trickle").data, "......");
    EXPECT_EQ(replies->at("poll").data, "late");

    // A client going away cancels what it still runs, before its destructor returns.
    {
        CurlHTTP own;
        own.dataTask(request(base(peer) + "/delay?ms=8000"), replies->completion("abandoned"));
        ASSERT_TRUE(peer.waitForLine("REQUEST GET /delay?ms=8000"));
    }
    EXPECT_EQ(replies->count("abandoned"), 1u);
    EXPECT_EQ(replies->at("abandoned").error, cancelled);
}

TEST(CurlHTTPPeer, ConcurrentRequestsEachCompleteOnce) {
    PeerProcess peer("http-server.js", {});
    ASSERT_NE(peer.port(), 0);
    auto replies = std::make_shared<Replies>();
    for (int i = 0; i < 20; ++i) {
        defaultHTTP()->dataTask(request(base(peer) + "/delay?ms=300&n=" + std::to_string(i)),
                                replies->completion(std::to_string(i)));
    }
    ASSERT_TRUE(replies->waitFor(20));
    // Completions run in turn on one thread: a duplicate would come before this one.
    defaultHTTP()->dataTask(request(base(peer) + "/echo"), replies->completion("last"));
    ASSERT_TRUE(replies->waitFor(21));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(replies->count(std::to_string(i)), 1u) << i;
        EXPECT_EQ(replies->at(std::to_string(i)).data, "late") << i;
    }
}

TEST(CurlHTTPPeer, DownloadsToATemporaryFileAndReadsContents) {
    PeerProcess peer("http-server.js", {});
    ASSERT_NE(peer.port(), 0);
    auto http = defaultHTTP();
    auto replies = std::make_shared<Replies>();
    auto location = std::make_shared<std::filesystem::path>();
    http->downloadTask(*URL::make(base(peer) + "/download?size=300000"),
                       [record = replies->completion("download"), location](auto path, auto response, auto error) {
                           if (path) *location = *path;
                           record(path ? std::optional(testing::readFile(*path)) : std::nullopt, response, error);
                       });
    ASSERT_TRUE(replies->waitFor(1));
    auto download = replies->at("download");
    EXPECT_EQ(download.data, downloadBytes(300000));
    EXPECT_EQ(download.response.value_or(platform::HTTPResponse{}).statusCode, 200);
    // The file goes right after the completion, before the thread takes up anything else.
    http->dataTask(request(base(peer) + "/echo"), replies->completion("after"));
    ASSERT_TRUE(replies->waitFor(2));
    EXPECT_FALSE(location->empty());
    EXPECT_FALSE(std::filesystem::exists(*location));

    auto read = http->contentsOf(*URL::make(base(peer) + "/download?size=5000"));
    ASSERT_TRUE(read.ok()) << read.error().text();
    EXPECT_EQ(*read, downloadBytes(5000));
    auto failedStatus = http->contentsOf(*URL::make(base(peer) + "/status/404"));
    EXPECT_EQ(failedStatus.ok() ? *failedStatus : failedStatus.error().text(), "status 404");
    auto refused = http->contentsOf(*URL::make(refusingURL));
    EXPECT_EQ(refused.ok() ? 0 : refused.error().code, -1004);
}

class RecordingDelegate final : public HTTPSessionDelegate {
public:
    RecordingDelegate(std::shared_ptr<Replies> replies, std::shared_ptr<Queue> queue)
        : record_(replies->completion("invalid", std::move(queue))) {}
    void didBecomeInvalid(const std::optional<Error>& error) override { record_(std::nullopt, std::nullopt, error); }

private:
    HTTPSession::Completion record_;
};

TEST(CurlHTTPPeer, SessionHopsToItsQueueAndInvalidatesAfterRunningTasks) {
    PeerProcess peer("http-server.js", {});
    ASSERT_NE(peer.port(), 0);
    auto queue = Queue::makeSerial("test.session");
    auto replies = std::make_shared<Replies>();
    auto delegate = std::make_shared<RecordingDelegate>(replies, queue);
    auto session = std::make_shared<HTTPSession>(defaultHTTP(), queue, delegate);
    session->dataTask(request(base(peer) + "/delay?ms=1000"), replies->completion("running", queue));
    ASSERT_TRUE(peer.waitForLine("REQUEST GET /delay?ms=1000"));
    session->finishTasksAndInvalidate();
    EXPECT_TRUE(session->invalidated());
    session->dataTask(request(base(peer) + "/echo?refused"), replies->completion("refused", queue));
    session->finishTasksAndInvalidate();
    ASSERT_TRUE(replies->waitFor(3));

    auto running = replies->at("running");
    EXPECT_TRUE(running.onQueue);
    EXPECT_EQ(running.data, "late");
    auto refused = replies->at("refused");
    EXPECT_TRUE(refused.onQueue);
    EXPECT_EQ(refused.error, cancelled);
    auto order = replies->order();
    EXPECT_LT(std::find(order.begin(), order.end(), "running"), std::find(order.begin(), order.end(), "invalid"));
    EXPECT_TRUE(replies->at("invalid").onQueue);
    EXPECT_FALSE(replies->at("invalid").error);

    // A session with nothing running is invalid at once; either way the delegate hears it once.
    std::make_shared<HTTPSession>(defaultHTTP(), queue, delegate)->finishTasksAndInvalidate();
    ASSERT_TRUE(replies->waitFor(4));
    defaultHTTP()->dataTask(request(base(peer) + "/echo?after"), replies->completion("after"));
    ASSERT_TRUE(replies->waitFor(5));
    ASSERT_TRUE(peer.waitForLine("REQUEST GET /echo?after"));
    EXPECT_EQ(replies->count("invalid"), 2u);
    for (const auto& line : peer.lines()) EXPECT_EQ(line.find("refused"), std::string::npos) << line;

    EXPECT_EQ(requestHeaderFields({{"a", "1"}, {"io", "x=y"}}),
              (std::map<std::string, std::string>{{"Cookie", "a=1; io=x=y"}}));
    EXPECT_TRUE(requestHeaderFields({}).empty());
}

}  // namespace
}  // namespace kelvane
