#include <kelvane/URL.hpp>

#include <gtest/gtest.h>

using namespace kelvane;

TEST(URLs, AreMadeOnlyFromURIReferences) {
    for (const char* good : {"https://a.test/ok", "uaepass://open?x=1", "com.test.app:/uaepass", "/relative/path",
                             "https://a.test/%20x", "mailto:x@y.test", "http://[::1]:8080/"}) {
        EXPECT_TRUE(URL::make(good)) << good;
    }
    for (const char* bad : {"", "https://a.test/a b", "https://a.test/%zz", "https://a.test/\xC3\xA9", "ht tp://x",
                            "https://a.test/?q=[1]", "https://a.test/#a#b", "https://user:pw43/a/b"}) {
        EXPECT_FALSE(URL::make(bad)) << bad;
    }
}

TEST(URLs, GiveTheirParts) {
    auto url = *URL::make("UaePass://Host.test/dir/Report.PDF?x=%41#frag");
    EXPECT_EQ(url.scheme(), "UaePass");
    EXPECT_EQ(url.host(), "Host.test");
    EXPECT_EQ(url.path(), "/dir/Report.PDF");
    EXPECT_EQ(url.query(), "x=%41");
    EXPECT_EQ(url.lastPathComponent(), "Report.PDF");
    EXPECT_EQ(url.pathExtension(), "PDF");
    EXPECT_EQ(URL::make("https://a.test/dir/")->lastPathComponent(), "dir");
    EXPECT_EQ(URL::make("https://a.test/.hidden")->pathExtension(), "");
    EXPECT_EQ(URL::make("https://a.test/a?file=x.pdf")->pathExtension(), "");
    EXPECT_EQ(URL::make("https://a.test/a.pdfx")->pathExtension(), "pdfx");
    EXPECT_FALSE(URL::make("https://a.test/")->query());
}

TEST(URLComponents, QueryItemsKeepOrderAndTellValuelessFromEmpty) {
    auto parts = *URLComponents::make("https://a.test/?a=1&b&c=&a=%2F+x&&d=e=f");
    auto items = *parts.queryItems();
    std::vector<URLQueryItem> expected{{"a", "1"}, {"b", std::nullopt}, {"c", ""}, {"a", "/+x"},
                                       {"", std::nullopt}, {"d", "e=f"}};
    EXPECT_EQ(items, expected);
    EXPECT_FALSE(URLComponents::make("https://a.test/")->queryItems());
    EXPECT_TRUE(URLComponents::make("https://a.test/?")->queryItems()->empty());
}

TEST(URLComponents, SettingQueryItemsEncodesWhatTheQueryCannotHold) {
    URLComponents parts = *URLComponents::make("uaepass://open?old=1#top");
    parts.setQueryItems(std::vector<URLQueryItem>{{"n&m=", "v&w=x %/?:"}, {"flag", std::nullopt}});
    EXPECT_EQ(parts.string(), "uaepass://open?n%26m%3D=v%26w=x%20%25/?:&flag#top");
    auto back = *parts.url();
    EXPECT_EQ((*URLComponents::make(back).queryItems())[0].value, "v&w=x %/?:");
    parts.setQueryItems(std::nullopt);
    EXPECT_EQ(parts.string(), "uaepass://open#top");
}

TEST(URLComponents, BuildURLsFromPartsOnlyWhenTheyMakeOne) {
    URLComponents callback;
    callback.setScheme("com.test.app");
    callback.setPath("/uaepass");
    EXPECT_EQ(callback.url()->absoluteString(), "com.test.app:/uaepass");

    URLComponents empty;
    empty.setScheme("");
    empty.setPath("/uaepass");
    EXPECT_FALSE(empty.url());

    URLComponents badScheme;
    badScheme.setScheme("my_app");
    badScheme.setPath("/x");
    EXPECT_FALSE(badScheme.url());

    URLComponents hostAndScheme;
    hostAndScheme.setScheme("uaepass");
    hostAndScheme.setHost("open app");
    EXPECT_EQ(hostAndScheme.string(), "uaepass://open%20app");

    URLComponents relativePathWithHost;
    relativePathWithHost.setHost("h");
    relativePathWithHost.setPath("rel");
    EXPECT_FALSE(relativePathWithHost.url());
}

TEST(PercentEncoding, FollowsTheNamedSets) {
    EXPECT_EQ(addingPercentEncoding("https://a.test/ok", URLCharacterSet::alphanumerics), "https%3A%2F%2Fa%2Etest%2Fok");
    EXPECT_EQ(addingPercentEncoding("https://a.test/ok?x=1&y", URLCharacterSet::urlHostAllowed),
              "https:%2F%2Fa.test%2Fok%3Fx=1&y");
    EXPECT_EQ(addingPercentEncoding("a b/?#\xC3\xA9", URLCharacterSet::urlQueryAllowed), "a%20b/?%23%C3%A9");
    EXPECT_EQ(addingPercentEncoding("a/b;c", URLCharacterSet::urlPathAllowed), "a/b%3Bc");
    EXPECT_FALSE(addingPercentEncoding("\xC3", URLCharacterSet::alphanumerics));
}

TEST(PercentEncoding, DecodingRefusesBrokenEscapesAndBrokenText) {
    EXPECT_EQ(removingPercentEncoding("a%2Fb%20c+d"), "a/b c+d");
    EXPECT_EQ(removingPercentEncoding("%C3%A9"), "\xC3\xA9");
    for (const char* bad : {"%", "%2", "%zz", "a%2", "%C3"}) EXPECT_FALSE(removingPercentEncoding(bad)) << bad;
}
