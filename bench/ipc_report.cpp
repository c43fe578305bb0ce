#include "bench/ipc_report.h"

#include <algorithm>
#include <cstdio>

namespace {

// The element of that name, added when it is missing.
template <class Element>
Element& Named(std::vector<Element>& list, const std::string& name) {
  for (Element& each : list) {
    if (each.name == name) return each;
  }
  list.emplace_back().name = name;
  return list.back();
}

// Four digits that matter, never an exponent.
std::string Text(double value) {
  char text[64];
  const int decimals = value >= 1000 ? 0 : value >= 100 ? 1 : value >= 10 ? 2 : 3;
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// The median of the ratios; "" when there is nothing to divide by.
std::string Ratio(const std::vector<double>& values, const std::vector<double>& base) {
  std::vector<double> ratios;
  for (size_t i = 0; i < std::min(values.size(), base.size()); ++i) {
    if (base[i] > 0) ratios.push_back(values[i] / base[i]);
  }
  if (ratios.empty()) return "";
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", IpcMedian(ratios));
  return text;
}

}  // namespace

double IpcMedian(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void IpcReport::Add(const std::string& row, const std::string& metric, double value) {
  Named(Named(metrics, metric).rows, row).values.push_back(value);
  std::printf("%s,%s,%.6g\n", row.c_str(), metric.c_str(), value);
  std::fflush(stdout);
}

void IpcReport::AddIncomparable(const std::string& row, const std::string& metric, double value) {
  Add(row, metric, value);
  Named(metrics, metric).isComparable = false;
}

void IpcReport::PrintRow(const Metric& metric, const Row& row) {
  const auto [least, greatest] = std::minmax_element(row.values.begin(), row.values.end());
  const std::string ratio =
      metric.isComparable ? Ratio(row.values, metric.rows.front().values) : "";
  std::printf("| %-30s | %-11s | %10s | %10s | %10s | %8s |\n", metric.name.c_str(),
              row.name.c_str(), Text(IpcMedian(row.values)).c_str(), Text(*least).c_str(),
              Text(*greatest).c_str(), ratio.c_str());
}

void IpcReport::PrintTable() const {
  std::printf("\n| %-30s | %-11s | %10s | %10s | %10s | %8s |\n", "metric", "row", "median",
              "least", "greatest", "ratio");
  std::printf("|---|---|--:|--:|--:|--:|\n");
  for (const Metric& metric : metrics) {
    for (const Row& row : metric.rows) PrintRow(metric, row);
  }
  std::fflush(stdout);
}
