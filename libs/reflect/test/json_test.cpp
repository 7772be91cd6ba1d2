#include <gtest/gtest.h>

#include <boost/describe/class.hpp>

#include <kest/reflect/json.h>
#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::reflect::test {

enum class Color : int
{
    red = 0,
    green = 5
};
BOOST_DESCRIBE_ENUM(Color, red, green)

struct Inner
{
    std::string name;
    std::vector<int> values;
    friend bool operator==(const Inner&, const Inner&) = default;
};
BOOST_DESCRIBE_STRUCT(Inner, (), (name, values))

struct Outer
{
    ZuUuid id;
    bool flag = false;
    std::int64_t big = 0;
    std::uint32_t small = 7;
    double ratio = 0;
    Color color = Color::red;
    std::chrono::milliseconds timeout{0};
    std::optional<int> maybe;
    std::vector<Inner> inners;
    std::set<std::string> tags;
    ZuTimePeriodList periods;
    friend bool operator==(const Outer&, const Outer&) = default;
};
BOOST_DESCRIBE_STRUCT(Outer, (),
                      (id, flag, big, small, ratio, color, timeout, maybe, inners, tags, periods))

Outer fullOuter()
{
    Outer o;
    o.id = ZuUuid("{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}");
    o.flag = true;
    o.big = std::numeric_limits<std::int64_t>::min() + 1;
    o.small = std::numeric_limits<std::uint32_t>::max();
    o.ratio = 0.1 + 0.2;
    o.color = Color::green;
    o.timeout = std::chrono::milliseconds(1500);
    o.maybe = -3;
    o.inners = {{"a \"quoted\"\n", {1, 2}}, {"", {}}};
    o.tags = {"x", "y"};
    o.periods = {{1000, 2000}, {5000, ZuTimePeriod::kInfiniteDuration}};
    return o;
}

TEST(Json, RoundTripKeepsEveryField)
{
    const Outer o = fullOuter();
    const std::string text = json::serialize(o);
    Outer back;
    const auto result = json::deserialize(text, &back);
    ASSERT_TRUE(result) << result.errorDescription;
    EXPECT_EQ(back, o);
}

TEST(Json, WritesCompactDeclarationOrder)
{
    Outer o;
    EXPECT_EQ(json::serialize(o),
              R"({"id":"{00000000-0000-0000-0000-000000000000}","flag":false,"big":0,"small":7,)"
              R"("ratio":0.0,"color":"red","timeout":0,"inners":[],"tags":[],"periods":[]})");
}

TEST(Json, MalformedInputNamesTheFieldAndLeavesOutputUntouched)
{
    using namespace messages;
    struct Case
    {
        std::string input;
        std::string expected;
    };
    const auto at = [](std::string path, std::string_view message) {
        return path + ": " + std::string(message);
    };
    const std::vector<Case> cases = {
        {"5", std::string(kTopLevelNotContainer)},
        {R"("text")", std::string(kTopLevelNotContainer)},
        {"[1]", std::string(kObjectExpected)},
        {R"({"flag":"yes"})", at("flag", kBoolExpected)},
        {R"({"flag":1})", at("flag", kBoolExpected)},
        {R"({"big":"12x"})", at("big", kIntegerExpected)},
        {R"({"big":""})", at("big", kIntegerExpected)},
        {R"({"big":true})", at("big", kIntegerExpected)},
        {R"({"small":1.5})", at("small", kIntegerExpected)},
        {R"({"small":-1})", at("small", kOutOfRange)},
        {R"({"small":"4294967296"})", at("small", kOutOfRange)},
        {R"({"big":1e19})", at("big", kOutOfRange)},
        // Read by RapidJSON as a double that rounds to exactly -2^63.
        {R"({"big":-9223372036854775809})", at("big", kOutOfRange)},
        {R"({"ratio":"abc"})", at("ratio", kFloatExpected)},
        {R"({"ratio":"nan"})", at("ratio", kFloatExpected)},
        {R"({"ratio":"-inf"})", at("ratio", kFloatExpected)},
        {R"({"ratio":"1e999"})", at("ratio", kFloatExpected)},
        // A long significand with a large exponent, read without going past the number reader's
        // tables (the sanitizer builds see that).
        {R"({"ratio":-9)" + std::string(84, '4') + "31e308}", at("ratio", kFloatExpected)},
        {R"({"timeout":"abc"})", at("timeout", kDurationExpected)},
        {R"({"timeout":[]})", at("timeout", kDurationExpected)},
        {R"({"id":5})", at("id", kCustomStringExpected)},
        {R"({"id":"not-a-uuid"})", at("id", kCustomParserFailed)},
        {R"({"color":"blue"})", at("color", kCustomParserFailed)},
        {R"({"color":3})", at("color", kCustomParserFailed)},
        {R"({"color":[1]})", at("color", kCustomStringExpected)},
        {R"({"maybe":"x"})", at("maybe", kIntegerExpected)},
        {R"({"inners":{}})", at("inners", kArrayExpected)},
        {R"({"inners":[{"name":"a"},3]})", at("inners[1]", kObjectExpected)},
        {R"({"inners":[{"name":5}]})", at("inners[0].name", kStringExpected)},
        {R"({"inners":[{"values":[1,"x"]}]})", at("inners[0].values[1]", kIntegerExpected)},
        {R"({"periods":[{"startTimeMs":"q"}]})", at("periods[0].startTimeMs", kIntegerExpected)},
        {R"({"tags":"x"})", at("tags", kArrayExpected)},
    };
    for (const auto& c : cases) {
        Outer out = fullOuter();
        const auto result = json::deserialize(c.input, &out);
        EXPECT_FALSE(result) << c.input;
        EXPECT_EQ(result.errorDescription, c.expected) << c.input;
        EXPECT_EQ(out, fullOuter()) << c.input;
    }
}

TEST(Json, SyntaxErrorsCarryTheParserMessage)
{
    // A megabyte of opening brackets must not exhaust the stack.
    const std::string deep(1'000'000, '[');
    for (const std::string& input :
         std::vector<std::string>{R"({"flag":)", "", R"({"a":1} x)", "[1,]", deep}) {
        Outer out;
        const auto result = json::deserialize(input, &out);
        EXPECT_FALSE(result) << input;
        EXPECT_TRUE(result.errorDescription.starts_with(messages::kParseException))
            << result.errorDescription;
        EXPECT_GT(result.errorDescription.size(), messages::kParseException.size());
    }
}

TEST(Json, AcceptsTextFormsOfScalarsAndIgnoresUnknownKeys)
{
    Outer out;
    const auto result = json::deserialize(
        "\xEF\xBB\xBF"
        R"({"flag":"true","big":"-9223372036854775808","small":"12","ratio":"2.5",)"
        R"("color":"5","timeout":"250","maybe":null,"unknown":{"deep":[1,2]},)"
        R"("inners":[{"values":[1e3, 7.0]}]})",
        &out);
    ASSERT_TRUE(result) << result.errorDescription;
    EXPECT_TRUE(out.flag);
    EXPECT_EQ(out.big, std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(out.small, 12u);
    EXPECT_EQ(out.ratio, 2.5);
    EXPECT_EQ(out.color, Color::green);
    EXPECT_EQ(out.timeout, std::chrono::milliseconds(250));
    EXPECT_FALSE(out.maybe);
    ASSERT_EQ(out.inners.size(), 1u);
    EXPECT_EQ(out.inners[0].values, (std::vector<int>{1000, 7}));
    EXPECT_TRUE(out.id.isNull()) << "a missing key keeps the default";

    ASSERT_TRUE(json::deserialize(R"({"color":5,"big":9223372036854775807})", &out));
    EXPECT_EQ(out.color, Color::green);
    EXPECT_EQ(out.big, std::numeric_limits<std::int64_t>::max());
    ASSERT_TRUE(json::deserialize(R"({"color":"green"})", &out));
    EXPECT_EQ(out.color, Color::green);
}

TEST(Json, TopLevelListReportsTheElementIndex)
{
    std::vector<Outer> list;
    EXPECT_TRUE(json::deserialize("[{},{}]", &list));
    EXPECT_EQ(list.size(), 2u);
    const auto result = json::deserialize(R"([{}, {"flag":"no"}])", &list);
    EXPECT_EQ(result.errorDescription, "[1].flag: " + std::string(messages::kBoolExpected));
    EXPECT_EQ(json::deserialize("{}", &list).errorDescription, messages::kArrayExpected);
}

struct Extras
{
    std::optional<Inner> inner;
    std::vector<std::optional<int>> slots;
    std::map<std::string, int> counts;
    std::map<ZuUuid, std::string> names;
    double ratio = 0;
    Color unnamed = Color::red;
    friend bool operator==(const Extras&, const Extras&) = default;
};
BOOST_DESCRIBE_STRUCT(Extras, (), (inner, slots, counts, names, ratio, unnamed))

TEST(Json, OptionalsMapsAndOddValues)
{
    Extras e;
    e.slots = {std::nullopt, 4};
    e.counts = {{"a", 1}, {"b", -2}};
    e.names = {{ZuUuid("{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}"), "cam"}};
    e.ratio = std::numeric_limits<double>::quiet_NaN();
    e.unnamed = static_cast<Color>(9);
    EXPECT_EQ(
        json::serialize(e),
        R"({"slots":[null,4],"counts":{"a":1,"b":-2},)"
        R"("names":{"{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}":"cam"},"ratio":null,"unnamed":9})");

    e.ratio = 1e-300;
    e.unnamed = Color::green;
    e.inner = Inner{"x", {}};
    Extras back;
    ASSERT_TRUE(json::deserialize(json::serialize(e), &back));
    EXPECT_EQ(back, e);
}

TEST(Json, TypeNamesAreReadable)
{
    EXPECT_EQ(typeName<std::vector<Outer>>(), "std::vector<kest::reflect::test::Outer>");
    EXPECT_EQ(typeName<Outer>(), "kest::reflect::test::Outer");
}

}  // namespace kest::reflect::test
