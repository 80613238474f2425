// Helpers shared by the benchmark programs: percentiles of timing samples, and the flat JSON
// summary (build/bench/summary.json) into which every benchmark program merges its figures.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace daskel::bench {

// The p-th percentile (0..100) of `samples`, by nearest rank. 0 for no samples.
double percentile(std::vector<double> samples, double p);

// Figures recorded by this process; written by writeSummary().
void record(const std::string& name, double value);
const std::map<std::string, double>& recorded();

// Merges the recorded figures into the flat JSON object at `path` (created if missing),
// keeping figures other programs wrote. Returns false and prints why on failure.
bool writeSummary(const std::string& path);

// Seconds as a double, from a steady-clock duration.
inline double seconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// Runs Google Benchmark with the command line, then merges recorded() into the summary file
// named by DASKEL_BENCH_SUMMARY (default build/bench/summary.json relative to the working
// directory). The benchmark programs' main().
int runBenchmarks(int argc, char** argv);

}  // namespace daskel::bench
