// The studies of a run; each adds its rows to the results.
//   allround:   every selected filter, type, size, mask, tag and thread count;
//   acceptance: the acceptance set (4096 x 4096, uint8 and float32, rect3,
//               rect5, disk7 and line21h, imdilate, imopen and imtophat,
//               2 threads) on every tag this processor runs;
//   growth:     imdilate uint8 at 4096 x 4096 and 1 thread against the mask
//               side, squares, disks and both lines, 3 to 63.
#pragma once

#include "options.h"
#include "results.h"

namespace bench {

void run_allround(const Options &options, Results &results);
void run_acceptance(const Options &options, Results &results);
void run_growth(const Options &options, Results &results);

}  // namespace bench
