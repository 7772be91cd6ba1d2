#include <gtest/gtest.h>

#include <unistd.h>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <rapidjson/document.h>

#include "result_table.h"

namespace kest::bench {
namespace {

TEST(BenchFigure, SurvivesItsJsonLineWithGoalsNotesAndMissingValues)
{
    Figure ingest = Figure::measured("stores", "ingest, ours / best alternative", 2.5, "x");
    ingest.atLeast(2).withNote("quotes \" and\ttabs");
    const auto back = Figure::fromJson(ingest.toJson());
    ASSERT_TRUE(back);
    EXPECT_EQ(back->section, "stores");
    EXPECT_EQ(back->name, ingest.name);
    EXPECT_EQ(back->value, 2.5);
    EXPECT_EQ(back->goal, Figure::Goal::atLeast);
    EXPECT_EQ(back->goalValue, 2);
    EXPECT_EQ(back->note, ingest.note);
    EXPECT_EQ(back->toJson().find('\n'), std::string::npos);

    // Not measurable figures (no value, or one JSON cannot carry) come back without a value.
    for (const double value : {NAN, INFINITY}) {
        Figure broken = Figure::measured("http", "p99", value, "ms");
        broken.atMost(1.5);
        const auto read = Figure::fromJson(broken.toJson());
        ASSERT_TRUE(read);
        EXPECT_FALSE(read->value);
        EXPECT_EQ(read->goal, Figure::Goal::atMost);
        EXPECT_FALSE(read->met());
    }

    // What a shell script writes by hand reads the same.
    const auto scripted = Figure::fromJson(
        R"({"section":"http","name":"ping","value":0.93,"unit":"","goal":">=","goalValue":0.8})");
    ASSERT_TRUE(scripted);
    EXPECT_EQ(scripted->met(), true);

    for (const char* bad : {"", "[]", "{\"name\":\"\"}", "{\"name\":\"x\",\"value\":\"1\"}",
                            "{\"name\":\"x\",\"goal\":\"==\",\"goalValue\":1}",
                            "{\"name\":\"x\",\"goal\":\">=\"}", "{\"name\":\"x\"", "not json"}) {
        EXPECT_FALSE(Figure::fromJson(bad)) << bad;
    }
}

TEST(BenchFigure, GoalsAreInclusiveAndNeedAValue)
{
    auto figure = Figure::measured("s", "n", 2.0, "");
    EXPECT_FALSE(figure.met());
    EXPECT_EQ(figure.atLeast(2).met(), true);
    EXPECT_EQ(figure.atLeast(2.01).met(), false);
    EXPECT_EQ(figure.atMost(2).met(), true);
    EXPECT_EQ(figure.atMost(1.99).met(), false);
    figure.value.reset();
    EXPECT_FALSE(figure.met());
}

TEST(BenchFigure, IsAppendedToTheFileNamedByTheEnvironment)
{
    const auto path = std::filesystem::temp_directory_path() /
                      ("bench_figures_" + std::to_string(::getpid()) + ".jsonl");
    std::filesystem::remove(path);
    ::unsetenv("KEST_BENCH_FIGURES");
    recordFigure(Figure::measured("a", "dropped", 1, ""));
    EXPECT_FALSE(std::filesystem::exists(path));

    ::setenv("KEST_BENCH_FIGURES", path.c_str(), 1);
    recordFigure(Figure::measured("a", "first", 1, ""));
    recordFigure(Figure::measured("a", "second", 2, "").atMost(3));
    ::unsetenv("KEST_BENCH_FIGURES");

    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    ResultTable table;
    EXPECT_EQ(table.addLines(text.str()), 0);
    ASSERT_EQ(table.figures().size(), 2u);
    EXPECT_EQ(table.figures()[1].name, "second");
    EXPECT_EQ(table.passed(), 1);
    std::filesystem::remove(path);
}

TEST(ResultTable, KeepsTheLatestOfARerunInPlaceAndCountsUnmeasuredGoalsAsNotMet)
{
    ResultTable table;
    const int rejected = table.addLines(
        Figure::measured("storage", "ingest", 100, "objects/s").atLeast(200).toJson() + "\n" +
        "garbage\n\n" + Figure::measured("http", "ratio", 0.9, "").atLeast(0.7).toJson() + "\n" +
        Figure::measured("storage", "ingest", 300, "objects/s").atLeast(200).toJson() + "\n" +
        Figure{"fan-out", "added p50", std::nullopt, "ms"}.atMost(2).toJson() + "\n" +
        Figure::measured("memory", "RSS", 120, "MB").toJson());
    EXPECT_EQ(rejected, 1);
    ASSERT_EQ(table.figures().size(), 4u);
    EXPECT_EQ(table.figures()[0].value, 300);  //< Replaced where it was first.
    EXPECT_EQ(table.passed(), 2);
    EXPECT_EQ(table.failed(), 1);

    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    table.print(out);
    std::fclose(out);
    const std::string printed(text, size);
    std::free(text);
    EXPECT_NE(printed.find("300 objects/s"), std::string::npos) << printed;
    EXPECT_NE(printed.find("not measured"), std::string::npos) << printed;
    EXPECT_NE(printed.find("2 met, 1 not met (1 of them not measured)"), std::string::npos)
        << printed;
    // Sections keep the order in which they first came.
    EXPECT_LT(printed.find("-- storage"), printed.find("-- http"));
    EXPECT_LT(printed.find("-- http"), printed.find("-- fan-out"));

    rapidjson::Document json;
    json.Parse(table.toJson("run").c_str());
    ASSERT_TRUE(json.IsObject());
    EXPECT_EQ(json["passed"].GetInt(), 2);
    EXPECT_EQ(json["failed"].GetInt(), 1);
    ASSERT_EQ(json["figures"].Size(), 4u);
    EXPECT_STREQ(json["figures"][0]["status"].GetString(), "PASS");
    EXPECT_STREQ(json["figures"][2]["status"].GetString(), "FAIL");
    EXPECT_TRUE(json["figures"][2]["value"].IsNull());
    EXPECT_STREQ(json["figures"][3]["status"].GetString(), "-");
}

TEST(ResultTable, FormatsNumbersForReading)
{
    EXPECT_EQ(ResultTable::formatNumber(782148.4), "782,148");
    EXPECT_EQ(ResultTable::formatNumber(1000), "1,000");
    EXPECT_EQ(ResultTable::formatNumber(-1234567), "-1,234,567");
    EXPECT_EQ(ResultTable::formatNumber(999.6), "1000");
    EXPECT_EQ(ResultTable::formatNumber(58.04), "58.0");
    EXPECT_EQ(ResultTable::formatNumber(0.48), "0.480");
    EXPECT_EQ(ResultTable::formatNumber(1.5), "1.50");
    EXPECT_EQ(ResultTable::formatNumber(0), "0");
    EXPECT_EQ(ResultTable::formatNumber(NAN), "nan");
}

}  // namespace
}  // namespace kest::bench
