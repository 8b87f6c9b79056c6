#pragma once

// A host with a window and a delegate, a KelvaneApp, and flow screens whose page load is
// observed instead of run.

#include <kelvane/KelvaneApp.hpp>

#include "FakeHTTP.hpp"
#include "FakePlatform.hpp"
#include "backend/WebSocketService.hpp"
#include "flow/Storyboard.hpp"
#include "socketio/SocketIOClient.hpp"
#include "socketio/SocketManager.hpp"

#include <gtest/gtest.h>

#include <atomic>

namespace kelvane::testing {

// Keeps the page addresses the intake arrives at, and answers every bridge service with the
// posted body.
class ObservedWebViewController : public WebViewController {
public:
    struct EchoRecord : JsonRecord<EchoRecord> {
        Json body;
        Json toJson() const { return Json{{"success", true}, {"echo", body}}; }
    };

    std::vector<std::string> loadedPages;
    std::vector<Events> services;

    void newLoadWebView(const std::string& url) override { loadedPages.push_back(url); }
    void runService(Events event, const platform::ScriptMessage& message) override {
        services.push_back(event);
        EchoRecord record;
        record.body = message.body;
        answer(message.name, record);
    }
    using WebViewController::answer;
};

// Counts how often dispose() closed the class-level connection.
class CountingConnection {
public:
    int disconnects = 0;
    // Makes a manager that never connects the class-level connection.
    void install() {
        auto manager = std::make_shared<socketio::SocketManager>(*URL::make("http://127.0.0.1:9"));
        manager->defaultSocket()->on(socketio::SocketClientEvent::disconnect,
                                     [this](const auto&, auto&) { ++disconnects; });
        WebSocketService::socketManager = manager;
    }
};

class FlowFixture : public ::testing::Test {
protected:
    FlowFixture() {
        root = platform.viewSystem->installRoot();
        previousScene = Storyboard::replaceScene("WebViewController", [this] {
            auto controller = std::make_shared<ObservedWebViewController>();
            controllers.push_back(controller);
            return controller;
        });
        connection->install();
        http->response = platform::HTTPResponse{200, {}};
        http->data = "{}";
        platform.http = http;
        platform.install();
    }
    ~FlowFixture() override {
        Storyboard::replaceScene("WebViewController", previousScene);
        WebSocketService::socketManager.reset();
    }

    // A message whose "payload" is the given object's JSON text.
    static Json message(const Json& payload) { return Json{{"payload", payload.dump()}}; }

    static Json transaction(const std::string& action = "https://page.test/t/1") {
        return Json{{"action", action}, {"socket", {{"url", "wss://socket.test"}, {"requestId", "req-1"}}},
                    {"type", "push"}};
    }

    static Json plainPayload(const Json& data = transaction()) {
        return Json{{"version", 1}, {"id", "kn_auth"}, {"isEncrypted", 0}, {"data", data}};
    }

    // Pushes and lets the shown screen run its lifecycle.
    void push(const Json& data, std::optional<std::string> key = std::nullopt) {
        app->onPushReceived(data, delegate, std::move(key));
        platform.mainQueue->runUntilIdle();
    }

    // Pushes a plain transaction and returns its shown screen.
    std::shared_ptr<ObservedWebViewController> show() {
        push(message(plainPayload()));
        return controllers.back();
    }
    static std::shared_ptr<fakes::FakeWebView> webViewOf(const std::shared_ptr<WebViewController>& controller) {
        return std::static_pointer_cast<fakes::FakeWebView>(controller->webView);
    }

    // A URL no earlier test has sent through the custom-scheme stream, which drops repeats.
    static std::string freshReturnURL() {
        static std::atomic<int> counter{0};
        return "https://return.test/" + std::to_string(counter++);
    }

    fakes::FakePlatform platform;
    // Status reports land here; no unit test reaches the network.
    std::shared_ptr<fakes::FakeHTTP> http = std::make_shared<fakes::FakeHTTP>();
    fakes::LogCapture log;
    std::shared_ptr<fakes::RecordingDelegate> delegate = std::make_shared<fakes::RecordingDelegate>();
    std::shared_ptr<KelvaneApp> app = std::make_shared<KelvaneApp>();
    std::shared_ptr<ViewController> root;
    std::vector<std::shared_ptr<ObservedWebViewController>> controllers;
    std::shared_ptr<CountingConnection> connection = std::make_shared<CountingConnection>();
    Storyboard::Factory previousScene;
};

}  // namespace kelvane::testing
