// The desktop's device, bundle and documents ports as a host sees them through the platform.
#include "BrowserHarness.hpp"

#include <kelvane/AlertController.hpp>
#include <kelvane/gtk/GtkPlatform.hpp>

#include <gtest/gtest.h>

#include <gtk/gtk.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>

using namespace kelvane;

TEST(DesktopPorts, TheVendorIdentifierIsOneUuidPerMachineAndApp) {
    auto one = gtk::makePlatform("com.kelvane.one", "1.0");
    auto again = gtk::makePlatform("com.kelvane.one", "2.5");
    auto other = gtk::makePlatform("com.kelvane.two", "1.0");
    auto id = one.device->identifierForVendor();
    ASSERT_TRUE(id.has_value()) << "no machine id on this host";
    EXPECT_TRUE(std::regex_match(*id, std::regex("[0-9A-F]{8}-[0-9A-F]{4}-5[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << *id;
    EXPECT_EQ(again.device->identifierForVendor(), id);
    EXPECT_NE(other.device->identifierForVendor(), id);

    EXPECT_EQ(again.bundle->bundleIdentifier(), "com.kelvane.one");
    EXPECT_EQ(again.bundle->shortVersion(), "2.5");
    EXPECT_FALSE(one.device->model().empty());
    EXPECT_FALSE(one.device->systemName().empty());
}

TEST(DesktopPorts, DocumentsAreTheUsersXdgDocumentsFolderMadeOnFirstUse) {
    // The harness gives each test process its own XDG config folder; the user's folders file
    // there names the documents folder.
    std::filesystem::path config = std::getenv("XDG_CONFIG_HOME");
    auto wanted = config.parent_path() / "my documents";
    std::filesystem::remove_all(wanted);
    std::ofstream(config / "user-dirs.dirs") << "XDG_DOCUMENTS_DIR=\"" << wanted.string() << "\"\n";
    g_reload_user_special_dirs_cache();

    auto documents = gtk::makePlatform("com.kelvane.one", "1.0").documents->documentsDirectory();
    EXPECT_EQ(documents, wanted);
    EXPECT_TRUE(std::filesystem::is_directory(wanted));
    std::filesystem::remove(config / "user-dirs.dirs");
    g_reload_user_special_dirs_cache();
}

TEST(DesktopPorts, AWindowShowsTheHostsOwnContentUnderWhatTheLibraryPresents) {
    auto previous = platform::current();
    platform::install(gtk::makePlatform("com.kelvane.one", "1.0"));
    GtkWidget* content = gtk_label_new("the host's screen");
    auto root = std::make_shared<ViewController>();
    gtk::openWindow(root, "Host", content);
    ASSERT_TRUE(root->isViewLoaded());
    GtkRoot* window = gtk_widget_get_root(content);
    ASSERT_NE(window, nullptr);

    auto alert = std::make_shared<AlertController>("Over", "the host", AlertController::Style::alert);
    root->present(alert, false);
    browser::drain();
    EXPECT_EQ(root->presentedViewController(), alert);
    EXPECT_EQ(gtk_widget_get_root(content), window);
    platform::install(*previous);
    browser::drain();
}
