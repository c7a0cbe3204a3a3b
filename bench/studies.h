// The three studies of a run; each adds its rows to the report.
//   cases:  every selected filter, type, size, mask, tag and thread count;
//   growth: imdilate uint8 against the number of active mask elements, for
//           squares, disks and horizontal lines of odd sides 3 to 31;
//   small:  64 x 64 images, imopen against imerode then imdilate (the cost of
//           the two-stage filter's intermediate allocation).
#pragma once

#include "options.h"
#include "report.h"

namespace bench {

void run_cases(const Options &options, Report &report);
void run_growth(const Options &options, Report &report);
void run_small(const Options &options, Report &report);

}  // namespace bench
