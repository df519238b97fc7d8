// A camera Frame brought into a layout the engine's fixed routines take: tightly packed
// full-range NV21 for YUV, tightly packed BGR or RGBA otherwise. Frames already in such a
// layout are passed through without a copy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "artifact_detector.h"
#include "detector.h"

namespace artifact_detector {

// Why `frame` cannot be read, or "" when it can.
std::string frame_problem(const Frame& frame);

// A frame as one of the engine's buffer layouts; `bytes` points at the caller's memory or
// at `scratch`.
struct EngineInput {
  const uint8_t* bytes = nullptr;
  ArtifactDetector::ImageFormat format = ArtifactDetector::NV21;
  bool copied = false;
};

// `frame` (which frame_problem accepts) in an engine layout, repacked into `scratch` when
// it has to be.
EngineInput engine_input(const Frame& frame, std::vector<uint8_t>& scratch);

// Repacks a YUV frame (NV21, NV12 or YUV_420_888, any strides, either range) into tightly
// packed full-range NV21 of width x height x 3 / 2 bytes.
void repack_nv21(const Frame& frame, uint8_t* nv21);

}  // namespace artifact_detector
