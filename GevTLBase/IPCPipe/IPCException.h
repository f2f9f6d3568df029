// The exceptions of the pipe. Which class a failure gets is part of the contract, also where its name and the words
// do not match, so callers may tell failures apart by class and by text.
#pragma once

#include <stdexcept>
#include <string>

namespace zuIPCPipe {

class IPCException : public std::runtime_error {
public:
    explicit IPCException(const std::string& message) : std::runtime_error(message) {}
};

class IPCTimeoutException : public IPCException {
public:
    explicit IPCTimeoutException(const std::string& message) : IPCException(message) {}
};

class IPCSocketException : public IPCException {
public:
    explicit IPCSocketException(const std::string& message) : IPCException(message) {}
};

class IPCAbortException : public IPCException {
public:
    explicit IPCAbortException(const std::string& message) : IPCException(message) {}
};

} // namespace zuIPCPipe
