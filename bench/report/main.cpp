// Reads the figures that a benchmark run recorded (JSON lines) and prints them as one table of
// figure, value, goal and status; optionally writes them as one JSON document.
//
//   bench_report FIGURES.jsonl [--json OUT.json] [--title TEXT]
// Exits 0 whatever the goals: a missed goal is a result, not an error of the run.

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "result_table.h"

int main(int argc, char** argv)
{
    std::string input, output, title = "benchmark results";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--json" || arg == "--title") && i + 1 < argc) {
            (arg == "--json" ? output : title) = argv[++i];
        } else if (input.empty() && !arg.starts_with("--")) {
            input = arg;
        } else {
            std::fprintf(stderr,
                         "usage: bench_report FIGURES.jsonl [--json OUT.json] [--title T]\n");
            return 2;
        }
    }
    if (input.empty()) {
        std::fprintf(stderr, "usage: bench_report FIGURES.jsonl [--json OUT.json] [--title T]\n");
        return 2;
    }
    std::ifstream in(input);
    if (!in) {
        std::fprintf(stderr, "bench_report: cannot read %s\n", input.c_str());
        return 1;
    }
    std::stringstream text;
    text << in.rdbuf();
    kest::bench::ResultTable table;
    if (const int rejected = table.addLines(text.str()))
        std::fprintf(stderr, "bench_report: %d lines of %s are not figures\n", rejected,
                     input.c_str());
    table.print(stdout);
    if (!output.empty()) {
        std::ofstream out(output, std::ios::trunc);
        out << table.toJson(title);
        if (!out.flush()) {
            std::fprintf(stderr, "bench_report: cannot write %s\n", output.c_str());
            return 1;
        }
    }
    return 0;
}
