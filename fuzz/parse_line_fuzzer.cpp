// trim and parseLine over arbitrary bytes, NULs included.
#include <algorithm>
#include <string>

#include "fuzz_support.h"
#include "utils/sys_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size), blank = " \t\n\r";

  const std::string trimmed = trim(line);
  const std::size_t first = line.find_first_not_of(blank);
  if (first == std::string::npos) {
    ad_fuzz::check(trimmed.empty(), "trim empties blank text");
  } else {
    ad_fuzz::check(!trimmed.empty() && blank.find(trimmed.front()) == std::string::npos &&
                       blank.find(trimmed.back()) == std::string::npos,
                   "trim leaves no trimmed character at either end");
    ad_fuzz::check(line.compare(first, trimmed.size(), trimmed) == 0,
                   "trim keeps the inner text as it stands");
  }
  ad_fuzz::check(trim(trimmed) == trimmed, "trim is idempotent");

  const auto [key, value] = parseLine(line);
  const bool empty = key.empty() && value.empty();
  ad_fuzz::check(std::count(line.begin(), line.end(), '"') >= 4 || empty,
                 "fewer than four quotes give an empty pair");
  ad_fuzz::check(key.find('"') == std::string::npos && value.find('"') == std::string::npos,
                 "key and value never hold a quote");
  ad_fuzz::check(key.size() + value.size() + 4 <= line.size() || empty,
                 "key and value come from inside the line");
  return 0;
}
