#pragma once

// Fakes of the authentication, location and network path ports, an RSA key of the openssl
// command line, and a flow screen on a fake web view for the bridge's device services.

#include "FakePlatform.hpp"
#include "TestTools.hpp"
#include "flow/WebViewController.hpp"
#include "support/Base64.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

namespace kelvane::fakes {

// Each evaluation waits until the test replies, from a thread of its own as a platform does.
class FakeLocalAuthentication : public platform::LocalAuthentication {
public:
    struct Context : platform::LAContext {
        std::string fallbackTitle, reason;
        CanEvaluate can;
        std::function<void(bool, std::optional<int>)> pending;
        void setLocalizedFallbackTitle(const std::string& title) override { fallbackTitle = title; }
        CanEvaluate canEvaluatePolicy(platform::LAPolicy) override { return can; }
        void evaluatePolicy(platform::LAPolicy, const std::string& why,
                            std::function<void(bool, std::optional<int>)> reply) override {
            reason = why;
            pending = std::move(reply);
        }
        std::string description() const override { return "<LAContext>"; }
    };
    // What the next contexts answer to canEvaluatePolicy.
    platform::LAContext::CanEvaluate can{true, std::nullopt};
    std::vector<std::shared_ptr<Context>> contexts;

    std::shared_ptr<platform::LAContext> makeContext() override {
        contexts.push_back(std::make_shared<Context>());
        contexts.back()->can = can;
        return contexts.back();
    }
    void reply(bool success, std::optional<int> errorCode = std::nullopt) {
        auto pending = std::exchange(contexts.back()->pending, nullptr);
        ASSERT_TRUE(pending) << "no authentication waits";
        std::thread([&] { pending(success, errorCode); }).join();
    }
};

class FakeLocationManager : public platform::LocationManager {
public:
    int status = static_cast<int>(platform::LocationAuthorizationStatus::authorizedWhenInUse);
    std::weak_ptr<platform::LocationDelegate> delegate;
    int authorizationRequests = 0, starts = 0, stops = 0;

    void setDelegate(std::weak_ptr<platform::LocationDelegate> newDelegate) override { delegate = newDelegate; }
    int authorizationStatus() const override { return status; }
    void requestWhenInUseAuthorization() override { ++authorizationRequests; }
    void startUpdatingLocation() override { ++starts; }
    void stopUpdatingLocation() override { ++stops; }
};

class FakeLocation : public platform::Location {
public:
    std::vector<std::shared_ptr<FakeLocationManager>> managers;
    std::shared_ptr<platform::LocationManager> makeManager() override {
        return managers.emplace_back(std::make_shared<FakeLocationManager>());
    }
};

// Delivers the test's paths on the queue it was started on, cancelled or not, as an update
// already under way when cancel() comes would be.
class FakeNetworkPathMonitor : public platform::NetworkPathMonitor {
public:
    std::function<void(const platform::NetworkPath&)> handler;
    std::shared_ptr<Queue> queue;
    std::atomic<bool> cancelled{false};

    void setPathUpdateHandler(std::function<void(const platform::NetworkPath&)> newHandler) override {
        handler = std::move(newHandler);
    }
    void start(std::shared_ptr<Queue> startQueue) override { queue = std::move(startQueue); }
    void cancel() override { cancelled = true; }
    void deliver(const platform::NetworkPath& path) {
        queue->async([copy = handler, path] { copy(path); });
    }
};

class FakeNetworkPaths : public platform::NetworkPaths {
public:
    std::vector<std::shared_ptr<FakeNetworkPathMonitor>> monitors;
    std::shared_ptr<platform::NetworkPathMonitor> makeMonitor() override {
        return monitors.emplace_back(std::make_shared<FakeNetworkPathMonitor>());
    }
};

// A 2048-bit RSA key: the public half as a page sends it (base64 of PKCS#1 DER), and OAEP
// decryption with SHA-1, both by the openssl command line.
class OpenSSLKey {
public:
    OpenSSLKey() {
        using kelvane::testing::run;
        run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + dir / "key.pem" + " 2>/dev/null");
        run("openssl rsa -in " + dir / "key.pem" + " -RSAPublicKey_out -outform DER -out " + dir / "public.der" +
            " 2>/dev/null");
        publicKey = base64::encode(kelvane::testing::readFile(dir / "public.der"));
    }
    std::string decrypt(const std::string& sealedBase64) const {
        kelvane::testing::writeFile(dir / "sealed.bin", std::string(asText(base64::decode(sealedBase64).value())));
        return kelvane::testing::run("openssl pkeyutl -decrypt -inkey " + dir / "key.pem" +
                                     " -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha1"
                                     " -pkeyopt rsa_mgf1_md:sha1 -in " + dir / "sealed.bin");
    }

    kelvane::testing::TempDir dir;
    std::string publicKey;
};

// Posts go through the bridge's entry; the page's callbacks are read back by name and record.
class DeviceServiceFixture : public ::testing::Test {
protected:
    DeviceServiceFixture() {
        platform.localAuthentication = authentication;
        platform.location = location;
        platform.networkPaths = networkPaths;
        platform.install();
        controller = std::make_shared<WebViewController>();
        webView = std::make_shared<FakeWebView>(platform::Rect{}, platform::WebViewConfiguration{});
        controller->webView = webView;
        controller->kelvaneService = delegate;
    }

    void post(const std::string& name, const Json& body = Json::object()) {
        controller->userContentController({name, body});
        platform.mainQueue->runUntilIdle();
    }
    // The posted name and the record of the last callback.
    std::pair<std::string, Json> last() const {
        if (webView->scripts.empty()) {
            ADD_FAILURE() << "no callback";
            return {};
        }
        const std::string& script = webView->scripts.back();
        auto comma = script.find("\" ,");
        auto record = json::parse(std::string_view(script).substr(comma + 3, script.size() - comma - 4));
        EXPECT_TRUE(script.starts_with("iosCallback(\"") && record) << script;
        return {script.substr(13, comma - 13), record.value_or(Json())};
    }
    Json lastRecord() const { return last().second; }
    // The fields with the current device record added.
    Json withDevice(Json fields) const {
        fields["device"] = controller->jsHandler.getDeviceInfo().toJson();
        return fields;
    }

    FakePlatform platform;
    std::shared_ptr<FakeLocalAuthentication> authentication = std::make_shared<FakeLocalAuthentication>();
    std::shared_ptr<FakeLocation> location = std::make_shared<FakeLocation>();
    std::shared_ptr<FakeNetworkPaths> networkPaths = std::make_shared<FakeNetworkPaths>();
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    LogCapture log;
    std::shared_ptr<WebViewController> controller;
    std::shared_ptr<FakeWebView> webView;
};

}  // namespace kelvane::fakes
