// A transaction's flow on the desktop platform: the library's own screen in a GTK window, its
// page in WebKit, the backend and the page server real on 127.0.0.1. Every bridge service
// answers with what the page posted, so that the bridge itself is what is under test.

#include "DesktopFixture.hpp"
#include "FakePlatform.hpp"

#include <kelvane/KelvaneApp.hpp>

#include "backend/WebSocketService.hpp"
#include "flow/Storyboard.hpp"
#include "flow/WebViewController.hpp"

#include <gtk/gtk.h>


using namespace kelvane;
using namespace kelvane::browser;
using Calls = std::vector<std::string>;

namespace {

class EchoingFlow : public WebViewController {
public:
    struct Echo : JsonRecord<Echo> {
        Json body;
        Json toJson() const { return Json{{"echo", body}}; }
    };
    std::vector<std::string> posted;

protected:
    void runService(Events, const platform::ScriptMessage& message) override {
        posted.push_back(message.name);
        Echo record;
        record.body = message.body;
        answer(message.name, record);
    }
};

// Hands other apps' schemes to a recorded app that opens them; nothing else can be opened.
class RecordingOpener : public platform::URLOpener {
public:
    std::vector<std::string> asked, opened;
    bool canOpenURL(const URL& url) const override {
        const_cast<RecordingOpener*>(this)->asked.push_back(url.absoluteString());
        return url.scheme() == "uaepass" || url.scheme() == "uaepassstg";
    }
    void open(const URL& url, std::function<void(bool)> completion) override {
        opened.push_back(url.absoluteString());
        if (completion) completion(true);
    }
    std::string openSettingsURLString() const override { return "app-settings:"; }
};

GtkWidget* findButton(GtkWidget* widget, const char* labelText) {
    if (GTK_IS_BUTTON(widget)) {
        const char* text = gtk_button_get_label(GTK_BUTTON(widget));
        if (text && std::string(text) == labelText && gtk_widget_get_mapped(widget)) return widget;
    }
    for (GtkWidget* child = gtk_widget_get_first_child(widget); child; child = gtk_widget_get_next_sibling(child)) {
        if (GtkWidget* found = findButton(child, labelText)) return found;
    }
    return nullptr;
}

class FlowTest : public DesktopTest {
protected:
    FlowTest() {
        previousScene_ = Storyboard::replaceScene("WebViewController", [this] {
            auto controller = std::make_shared<EchoingFlow>();
            flows.push_back(controller);
            return controller;
        });
        gtk::openWindow(root, "Kelvane browser test");
        runUntil([&] { return root->isViewLoaded(); });
    }
    ~FlowTest() override {
        WebSocketService().dispose();
        drain();
        Storyboard::replaceScene("WebViewController", previousScene_);
    }

    void push(const std::string& action, const std::string& requestId = "req-b") {
        auto origin = "http://127.0.0.1:" + std::to_string(backend.port());
        Json transaction{{"action", action}, {"socket", {{"url", origin}, {"requestId", requestId}}}};
        Json payload{{"id", "kn_auth"}, {"isEncrypted", 0}, {"data", transaction}};
        app->onPushReceived(Json{{"payload", payload.dump()}}, delegate, std::nullopt);
    }

    std::size_t statusPosts() const {
        auto lines = backend.lines();
        return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.starts_with("REQUEST ") && line.find(R"("path":"/status")") != std::string::npos;
        });
    }

    // The desktop's windows, for what a user would click.
    GtkWidget* button(const char* label) const {
        GListModel* toplevels = gtk_window_get_toplevels();
        for (guint i = 0; i < g_list_model_get_n_items(toplevels); ++i) {
            auto* window = GTK_WIDGET(g_list_model_get_item(toplevels, i));
            GtkWidget* found = findButton(window, label);
            g_object_unref(window);
            if (found) return found;
        }
        return nullptr;
    }

    bool pageShown() const { return !flows.empty() && flows.back()->webView && printed("REQUEST GET "); }

    fakes::LogCapture log;
    kelvane::testing::PeerProcess backend{"backend-server.js", {R"({"lifetime":90,"socketio":true})"}};
    std::shared_ptr<ViewController> root = std::make_shared<ViewController>();
    std::shared_ptr<fakes::RecordingDelegate> delegate = std::make_shared<fakes::RecordingDelegate>();
    std::shared_ptr<KelvaneApp> app = std::make_shared<KelvaneApp>();
    std::vector<std::shared_ptr<EchoingFlow>> flows;

private:
    Storyboard::Factory previousScene_;
};

}  // namespace

TEST_F(FlowTest, ThePageReachesEveryEventAndGetsEachAnswerAsAnObject) {
    push(page("/bridge"));
    ASSERT_TRUE(runUntil([&] { return printed("REPORT "); }));
    Json reported = Json::parse(line("REPORT ")->substr(7));
    const Json& posted = reported["posted"];
    const Json& received = reported["received"];
    ASSERT_EQ(posted.size(), 19u);
    ASSERT_EQ(received.size(), 19u);
    std::vector<std::string> postedNames;
    for (const auto& message : posted) {
        const std::string name = message["name"];
        postedNames.push_back(name);
        auto answers = std::count_if(received.begin(), received.end(), [&](const Json& r) { return r["name"] == name; });
        EXPECT_EQ(answers, 1) << name;
        auto answer = std::find_if(received.begin(), received.end(), [&](const Json& r) { return r["name"] == name; });
        if (answer == received.end()) continue;
        EXPECT_EQ((*answer)["type"], "object") << name;
        EXPECT_EQ((*answer)["isArray"], false) << name;
        EXPECT_EQ((*answer)["value"], (Json{{"echo", message["body"]}})) << name;
    }
    // The native side took each post under its name, in the page's order.
    EXPECT_EQ(flows.back()->posted, postedNames);

    // "success" ends the transaction: the host hears it and the screen goes.
    ASSERT_TRUE(runUntil([&] { return !delegate->calls().empty(); }));
    EXPECT_EQ(delegate->calls(), Calls{"onClosed:TranscationCompleted"});
    ASSERT_TRUE(runUntil([&] { return !root->presentedViewController(); }));
    EXPECT_EQ(statusPosts(), 1u) << "only the start is reported";
}

TEST_F(FlowTest, APageThatCannotBeReachedEndsWithConnectionErrorThenTheClose) {
    push("http://127.0.0.1:" + std::to_string(closedPort()) + "/page");
    ASSERT_TRUE(runUntil([&] { return delegate->calls().size() >= 2; }));
    EXPECT_EQ(delegate->calls(), (Calls{"onError:ConnectionError", "onClosed:TranscationCompleted"}));
    EXPECT_TRUE(log.contains(R"(NsError : Error Domain=NSURLErrorDomain Code=-1004 "Could not connect to the server.")"));
    ASSERT_TRUE(runUntil([&] { return !root->presentedViewController(); }));
}

TEST_F(FlowTest, NewWindowsGoToTheOpenerAndHandOffsToTheOtherApp) {
    auto opener = std::make_shared<RecordingOpener>();
    auto withOpener = *ports();
    withOpener.urlOpener = opener;
    platform::install(withOpener);

    push(page("/nav"));
    ASSERT_TRUE(runUntil([&] { return printed(R"(REPORT {"loaded":"/nav"})"); }));
    auto& webView = *flows.back()->webView;
    bool clicked = false;
    webView.evaluateJavaScript("document.getElementById('blank').click()", [&](auto, auto) { clicked = true; });
    ASSERT_TRUE(runUntil([&] { return opener->opened.size() == 1; }));
    EXPECT_EQ(opener->opened[0], page("/blank-target"));

    webView.evaluateJavaScript("document.getElementById('handoff').click()", [](auto, auto) {});
    ASSERT_TRUE(runUntil([&] { return opener->opened.size() == 2; }));
    auto handoff = URLComponents::make(*URL::make(opener->opened[1]));
    EXPECT_EQ(handoff.scheme(), "uaepass");
    EXPECT_NE(opener->opened[1].find("successurl=" + std::string(kBundle) + ":/uaepass/success?url="),
              std::string::npos)
        << opener->opened[1];

    // Both were cancelled: the page is still the one that was loaded, and nothing else was asked.
    std::optional<Json> where;
    webView.evaluateJavaScript("location.pathname", [&](auto result, auto) { where = result; });
    ASSERT_TRUE(runUntil([&] { return where.has_value(); }));
    EXPECT_TRUE(clicked);
    EXPECT_EQ(*where, Json("/nav"));
    EXPECT_FALSE(printed("REQUEST GET /blank-target"));
    EXPECT_TRUE(delegate->calls().empty());
}

TEST_F(FlowTest, TheExitButtonAsksAndOnlyOKClosesByUser) {
    push(page("/check"));
    ASSERT_TRUE(runUntil([&] { return pageShown() && button("Exit"); }));
    auto reportsBefore = statusPosts();

    gtk_widget_activate(button("Exit"));
    ASSERT_TRUE(runUntil([&] { return button("CANCEL") != nullptr; }));
    ASSERT_TRUE(button("OK"));
    gtk_widget_activate(button("CANCEL"));
    ASSERT_TRUE(runUntil([&] { return !button("CANCEL"); }));
    drain();
    EXPECT_TRUE(delegate->calls().empty());
    EXPECT_TRUE(root->presentedViewController());

    gtk_widget_activate(button("Exit"));
    ASSERT_TRUE(runUntil([&] { return button("OK") != nullptr; }));
    gtk_widget_activate(button("OK"));
    ASSERT_TRUE(runUntil([&] { return !delegate->calls().empty(); }));
    EXPECT_EQ(delegate->calls(), Calls{"onClosed:ByUser"});
    ASSERT_TRUE(runUntil([&] { return !root->presentedViewController() && statusPosts() == reportsBefore + 1; }));
}
