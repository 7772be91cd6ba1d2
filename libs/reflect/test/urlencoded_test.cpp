#include <gtest/gtest.h>

#include <boost/describe/class.hpp>

#include <kest/reflect/urlencoded.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::reflect::test {

enum class Mode : int
{
    off = 0,
    on = 1
};
BOOST_DESCRIBE_ENUM(Mode, off, on)

struct Box
{
    double x = 0;
    double y = 0;
    friend bool operator==(const Box&, const Box&) = default;
};
BOOST_DESCRIBE_STRUCT(Box, (), (x, y))

struct Request
{
    std::string text;
    bool flag = false;
    int count = 0;
    double ratio = 0;
    Mode mode = Mode::off;
    ZuUuid id;
    std::chrono::milliseconds timeout{0};
    std::optional<std::uint32_t> limit;
    std::optional<Box> box;
    std::vector<std::string> items;
    friend bool operator==(const Request&, const Request&) = default;
};
BOOST_DESCRIBE_STRUCT(Request, (), (text, flag, count, ratio, mode, id, timeout, limit, box, items))

TEST(UrlEncoded, WritesOneParameterPerMember)
{
    Request r;
    r.text = "a b&c=d";
    r.flag = true;
    r.count = -3;
    r.ratio = 0.1;
    r.mode = Mode::on;
    r.box = Box{0.5, 1};
    r.items = {"x"};
    EXPECT_EQ(urlencoded::serialize(r),
              "text=a%20b%26c%3Dd&flag=true&count=-3&ratio=0.1&mode=on"
              "&id=%7B00000000-0000-0000-0000-000000000000%7D&timeout=0"
              "&box=%7B%22x%22%3A0.5%2C%22y%22%3A1.0%7D&items=%5B%22x%22%5D");
}

TEST(UrlEncoded, RoundTripKeepsEveryField)
{
    Request r;
    r.text = "ünïcode / ?#+";
    r.flag = true;
    r.count = std::numeric_limits<int>::min();
    r.ratio = 1.0 / 3;
    r.mode = Mode::on;
    r.id = ZuUuid("{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}");
    r.timeout = std::chrono::milliseconds(90000);
    r.limit = 0;
    r.box = Box{-0.25, 1e-9};
    r.items = {"", "a,b", "[x]"};
    Request back;
    const auto result = urlencoded::deserialize(urlencoded::serialize(r), &back);
    ASSERT_TRUE(result) << result.errorDescription;
    EXPECT_EQ(back, r);
}

TEST(UrlEncoded, ReadingIsLenientWhereItIsSafe)
{
    Request r;
    ASSERT_TRUE(urlencoded::deserialize(
        "?text=a+b%2B&count=1&count=2&mode=1&unknown=zz&limit=&flag=false", &r));
    EXPECT_EQ(r.text, "a b+");
    EXPECT_EQ(r.count, 2) << "the last of repeated parameters counts";
    EXPECT_EQ(r.mode, Mode::on);
    EXPECT_FALSE(r.limit);
    EXPECT_EQ(r.ratio, 0);

    ASSERT_TRUE(urlencoded::deserialize("", &r));
    EXPECT_EQ(r, Request());
}

TEST(UrlEncoded, FailuresNameTheParameter)
{
    using namespace messages;
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"flag=yes", "flag: " + std::string(kBoolExpected)},
        {"count=12a", "count: " + std::string(kIntegerExpected)},
        {"id=zz", "id: " + std::string(kCustomParserFailed)},
        {"mode=maybe", "mode: " + std::string(kCustomParserFailed)},
        {"items=%7B%7D", "items: " + std::string(kArrayExpected)},
        {"box=%5B%5D", "box: " + std::string(kObjectExpected)},
        {"box=%7B%22x%22%3A%22q%22%7D", "box.x: " + std::string(kFloatExpected)},
        {"text=%zz", std::string(kBadQuery)},
    };
    for (const auto& [input, expected] : cases) {
        Request r;
        r.count = 77;
        const auto result = urlencoded::deserialize(input, &r);
        EXPECT_FALSE(result) << input;
        EXPECT_EQ(result.errorDescription, expected) << input;
        EXPECT_EQ(r.count, 77) << "output is untouched on failure: " << input;
    }
    Request r;
    const auto result = urlencoded::deserialize("items=%5B1", &r);
    EXPECT_TRUE(result.errorDescription.starts_with("items: " + std::string(kParseException)))
        << result.errorDescription;
}

TEST(UrlEncoded, NonRecordsTravelAsJson)
{
    const std::vector<Box> boxes = {{1, 2}};
    EXPECT_EQ(urlencoded::serialize(boxes), R"([{"x":1.0,"y":2.0}])");
    std::vector<Box> back;
    ASSERT_TRUE(urlencoded::deserialize(urlencoded::serialize(boxes), &back));
    EXPECT_EQ(back, boxes);
}

}  // namespace kest::reflect::test
