// Says on standard error how far long work is: nothing for what is done within two seconds.
#pragma once

#include <cstdint>
#include <string>

namespace qx {

class Progress {
 public:
  // Only a rank for which `prints` is true prints anything.
  Progress(bool prints, std::string work);
  void at(std::int64_t done, std::int64_t total);

 private:
  bool prints_;
  std::string work_;
  double next_;
};

}  // namespace qx
