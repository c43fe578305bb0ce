#pragma once

#include <string>
#include <vector>

// The figures as they come, one line each, and a table of them in the end.
class IpcReport {
 public:
  // Prints "row,metric,value" to standard output. The first row of a metric is the one that its
  // others are compared with.
  void Add(const std::string& row, const std::string& metric, double value);

  // For counts without a meaningful ratio.
  void AddIncomparable(const std::string& row, const std::string& metric, double value);

  // Markdown: median, least and greatest of each row's values, and the median of the ratios to the
  // first row. Values of the same round were measured right after each other, so the ratio is taken
  // round by round.
  void PrintTable() const;

 private:
  struct Row {
    std::string name;
    std::vector<double> values;
  };
  struct Metric {
    std::string name;
    std::vector<Row> rows;
    bool isComparable = true;
  };

  static void PrintRow(const Metric& metric, const Row& row);

  std::vector<Metric> metrics;
};

double IpcMedian(std::vector<double> values);
