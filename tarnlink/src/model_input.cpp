#include "model_input.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace tarnlink {
namespace {

// --- protocol buffer wire format --------------------------------------------------------

enum WireType { kVarint = 0, kFixed64 = 1, kLengthDelimited = 2, kFixed32 = 5 };

// Walks the fields of one serialized message without trusting any length in it: every read
// is checked against the end of the enclosing message.
class ProtoFields {
 public:
  ProtoFields(const unsigned char* begin, const unsigned char* end) : p_(begin), end_(end) {}

  // Moves to the next field; false at the end of the message or on malformed bytes.
  bool next() {
    if (p_ == end_ || !ok_) return false;
    uint64_t key = 0;
    if (!read_varint(key) || (key >> 3) == 0 || (key >> 3) > UINT32_MAX) return fail();
    number_ = static_cast<uint32_t>(key >> 3);
    wire_ = static_cast<int>(key & 7);
    switch (wire_) {
      case kVarint:
        return read_varint(value_) || fail();
      case kFixed64:
        return skip(8);
      case kFixed32:
        return skip(4);
      case kLengthDelimited: {
        uint64_t size = 0;
        if (!read_varint(size) || size > static_cast<uint64_t>(end_ - p_)) return fail();
        payload_ = p_;
        p_ += size;
        value_ = size;
        return true;
      }
      default:  // groups belong to no message read here
        return fail();
    }
  }

  bool ok() const { return ok_; }
  uint32_t number() const { return number_; }
  int wire() const { return wire_; }
  // The bytes of a length-delimited field.
  const unsigned char* payload() const { return payload_; }
  bool is(uint32_t number, int wire) const { return number_ == number && wire_ == wire; }
  uint64_t varint() const { return value_; }
  ProtoFields message() const { return ProtoFields(payload_, payload_ + value_); }
  std::string text() const {
    return std::string(reinterpret_cast<const char*>(payload_), static_cast<size_t>(value_));
  }

 private:
  bool read_varint(uint64_t& value) {
    value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (p_ == end_) return false;
      const unsigned char byte = *p_++;
      value |= static_cast<uint64_t>(byte & 0x7F) << shift;
      if ((byte & 0x80) == 0) return true;
    }
    return false;
  }
  bool skip(size_t count) {
    if (static_cast<size_t>(end_ - p_) < count) return fail();
    p_ += count;
    return true;
  }
  bool fail() {
    ok_ = false;
    return false;
  }

  const unsigned char* p_;
  const unsigned char* end_;
  const unsigned char* payload_ = nullptr;
  uint64_t value_ = 0;
  uint32_t number_ = 0;
  int wire_ = 0;
  bool ok_ = true;
};

// Field numbers of onnx.proto.
constexpr uint32_t kModelGraph = 7;
constexpr uint32_t kGraphNode = 1;
constexpr uint32_t kGraphInitializer = 5;
constexpr uint32_t kNodeAttribute = 5;
constexpr uint32_t kAttributeTensor = 5;
constexpr uint32_t kAttributeTensors = 10;
constexpr uint32_t kTensorDims = 1;
constexpr uint32_t kTensorDataType = 2;
constexpr uint32_t kTensorFloatData = 4;
constexpr uint32_t kTensorInt32Data = 5;
constexpr uint32_t kTensorStringData = 6;
constexpr uint32_t kTensorInt64Data = 7;
constexpr uint32_t kTensorRawData = 9;
constexpr uint32_t kTensorDoubleData = 10;
constexpr uint32_t kTensorUint64Data = 11;
constexpr uint32_t kTensorDataLocation = 14;
constexpr uint32_t kGraphInput = 11;
constexpr uint32_t kTensorName = 8;
constexpr uint32_t kValueInfoName = 1;
constexpr uint32_t kValueInfoType = 2;
constexpr uint32_t kTypeTensor = 1;
constexpr uint32_t kTensorTypeShape = 2;
constexpr uint32_t kShapeDim = 1;
constexpr uint32_t kDimValue = 1;

// Dims of TypeProto.tensor_type.shape; false on malformed bytes.
bool read_tensor_dims(ProtoFields type, std::vector<int64_t>& dims) {
  while (type.next()) {
    if (!type.is(kTypeTensor, kLengthDelimited)) continue;
    ProtoFields tensor = type.message();
    while (tensor.next()) {
      if (!tensor.is(kTensorTypeShape, kLengthDelimited)) continue;
      ProtoFields shape = tensor.message();
      while (shape.next()) {
        if (!shape.is(kShapeDim, kLengthDelimited)) continue;
        // A dimension given by name (dim_param) or not at all is open.
        int64_t dim = -1;
        ProtoFields dimension = shape.message();
        while (dimension.next()) {
          if (dimension.is(kDimValue, kVarint)) dim = static_cast<int64_t>(dimension.varint());
        }
        if (!dimension.ok()) return false;
        dims.push_back(dim > 0 ? dim : -1);
      }
      if (!shape.ok()) return false;
    }
    if (!tensor.ok()) return false;
  }
  return type.ok();
}

// Bytes per element of TensorProto.DataType in raw_data; 0 for strings and unknown types.
uint64_t element_size(uint64_t data_type) {
  static const uint64_t kSizes[] = {0, 4, 1, 1, 2, 2, 4, 8, 0, 1, 2, 8, 4, 8, 8, 16, 2};
  return data_type < sizeof kSizes / sizeof kSizes[0] ? kSizes[data_type] : 0;
}

// The varints of a packed repeated field, counted and, given `values`, kept; false when one
// is cut off or longer than 64 bits.
bool unpack_varints(const ProtoFields& field, uint64_t& count, std::vector<uint64_t>* values) {
  uint64_t value = 0;
  int shift = 0;
  for (const unsigned char *p = field.payload(), *end = p + field.varint(); p != end; ++p) {
    if (shift >= 64) return false;
    value |= static_cast<uint64_t>(*p & 0x7F) << shift;
    shift += 7;
    if ((*p & 0x80) != 0) continue;
    ++count;
    if (values != nullptr) values->push_back(value);
    value = 0;
    shift = 0;
  }
  return shift == 0;
}

bool malformed(std::string& error) {
  error = "malformed initializer";
  return false;
}

// What a TensorProto says of itself.
struct TensorFields {
  std::string name;
  std::vector<uint64_t> dims;
  uint64_t data_type = 0, raw_bytes = 0, values = 0, location = 0;
  bool raw = false;
};

// False when the message or one of its packed lists is malformed.
bool read_tensor(ProtoFields tensor, TensorFields& t) {
  while (tensor.next()) {
    const uint32_t field = tensor.number();
    const bool packed = tensor.wire() == kLengthDelimited;
    if (field == kTensorName && packed) {
      t.name = tensor.text();
    } else if (field == kTensorDims) {
      uint64_t unused = 0;
      if (packed) {
        if (!unpack_varints(tensor, unused, &t.dims)) return false;
      } else if (tensor.wire() == kVarint) {
        t.dims.push_back(tensor.varint());
      }
    } else if (field == kTensorDataType && tensor.wire() == kVarint) {
      t.data_type = tensor.varint();
    } else if (field == kTensorRawData && packed) {
      t.raw = true;
      t.raw_bytes += tensor.varint();
    } else if (field == kTensorDataLocation && tensor.wire() == kVarint) {
      t.location = tensor.varint();
    } else if (field == kTensorStringData && packed) {
      ++t.values;
    } else if (field == kTensorFloatData || field == kTensorDoubleData) {
      const uint64_t width = field == kTensorFloatData ? 4 : 8;
      if (packed && tensor.varint() % width != 0) return false;
      t.values +=
          packed ? tensor.varint() / width : tensor.wire() == (width == 4 ? kFixed32 : kFixed64);
    } else if (field == kTensorInt32Data || field == kTensorInt64Data ||
               field == kTensorUint64Data) {
      if (!packed) {
        t.values += tensor.wire() == kVarint;
      } else if (!unpack_varints(tensor, t.values, nullptr)) {
        return false;
      }
    }
  }
  return tensor.ok();
}

// One TensorProto (an initializer or a constant): the data it stores must be exactly what its
// dimensions declare. OpenCV's importer trusts the dimensions and reads past short data.
// `limit` bounds any honest element count (every stored element takes at least one byte).
bool check_tensor(ProtoFields tensor, uint64_t limit, std::set<std::string>& names,
                  std::string& error) {
  TensorFields t;
  if (!read_tensor(tensor, t)) return malformed(error);
  names.insert(t.name);
  const std::string what = "initializer '" + t.name + "'";
  if (t.location != 0) {
    error = what + " keeps its data outside the model file";
    return false;
  }
  uint64_t count = 1;  // a tensor without dimensions is a scalar
  for (uint64_t dim : t.dims) {
    if (dim == 0) count = 0;
  }
  for (uint64_t dim : t.dims) {
    if (count == 0) break;
    if (dim > limit || count > limit / dim) {
      error = what + " declares more values than the model file can hold";
      return false;
    }
    count *= dim;
  }
  const uint64_t size = element_size(t.data_type);
  if (t.raw && t.values != 0) {
    error = what + " stores its data twice";
    return false;
  }
  if (t.raw && size == 0) {
    error = what + " has raw data of an unknown type " + std::to_string(t.data_type);
    return false;
  }
  if (t.raw ? t.raw_bytes != count * size : t.values != count) {
    error = what + " holds " + std::to_string(t.raw ? t.raw_bytes : t.values) +
            (t.raw ? " bytes" : " values") + " where its dimensions need " +
            std::to_string(t.raw ? count * size : count);
    return false;
  }
  return true;
}

// The tensors a graph's nodes carry as attributes (constants), checked as initializers are.
bool check_node_tensors(ProtoFields node, uint64_t limit, std::string& error) {
  std::set<std::string> unused;
  while (node.next()) {
    if (!node.is(kNodeAttribute, kLengthDelimited)) continue;
    ProtoFields attribute = node.message();
    while (attribute.next()) {
      if ((attribute.is(kAttributeTensor, kLengthDelimited) ||
           attribute.is(kAttributeTensors, kLengthDelimited)) &&
          !check_tensor(attribute.message(), limit, unused, error)) {
        return false;
      }
    }
    if (!attribute.ok()) break;
  }
  return true;
}

bool read_value_info(ProtoFields info, ModelInput& input) {
  while (info.next()) {
    if (info.is(kValueInfoName, kLengthDelimited)) {
      input.name = info.text();
    } else if (info.is(kValueInfoType, kLengthDelimited)) {
      if (!read_tensor_dims(info.message(), input.dims)) return false;
    }
  }
  return info.ok();
}

// --- prototxt ---------------------------------------------------------------------------

// Tokens of the protobuf text format: names, numbers, quoted strings and single punctuation
// characters; comments dropped.
std::vector<std::string> text_tokens(const std::string& text) {
  std::vector<std::string> tokens;
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (std::isspace(c)) {
      ++i;
    } else if (c == '#') {
      while (i < text.size() && text[i] != '\n') ++i;
    } else if (c == '"' || c == '\'') {
      size_t end = i + 1;
      while (end < text.size() && text[end] != static_cast<char>(c)) {
        end += text[end] == '\\' ? 2 : 1;
      }
      const size_t stop = std::min(end + 1, text.size());  // an open quote runs to the end
      tokens.push_back(text.substr(i, stop - i));
      i = stop;
    } else if (std::isalnum(c) || c == '_' || c == '-' || c == '+' || c == '.') {
      size_t end = i;
      while (end < text.size() &&
             (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_' ||
              text[end] == '-' || text[end] == '+' || text[end] == '.')) {
        ++end;
      }
      tokens.push_back(text.substr(i, end - i));
      i = end;
    } else {
      tokens.push_back(std::string(1, static_cast<char>(c)));
      ++i;
    }
  }
  return tokens;
}

std::string unquote(const std::string& token) {
  if (token.size() >= 2 && (token.front() == '"' || token.front() == '\'') &&
      token.back() == token.front()) {
    return token.substr(1, token.size() - 2);
  }
  return token;
}

bool parse_dim(const std::string& token, int64_t& dim) {
  if (token.empty() || token.size() > 18) return false;
  int64_t value = 0;
  for (char c : token) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    value = value * 10 + (c - '0');
  }
  dim = value;
  return true;
}

// One "layer { ... }" block while it is being read.
struct LayerScan {
  bool is_input = false;
  std::string name;
  std::string top;
  int tops = 0;
  int shapes = 0;  // shape blocks of input_param so far; the first is the first top's
  std::vector<int64_t> dims;
};

}  // namespace

bool read_onnx_input(const std::vector<unsigned char>& model, ModelInput& input,
                     std::string& error) {
  input = ModelInput{};
  ProtoFields fields(model.data(), model.data() + model.size());
  std::set<std::string> weights;
  std::vector<ModelInput> inputs;
  bool has_graph = false;
  while (fields.next()) {
    if (!fields.is(kModelGraph, kLengthDelimited)) continue;
    has_graph = true;
    ProtoFields graph = fields.message();
    while (graph.next()) {
      if (graph.is(kGraphInitializer, kLengthDelimited)) {
        if (!check_tensor(graph.message(), model.size(), weights, error)) return false;
      } else if (graph.is(kGraphNode, kLengthDelimited)) {
        if (!check_node_tensors(graph.message(), model.size(), error)) return false;
      } else if (graph.is(kGraphInput, kLengthDelimited)) {
        inputs.emplace_back();
        if (!read_value_info(graph.message(), inputs.back())) {
          error = "malformed graph input";
          return false;
        }
      }
    }
    if (!graph.ok()) {
      error = "malformed graph";
      return false;
    }
  }
  if (!fields.ok() || !has_graph) {
    error = "not an ONNX model";
    return false;
  }
  for (const ModelInput& candidate : inputs) {
    if (weights.count(candidate.name) != 0) continue;
    if (input.input_count++ == 0) {
      input.name = candidate.name;
      input.dims = candidate.dims;
    }
  }
  if (input.input_count == 0) {
    error = "the graph declares no input";
    return false;
  }
  return true;
}

namespace {

// What a network description declares about its inputs, gathered token by token.
struct PrototxtScan {
  std::vector<std::string> top_inputs;
  std::vector<std::vector<int64_t>> top_shapes;
  std::vector<int64_t> top_input_dims;
  std::vector<LayerScan> input_layers;
};

// One "key: value" inside the open `blocks`.
void take_value(const std::vector<std::string>& blocks, const std::string& token,
                const std::string& value, PrototxtScan& scan, LayerScan& layer) {
  int64_t dim = 0;
  if (blocks.empty()) {
    if (token == "input") scan.top_inputs.push_back(value);
    if (token == "input_dim" && parse_dim(value, dim)) scan.top_input_dims.push_back(dim);
  } else if (blocks.size() == 1 && blocks[0] == "input_shape" && token == "dim") {
    if (parse_dim(value, dim)) scan.top_shapes.back().push_back(dim);
  } else if (blocks.size() == 1 && blocks[0] == "layer") {
    if (token == "type" && value == "Input") layer.is_input = true;
    if (token == "name") layer.name = value;
    if (token == "top" && layer.tops++ == 0) layer.top = value;
  } else if (blocks.size() == 3 && blocks[0] == "layer" && blocks[1] == "input_param" &&
             blocks[2] == "shape" && token == "dim" && layer.shapes == 1) {
    if (parse_dim(value, dim)) layer.dims.push_back(dim);
  }
}

// Walks the tokens of a network description; false, with `error`, where it is malformed.
bool scan_prototxt(const std::vector<std::string>& tokens, PrototxtScan& scan, std::string& error) {
  std::vector<std::string> blocks;  // names of the open blocks, outermost first
  LayerScan layer;

  for (size_t i = 0; i < tokens.size(); ++i) {
    const std::string& token = tokens[i];
    if (token == "}" || token == ">") {
      if (blocks.empty()) {
        error = "unbalanced braces";
        return false;
      }
      if (blocks.size() == 1 && blocks[0] == "layer" && layer.is_input) {
        scan.input_layers.push_back(layer);
      }
      blocks.pop_back();
      continue;
    }
    if (token == ":" || token == "," || token == ";") continue;
    // A block opens with "name {" or "name: {".
    size_t next = i + 1;
    if (next < tokens.size() && tokens[next] == ":") ++next;
    if (next < tokens.size() && (tokens[next] == "{" || tokens[next] == "<")) {
      blocks.push_back(token);
      if (blocks.size() == 1 && token == "input_shape") scan.top_shapes.emplace_back();
      if (blocks.size() == 1 && token == "layer") layer = LayerScan{};
      if (blocks.size() == 3 && blocks[0] == "layer" && blocks[1] == "input_param" &&
          token == "shape") {
        ++layer.shapes;
      }
      i = next;
      continue;
    }
    if (next >= tokens.size() || next == i + 1) {
      error = "expected ':' after " + token;
      return false;
    }
    take_value(blocks, token, unquote(tokens[next]), scan, layer);
    i = next;
  }
  if (!blocks.empty()) {
    error = "unbalanced braces";
    return false;
  }
  return true;
}

// The input count and the first input: top-level "input" fields first, then Input layers.
void first_input(const PrototxtScan& scan, ModelInput& input) {
  input.input_count = static_cast<int>(scan.top_inputs.size());
  for (const LayerScan& layer : scan.input_layers) input.input_count += std::max(layer.tops, 1);
  if (!scan.top_inputs.empty()) {
    input.name = scan.top_inputs[0];
    if (!scan.top_shapes.empty()) {
      input.dims = scan.top_shapes[0];
    } else if (scan.top_input_dims.size() >= 4) {
      input.dims.assign(scan.top_input_dims.begin(), scan.top_input_dims.begin() + 4);
    }
  } else if (!scan.input_layers.empty()) {
    const LayerScan& layer = scan.input_layers[0];
    input.name = layer.top.empty() ? layer.name : layer.top;
    input.dims = layer.dims;
  }
}

}  // namespace

bool read_prototxt_input(const std::string& text, ModelInput& input, std::string& error) {
  input = ModelInput{};
  PrototxtScan scan;
  if (!scan_prototxt(text_tokens(text), scan, error)) return false;
  first_input(scan, input);
  if (input.input_count == 0) {
    error = "the network declares no input";
    return false;
  }
  return true;
}

bool input_geometry(const ModelInput& input, InputGeometry& geometry, std::string& error) {
  const std::vector<int64_t>& d = input.dims;
  if (d.size() != 4) {
    error =
        "input '" + input.name + "' has " + std::to_string(d.size()) + " dimensions, expected 4";
    return false;
  }
  if (d[0] > 1) {
    error = "input '" + input.name + "' takes a batch of " + std::to_string(d[0]);
    return false;
  }
  auto channel_like = [](int64_t v) { return v == 1 || v == 3 || v == 4; };
  const bool last = channel_like(d[3]) && !channel_like(d[1]);
  const int64_t c = last ? d[3] : d[1];
  const int64_t h = last ? d[1] : d[2];
  const int64_t w = last ? d[2] : d[3];
  constexpr int64_t kMaxSide = 1 << 15;  // keeps width * height * channels within int
  if (c < 1 || c > 4 || h < 1 || w < 1 || h > kMaxSide || w > kMaxSide) {
    error = "input '" + input.name + "' has no fixed size of 1 to 4 channels";
    return false;
  }
  geometry.layout = last ? Layout::kChannelsLast : Layout::kChannelsFirst;
  geometry.channels = static_cast<int>(c);
  geometry.height = static_cast<int>(h);
  geometry.width = static_cast<int>(w);
  return true;
}

const char* layout_name(Layout layout) { return layout == Layout::kChannelsLast ? "NHWC" : "NCHW"; }

}  // namespace tarnlink
