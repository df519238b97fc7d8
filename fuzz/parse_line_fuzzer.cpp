// trim and parseLine over arbitrary bytes, NULs included.
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "fuzz_support.h"
#include "utils/sys_utils.h"

namespace {

constexpr const char* kTrimmed = " \t\n\r";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line(reinterpret_cast<const char*>(data), size);

  const std::string trimmed = trim(line);
  if (!trimmed.empty()) {
    ad_fuzz::check(std::string(kTrimmed).find(trimmed.front()) == std::string::npos &&
                       std::string(kTrimmed).find(trimmed.back()) == std::string::npos,
                   "trim leaves no trimmed character at either end");
    ad_fuzz::check(line.compare(line.find_first_not_of(kTrimmed), trimmed.size(), trimmed) == 0,
                   "trim keeps the inner text as it stands");
  } else {
    ad_fuzz::check(line.find_first_not_of(kTrimmed) == std::string::npos,
                   "trim empties only blank text");
  }
  ad_fuzz::check(trim(trimmed) == trimmed, "trim is idempotent");

  const std::pair<std::string, std::string> member = parseLine(line);
  std::size_t quotes = 0;
  for (char c : line) quotes += c == '"';
  if (quotes < 4) {
    ad_fuzz::check(member.first.empty() && member.second.empty(),
                   "fewer than four quotes give an empty pair");
  }
  ad_fuzz::check(
      member.first.find('"') == std::string::npos && member.second.find('"') == std::string::npos,
      "key and value never hold a quote");
  ad_fuzz::check(member.first.size() + member.second.size() + 4 <= line.size() ||
                     (member.first.empty() && member.second.empty()),
                 "key and value come from inside the line");
  return 0;
}
