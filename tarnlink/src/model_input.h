// The input a model file declares, read from the file itself: OpenCV's importers keep it to
// themselves, and the detector asks for the input size before it runs anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnlink {

// The first input a model declares, and how many inputs it declares in all.
struct ModelInput {
  std::string name;
  std::vector<int64_t> dims;  // -1 where the model leaves a dimension open
  int input_count = 0;
};

// Graph inputs of a serialized ONNX ModelProto, weights listed as inputs left out. False,
// with `error` set, when the bytes are not such a message or declare no input.
bool read_onnx_input(const std::vector<unsigned char>& model, ModelInput& input,
                     std::string& error);

// Input of a Caffe network description (prototxt): top-level "input" with "input_shape" or
// "input_dim", or layers of type "Input".
bool read_prototxt_input(const std::string& text, ModelInput& input, std::string& error);

enum class Layout { kChannelsFirst, kChannelsLast };

// Where the channels sit in the network's four-dimensional input, and its fixed size.
struct InputGeometry {
  Layout layout = Layout::kChannelsFirst;
  int channels = 0;
  int height = 0;
  int width = 0;
};

// Reads the geometry from the dims (N, C, H, W) or (N, H, W, C) of a single-image input.
// Channels-last is chosen only when the last dimension looks like a channel count (1, 3 or
// 4) and the second does not; everything else is taken as channels-first.
bool input_geometry(const ModelInput& input, InputGeometry& geometry, std::string& error);

const char* layout_name(Layout layout);

}  // namespace tarnlink
