#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

// Figures as the benchmarks print them: a line for the reader, and for bench/report one line per
// figure, RESULT|figure|value|target|baseline. The value begins with its number; the target is
// "none" or a bound in the value's unit ("<= 2000 us"); the baseline is what the figure was
// compared with in the same run, or "none".
namespace vesk::bench {

inline double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<std::size_t>(p * values.size()))];
}

// A number and its unit, as the results table shows them.
inline std::string amount(double value, const char* unit, int decimals = 1) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f %s", decimals, value, unit);
  return text;
}

inline void result(const std::string& figure, const std::string& value, const std::string& target,
                   const std::string& baseline) {
  std::printf("RESULT|%s|%s|%s|%s\n", figure.c_str(), value.c_str(), target.c_str(),
              baseline.c_str());
}

// One line: p50, p99 and the maximum of `micros`, in microseconds.
inline void report(const char* what, const std::vector<double>& micros) {
  std::printf("%-46s p50 %7.1f us  p99 %7.1f us  max %8.1f us\n", what, percentile(micros, 0.5),
              percentile(micros, 0.99), *std::max_element(micros.begin(), micros.end()));
}

// The same three figures for bench/report, each beside the same figure of `baseline` (none when
// it is empty); `p99Target` bounds the p99 alone. The 100th percentile is the maximum.
inline void latencyResults(const std::string& what, const std::vector<double>& micros,
                           const std::string& p99Target, const std::string& baselineName,
                           const std::vector<double>& baseline) {
  const std::pair<std::string, double> figures[] = {{"p50", 0.5}, {"p99", 0.99}, {"max", 1.0}};
  for (const auto& [figure, p] : figures)
    result(what + " " + figure, amount(percentile(micros, p), "us"),
           figure == "p99" ? p99Target : "none",
           baseline.empty()
               ? "none"
               : baselineName + " " + figure + " " + amount(percentile(baseline, p), "us"));
}

}  // namespace vesk::bench
