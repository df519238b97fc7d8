#include "model_input.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "onnx_bytes.h"

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

// OpenCV reads as many values as the dimensions declare, whatever the file holds: every
// initializer and constant must hold exactly that many, in one place, inside the file.
TEST(ModelInput, RefusesTensorsWhoseDataDoesNotMatchTheirDimensions) {
  using namespace onnx_bytes;
  const std::string w = bytes_field(8, "w"), f32 = varint_field(2, 1), i64 = varint_field(2, 7);
  const std::string d3x2 = varint_field(1, 3) + varint_field(1, 2), four(4, '\0');
  std::string six_fixed32, six_varints;
  for (int i = 0; i < 6; ++i) six_fixed32 += varint(4 << 3 | 5) + four, six_varints += varint(i);
  const std::string need = "initializer 'w' holds ";
  // TensorProto bytes, held by a Constant node (else an initializer), the refusal ("": none)
  const std::tuple<std::string, bool, std::string> cases[] = {
      {raw_float_tensor("w", {3, 2}, std::string(24, 'x')), false, ""},
      {raw_float_tensor("w", {3, 2}, std::string(24, 'x')), true, ""},
      {raw_float_tensor("w", {}, four), false, ""},
      {raw_float_tensor("w", {0, 5}, ""), false, ""},
      {d3x2 + f32 + w + six_fixed32, false, ""},
      {d3x2 + i64 + w + bytes_field(7, six_varints), false, ""},
      {raw_float_tensor("w", {3, 100000000}, std::string(12, 'x')), false,
       "initializer 'w' declares more values than the model file can hold"},
      {raw_float_tensor("w", {10, 10, 10, 10, 10, 10}, std::string(12, 'x')), false,
       "initializer 'w' declares more values than the model file can hold"},
      {raw_float_tensor("w", {3, 2}, std::string(20, 'x')), false,
       need + "20 bytes where its dimensions need 24"},
      {raw_float_tensor("w", {3, 2}, std::string(28, 'x')), true,
       need + "28 bytes where its dimensions need 24"},
      {d3x2 + f32 + w + bytes_field(4, std::string(20, 'x')), false,
       need + "5 values where its dimensions need 6"},
      {d3x2 + i64 + w + bytes_field(7, six_varints.substr(1)), true,
       need + "5 values where its dimensions need 6"},
      {d3x2 + f32 + w + bytes_field(4, std::string(21, 'x')), false, "malformed initializer"},
      {raw_float_tensor("w", {3, 2}, std::string(24, 'x')) + six_fixed32, false,
       "initializer 'w' stores its data twice"},
      {raw_float_tensor("w", {3, 2}, "") + varint_field(14, 1), false,
       "initializer 'w' keeps its data outside the model file"},
      {d3x2 + w + bytes_field(9, std::string(24, 'x')), false,
       "initializer 'w' has raw data of an unknown type 0"}};
  for (const auto& [tensor, constant, refusal] : cases) {
    const std::string model = model_with_initializer(tensor, constant);
    ModelInput in;
    std::string error;
    const bool ok = read_onnx_input({model.begin(), model.end()}, in, error);
    EXPECT_EQ(std::make_tuple(ok, error), std::make_tuple(refusal.empty(), refusal))
        << testing::PrintToString(tensor);
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
