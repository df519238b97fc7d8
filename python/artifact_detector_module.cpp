// The Python module artifact_detector: the camera-native Detector for numpy images, NV21
// bytes and image files. Every run releases the GIL, so detectors in several threads run at
// once.
#include <dlfcn.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "detector.h"
#include "image_file.h"

namespace py = pybind11;
namespace fs = std::filesystem;
using artifact_detector::Detector;
using artifact_detector::Frame;
using artifact_detector::PixelFormat;
using artifact_detector::Result;
using artifact_detector::Status;

namespace {

constexpr int kBgrBytes = 3;

// Installed: the models folder at a fixed place relative to the module's own file;
// otherwise the build tree's.
fs::path default_models_dir() {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&default_models_dir), &info) != 0 &&
      info.dli_fname != nullptr) {
    const fs::path installed = fs::path(info.dli_fname).parent_path() / AD_MODELS_FROM_MODULE;
    std::error_code ec;
    if (fs::is_directory(installed, ec)) return installed;
  }
  return AD_BUILD_MODELS_DIR;
}

// A class id from an int (1 .. 11) or a tag ("Blur").
int class_id(const py::handle& key) {
  if (py::isinstance<py::str>(key)) {
    const std::string tag = key.cast<std::string>();
    for (int id = 1; id <= artifact_detector::kClassCount; ++id) {
      if (tag == artifact_detector::class_name(id)) return id;
    }
    throw py::value_error("unknown artifact tag: " + tag);
  }
  const int id = key.cast<int>();
  if (id < 1 || id > artifact_detector::kClassCount) {
    throw py::value_error("artifact ids run from 1 to 11, not " + std::to_string(id));
  }
  return id;
}

// The shortest decimal that reads back as the same float: a threshold set to 0.6 reads 0.6,
// not 0.6000000238418579.
double decimal(float value) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text - 1, value).ptr;
  *end = '\0';
  return std::strtod(text, nullptr);
}

py::dict by_tag(const std::map<int, float>& by_id) {
  py::dict out;
  for (const auto& [id, value] : by_id) out[artifact_detector::class_name(id)] = decimal(value);
  return out;
}

std::map<int, float> by_id(const py::dict& mapping) {
  std::map<int, float> out;
  for (const auto& [key, value] : mapping) out[class_id(key)] = value.cast<float>();
  return out;
}

PixelFormat channel_order(const std::string& order) {
  if (order == "bgr") return PixelFormat::kBgr;
  if (order == "rgb") return PixelFormat::kRgb;
  throw py::value_error("order must be \"bgr\" or \"rgb\", not \"" + order + "\"");
}

class PyDetector {
 public:
  PyDetector(const std::optional<fs::path>& models, bool quiet) {
    artifact_detector::Options options;
    options.quiet = quiet;
    detector_ = Detector::open(models ? models->string() : default_models_dir().string(), options);
    if (!detector_->ready()) throw std::runtime_error(detector_->error());
  }

  Result detect_image(const py::array& image, int rotation, const std::string& order) {
    const PixelFormat format = channel_order(order);
    if (!image.dtype().is(py::dtype::of<uint8_t>())) {
      throw py::type_error("the image must be a uint8 array, not " +
                           py::str(image.dtype()).cast<std::string>());
    }
    if (image.ndim() != 3 || image.shape(2) != kBgrBytes) {
      throw py::value_error("the image must have the shape (height, width, 3)");
    }
    // Rows may lie apart (a crop of a larger image); pixels must be packed within a row.
    py::array pixels = image;
    if (image.strides(2) != 1 || image.strides(1) != kBgrBytes || image.strides(0) <= 0) {
      pixels = py::array_t<uint8_t, py::array::c_style>::ensure(image);
    }
    const Frame frame = Frame::packed(
        format, static_cast<const uint8_t*>(pixels.data()), static_cast<int32_t>(pixels.strides(0)),
        static_cast<int32_t>(pixels.shape(1)), static_cast<int32_t>(pixels.shape(0)), rotation);
    return run(frame);
  }

  Result detect_nv21(const py::buffer& data, int width, int height, int rotation) {
    const py::buffer_info bytes = data.request();
    if (bytes.itemsize != 1 || !PyBuffer_IsContiguous(bytes.view(), 'C')) {
      throw py::type_error("NV21 data must be contiguous bytes");
    }
    const int64_t needed = int64_t(width) * height * 3 / 2;
    if (width > 0 && height > 0 && bytes.size < needed) {
      throw py::value_error("NV21 data of " + std::to_string(width) + "x" +
                            std::to_string(height) + " needs " + std::to_string(needed) +
                            " bytes, not " + std::to_string(bytes.size));
    }
    return run(Frame::nv21(static_cast<const uint8_t*>(bytes.ptr), width, height, rotation));
  }

  Result detect_file(const fs::path& path, int rotation) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec)) {
      PyErr_SetString(PyExc_FileNotFoundError, ("no such file: " + path.string()).c_str());
      throw py::error_already_set();
    }
    artifact_detect::Decoded decoded;
    {
      py::gil_scoped_release unlocked;
      decoded = artifact_detect::read_image_file(path.string(), artifact_detect::DecodeLimits());
    }
    if (!decoded.error.empty()) {
      throw py::value_error("not a readable image: " + path.string() + ": " + decoded.error);
    }
    return run(Frame::image(decoded.image, rotation));
  }

  Detector& detector() { return *detector_; }

 private:
  Result run(const Frame& frame) {
    Result r;
    {
      py::gil_scoped_release unlocked;
      r = detector_->detect(frame);
    }
    if (r.status == Status::kInvalidInput) throw py::value_error(r.reason);
    return r;
  }

  std::unique_ptr<Detector> detector_;
};

std::string artifact_repr(const artifact_detector::Artifact& a) {
  return "Artifact(tag='" + a.name + "', id=" + std::to_string(a.id) +
         ", probability=" + py::repr(py::float_(decimal(a.probability))).cast<std::string>() + ")";
}

void bind_results(py::module_& m) {
  py::class_<artifact_detector::Artifact>(m, "Artifact", "One accepted artifact.")
      .def_readonly("tag", &artifact_detector::Artifact::name)
      .def_readonly("id", &artifact_detector::Artifact::id, "class id, 1 to 11")
      .def_property_readonly("probability",
                             [](const artifact_detector::Artifact& a) { return decimal(a.probability); })
      .def("__repr__", &artifact_repr);

  py::class_<Result>(m, "Result", "What one run found.")
      .def_property_readonly(
          "status", [](const Result& r) { return artifact_detector::status_name(r.status); },
          "'analysed', 'uniform frame' or 'failed'")
      .def_readonly("reason", &Result::reason, "why the frame was not analysed; '' when it was")
      .def_readonly("artifacts", &Result::artifacts, "accepted artifacts, ascending id")
      .def_property_readonly(
          "probabilities",
          [](const Result& r) {
            std::map<int, float> all;
            for (int id = 1; id <= artifact_detector::kClassCount; ++id) {
              all[id] = r.probabilities[id - 1];
            }
            return by_tag(all);
          },
          "all eleven probabilities by tag, in id order")
      .def_property_readonly("analysed", &Result::analysed)
      .def("__repr__", [](const Result& r) {
        std::string text = "Result(status='" + std::string(artifact_detector::status_name(r.status)) +
                           "', artifacts=[";
        for (std::size_t i = 0; i < r.artifacts.size(); ++i) {
          text += (i ? ", " : "") + artifact_repr(r.artifacts[i]);
        }
        return text + "])";
      });
}

void bind_detector(py::module_& m) {
  py::class_<PyDetector>(m, "Detector",
                         "A detector over one opened model. Raises RuntimeError when the model "
                         "does not open.")
      .def(py::init<const std::optional<fs::path>&, bool>(), py::arg("models") = py::none(),
           py::arg("quiet") = true,
           "models: the folder that holds artifact_detector/ (default: the installed model, "
           "or the build tree's); quiet: no log lines")
      .def("detect", &PyDetector::detect_image, py::arg("image"), py::arg("rotation") = 0,
           py::arg("order") = "bgr",
           "A uint8 array of shape (height, width, 3), channels in `order` ('bgr' or 'rgb'), "
           "turned upright by `rotation` degrees clockwise first.")
      .def("detect_nv21", &PyDetector::detect_nv21, py::arg("data"), py::arg("width"),
           py::arg("height"), py::arg("rotation") = 0,
           "Full-range NV21 bytes of a width x height frame (even sizes).")
      .def("detect_file", &PyDetector::detect_file, py::arg("path"), py::arg("rotation") = 0,
           "A JPEG, PNG, WebP, BMP, TIFF or PNM file.")
      .def_property_readonly("input_size",
                             [](PyDetector& d) {
                               const cv::Size s = d.detector().input_size();
                               return py::make_tuple(s.width, s.height);
                             })
      .def_property_readonly(
          "thresholds", [](PyDetector& d) { return by_tag(d.detector().thresholds()); },
          "acceptance thresholds by tag; a class without one is never accepted")
      .def(
          "set_threshold",
          [](PyDetector& d, const py::object& key, float threshold) {
            d.detector().set_threshold(class_id(key), threshold);
          },
          py::arg("artifact"), py::arg("threshold"), "artifact: a tag or a class id")
      .def(
          "set_thresholds",
          [](PyDetector& d, const py::dict& thresholds) {
            d.detector().set_thresholds(by_id(thresholds));
          },
          py::arg("thresholds"), "replaces the whole table; keys are tags or class ids")
      .def_static(
          "default_thresholds", [] { return by_tag(Detector::default_thresholds()); },
          "the built-in table")
      .def_static(
          "read_threshold_file",
          [](const fs::path& path) { return by_tag(Detector::read_threshold_file(path.string())); },
          py::arg("path"), "the entries of a threshold file; {} when it has none");
}

}  // namespace

PYBIND11_MODULE(artifact_detector, m) {
  m.doc() =
      "Which of eleven image artifacts a photograph or camera frame shows.\n\n"
      "    import artifact_detector\n"
      "    detector = artifact_detector.Detector()\n"
      "    print(detector.detect_file('photo.jpg').artifacts)\n";
  m.attr("__version__") = artifact_detector::version();
  py::tuple names(artifact_detector::kClassCount);
  for (int id = 1; id <= artifact_detector::kClassCount; ++id) {
    names[id - 1] = artifact_detector::class_name(id);
  }
  m.attr("CLASS_NAMES") = names;
  bind_results(m);
  bind_detector(m);
}
