#pragma once

#include <stdexcept>
#include <string>

namespace Vexa {

// Service-wide failure; the text names the function or step that failed.
class vexa_error : public std::runtime_error {
public:
    explicit vexa_error(const std::string& what) : std::runtime_error(what) {}
};

} // namespace Vexa
