// /metrics in the Prometheus text format, made from a snapshot of the node's numbers.
#pragma once

#include <string>

#include "console/console_model.h"

namespace qx {

std::string FormatMetrics(const ConsoleMetrics& m);

}  // namespace qx
