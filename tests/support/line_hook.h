// Something that a test does at the moment of a log line, on the thread that logs.
#pragma once

#include "logging/logtarget.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace zuTest {

/// Has `call` called with each line's text, behind the targets that are there. For the life of the `LogRecorder` that
/// stands before it.
inline void onLogLine(std::function<void(const std::string& text)> call)
{
    struct Hook : zuLogging::basic_logtarget {
        explicit Hook(std::function<void(const std::string&)> call_) : call(std::move(call_)) {}
        void write(const zuLogging::basic_msgstate&, const wchar_t*, const wchar_t*) override {}
        void write(const zuLogging::basic_msgstate&, const char* begin, const char* end) override
        {
            call(std::string(begin, end));
        }
        std::function<void(const std::string&)> call;
    };
    zuLogging::add_plain_target(std::make_shared<Hook>(std::move(call)));
}

} // namespace zuTest
