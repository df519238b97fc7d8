#include "model_input.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace tarnlink {
namespace {

std::string file_text(const std::string& name) {
  std::ifstream in(std::string(TARNLINK_MODELS) + "/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// "<name> <dims> <input count>" of the input `bytes` declare, "" when refused.
std::string declared(const std::string& bytes, bool onnx, ModelInput& in) {
  std::string error;
  const bool ok = onnx ? read_onnx_input({bytes.begin(), bytes.end()}, in, error)
                       : read_prototxt_input(bytes, in, error);
  EXPECT_EQ(ok, error.empty()) << error;
  return ok ? in.name + " " + testing::PrintToString(in.dims) + " " + std::to_string(in.input_count)
            : "";
}

// Every prefix of a model fails or yields its whole input (a prototxt cut before its shape:
// none): no length in a file is trusted; exact-size copies let AddressSanitizer see over-reads.
TEST(ModelInput, ReadsTheFirstDeclaredInputAndRefusesMalformedOrTruncatedFiles) {
  const std::tuple<bool, std::string, std::string> cases[] = {  // onnx, expected ("": refused)
      {true, "inputs_0 { 1, 3, 48, 64 } 1", file_text("tiny.onnx")},  // weights are no inputs
      {true, "inputs_0 { 1, 40, 56, 3 } 1", file_text("tiny_nhwc.onnx")},
      {false, "data { 1, 3, 32, 40 } 1", file_text("tiny.prototxt")},
      {false, "i { 1, 3, 7, 9 } 1", "input:'i' input_dim:1 input_dim:3 input_dim:7 input_dim:9"},
      {false, "x { 1, 3, 5, 6 } 1", "layer { name: \"in\" type: \"Input\" top: \"x\" # net\n"
                                     "input_param { shape { dim: 1 dim: 3 dim: 5 dim: 6 } } }"},
      {false, "a { 1, 3, 8, 8 } 2", "input:'a' input_shape:{dim:1 dim:3 dim:8 dim:8} input:'b'"},
      {false, "", "layer { name: 'r' type: 'ReLU' }"}, {false, "", "input 'd'"},
      {true, "", "name: 'x'"}, {true, "", "\xff\xff\xff\xff"}, {true, "", {"\x3a\x00", 2}}};
  for (const auto& [onnx, expected, bytes] : cases) {
    ModelInput full, cut;
    EXPECT_EQ(declared(bytes, onnx, full), expected);
    for (size_t size = 0; size < bytes.size() && !expected.empty(); ++size) {
      const bool refused = declared(bytes.substr(0, size), onnx, cut).empty();
      EXPECT_TRUE(refused || cut.dims == full.dims || (!onnx && cut.dims.empty())) << size;
    }
  }
}

// Channels last only when the last dimension looks like a channel count and the second not.
TEST(ModelInput, FindsChannelsAndSizeOfASingleImageInput) {
  constexpr Layout F = Layout::kChannelsFirst, L = Layout::kChannelsLast;
  const std::pair<std::vector<int64_t>, std::tuple<bool, Layout, int, int, int>> cases[] = {
      {{1, 3, 48, 64}, {true, F, 3, 48, 64}}, {{-1, 3, 48, 64}, {true, F, 3, 48, 64}},
      {{1, 40, 56, 3}, {true, L, 3, 40, 56}}, {{1, 4, 4, 4}, {true, F, 4, 4, 4}},
      {{2, 3, 8, 8}, {}}, {{1, 3, -1, -1}, {}}, {{1, 16, 8, 8}, {}}, {{3, 48, 64}, {}}};
  for (const auto& [dims, expected] : cases) {
    InputGeometry g;
    std::string error;
    const bool ok = input_geometry(ModelInput{"in", dims, 1}, g, error);
    EXPECT_EQ(std::tuple(ok, g.layout, g.channels, g.height, g.width), expected)
        << testing::PrintToString(dims) << error;  // refused: nothing written
  }
}

}  // namespace
}  // namespace tarnlink
