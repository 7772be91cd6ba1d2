#include <gtest/gtest.h>

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>
#include <map>

#include <kest/reflect/json.h>
#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::reflect::test {
namespace {

enum class Mode : int
{
    off = 0,
    on = 3
};
BOOST_DESCRIBE_ENUM(Mode, off, on)

struct Leaf
{
    std::string text;
    double ratio = 0;
    friend bool operator==(const Leaf&, const Leaf&) = default;
};
BOOST_DESCRIBE_STRUCT(Leaf, (), (text, ratio))

struct Base
{
    ZuUuid id;
    friend bool operator==(const Base&, const Base&) = default;
};
BOOST_DESCRIBE_STRUCT(Base, (), (id))

struct Record : Base
{
    bool flag = false;
    std::int64_t big = 0;
    std::uint16_t small = 0;
    Mode mode = Mode::off;
    std::chrono::milliseconds delay{0};
    std::optional<Leaf> maybeLeaf;
    std::optional<int> maybeNumber;
    std::vector<Leaf> leaves;
    std::vector<std::vector<int>> grid;
    std::set<ZuUuid> ids;
    std::map<std::string, int> counts;
    ZuTimePeriodList periods;
    QString label;
    friend bool operator==(const Record&, const Record&) = default;
};
BOOST_DESCRIBE_STRUCT(Record, (Base),
                      (flag, big, small, mode, delay, maybeLeaf, maybeNumber, leaves, grid, ids,
                       counts, periods, label))

Record fullRecord()
{
    Record r;
    r.id = ZuUuid::createUuid();
    r.flag = true;
    r.big = std::numeric_limits<std::int64_t>::min();
    r.small = 65535;
    r.mode = Mode::on;
    r.delay = std::chrono::milliseconds(-20);
    r.maybeLeaf = Leaf{"inner \"quoted\" \\u00e9", 1e-300};
    r.maybeNumber = 7;
    r.leaves = {{"a", 0.1 + 0.2}, {"", -0.0}};
    r.grid = {{1, 2}, {}, {3}};
    r.ids = {ZuUuid::createUuid(), ZuUuid::createUuid()};
    r.counts = {{"x", 1}, {"y", -2}};
    r.periods = {{1000, 2000}, {5000, ZuTimePeriod::kInfiniteDuration}};
    r.label = QString::fromUtf8("\xc3\xa9t\xc3\xa9");
    return r;
}

/** Reading through the stream reader (and its fallback) gives what the document reader gives. */
template <typename T>
void expectSameAsDocument(const std::string& text)
{
    T viaDocument = T();
    const auto expected = json::deserializeDocument(text, &viaDocument);
    T viaDefault = T();
    const auto actual = json::deserialize(text, &viaDefault);
    EXPECT_EQ(expected.success, actual.success) << text;
    EXPECT_EQ(expected.errorDescription, actual.errorDescription) << text;
    EXPECT_TRUE(viaDocument == viaDefault) << text;
}

bool streamed(const std::string& text)
{
    Record record;
    return json::stream::read(text, &record);
}

TEST(JsonStreamReader, PlainTextIsReadWithoutADocumentAndEqually)
{
    const Record record = fullRecord();
    const std::string text = json::serialize(record);
    EXPECT_TRUE(streamed(text)) << text;
    Record read;
    ASSERT_TRUE(json::deserialize(text, &read).success);
    EXPECT_EQ(record, read);

    std::vector<Record> list{record, Record(), record};
    std::vector<Record> readList;
    ASSERT_TRUE(json::stream::read(json::serialize(list), &readList));
    EXPECT_EQ(list, readList);

    // Keys in any order, keys the record does not have (however deep), nulls for optionals.
    for (const std::string variant : {
             R"({"mode":"on","flag":true,"id":"{6c1b4a1e-3b1f-4a55-9d5e-7a1c2b3d4e5f}"})",
             R"({"unknown":{"a":[1,{"b":[[[]]]},"x"],"c":null},"big":-5,"more":[{}],"small":9})",
             R"({"maybeLeaf":null,"maybeNumber":null,"mode":3,"delay":12})",
             R"({"grid":[[],[1],[2,3]],"counts":{"k":1,"k":2},"periods":[]})",
             "\xEF\xBB\xBF{\"flag\":false}",
         }) {
        EXPECT_TRUE(streamed(std::string(json::detail::withoutByteOrderMark(variant)))) << variant;
        expectSameAsDocument<Record>(variant);
    }
    // Nesting is followed up to a depth; deeper text (the parser recurses) goes to the document
    // reader, which reads any depth.
    const auto nested = [](int depth) {
        return R"({"unknown":)" + std::string(depth, '[') + std::string(depth, ']') +
               R"(,"small":1})";
    };
    EXPECT_TRUE(streamed(nested(30)));
    EXPECT_FALSE(streamed(nested(100'000)));
    expectSameAsDocument<Record>(nested(100'000));
}

TEST(JsonStreamReader, OtherFormsAndFailuresAreLeftToTheDocumentReader)
{
    const std::string cases[] = {
        // Accepted by the document reader only.
        R"({"flag":"true","big":"12","small":3.0,"mode":"3","delay":"5"})",
        R"({"small":1,"small":2})",
        R"({"ratio":1,"leaves":[{"ratio":"2.5"}]})",
        // Failures, each with the document reader's message.
        R"({"small":70000})",
        R"({"small":-1})",
        R"({"big":1.5})",
        R"({"mode":"sideways"})",
        R"({"mode":4})",
        R"({"id":"not-a-uuid"})",
        R"({"leaves":[{"text":1}]})",
        R"({"leaves":{}})",
        R"({"grid":[[1],["x"]]})",
        R"({"maybeLeaf":[]})",
        R"({"label":null})",
        R"({"counts":{"k":"v"}})",
        R"([{"flag":true}])",
        "5",
        R"("text")",
        "{} {}",
        "{",
        "",
        R"({"big":99999999999999999999})",
    };
    for (const auto& text : cases) {
        expectSameAsDocument<Record>(text);
        expectSameAsDocument<std::vector<Record>>(text);
    }
    EXPECT_FALSE(streamed(R"({"small":1,"small":2})"));
    EXPECT_FALSE(streamed(R"({"flag":"true"})"));
}

}  // namespace
}  // namespace kest::reflect::test
