// The frames every build of the image kernels is checked on, shared by the host test and the
// AArch64 driver: ragged widths around the 16-column blocks, every chroma pair, turns and area
// reductions.
#pragma once

#include <vector>

#include "support/frame_buffers.h"

namespace ad_test {

struct FrameCase {
  int width, height;
  Pixels kind;
};

inline std::vector<FrameCase> conversion_cases() {
  // Every chroma pair through vector columns, through scalar columns, through both.
  std::vector<FrameCase> cases = {{16, 16384, Pixels::ChromaSweep},
                                  {8, 32768, Pixels::ChromaSweep},
                                  {514, 512, Pixels::ChromaSweep},
                                  {1920, 1080, Pixels::Extreme}};
  for (int w = 2; w <= 66; w += 2)
    cases.insert(cases.end(), {{w, 6, Pixels::Random}, {w, 4, Pixels::Extreme}});
  for (int w : {94, 98, 126, 128, 130, 254, 256, 258, 642, 1002})
    cases.insert(cases.end(), {{w, 10, Pixels::Random}, {w, 2, Pixels::Extreme}});
  return cases;
}

// Frames turned by every quarter.
inline const int kTurnSizes[][2] = {{2, 2},    {16, 16},  {18, 34},  {34, 18},  {66, 50},
                                    {130, 66}, {642, 34}, {32, 100}, {642, 482}};

// Width, height, then the target's; odd frames only as B,G,R.
inline const int kAreaCases[][4] = {
    {64, 48, 40, 30},   {66, 50, 20, 18},     {130, 98, 17, 23},      {34, 18, 11, 7},
    {18, 34, 5, 9},     {250, 240, 224, 224}, {642, 482, 224, 224},   {320, 180, 224, 101},
    {48, 1000, 3, 224}, {1000, 48, 224, 3},   {1920, 1080, 224, 224}, {101, 77, 31, 29},
    {257, 33, 19, 32}};

}  // namespace ad_test
