#include <gtest/gtest.h>

#include <map>

#include <boost/describe/class.hpp>

#include <kest/reflect/json.h>
#include <kest/reflect/urlencoded.h>
#include <kest/reflect/utf8.h>

namespace kest::reflect::test {
namespace {

struct Tag
{
    std::string name;
    std::string value;
    friend bool operator==(const Tag&, const Tag&) = default;
};
BOOST_DESCRIBE_STRUCT(Tag, (), (name, value))

struct Item
{
    std::string text;
    std::vector<Tag> tags;
    std::map<std::string, int> counts;
    friend bool operator==(const Item&, const Item&) = default;
};
BOOST_DESCRIBE_STRUCT(Item, (), (text, tags, counts))

// Ill-formed sequences as a strict decoder (Python's, for one) refuses them.
const std::vector<std::string> kIllFormed{
    "\xff",
    "\x80",
    "AB\xff\xfe"
    "12",
    "\xc0\xaf",          // overlong '/'
    "\xe0\x80\xaf",      // overlong, three bytes
    "\xed\xa0\x80",      // a surrogate, U+D800
    "\xf4\x90\x80\x80",  // above U+10FFFF
    "\xf8\x88\x80\x80\x80",
    "\xe2\x82",  // truncated at the end
    "\xe2\x82"
    "A",  // truncated before more text
    "ok \xc3",
    "seventeen bytes, \xe2\x82",  // past the words read eight bytes at a time
    "sixteen bytes ok\xff and more text after it",
    "\xc3\xa9 then a run of plain words \xc0\xaf",  // after the fast path has resumed
    "\xe2\x82\xac\xe2\x82 and words long enough to be read eight at a time",
};

TEST(Utf8, TellsWellFormedTextAndRepairsTheRest)
{
    for (const std::string& text : std::vector<std::string>{
             "", "plain", "caf\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x9a\x97", "\xef\xbf\xbf",
             "\xf4\x8f\xbf\xbf", std::string("a\0b", 3),
             "eight by\xc3\xa9tes and then some more \xe2\x82\xac",
             "\xc3\xa9\xc3\xa9 words and words \xf0\x9f\x9a\x97 more words\xc3\xa9"}) {
        EXPECT_TRUE(utf8::isValid(text)) << text;
        EXPECT_EQ(text, utf8::toValid(text));
    }
    for (const auto& text : kIllFormed) {
        EXPECT_FALSE(utf8::isValid(text)) << text;
        const std::string repaired = utf8::toValid(text);
        EXPECT_TRUE(utf8::isValid(repaired)) << text;
        EXPECT_NE(std::string::npos, repaired.find("\xef\xbf\xbd")) << text;
    }
    EXPECT_EQ(
        "AB\xef\xbf\xbd\xef\xbf\xbd"
        "12",
        utf8::toValid("AB\xff\xfe"
                      "12"));
}

/** Reads through both JSON readers, which must agree, and gives the failure text. */
std::string jsonFailure(const std::string& text)
{
    Item viaDocument;
    viaDocument.text = "untouched";
    const auto document = json::deserializeDocument(text, &viaDocument);
    Item viaFastPath;
    viaFastPath.text = "untouched";
    const auto fast = json::deserialize(text, &viaFastPath);
    EXPECT_EQ(document.errorDescription, fast.errorDescription) << text;
    EXPECT_EQ("untouched", viaFastPath.text) << text;
    EXPECT_EQ("untouched", viaDocument.text) << text;
    return fast.success ? "accepted" : fast.errorDescription;
}

TEST(Utf8, JsonReadersRefuseIllFormedTextNamingWhereItIs)
{
    for (const auto& bad : kIllFormed) {
        EXPECT_EQ("tags[1].value: The text is not valid UTF-8",
                  jsonFailure(R"({"tags":[{"name":"a","value":"b"},{"name":"c","value":")" + bad +
                              R"("}]})"))
            << bad;
    }
    // Escapes that decode to a lone surrogate are as ill-formed as the raw bytes.
    EXPECT_EQ("text: The text is not valid UTF-8", jsonFailure(R"({"text":"x\udc00"})"));
    // Keys the record does not have, and what they hold, are not exempt.
    EXPECT_EQ("A member name is not valid UTF-8", jsonFailure("{\"te\xffxt\":1}"));
    EXPECT_EQ("tags[0]: A member name is not valid UTF-8",
              jsonFailure("{\"tags\":[{\"\xc3\":1}]}"));
    EXPECT_EQ("extra[0].deep: The text is not valid UTF-8",
              jsonFailure("{\"extra\":[{\"deep\":\"\xed\xa0\x80\"}]}"));
    EXPECT_EQ("counts: A member name is not valid UTF-8", jsonFailure("{\"counts\":{\"\xff\":1}}"));

    // Well-formed text in every script goes through, and so do escaped controls.
    Item item;
    ASSERT_TRUE(json::deserialize(R"({"text":"\u00e9\u20ac\ud83d\ude97 \u0000","tags":[)"
                                  "{\"name\":\"\xf0\x9f\x9a\x97\",\"value\":\"\xe6\x97\xa5\"}]}",
                                  &item));
    EXPECT_EQ(std::string("\xc3\xa9\xe2\x82\xac\xf0\x9f\x9a\x97 \0", 11), item.text);
}

TEST(Utf8, WrittenJsonIsAlwaysWellFormed)
{
    Item item;
    item.text =
        "AB\xff\xfe"
        "12";
    item.tags = {{"\xed\xa0\x80", "\xc3"}};
    item.counts = {{"\x80", 1}};
    const std::string written = json::serialize(item);
    EXPECT_TRUE(utf8::isValid(written)) << written;
    Item reread;
    ASSERT_TRUE(json::deserialize(written, &reread)) << written;
    EXPECT_EQ(utf8::toValid(item.text), reread.text);
    EXPECT_EQ(utf8::toValid("\xc3"), reread.tags[0].value);

    // An answer of another instance, parsed already, is taken as it is (an older one may have
    // stored such text), and what is written of it is repaired.
    rapidjson::Document answer;
    answer.Parse("{\"text\":\"old \xff\"}");
    Item fromPeer;
    ASSERT_TRUE(json::deserializeValue(answer, &fromPeer));
    EXPECT_EQ("old \xff", fromPeer.text);
    EXPECT_TRUE(utf8::isValid(json::serialize(fromPeer)));
}

TEST(Utf8, FormsRefuseIllFormedNamesAndValues)
{
    Item item;
    item.text = "untouched";
    auto result = urlencoded::deserialize("text=%FF", &item);
    EXPECT_EQ("text: The text is not valid UTF-8", result.errorDescription);
    result = urlencoded::deserialize("other=ok%C3", &item);
    EXPECT_EQ("other: The text is not valid UTF-8", result.errorDescription);
    result = urlencoded::deserialize("%FF=1", &item);
    EXPECT_EQ("A member name is not valid UTF-8", result.errorDescription);
    // A member carried as JSON text is checked after its escapes are decoded.
    result = urlencoded::deserialize(
        "tags=" + std::string("%5B%7B%22value%22%3A%22%5Cudc00%22%7D%5D"), &item);
    EXPECT_EQ("tags[0].value: The text is not valid UTF-8", result.errorDescription);
    EXPECT_EQ("untouched", item.text);
    ASSERT_TRUE(urlencoded::deserialize("text=caf%C3%A9", &item));
    EXPECT_EQ("caf\xc3\xa9", item.text);
}

}  // namespace
}  // namespace kest::reflect::test
