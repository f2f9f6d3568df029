// The exceptions of the camera link.
#include "GevTLBase/GevException.h"

#include "GevTLBase/GevHelper.h"

namespace GEV {

GevException::GevException(const std::string& text) : std::runtime_error(text), code_(resultCode::generalError) {}

GevException::GevException(std::int32_t code, const char* text) : std::runtime_error(text), code_(code) {}

GevException::GevException(const GevException& other)
    : std::runtime_error(other), number_(other.number_), detail_(other.detail_), code_(other.code_)
{
}

GevException::~GevException() = default;

const char* GevException::what() const noexcept { return std::runtime_error::what(); }

PlainException::~PlainException() = default;

} // namespace GEV
