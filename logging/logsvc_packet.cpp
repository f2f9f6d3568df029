// Message packets. On the thread that logs.
#include "logging/logsvc_packet.h"

#include "logging/logsvc_client.h"
#include "platform/process.h"
#include "platform/thread.h"

#include <algorithm>
#include <functional>

namespace zuLogging::detail {

namespace {

/// Adds elements to the payload of a packet for as long as they fit.
class element_writer {
public:
    explicit element_writer(unsigned char* payload) : payload_(payload) {}

    std::size_t used() const { return used_; }
    std::uint16_t flags() const { return flags_; }

    /// Each of these returns whether the next element may follow.
    bool has_room() { return room() >= element::data || incomplete(); }

    bool add_bytes(std::uint8_t type, const void* data, std::size_t size)
    {
        if (size > room() - element::data)
            return incomplete();
        return put(type, data, size, false);
    }

    bool add_number(std::uint8_t type, std::uint64_t value) { return add_bytes(type, &value, sizeof value); }

    bool add_string(std::uint8_t type, std::string_view text) { return add_bytes(type, text.data(), text.size()); }

    bool add_text(const text_bytes& text)
    {
        const std::size_t taken = std::min(text.size, room() - element::data);
        if (taken < text.size)
            flags_ |= container::flag_text_cut;
        return put(element_text, text.begin, taken, text.wide);
    }

private:
    std::size_t room() const { return payload_capacity - used_; }

    bool incomplete()
    {
        flags_ |= container::flag_incomplete;
        return false;
    }

    bool put(std::uint8_t type, const void* data, std::size_t size, bool wide)
    {
        unsigned char* const at = payload_ + used_;
        put_field(at, element::length, static_cast<std::uint16_t>(size));
        at[element::type] = type;
        at[element::wide] = wide ? 1 : 0;
        if (size != 0)
            std::memcpy(at + element::data, data, size);
        used_ += element::data + size;
        return true;
    }

    unsigned char* payload_;
    std::size_t used_ = container::head;
    std::uint16_t flags_ = 0;
};

std::uint64_t time_of(const basic_msgstate& msg)
{
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1400, 1, 1));
    return static_cast<std::uint64_t>(
        (static_cast<const basic_timed_msgstate&>(msg).time - epoch).total_microseconds());
}

std::uint64_t process_id()
{
    static const std::uint64_t id = zuPlatform::currentProcessId();
    return id;
}

std::uint64_t code_page()
{
    static const std::uint64_t page = zuPlatform::narrowCodePage();
    return page;
}

std::uint64_t thread_id()
{
    thread_local const std::uint64_t id = zuPlatform::currentThreadId();
    return id;
}

bool add_records(element_writer& out, const std::vector<log_record>& records)
{
    return records.empty() || out.add_bytes(element_records, records.data(), records.size() * sizeof(log_record));
}

bool add_element(element_writer& out, std::uint8_t type, const basic_msgstate& msg, const text_bytes& text)
{
    if (type < element_text || type > element_code_page)
        throw LogSvcError("Invalid pattern used when constructing the log message container");
    if (!out.has_room())
        return false;
    switch (type) {
    case element_text:
        return out.add_text(text);
    case element_time:
        return out.add_number(type, time_of(msg));
    case element_path:
        return out.add_string(type, msg.log.path());
    case element_level:
        return out.add_number(type, msg.level);
    case element_group:
        return out.add_string(type, msg.group == all_groups ? std::string() : group_name(msg.group.value()));
    case element_location:
        return out.add_string(type, msg.location);
    case element_records:
        return add_records(out, msg.records);
    case element_process:
        return out.add_number(type, process_id());
    case element_thread:
        return out.add_number(type, thread_id());
    default:
        return out.add_number(type, code_page());
    }
}

} // namespace

template <typename Char>
text_bytes checked_text(const Char* begin, const Char* end)
{
    if (begin == nullptr || end == nullptr || std::less<const Char*>()(end, begin))
        throw LogSvcError("Constructing an input log message container from inconstant data");
    return {begin, static_cast<std::size_t>(end - begin) * sizeof(Char), sizeof(Char) != 1};
}

template text_bytes checked_text(const char*, const char*);
template text_bytes checked_text(const char16_t*, const char16_t*);
template text_bytes checked_text(const wchar_t*, const wchar_t*);

std::size_t build_message(packet& buffer, std::uint16_t command, std::uint16_t id, std::uint64_t sequence,
                          const pattern& order, const basic_msgstate& msg, const text_bytes& text)
{
    unsigned char* const header = buffer.data();
    unsigned char* const payload = header + packet_header::size;
    std::memset(payload, 0, container::head);
    put_field(payload, container::sequence, sequence);
    put_field(payload, container::sequence_again, sequence);

    element_writer out(payload);
    for (const std::uint8_t type : order)
        if (!add_element(out, type, msg, text))
            break;
    const unsigned records_flag = msg.records.empty() ? 0 : container::flag_records;
    put_field(payload, container::flags, static_cast<std::uint16_t>(out.flags() | records_flag));
    put_field(payload, container::total, static_cast<std::uint16_t>(out.used()));

    std::memset(header, 0, packet_header::size);
    put_field(header, packet_header::magic, message_magic);
    put_field(header, packet_header::command, command);
    put_field(header, packet_header::id, id);
    put_field(header, packet_header::length, static_cast<std::uint16_t>(out.used()));
    return packet_header::size + out.used();
}

} // namespace zuLogging::detail
