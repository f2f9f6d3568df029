// The packet of one message for the log service: a container of elements in the order of a pattern, cut to fit one
// datagram. Allocates nothing for the packet. Stateless.
#pragma once

#include "logging/logstream.h"
#include "logging/logsvc_exchange.h"

#include <string_view>
#include <vector>

namespace zuLogging::detail {

/// Types of elements.
inline constexpr std::uint8_t element_text = 1;
inline constexpr std::uint8_t element_time = 2; ///< microseconds since 1400-Jan-01 00:00:00
inline constexpr std::uint8_t element_path = 3;
inline constexpr std::uint8_t element_level = 4;
inline constexpr std::uint8_t element_group = 5;
inline constexpr std::uint8_t element_location = 6;
inline constexpr std::uint8_t element_records = 7;
inline constexpr std::uint8_t element_process = 8;
inline constexpr std::uint8_t element_thread = 9;
inline constexpr std::uint8_t element_code_page = 10;

using pattern = std::vector<std::uint8_t>;

/// Offsets in the container, which is the payload.
namespace container {
inline constexpr std::size_t total = 0; ///< size of head and elements
inline constexpr std::size_t flags = 2;
inline constexpr std::size_t sequence = 4;
inline constexpr std::size_t sequence_again = 12;
inline constexpr std::size_t head = 28; ///< with 8 reserved bytes at its end

inline constexpr std::uint16_t flag_incomplete = 0x1; ///< an element did not fit; it and all after it are missing
inline constexpr std::uint16_t flag_text_cut = 0x2;
inline constexpr std::uint16_t flag_records = 0x4; ///< the message has records, whether they fit or not
} // namespace container

/// Offsets in an element.
namespace element {
inline constexpr std::size_t length = 0; ///< of the data
inline constexpr std::size_t type = 2;
inline constexpr std::size_t wide = 3; ///< 1 if the text is UTF-16
inline constexpr std::size_t data = 4;
} // namespace element

/// Text as its bytes.
struct text_bytes {
    const void* begin;
    std::size_t size;
    bool wide;
};

/// Fills `buffer` and returns the packet's size. `msg` is a `basic_timed_msgstate`. Throws `LogSvcError` for a type
/// that is none in `order`, `std::invalid_argument` for a group that is not registered.
std::size_t build_message(packet& buffer, std::uint16_t command, std::uint16_t id, std::uint64_t sequence,
                          const pattern& order, const basic_msgstate& msg, const text_bytes& text);

/// The text from `begin` to `end`. Throws `LogSvcError` unless they are a range.
template <typename Char>
text_bytes checked_text(const Char* begin, const Char* end);

} // namespace zuLogging::detail
