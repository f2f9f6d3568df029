// The exceptions of the camera link. Thrown by value, caught by reference, on any thread.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

namespace GEV {

/// A failed command or a refused operation. `Code` is one of the results in GevHelper.h.
class GevException : public std::runtime_error {
public:
    /// A general failure: the code is -1001.
    explicit GevException(const std::string& text);
    GevException(std::int32_t code, const char* text);
    GevException(const GevException& other);
    GevException& operator=(const GevException&) = delete;
    ~GevException() override;

    const char* what() const noexcept override;
    std::int32_t Code() const noexcept { return code_; }

private:
    std::int32_t number_ = 0;
    std::string detail_;
    std::int32_t code_;
};

/// A plain copy of an exception: it carries the text and nothing else, above all no code.
class PlainException : public std::exception {
public:
    explicit PlainException(const char* text) : text_(std::make_shared<const std::string>(text)) {}
    ~PlainException() override;

    const char* what() const noexcept override { return text_->c_str(); }

private:
    std::shared_ptr<const std::string> text_; ///< shared, so that copying does not throw
};

} // namespace GEV
