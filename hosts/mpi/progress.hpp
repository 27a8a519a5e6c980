// Says on standard error how far long work is: nothing for what is done within two seconds.
#pragma once

#include <cstdint>
#include <string>

namespace qx {

class Progress {
 public:
  // Only a rank that `speaks` says anything, so that some do for all.
  Progress(bool speaks, std::string work);
  void at(std::int64_t done, std::int64_t total);

 private:
  bool speaks_;
  std::string work_;
  double next_;
};

}  // namespace qx
