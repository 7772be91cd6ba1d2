#include <gtest/gtest.h>

#include <kest/utils/url.h>

namespace kest::utils {
namespace {

TEST(Url, ParsesComponentsAndDefaultPorts)
{
    const Url url("HTTP://Example.com:8080/base/x%20y?a=1&b=%26");
    ASSERT_TRUE(url.isValid());
    EXPECT_EQ(url.scheme(), "http");
    EXPECT_EQ(url.host(), "Example.com");
    EXPECT_EQ(url.port(), 8080);
    EXPECT_EQ(url.path(), "/base/x y");
    EXPECT_EQ(url.encodedQuery(), "a=1&b=%26");
    EXPECT_EQ(url.target(), "/base/x%20y?a=1&b=%26");

    EXPECT_EQ(Url("http://h").port(), 80);
    EXPECT_FALSE(Url("http://h").hasExplicitPort());
    EXPECT_EQ(Url("https://h").port(), 443);
    EXPECT_EQ(Url("ftp://h").port(), 0);
    EXPECT_EQ(Url("http://h").target(), "/");

    const Url v6("http://[::1]:9/");
    EXPECT_EQ(v6.host(), "::1");
    EXPECT_EQ(v6.port(), 9);
}

TEST(Url, RefusesWhatIsNotAnAbsoluteUrlWithAHost)
{
    for (const char* text : {"", "/relative/path", "host:80", "http://", "mailto:a@b",
                             "http://h:99999/", "http://h:0/", "http://h/%zz"}) {
        EXPECT_FALSE(Url::parse(text)) << text;
        EXPECT_FALSE(Url(text).isValid()) << text;
    }
}

TEST(Url, AppendPathJoinsWithOneSlashAndEscapes)
{
    EXPECT_EQ(Url("http://h:1/base/").appendPath("/metadataDb/v1/data").toString(),
              "http://h:1/base/metadataDb/v1/data");
    EXPECT_EQ(Url("http://h:1/base").appendPath("x/y").toString(), "http://h:1/base/x/y");
    EXPECT_EQ(Url("http://h:1").appendPath("/x").toString(), "http://h:1/x");
    EXPECT_EQ(Url("http://h:1/b").appendPath("").toString(), "http://h:1/b");

    // Path text is decoded: "%" and "?" are data, not escapes or a query; ";" stays as it is.
    Url url("http://h/errors");
    url.appendPath("a b;c%41?d");
    EXPECT_EQ(url.path(), "/errors/a b;c%41?d");
    EXPECT_EQ(url.target(), "/errors/a%20b;c%2541%3Fd");
    EXPECT_FALSE(url.hasQuery());
}

TEST(Url, EncodedQueryKeepsEscapesAndIsRemovedWhenEmpty)
{
    Url url("http://h/p");
    url.setEncodedQuery("text=a%2526b&x=%C3%BC c");
    EXPECT_EQ(url.encodedQuery(), "text=a%2526b&x=%C3%BC%20c");
    url.setEncodedQuery("bad=50%&ok=%41");
    EXPECT_EQ(url.encodedQuery(), "bad=50%25&ok=%41");
    url.setEncodedQuery("");
    EXPECT_FALSE(url.hasQuery());
    EXPECT_EQ(url.toString(), "http://h/p");

    Url built;
    built.setScheme("HTTP").setHost("::1").setPort(81).setPath("/a b");
    EXPECT_EQ(built.toString(), "http://[::1]:81/a%20b");
    EXPECT_EQ(Url::parse(built.toString()), built);
}

}  // namespace
}  // namespace kest::utils
