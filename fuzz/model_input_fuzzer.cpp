// The reference inference library's readers of a model's declared input, over arbitrary
// bytes taken as an ONNX model, as a Caffe network description, and as one weight tensor of
// an otherwise sound ONNX model (so that mutations reach the check of a tensor's data against
// its dimensions directly): every answer is a refusal with a reason, or an input whose
// geometry is then read without fault.
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "model_input.h"
#include "onnx_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> bytes(data, data + size);
  const std::string tensor(bytes.begin(), bytes.end());
  const std::string around = onnx_bytes::model_with_initializer(tensor, size % 2 == 1);
  enum Reading { kOnnx, kPrototxt, kTensor };
  for (Reading reading : {kOnnx, kPrototxt, kTensor}) {
    tarnlink::ModelInput input;
    tarnlink::InputGeometry geometry;
    std::string error;
    const bool read = reading == kOnnx ? tarnlink::read_onnx_input(bytes, input, error)
                      : reading == kPrototxt
                          ? tarnlink::read_prototxt_input(tensor, input, error)
                          : tarnlink::read_onnx_input({around.begin(), around.end()}, input, error);
    if (!read) {
      ad_fuzz::check(!error.empty(), "a refusal says why");
      continue;
    }
    ad_fuzz::check(input.input_count >= 1, "an input was declared");
    ad_fuzz::check(reading != kTensor || input.name == "inputs_0",
                   "a sound tensor leaves the model's own input");
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
