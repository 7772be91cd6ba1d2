#include "figure.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace kest::bench {

std::optional<bool> Figure::met() const
{
    if (goal == Goal::none || !value)
        return std::nullopt;
    return goal == Goal::atLeast ? *value >= goalValue : *value <= goalValue;
}

std::string Figure::toJson() const
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    const auto string = [&](const char* key, const std::string& text) {
        writer.Key(key);
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    };
    writer.StartObject();
    string("section", section);
    string("name", name);
    writer.Key("value");
    // JSON has no infinities or NaN: such a value was not measured.
    if (value && std::isfinite(*value))
        writer.Double(*value);
    else
        writer.Null();
    string("unit", unit);
    if (goal != Goal::none) {
        string("goal", goal == Goal::atLeast ? ">=" : "<=");
        writer.Key("goalValue");
        writer.Double(goalValue);
    }
    if (!note.empty())
        string("note", note);
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

std::optional<Figure> Figure::fromJson(std::string_view line)
{
    rapidjson::Document document;
    document.Parse(line.data(), line.size());
    if (document.HasParseError() || !document.IsObject())
        return std::nullopt;
    const auto text = [&](const char* key) -> std::optional<std::string> {
        const auto it = document.FindMember(key);
        if (it == document.MemberEnd())
            return std::string();
        if (!it->value.IsString())
            return std::nullopt;
        return std::string(it->value.GetString(), it->value.GetStringLength());
    };
    Figure figure;
    const auto section = text("section"), name = text("name"), unit = text("unit"),
               note = text("note"), goal = text("goal");
    if (!section || !name || !unit || !note || !goal || name->empty())
        return std::nullopt;
    figure.section = *section;
    figure.name = *name;
    figure.unit = *unit;
    figure.note = *note;
    if (const auto it = document.FindMember("value"); it != document.MemberEnd()) {
        if (it->value.IsNumber())
            figure.value = it->value.GetDouble();
        else if (!it->value.IsNull())
            return std::nullopt;
    }
    if (*goal == ">=")
        figure.goal = Goal::atLeast;
    else if (*goal == "<=")
        figure.goal = Goal::atMost;
    else if (!goal->empty())
        return std::nullopt;
    if (figure.goal != Goal::none) {
        const auto it = document.FindMember("goalValue");
        if (it == document.MemberEnd() || !it->value.IsNumber())
            return std::nullopt;
        figure.goalValue = it->value.GetDouble();
    }
    return figure;
}

void recordFigure(const Figure& figure)
{
    const char* path = std::getenv("KEST_BENCH_FIGURES");
    if (!path || !*path)
        return;
    // Whole lines, one writer at a time: several threads of a benchmark may record.
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    if (FILE* file = std::fopen(path, "a")) {
        const std::string line = figure.toJson() + "\n";
        std::fwrite(line.data(), 1, line.size(), file);
        std::fclose(file);
    } else {
        std::fprintf(stderr, "cannot append to %s\n", path);
    }
}

}  // namespace kest::bench
