// One network opened in the device's inference library.
//
// The constructor loads the library, creates a session in it and opens the model; whether
// that worked is kept, not thrown (only a library that cannot be loaded at all throws).
// A network that did not open stays usable: its runs and output reads just fail. Each run
// (forward_pass) takes an 8-bit, three-channel image; its outputs stay in the library and
// are read afterwards with get_layer_output_with_format. One thread at a time per object:
// only init_net locks.
#pragma once

#include <mutex>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "core/model_interface/tarnlink_api.h"

class NNet {
 public:
  // `model` with a '.' anywhere is a model file, opened through the options record (or
  // directly when the library lacks that open); without one it is a models base directory
  // searched for `module`. The channel means are logged only: runs subtract 128 regardless.
  NNet(const std::string& model, const std::string& module,
       std::vector<std::string> output_layer_names, std::vector<float> channel_means,
       int compute_unit, int precision);
  // Destroys the session, then closes the library.
  ~NNet();

  NNet(const NNet&) = delete;
  NNet& operator=(const NNet&) = delete;
  NNet(NNet&&) = delete;
  NNet& operator=(NNet&&) = delete;

  // Opens the model as the constructor describes; true when it is open and its input size
  // known.
  bool init_net(const std::string& model, const std::string& module,
                std::vector<std::string> output_layer_names, std::vector<float> channel_means,
                int compute_unit, int precision);

  // Fills the options record of the options-based open from the model string's extension
  // and the compute unit.
  void set_zeph_options(const std::string& model, const std::string& module,
                        std::vector<std::string> output_layer_names,
                        std::vector<float> channel_means, int compute_unit, int precision);

  // The network's input size, height first.
  void get_target_dimen(int& height, int& width);

  // The library's values of `layer_name` after a successful run, with its four dimensions
  // and format code (format 1 reordered to d0, d2, d3, d1); null when not open, after a
  // failed run or when the library has none. The values belong to the library.
  void* get_layer_output_with_format(const char* layer_name, int& d0, int& d1, int& d2, int& d3,
                                     int& format);

  // Runs the network once on `image` (left untouched): resized with a JPEG round trip unless
  // one side already matches the network, converted to float, 128 subtracted.
  bool forward_pass(cv::Mat image);

 private:
  // The library reference and the session made in it. Releasing destroys the session (even
  // a null one, which the library accepts) before closing the library.
  struct Library {
    void* handle = nullptr;
    InferenceSession session = nullptr;

    Library() = default;
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() { release(); }
    void release();
  };

  bool open_model(const std::string& model, const std::string& module,
                  const std::vector<std::string>& output_layer_names,
                  const std::vector<float>& channel_means, int compute_unit, int precision);

  Library library;
  std::string module_name;
  ZEPHInterface options;
  int width = 0;
  int height = 0;
  int channels = 3;
  bool is_open = false;
  bool last_run_ok = false;
  std::mutex lock;
  int compute_unit = 0;
};
