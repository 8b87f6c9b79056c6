// "loadSekuraSessionUrl" through the bridge against a plain HTTP peer on 127.0.0.1.
#include "FakeDeviceServices.hpp"
#include "PeerProcess.hpp"

using namespace kelvane;

namespace {

using SekuraPeer = fakes::DeviceServiceFixture;

TEST_F(SekuraPeer, AnyStatusIsAResultAndABadAddressAnError) {
    kelvane::testing::PeerProcess peer("http-server.js", {R"({"lifetime":60})"});
    ASSERT_NE(peer.port(), 0);
    auto load = [&](const std::string& url) {
        std::size_t before = webView->scripts.size();
        post("loadSekuraSessionUrl", Json{{"url", url}});
        EXPECT_TRUE(platform.mainQueue->runUntil([&] { return webView->scripts.size() > before; }));
        return last();
    };

    auto [name, record] = load("http://127.0.0.1:" + std::to_string(peer.port()) + "/session/none");
    EXPECT_EQ(name, "loadSekuraSessionUrl");
    EXPECT_EQ(record, withDevice({{"success", true}, {"message", ""},
                                  {"result", {{"status_code", 404}, {"data", "not found"}}}}));
    EXPECT_TRUE(peer.waitForLine("REQUEST GET /session/none"));

    EXPECT_EQ(load("not a url").second,
              withDevice({{"success", false}, {"message", R"(Error Domain=Invalid URL Code=-1 "")"}}));
}

}  // namespace
