#pragma once

#include <functional>
#include <string_view>

namespace corvane {

// Receives written text piece by piece, in order; false stops the writer.
using TextSink = std::function<bool(std::string_view)>;

}  // namespace corvane
