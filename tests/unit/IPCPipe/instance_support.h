// What the tests of an instance share.
#pragma once

#include "tests/support/pointer_text.h"
#include "tests/unit/IPCPipe/pipe_support.h"

#include <string>

namespace zuTest {

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
