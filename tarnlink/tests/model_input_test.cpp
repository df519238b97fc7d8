#include "model_input.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace tarnlink {
namespace {

std::vector<unsigned char> file_bytes(const std::string& name) {
  std::ifstream in(std::string(TARNLINK_MODELS) + "/" + name, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

struct PrototxtCase {
  const char* label;
  const char* text;
  bool ok;
  const char* name;
  std::vector<int64_t> dims;
  int count;
};

void PrintTo(const PrototxtCase& c, std::ostream* os) { *os << c.label; }

class PrototxtInput : public testing::TestWithParam<PrototxtCase> {};

TEST_P(PrototxtInput, ReadsTheFirstDeclaredInput) {
  const PrototxtCase& c = GetParam();
  ModelInput input;
  std::string error;
  ASSERT_EQ(read_prototxt_input(c.text, input, error), c.ok) << error;
  if (!c.ok) {
    EXPECT_FALSE(error.empty());
    return;
  }
  EXPECT_EQ(input.name, c.name);
  EXPECT_EQ(input.dims, c.dims);
  EXPECT_EQ(input.input_count, c.count);
}

INSTANTIATE_TEST_SUITE_P(
    Forms, PrototxtInput,
    testing::Values(
        PrototxtCase{"InputShape", "input: \"data\"\ninput_shape { dim: 1 dim: 3 dim: 32 dim: 40 }",
                     true, "data", {1, 3, 32, 40}, 1},
        PrototxtCase{"InputDim", "input: 'img' input_dim: 1 input_dim: 3 input_dim: 7 input_dim: 9",
                     true, "img", {1, 3, 7, 9}, 1},
        PrototxtCase{"InputLayer",
                     "# net\nname: \"n\"\nlayer { name: \"in\" type: \"Input\" top: \"x\"\n"
                     "  input_param { shape { dim: 1 dim: 3 dim: 5 dim: 6 } } }\n"
                     "layer { name: \"c\" type: \"Convolution\" bottom: \"x\" top: \"c\"\n"
                     "  convolution_param { num_output: 2 kernel_size: 3 } }",
                     true, "x", {1, 3, 5, 6}, 1},
        PrototxtCase{"ColonBeforeBrace",
                     "input: \"d\" input_shape: { dim: 1 dim: 4 dim: 2 dim: 2 }", true, "d",
                     {1, 4, 2, 2}, 1},
        PrototxtCase{"TwoInputs",
                     "input: \"a\" input_shape { dim: 1 dim: 3 dim: 8 dim: 8 }\n"
                     "input: \"b\" input_shape { dim: 1 dim: 1 }",
                     true, "a", {1, 3, 8, 8}, 2},
        PrototxtCase{"NoInput", "layer { name: \"r\" type: \"ReLU\" }", false, "", {}, 0},
        PrototxtCase{"Unbalanced", "input: \"d\" input_shape { dim: 1", false, "", {}, 0},
        PrototxtCase{"MissingColon", "input \"d\"", false, "", {}, 0}),
    [](const testing::TestParamInfo<PrototxtCase>& info) { return info.param.label; });

TEST(OnnxInput, ReadsTheGraphInputOfEachTestModel) {
  ModelInput input;
  std::string error;
  ASSERT_TRUE(read_onnx_input(file_bytes("tiny.onnx"), input, error)) << error;
  EXPECT_EQ(input.name, "inputs_0");
  EXPECT_EQ(input.dims, (std::vector<int64_t>{1, 3, 48, 64}));
  EXPECT_EQ(input.input_count, 1);  // the weights are initializers, not inputs
  ASSERT_TRUE(read_onnx_input(file_bytes("tiny_nhwc.onnx"), input, error)) << error;
  EXPECT_EQ(input.dims, (std::vector<int64_t>{1, 40, 56, 3}));
}

// Every prefix of a valid model either fails or still yields the whole input: no length in
// the file is trusted.
TEST(OnnxInput, TruncatedModelsNeverReadPastTheirEnd) {
  const std::vector<unsigned char> model = file_bytes("tiny.onnx");
  ASSERT_FALSE(model.empty());
  for (size_t size = 0; size < model.size(); ++size) {
    // An exact-size copy so that AddressSanitizer sees any over-read.
    const std::vector<unsigned char> prefix(model.begin(), model.begin() + size);
    ModelInput input;
    std::string error;
    if (read_onnx_input(prefix, input, error)) {
      EXPECT_EQ(input.dims, (std::vector<int64_t>{1, 3, 48, 64})) << size;
    }
  }
}

TEST(OnnxInput, RefusesBytesThatAreNoModel) {
  ModelInput input;
  std::string error;
  for (const std::string& text : {std::string("name: \"x\""), std::string("\xff\xff\xff\xff"),
                                  std::string("\x3a\x00", 2)}) {
    EXPECT_FALSE(read_onnx_input(std::vector<unsigned char>(text.begin(), text.end()), input,
                                 error))
        << text;
  }
}

struct GeometryCase {
  std::vector<int64_t> dims;
  bool ok;
  Layout layout;
  int channels, height, width;
};

void PrintTo(const GeometryCase& c, std::ostream* os) {
  for (size_t i = 0; i < c.dims.size(); ++i) *os << (i ? "x" : "") << c.dims[i];
}

class Geometry : public testing::TestWithParam<GeometryCase> {};

TEST_P(Geometry, FindsChannelsAndSize) {
  const GeometryCase& c = GetParam();
  ModelInput input;
  input.dims = c.dims;
  InputGeometry g;
  std::string error;
  ASSERT_EQ(input_geometry(input, g, error), c.ok) << error;
  if (!c.ok) return;
  EXPECT_EQ(g.layout, c.layout);
  EXPECT_EQ(g.channels, c.channels);
  EXPECT_EQ(g.height, c.height);
  EXPECT_EQ(g.width, c.width);
}

INSTANTIATE_TEST_SUITE_P(
    Dims, Geometry,
    testing::Values(GeometryCase{{1, 3, 48, 64}, true, Layout::kChannelsFirst, 3, 48, 64},
                    GeometryCase{{-1, 3, 48, 64}, true, Layout::kChannelsFirst, 3, 48, 64},
                    GeometryCase{{1, 40, 56, 3}, true, Layout::kChannelsLast, 3, 40, 56},
                    GeometryCase{{1, 4, 4, 4}, true, Layout::kChannelsFirst, 4, 4, 4},
                    GeometryCase{{2, 3, 8, 8}, false, Layout::kChannelsFirst, 0, 0, 0},
                    GeometryCase{{1, 3, -1, -1}, false, Layout::kChannelsFirst, 0, 0, 0},
                    GeometryCase{{1, 16, 8, 8}, false, Layout::kChannelsFirst, 0, 0, 0},
                    GeometryCase{{3, 48, 64}, false, Layout::kChannelsFirst, 0, 0, 0}));

}  // namespace
}  // namespace tarnlink
