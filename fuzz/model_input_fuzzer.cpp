// The reference inference library's readers of a model's declared input, over arbitrary
// bytes taken as an ONNX model and as a Caffe network description: every answer is a
// refusal with a reason, or an input whose geometry is then read without fault.
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "model_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> bytes(data, data + size);
  for (bool onnx : {true, false}) {
    tarnlink::ModelInput input;
    tarnlink::InputGeometry geometry;
    std::string error;
    if (onnx ? !tarnlink::read_onnx_input(bytes, input, error)
             : !tarnlink::read_prototxt_input({bytes.begin(), bytes.end()}, input, error)) {
      ad_fuzz::check(!error.empty(), "a refusal says why");
      continue;
    }
    ad_fuzz::check(input.input_count >= 1, "an input was declared");
    if (!tarnlink::input_geometry(input, geometry, error)) {
      ad_fuzz::check(!error.empty(), "a refused geometry says why");
      continue;
    }
    ad_fuzz::check(geometry.channels >= 1 && geometry.channels <= 4 && geometry.height >= 1 &&
                       geometry.width >= 1,
                   "a geometry that is accepted can be fed");
  }
  return 0;
}
