// Hand-encoded pieces of ONNX models for the model readers' tests and fuzzer: protocol
// buffer fields, and a model around one initializer.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

namespace onnx_bytes {

inline std::string varint(uint64_t value) {
  std::string out;
  for (; value >= 0x80; value >>= 7) out += static_cast<char>((value & 0x7F) | 0x80);
  return out + static_cast<char>(value);
}

// Field `number` holding `payload` as a length-delimited value.
inline std::string bytes_field(uint32_t number, const std::string& payload) {
  return varint(uint64_t{number} << 3 | 2) + varint(payload.size()) + payload;
}

inline std::string varint_field(uint32_t number, uint64_t value) {
  return varint(uint64_t{number} << 3) + varint(value);
}

// A float TensorProto named `name` of `dims` with `raw` as its raw data.
inline std::string raw_float_tensor(const std::string& name, std::initializer_list<uint64_t> dims,
                                    const std::string& raw) {
  std::string tensor;
  for (uint64_t dim : dims) tensor += varint_field(1, dim);
  return tensor + varint_field(2, 1) + bytes_field(8, name) + bytes_field(9, raw);
}

// A model whose graph holds `tensor` (a serialized TensorProto) as its one initializer, or as
// the value of a Constant node, a Relu node, and the single float input "inputs_0" of
// 1 x 3 x 8 x 8.
inline std::string model_with_initializer(const std::string& tensor, bool constant = false) {
  std::string shape;
  for (uint64_t dim : {1, 3, 8, 8}) shape += bytes_field(1, varint_field(1, dim));
  const std::string type = bytes_field(1, varint_field(1, 1) + bytes_field(2, shape));
  const std::string node =
      bytes_field(1, "inputs_0") + bytes_field(2, "Identity") + bytes_field(4, "Relu");
  const std::string value = bytes_field(1, "value") + bytes_field(5, tensor) + varint_field(20, 4);
  const std::string held =
      constant
          ? bytes_field(1, bytes_field(2, "c") + bytes_field(4, "Constant") + bytes_field(5, value))
          : bytes_field(5, tensor);
  const std::string graph = bytes_field(1, node) + bytes_field(2, "g") + held +
                            bytes_field(11, bytes_field(1, "inputs_0") + bytes_field(2, type)) +
                            bytes_field(12, bytes_field(1, "Identity") + bytes_field(2, type));
  return varint_field(1, 7) + bytes_field(8, varint_field(2, 11)) + bytes_field(7, graph);
}

}  // namespace onnx_bytes
