// What is measured: each operation of the library beside its floor.
#ifndef KELOTLS_BENCH_OPERATIONS_H
#define KELOTLS_BENCH_OPERATIONS_H

#include <functional>
#include <string>
#include <vector>

namespace kelotls::bench {

struct Operation {
  std::string name;
  int services;
  double goal;                    // library ÷ floor, at most
  bool is_counted;                // whether its instructions are counted, too
  std::function<void()> prepare;  // once
  std::function<void()> before;   // before each call of either side, not measured
  std::function<void()> library;
  std::function<void()> floor;
  std::function<bool()> same;  // whether both have done the same
};

std::vector<Operation> operations();

/// One call of each side, which must come to the same.
void warm_up(const Operation& operation);

}  // namespace kelotls::bench

#endif
