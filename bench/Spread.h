// Medians and spreads of repeated timings, as the benchmarks' summaries
// print them: interleaved rounds on a shared machine vary, and a median
// with its 10th to 90th percentile says how much.
#ifndef KRONLOG_BENCH_SPREAD_H
#define KRONLOG_BENCH_SPREAD_H

#include <algorithm>
#include <cstddef>
#include <vector>

struct Spread {
  double median, p10, p90;
};

// `v` must not be empty.
inline Spread spreadOf(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  auto at = [&](double q) { return v[static_cast<std::size_t>(q * (v.size() - 1) + 0.5)]; };
  return {at(0.5), at(0.1), at(0.9)};
}

#endif  // KRONLOG_BENCH_SPREAD_H
