// All that a host may do at once, from eight threads: for the thread sanitizer.
#include <cstdio>

#include "Load.h"

int main(int argc, char** argv) {
  campaign::Report report("storm", 600, argc, argv);
  auto& load = *new campaign::Load(report);  // outlived by nothing: threads of the library go on
  const long long operations = load.Run([](int) {});
  report.Member("operations") = load.Operations();
  std::printf("%s", load.Operations().toStyledString().c_str());
  return report.End(operations);
}
