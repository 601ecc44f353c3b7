// Google Benchmark's command line with our defaults: repetitions, randomly interleaved, unless the
// caller gave those flags itself. The machine is shared, so the best of interleaved runs is fairer.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace QOR::bench {

class InterleavedRuns {
public:
  InterleavedRuns(int argc, char** argv, int repetitions)
      : args(argv, argv + argc),
        repetitionsFlag("--benchmark_repetitions=" + std::to_string(repetitions)) {
    if (!Given("--benchmark_repetitions")) args.push_back(repetitionsFlag.data());
    if (!Given("--benchmark_enable_random_interleaving")) args.push_back(interleaveFlag.data());
    count = static_cast<int>(args.size());
    args.push_back(nullptr);
  }

  int* Count() { return &count; }
  char** Args() { return args.data(); }

private:
  bool Given(const char* flag) const {
    return std::any_of(args.begin() + 1, args.end(), [&](char* arg) { return std::strstr(arg, flag) != nullptr; });
  }

  std::vector<char*> args;
  std::string repetitionsFlag;
  std::string interleaveFlag = "--benchmark_enable_random_interleaving=true";
  int count = 0;
};

} // namespace QOR::bench
