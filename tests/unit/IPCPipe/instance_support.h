// What the tests of an instance share.
#pragma once

#include "tests/unit/IPCPipe/pipe_support.h"

#include <sstream>
#include <string>

namespace zuTest {

inline std::string pointerText(const void* pointer)
{
    std::ostringstream text;
    text << pointer;
    return text.str();
}

/// A Send on a thread of its own.
struct PendingSend {
    PendingSend(zuIPCPipe::CInstance& instance, Bytes data, std::size_t room, std::uint32_t timeout = 20000)
        : payload(std::move(data)), reply(room, 0xEE), replyLength(room),
          words(std::async(std::launch::async, [this, &instance, timeout] {
              return thrown([&] { instance.Send(payload.data(), payload.size(), reply.data(), replyLength, timeout); });
          }))
    {
    }
    Bytes payload;
    Bytes reply;
    std::size_t replyLength;
    std::future<std::string> words;
};

} // namespace zuTest
